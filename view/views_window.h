// The views window beside the main window: four slice view panes (at first axial,
// sagittal, coronal and oblique), each with its own 8-entry menu bar, slice and zoom
// controls, sharing one 3D cursor, the shown channel and the grey mapping. A click moves
// the cursor in every pane and tells the viewer; while the ROI editor is the current page
// the mouse draws the selected ROI instead, and while a study region palette (seed,
// target, avoidance) is chosen elsewhere it draws the selected study's region: a sphere
// by a drag from its centre, or a closed contour when the region is a freehand one.
#pragma once

#include <gtk/gtk.h>

#include <functional>
#include <string>
#include <vector>

#include "app/services/menu.h"
#include "app/services/notices.h"
#include "view/pane_render.h"
#include "view/roi_drawing.h"
#include "view/slice_pane.h"

constexpr int kPcdViewPaneCount = 4;
constexpr int kPcdPaneMenuEntryCount = 8;
constexpr int kPcdPaneSize = 256;

// The five pane menus, chosen by the kind a pane shows first.
extern const PcdMenuEntry kPcdPaneMenus[kPcdPaneKindCount][kPcdPaneMenuEntryCount];

struct PcdViewPane {
  int index = 0;
  PcdSlicePane pane;
  GtkWidget* box = nullptr;
  GtkWidget* area = nullptr;
  GtkWidget* slice = nullptr;      // slice spin button (axis-aligned panes)
  GtkWidget* zoom = nullptr;       // display scale choice
  GtkWidget* tilt = nullptr;       // oblique angles and the e1 switch
  GtkWidget* turn = nullptr;
  GtkWidget* alongE1 = nullptr;
  GtkWidget* radius = nullptr;     // spherical pane
  PcdMenuBar menu;
  cairo_surface_t* image = nullptr;  // what the pane shows, drawn on every redraw
  PcdGreyTable table;
  PcdPaneGeometry geometry;
  // a mouse gesture under way
  enum class Gesture { None, Sphere, Freehand, Paint, Erase, Box, RegionSphere, RegionFreehand } gesture =
      Gesture::None;
  PcdVector3D pressVoxel{0, 0, 0};
  uint16_t regionStudy = kPcdNoObject;  // the study and region being drawn
  int32_t region = -1;
  std::vector<PcdVector2D> contour;
};

// How one channel's values become greys: the user's adjustment once there is one, else
// a window fitted to the channel's own values when it is first shown. data is the
// channel's samples the window was made for (a channel computed anew is fitted anew).
struct PcdGreyWindow {
  float low = 0.0f, high = 0.0f;
  const void* data = nullptr;
  bool adjusted = false;
};

struct PcdViewsState {
  GtkWidget* window = nullptr;
  GtkWidget* channel = nullptr;  // shown channel (1-based in the spin button)
  GtkWidget* brush = nullptr;    // brush radius for voxel groups, voxels
  GtkWidget* palette = nullptr;  // the study region palette: none, seed, target, avoidance
  int32_t regionPalette = -1;    // PCD_PALETTE_SEED, _TARGET, _AVOIDANCE; -1 for none
  PcdRoiList regionOverlays;     // the selected study's drawn regions, as they are drawn
  PcdViewPane panes[kPcdViewPaneCount];
  PcdIntVector3D cursor{0, 0, 0};
  int32_t channelIndex = 0;
  std::vector<PcdGreyWindow> greyWindows;  // by channel of the shown data set
  PcdIntVector3D boxOrigin{0, 0, 0};
  PcdIntSize3D boxSize{0, 0, 0};
  PcdRoiEditHistory history;
  const void* volumeSeen = nullptr;  // the data set the cursor and box were fitted to
  bool updatingControls = false;     // controls being set from the state, not by the user
  int redraws = 0;                   // panes drawn so far (tests wait for it)
};

extern PcdViewsState* pcd_views;

// Builds and shows the window (once); false without a display.
bool PCDview_OpenViewsWindow();
void PCDview_CloseViewsWindow();
// Redraws every pane (after the data set, a ROI or a study result changed).
void PCDview_Redraw();

// Moves the cursor (clamped to the volume), redraws, writes the status line and, when
// asked, sends the position to the viewer (request 464).
void PCDview_SetCursor(const PcdIntVector3D& cursor, bool tellViewer);
// Sets the box VOI (clipped to the volume), shows it and sends it to the viewer, as a
// Ctrl-drag in a pane does.
void PCDview_SetBoxVoi(const PcdIntVector3D& origin, const PcdIntSize3D& size);
// The channel shown (clamped to the volume's channels).
void PCDview_SetChannel(int32_t channel);
int32_t PCDview_GetChannel();
// The grey window of a channel: the user's adjustment, else 1 % .. 99 % of the channel's
// non-zero values, fitted once (so a 16-bit So of 8000 is not a white blob).
PcdGreyWindow PCDview_GetGreyWindow(int32_t channel);
// The user's adjustment of a channel's window, kept while the channel is there.
void PCDview_SetGreyWindow(int32_t channel, float low, float high);
// The status line text for the cursor: voxel, value and, with a ready data set, FA, ADC
// and e1 there.
std::string PCDview_DescribeCursor();
// Switches a pane to a kind, showing, hiding or desensitising its controls to suit.
void PCDview_SetPaneKind(PcdViewPane* pane, int32_t kind);
// The scene a pane draws (data set, cursor, mapping, its display scale).
PcdSliceScene PCDview_GetScene(const PcdViewPane* pane);
// Draws a pane into its image now (the draw handler does the same).
void PCDview_RenderPaneImage(PcdViewPane* pane);
// The study region palette the mouse draws with (-1 none, else PCD_PALETTE_SEED,
// _TARGET or _AVOIDANCE); the window's palette choice follows.
void PCDview_SetRegionPalette(int32_t palette);
// Undo and redo of ROI and study region edits (Ctrl+Z, Ctrl+Y in the views window).
bool PCDview_Undo();
bool PCDview_Redo();
// Writes what a pane shows as a PNG file; false when it cannot be written.
bool PCDview_SavePanePng(const PcdViewPane* pane, const char* path);

// The palette frame stands on the views (view/palette_frame.h); the views open it from
// their button, redraw it with the panes and close it with the window through these,
// which start-up connects. Each may be empty.
struct PcdPaletteFrameHooks {
  std::function<void()> open;
  std::function<void()> close;
  std::function<void()> redraw;
};
extern PcdPaletteFrameHooks pcd_views_palette;
