#include "app/gradient_check_menu.h"

#include <algorithm>
#include <cstdio>
#include <string>
#include <thread>
#include <vector>

#include "app/services/app_state.h"
#include "app/services/dialogs.h"
#include "app/services/status_line.h"
#include "dti/gradient_check.h"

namespace {

// The verdict and the best few candidates as lines of a dialog.
std::string Describe(const PcdGradientCheck& check) {
  std::string text;
  if (check.tableIsBest) {
    text = "The table as given is best.\n\n";
  } else {
    const PcdGradientCandidate& best = check.candidates[static_cast<size_t>(check.best)];
    text = "The table needs correcting: " + PCDdti_DescribeGradientCandidate(best) + " (same as " +
           PCDdti_DescribeEquivalentCandidate(best) + ").\n\n";
  }
  std::vector<size_t> order(check.candidates.size());
  for (size_t i = 0; i < order.size(); ++i) order[i] = i;
  std::stable_sort(order.begin(), order.end(), [&](size_t a, size_t b) {
    return check.candidates[a].meanLength > check.candidates[b].meanLength;
  });
  text += "mean fiber length from " + std::to_string(check.seedCount) + " seeds:\n";
  for (size_t k = 0; k < std::min<size_t>(4, order.size()); ++k) {
    char line[96];
    std::snprintf(line, sizeof line, "  %-8s %7.2f mm%s\n", PCDdti_DescribeGradientCandidate(check.candidates[order[k]]).c_str(),
                  check.candidates[order[k]].meanLength, order[k] == 0 ? "  (as given)" : "");
    text += line;
  }
  return text;
}

}  // namespace

void cmd_check_gradient_table(gpointer, guint, GtkWidget*) {
  PcdDtiData* dti = pcd_app->session.dti;
  if (dti == nullptr || dti->isReady != 1) {
    PCD_ShowNotice(kPcdGradientCheckTitle, "The MPG setting is not ready.", 300, 100);
    return;
  }
  PcdGradientCheckOptions options;
  options.threads = static_cast<int32_t>(std::max(1u, std::thread::hardware_concurrency()));
  PcdGradientCheck check;
  if (!PCDdti_CheckGradientTable(dti, options, &check)) {
    PCD_ShowNotice(kPcdGradientCheckTitle, "The gradient table cannot be checked on this data set\n(see the console).", 340, 110);
    return;
  }
  const std::string text = Describe(check);
  if (check.tableIsBest) {
    PCD_ShowNotice(kPcdGradientCheckTitle, text.c_str(), 340, 200);
    PCD_SetStatus("Gradient table: as given is best.");
    return;
  }
  if (PCD_AskConfirmation(kPcdGradientCheckTitle, (text + "\nCorrect the MPG setting?").c_str(), 340, 230) != kPcdConfirmYes)
    return;
  PCDdti_ApplyGradientCandidate(check.candidates[static_cast<size_t>(check.best)], dti);
  PCDdti_DumpMPGvectorSetting(dti);
  PCD_SetStatus("MPG setting corrected; compute the channels again.");
}

GtkWidget* PCD_AddGradientCheckItem(const PcdMenuBar& menu) {
  // the branch itself is no entry of the table; its separator is, and lies in its menu
  GtkWidget* separator = PCD_FindMenuItem(menu, "/Setting/MPG/sep1");
  GtkWidget* submenu = separator != nullptr ? gtk_widget_get_parent(separator) : nullptr;
  if (submenu == nullptr || !GTK_IS_MENU_SHELL(submenu)) return nullptr;
  gtk_menu_shell_append(GTK_MENU_SHELL(submenu), gtk_separator_menu_item_new());
  GtkWidget* item = gtk_menu_item_new_with_label(kPcdGradientCheckLabel);
  g_signal_connect(item, "activate", G_CALLBACK(+[](GtkMenuItem*, gpointer) { cmd_check_gradient_table(nullptr, 0, nullptr); }), nullptr);
  gtk_menu_shell_append(GTK_MENU_SHELL(submenu), item);
  gtk_widget_show_all(submenu);
  return item;
}
