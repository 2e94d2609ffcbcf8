// The ROI palette frame: a larger axial pane where regions are painted on four palettes
// (seed, target, avoidance and plain ROI) over the shown channel, and the commands of
// "/Special/ROI palette frame": the channel shown (First, Last, Next, Previous), "Upload
// current channel", "Adjust greyscale" and "Export ROI to editor".
#pragma once

#include <gtk/gtk.h>

#include <cstdint>
#include <string>
#include <vector>

#include "study/roi_object.h"

enum PcdPaletteKind : int32_t { PCD_PALETTE_SEED, PCD_PALETTE_TARGET, PCD_PALETTE_AVOIDANCE, PCD_PALETTE_ROI };
constexpr int kPcdPaletteCount = 4;

enum PcdPaletteChannelStep : guint { PCD_CHANNEL_FIRST, PCD_CHANNEL_LAST, PCD_CHANNEL_NEXT, PCD_CHANNEL_PREVIOUS };

// One mask per palette over the whole volume (x fastest, 1 inside).
struct PcdRoiPalette {
  PcdIntSize3D size{0, 0, 0};
  std::vector<uint8_t> masks[kPcdPaletteCount];
  int32_t current = PCD_PALETTE_SEED;
};

// The channel after a step, within 0 .. count - 1.
int32_t PCDview_StepChannel(int32_t channel, int32_t count, guint step);

// Makes a voxelgroup ROI of every palette that holds voxels, labelled "Imported seed of
// %s", "Imported target of %s", "Imported avoidance of %s" or "Imported ROI of %s" with
// name. The number of ROIs made.
int PCDview_ExportPaletteToRois(const PcdRoiPalette* palette, PcdRoiList* rois, const char* name);

// The menu commands (main menu table callbacks).
void cmd_palette_channel(gpointer, guint step, GtkWidget*);
void cmd_palette_upload(gpointer, guint, GtkWidget*);
void cmd_palette_adjust_greyscale(gpointer, guint, GtkWidget*);
void cmd_palette_export(gpointer, guint, GtkWidget*);

bool PCDview_OpenPaletteFrame();
void PCDview_ClosePaletteFrame();
void PCDview_RedrawPaletteFrame();
// The frame's palettes (null while the frame was never opened).
PcdRoiPalette* PCDview_GetRoiPalette();
// The frame's pane widget and its image (tests read what it shows).
GtkWidget* PCDview_GetPaletteArea();
cairo_surface_t* PCDview_GetPaletteImage();
