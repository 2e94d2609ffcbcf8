#include "study/gui/region_page.h"

#include <algorithm>
#include <string>

#include "app/services/app_state.h"
#include "study/gui/study_performer.h"

namespace {

enum Column { kUse, kNumber, kLabel, kId };

// Ticking a ROI lists it at once: the study announces it, which locks it.
void on_use_toggled(GtkCellRendererToggle*, gchar* pathText, gpointer data) {
  auto* page = static_cast<PcdRegionPage*>(data);
  GtkTreeIter iter;
  if (!gtk_tree_model_get_iter_from_string(GTK_TREE_MODEL(page->store), &iter, pathText)) return;
  gboolean use = FALSE;
  gtk_tree_model_get(GTK_TREE_MODEL(page->store), &iter, kUse, &use, -1);
  gtk_list_store_set(page->store, &iter, kUse, !use, -1);
  // a ROI ticked is a ROI the user wants the region to be: the kind follows
  if (!use) PCD_SetRadioCode(page->kind, kPcdRegionListed);
  PCD_StoreStudyPanel();
  PCD_AnnounceStudyRois();
}

// A region switched on or off, or given another kind, shows as such in the views at once.
void on_region_setting_toggled(GtkToggleButton* button, gpointer) {
  const bool radio = GTK_IS_RADIO_BUTTON(button);
  if (!radio || gtk_toggle_button_get_active(button)) PCD_StudyPanelEdited();
}

}  // namespace

std::unique_ptr<PcdRegionPage> PCD_NewRegionPage(bool listed, bool withUse) {
  auto page = std::make_unique<PcdRegionPage>();
  GtkWidget* box = gtk_box_new(GTK_ORIENTATION_VERTICAL, 2);
  gtk_container_set_border_width(GTK_CONTAINER(box), 2);
  if (withUse) {
    page->use = gtk_check_button_new_with_label(" use this region ");
    gtk_box_pack_start(GTK_BOX(box), page->use, FALSE, FALSE, 0);
  }
  page->kind = PCD_NewRadioGroup(nullptr, listed ? kPcdTractRegionChoices : kPcdVoxelRegionChoices, false);
  gtk_box_pack_start(GTK_BOX(box), page->kind.widget, FALSE, FALSE, 0);
  for (GtkWidget* button : page->kind.buttons)
    g_signal_connect(button, "toggled", G_CALLBACK(on_region_setting_toggled), nullptr);
  if (page->use) g_signal_connect(page->use, "toggled", G_CALLBACK(on_region_setting_toggled), nullptr);
  {  // every region kind table offers "Listed": the ROIs ticked here
    page->store = gtk_list_store_new(4, G_TYPE_BOOLEAN, G_TYPE_STRING, G_TYPE_STRING, G_TYPE_UINT);
    page->list = gtk_tree_view_new_with_model(GTK_TREE_MODEL(page->store));
    g_object_unref(page->store);
    GtkCellRenderer* toggle = gtk_cell_renderer_toggle_new();
    g_signal_connect(toggle, "toggled", G_CALLBACK(on_use_toggled), page.get());
    gtk_tree_view_append_column(GTK_TREE_VIEW(page->list),
                                gtk_tree_view_column_new_with_attributes("Use", toggle, "active", kUse, nullptr));
    const char* titles[2] = {" # ", " label     "};
    for (int i = 0; i < 2; ++i)
      gtk_tree_view_append_column(
          GTK_TREE_VIEW(page->list),
          gtk_tree_view_column_new_with_attributes(titles[i], gtk_cell_renderer_text_new(), "text", kNumber + i, nullptr));
    GtkWidget* scroll = gtk_scrolled_window_new(nullptr, nullptr);
    gtk_scrolled_window_set_policy(GTK_SCROLLED_WINDOW(scroll), GTK_POLICY_AUTOMATIC, GTK_POLICY_AUTOMATIC);
    gtk_scrolled_window_set_shadow_type(GTK_SCROLLED_WINDOW(scroll), GTK_SHADOW_IN);
    gtk_container_add(GTK_CONTAINER(scroll), page->list);
    gtk_box_pack_start(GTK_BOX(box), scroll, TRUE, TRUE, 0);
  }
  page->widget = box;
  return page;
}

void PCD_LoadRegionPage(PcdRegionPage* page, const PcdStudyRegion& region, int32_t kind) {
  if (page->use) gtk_toggle_button_set_active(GTK_TOGGLE_BUTTON(page->use), region.use == kPcdRegionInUse);
  PCD_SetRadioCode(page->kind, kind);
  if (page->store == nullptr) return;
  gtk_list_store_clear(page->store);
  const int32_t count = std::clamp(region.idCount, 0, kPcdRegionMaxIds);
  for (const auto& roi : pcd_app->session.rois.items) {
    const bool listed = std::find(region.ids, region.ids + count, roi->id) != region.ids + count;
    GtkTreeIter iter;
    gtk_list_store_append(page->store, &iter);
    const std::string number = std::to_string(roi->id);
    gtk_list_store_set(page->store, &iter, kUse, listed, kNumber, number.c_str(), kLabel, roi->label, kId,
                       static_cast<guint>(roi->id), -1);
  }
}

int32_t PCD_StoreRegionPage(const PcdRegionPage* page, PcdStudyRegion* region) {
  if (page->use) region->use = gtk_toggle_button_get_active(GTK_TOGGLE_BUTTON(page->use)) ? kPcdRegionInUse : 0;
  if (page->store != nullptr) {
    std::vector<uint16_t> ids;
    GtkTreeModel* model = GTK_TREE_MODEL(page->store);
    GtkTreeIter iter;
    for (gboolean ok = gtk_tree_model_get_iter_first(model, &iter); ok; ok = gtk_tree_model_iter_next(model, &iter)) {
      gboolean use = FALSE;
      guint id = 0;
      gtk_tree_model_get(model, &iter, kUse, &use, kId, &id, -1);
      if (use && ids.size() < static_cast<size_t>(kPcdRegionMaxIds)) ids.push_back(static_cast<uint16_t>(id));
    }
    std::fill(std::begin(region->ids), std::end(region->ids), 0);
    std::copy(ids.begin(), ids.end(), region->ids);
    region->idCount = static_cast<int32_t>(ids.size());
  }
  return PCD_GetRadioCode(page->kind);
}
