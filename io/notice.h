// Notices that the user must see: the small modal dialogs "Important Notice" and
// "Warning" of the desktop program. The core only raises them; whoever runs the core
// decides how they appear. The desktop program connects its dialog (with the beep); the
// command-line tool and the tests keep the default, which prints the text to stderr.
#pragma once

#include <functional>
#include <string>

enum PcdNoticeKind : int {
  PCD_NOTICE_IMPORTANT = 0,  // the "Important Notice" dialog
  PCD_NOTICE_WARNING = 1,    // the "Warning" dialog used for file-format refusals
};

struct PcdNotice {
  PcdNoticeKind kind;
  std::string title;  // "Important Notice" or "Warning"
  std::string text;
  int width;   // dialog size in pixels, as the caller asks for it
  int height;
};

using PcdNoticeHandler = std::function<void(const PcdNotice&)>;

// Replaces the handler; an empty handler restores the default (stderr). Returns the
// handler that was installed before, so a caller can put it back.
PcdNoticeHandler PCD_SetNoticeHandler(PcdNoticeHandler handler);

// Raises a notice through the current handler. Safe to call from any thread; the
// handler itself runs on the calling thread.
void PCD_Notice(PcdNoticeKind kind, const char* title, const char* text, int width = 240,
                int height = 100);

// Title that belongs to a kind ("Important Notice" / "Warning").
const char* PCD_NoticeTitle(PcdNoticeKind kind);
