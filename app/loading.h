// How a new volume becomes the current data set: the DTI data made from it, the
// notices that tell the user what was recognised, and the panels brought up to date.
#pragma once

#include <glib.h>

#include <string>

#include "dti/dti_data.h"

// Import kinds of the loading workflow (the action number of the import entries).
enum PcdImportKind : guint {
  PCD_IMPORT_DICOM = 1,
  PCD_IMPORT_DTI_FILE = 2,
  PCD_IMPORT_RAW_VOLUME = 3,
};

constexpr char kPcdRecognitionFormat[] =
    "Quorix.II recognized DTI data as bellow.                                     \n \n"
    "   matrix size:    %d x %d x %d (%d channels)            \n"
    "   b=0 data:\t      ch.  1 - %d                              \n"
    "   DWI data:\t      ch. %d - %d (%d directions of MPG)   \n \n"
    " The default b value is %3.1f.                                                   \n \n"
    " If these settings are wrong, analysis can never be performed      \n"
    " correctly.  To correct the values, use commands in the menu:    \n"
    " Setting -> MPG -> Manual set.\t\t\t                                         \n \n"
    " Check MPG directions shown in the console window, too.";

constexpr char kPcdMpgNotReadyText[] =
    "MPG setting is NOT ready or loaded volume \ndata set is NOT relevant for MR-DTI "
    "analysis.";

// The recognition text for a DTI data set (its volume must exist).
std::string PCD_RecognitionText(const PcdDtiData* dti);

// Replaces pcd_app->session.dti with DTI data made from the leading monochrome SINT16 channels of
// the current volume, with the single-So default applied and printed.
void PCD_CreateDtiData();

void PCD_ShowRecognitionNotice();
void PCD_ShowMpgNotReadyNotice();

// Brings the panels up to date with the current volume: sensitivity, display scales
// and, when the MPG setting is ready, the recognition notice.
void PCD_UpdatePanels();

// The loading workflow of the import commands: importKind is a PcdImportKind; fileName
// null lets the user choose. A refused or cancelled file leaves the data set as it was.
void PCD_LoadVolume(int importKind, const char* fileName);
