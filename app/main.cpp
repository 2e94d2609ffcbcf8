// quorix [SERVER_NUMBER]: the desktop program, attached to the PELLUCID viewer server of
// that number (0 without an argument).
//
// With QUORIX_AUTOPILOT=DIR in the environment the program runs unattended: every dialog
// is saved as DIR/dialog-N.png and answered with its default, the main window is saved
// as DIR/main-window.png once drawn, and the program quits (for demonstrations and
// checks on machines without a user).
//
// With QUORIX_DEMO=1 (or =all) the program first runs the newcomer's demonstration on the
// data set (see app/demo.h): with a display it stays open on that state; with the
// autopilot it also saves its screenshots before it quits.
#include <gtk/gtk.h>

#include <clocale>
#include <cstdlib>
#include <string>

#include "app/demo.h"
#include "app/services/app_state.h"
#include "app/services/dialogs.h"
#include "app/main_window.h"
#include "app/startup.h"

namespace {

void SaveWindow(GtkWidget* widget, const std::string& path) {
  GdkWindow* window = gtk_widget_get_window(widget);
  if (window == nullptr) return;
  GdkPixbuf* shot = gdk_pixbuf_get_from_window(window, 0, 0, gdk_window_get_width(window),
                                               gdk_window_get_height(window));
  if (shot == nullptr) return;
  gdk_pixbuf_save(shot, path.c_str(), "png", nullptr, nullptr);
  g_object_unref(shot);
}

std::string g_autopilot;
std::string g_demo;

gboolean SaveAndQuit(gpointer) {
  if (!g_demo.empty()) PCD_RunDemo({.shotDir = g_autopilot, .allKinds = g_demo == "all"});
  if (g_autopilot.empty()) return G_SOURCE_REMOVE;  // the demonstration stays on screen
  SaveWindow(pcd_app->window, g_autopilot + "/main-window.png");
  PCD_LeaveMainLoop();
  return G_SOURCE_REMOVE;
}

// The main window is saved once it has been drawn, however long a busy machine takes to
// get there; a fixed delay saved an empty picture under load.
gboolean SaveOnceDrawn(GtkWidget* window, cairo_t*, gpointer) {
  g_signal_handlers_disconnect_by_func(window, reinterpret_cast<gpointer>(SaveOnceDrawn), nullptr);
  g_idle_add_full(G_PRIORITY_LOW, SaveAndQuit, nullptr, nullptr);
  return FALSE;
}

void StartAutopilot() {
  PCD_SetDialogResponder([](const PcdDialogSeen& seen) {
    static int n = 0;
    SaveWindow(seen.window, g_autopilot + "/dialog-" + std::to_string(++n) + ".png");
    PcdDialogAnswer answer;
    answer.code = seen.kind == PcdDialogKind::Confirm ? kPcdConfirmYes
                  : seen.kind == PcdDialogKind::Value ? kPcdValueOk
                                                      : kPcdDialogCancel;
    answer.text = seen.initialText;
    return answer;
  });
}

}  // namespace

int main(int argc, char** argv) {
  gtk_disable_setlocale();  // numbers in files and on the console stay in the "C" form
  std::setlocale(LC_ALL, "");
  std::setlocale(LC_NUMERIC, "C");
  if (!gtk_init_check(&argc, &argv)) return 0;
  if (const char* dir = std::getenv("QUORIX_AUTOPILOT")) {
    g_autopilot = dir;
    StartAutopilot();
  }
  if (PCD_InitializeApplication(argc, argv) == 0) return 0;
  if (const char* demo = std::getenv("QUORIX_DEMO")) g_demo = demo;
  if (!g_autopilot.empty() || !g_demo.empty()) {
    g_signal_connect_after(pcd_app->window, "draw", G_CALLBACK(SaveOnceDrawn), nullptr);
    gtk_widget_queue_draw(pcd_app->window);  // drawn once more even if a dialog drew it already
  }
  gtk_main();
  PCD_CleanUpApplication();
  return 0;
}
