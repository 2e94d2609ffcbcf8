// What the slice views share: the drawing context made on the main window once it is
// realised (the window, the text font, the pen) and the display scales derived from the
// width of the current volume.
#pragma once

#include <gtk/gtk.h>

#include <cstdint>

constexpr int kPcdViewScaleCount = 7;

struct PcdViewContext {
  GdkWindow* window = nullptr;            // the main window's, referenced
  PangoFontDescription* font = nullptr;   // text drawn into the views
  GdkRGBA pen = {1.0, 1.0, 1.0, 1.0};
  double lineWidth = 1.0;
  // s = width / 256: 1.5 s, s, s, 0.5 s, 2 s, 3 s, 4 s
  float scales[kPcdViewScaleCount] = {1.5f, 1.0f, 1.0f, 0.5f, 2.0f, 3.0f, 4.0f};
};

// Made on a realised top-level widget; null when it is not realised.
PcdViewContext* PCD_NewViewContext(GtkWidget* toplevel, const PangoFontDescription* font);
void PCD_DeleteViewContext(PcdViewContext* context);

// Derives the display scales from the volume's width in voxels.
void PCD_SetViewScales(PcdViewContext* context, int32_t volumeWidth);

