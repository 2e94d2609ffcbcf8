// The commands of the main menu that work on ROI and study objects: the work session
// files, the object files, the ROI 3D objects, voxelizing the visible track lines and
// the realtime analysis; and the default objects of a new data set.
#pragma once

#include <gtk/gtk.h>

#include <string>

#include "dti/dti_data.h"
#include "vol/raw_volume.h"

// Voxelize kinds (action number).
enum PcdVoxelizeKind : guint {
  PCD_VOXELIZE_GREY = 0,
  PCD_VOXELIZE_COLOR = 1,
  PCD_VOXELIZE_VOXELGROUP = 2,
};
constexpr char kPcdVoxelizedLabel[] = "Voxelized tracklines";

void cmd_open_work_data(gpointer, guint, GtkWidget*);
void cmd_save_work_data(gpointer, guint, GtkWidget*);
void cmd_import_study_object(gpointer, guint, GtkWidget*);
void cmd_import_roi_object(gpointer, guint, GtkWidget*);
void cmd_export_study_object(gpointer, guint, GtkWidget*);
void cmd_export_roi_object(gpointer, guint, GtkWidget*);
void cmd_roi_3d_hide(gpointer, guint, GtkWidget*);
void cmd_roi_3d_show(gpointer, guint, GtkWidget*);
void cmd_voxelize(gpointer, guint kind, GtkWidget*);

// One study of each kind the "/Study/New" menu offers, then one ROI of each kind, each
// made the selected one as it is created (the pages show them once they exist).
void PCD_CreateDefaultObjects();
// Connects the session to the viewer and the pages: a deleted study's viewer object is
// removed, a session file's data set is sent to the viewer.
void PCD_ConnectSessionToViewer();

// The tensor at a voxel as the status line shows it during realtime analysis; "" when
// the data set is not ready or the voxel is outside.
std::string PCD_DescribeTensorAtVoxel(const PcdDtiData* dti, const PcdIntVector3D& voxel);
// Timer work while the realtime analysis flag is 1: the viewer's broadcast position is
// read and the tensor there shown in the status line.
void PCD_ServiceRealtimeAnalysis();

// Deletes every study and every ROI, resets their counters and says so on the console.
void PCD_CleanUpObjects();
