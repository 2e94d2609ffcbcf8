#include "io/notice.h"

#include <cstdio>
#include <mutex>

namespace {

std::mutex g_handler_mutex;
PcdNoticeHandler g_handler;  // empty: print to stderr

// Without a dialog the text goes to the console: a warning as one "Warning: " line, an
// important notice as it stands (its text carries its own layout).
void print_notice(const PcdNotice& notice) {
  if (notice.kind == PCD_NOTICE_WARNING) {
    std::fprintf(stderr, "Warning: %s\n", notice.text.c_str());
  } else {
    std::fprintf(stderr, "%s\n", notice.text.c_str());
  }
}

}  // namespace

PcdNoticeHandler PCD_SetNoticeHandler(PcdNoticeHandler handler) {
  std::lock_guard<std::mutex> lock(g_handler_mutex);
  PcdNoticeHandler previous = std::move(g_handler);
  g_handler = std::move(handler);
  return previous;
}

void PCD_Notice(PcdNoticeKind kind, const char* title, const char* text, int width,
                int height) {
  PcdNotice notice{kind, title != nullptr ? title : PCD_NoticeTitle(kind),
                   text != nullptr ? text : "", width, height};
  PcdNoticeHandler handler;
  {
    // Copy under the lock and call outside it: a handler may itself replace the handler.
    std::lock_guard<std::mutex> lock(g_handler_mutex);
    handler = g_handler;
  }
  if (handler) {
    handler(notice);
  } else {
    print_notice(notice);
  }
}

const char* PCD_NoticeTitle(PcdNoticeKind kind) {
  return kind == PCD_NOTICE_WARNING ? "Warning" : "Important Notice";
}
