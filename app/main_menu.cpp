// The main menu bar, one row per item-factory entry, separators included.
#include "app/commands.h"
#include "view/palette_frame.h"
#include "app/object_commands.h"

namespace {
constexpr PcdMenuKind kItem = PcdMenuKind::Item;
constexpr PcdMenuKind kBranch = PcdMenuKind::Branch;
constexpr PcdMenuKind kLast = PcdMenuKind::LastBranch;
constexpr PcdMenuKind kSep = PcdMenuKind::Separator;
constexpr PcdMenuKind kRadioHead = PcdMenuKind::RadioHead;
constexpr PcdMenuKind kRadio = PcdMenuKind::RadioItem;
PcdMenuCallback const kTodo = cmd_not_implemented;
}  // namespace

const PcdMenuEntry kPcdMainMenu[kPcdMainMenuEntryCount] = {
    {"/File", nullptr, kBranch, nullptr, 0, nullptr},
    {"/File/Open work data", "<control>O", kItem, cmd_open_work_data, 0, nullptr},
    {"/File/sep1", nullptr, kSep, nullptr, 0, nullptr},
    {"/File/Import", nullptr, kBranch, nullptr, 0, nullptr},
    {"/File/Import/DICOM (directory)", "<control>D", kItem, cmd_load_volume, PCD_IMPORT_DICOM,
     nullptr},
    {"/File/Import/sep1", nullptr, kSep, nullptr, 0, nullptr},
    {"/File/Import/DTI file (incl. MPG setting)", "<control>K", kItem, cmd_load_volume,
     PCD_IMPORT_DTI_FILE, nullptr},
    {"/File/Import/sep2", nullptr, kSep, nullptr, 0, nullptr},
    {"/File/Import/PELLUCID file", "<control>L", kItem, cmd_load_volume, PCD_IMPORT_RAW_VOLUME,
     nullptr},
    {"/File/Import/sep3", nullptr, kSep, nullptr, 0, nullptr},
    {"/File/Import/MPG text file", "<control>M", kItem, cmd_import_mpg, 0, nullptr},
    {"/File/Import/sep4", nullptr, kSep, nullptr, 0, nullptr},
    {"/File/Import/Study object", nullptr, kItem, cmd_import_study_object, 0, nullptr},
    {"/File/Import/ROI object", nullptr, kItem, cmd_import_roi_object, 0, nullptr},
    {"/File/sep2", nullptr, kSep, nullptr, 0, nullptr},
    {"/File/Save work data", "<control>S", kItem, cmd_save_work_data, 0, nullptr},
    {"/File/sep3", nullptr, kSep, nullptr, 0, nullptr},
    {"/File/Export", nullptr, kBranch, nullptr, 0, nullptr},
    {"/File/Export/DTI file (incl. MPG setting)", nullptr, kItem, cmd_export_dti, 0, nullptr},
    {"/File/Export/sep1", nullptr, kSep, nullptr, 0, nullptr},
    {"/File/Export/PELLUCID file", nullptr, kItem, cmd_export_volume, 0, nullptr},
    {"/File/Export/sep2", nullptr, kSep, nullptr, 0, nullptr},
    {"/File/Export/MPG text file", nullptr, kItem, cmd_export_mpg, 0, nullptr},
    {"/File/Export/sep3", nullptr, kSep, nullptr, 0, nullptr},
    {"/File/Export/Study object", nullptr, kItem, cmd_export_study_object, 0, nullptr},
    {"/File/Export/ROI object", nullptr, kItem, cmd_export_roi_object, 0, nullptr},
    {"/File/sep4", nullptr, kSep, nullptr, 0, nullptr},
    {"/File/Quit", "<control>Q", kItem, cmd_quit, 0, nullptr},

    {"/Setting/MPG/Presets/Single So/GE 6 dir b=1000", nullptr, kItem, cmd_mpg_preset,
     PCD_PRESET_GE_6, nullptr},
    {"/Setting/MPG/Presets/Single So/GE 13 dir b=1000", nullptr, kItem, cmd_mpg_preset,
     PCD_PRESET_GE_13, nullptr},
    {"/Setting/MPG/Presets/sep1", nullptr, kSep, nullptr, 0, nullptr},
    {"/Setting/MPG/Presets/Jones 30 dir", nullptr, kItem, cmd_mpg_preset, PCD_PRESET_JONES_30,
     nullptr},
    {"/Setting/MPG/sep1", nullptr, kSep, nullptr, 0, nullptr},
    {"/Setting/MPG/Manual set/Total DTI channels", nullptr, kItem, cmd_manual_set,
     PCD_MANUAL_TOTAL_CHANNELS, nullptr},
    {"/Setting/MPG/Manual set/So (b=0) channels", nullptr, kItem, cmd_manual_set,
     PCD_MANUAL_SO_CHANNELS, nullptr},
    {"/Setting/MPG/Manual set/sep1", nullptr, kSep, nullptr, 0, nullptr},
    {"/Setting/MPG/Manual set/uniform b value", nullptr, kItem, cmd_manual_set,
     PCD_MANUAL_UNIFORM_B, nullptr},
    {"/Setting/sep1", nullptr, kSep, nullptr, 0, nullptr},
    {"/Setting/ROI 3D object/Hide", "F11", kItem, cmd_roi_3d_hide, 0, nullptr},
    {"/Setting/ROI 3D object/Show, Update", "F12", kItem, cmd_roi_3d_show, 0, nullptr},
    {"/Setting/ROI 3D object/sep1", nullptr, kSep, nullptr, 0, nullptr},
    {"/Setting/ROI 3D object/Auto update/Off", nullptr, kRadioHead, cmd_roi_auto_update, 0,
     nullptr},
    {"/Setting/ROI 3D object/Auto update/On", nullptr, kRadio, cmd_roi_auto_update, 1,
     "/Setting/ROI 3D object/Auto update/Off"},

    {"/Special", nullptr, kBranch, nullptr, 0, nullptr},
    {"/Special/Start realtime analysis", "<control>R", kItem, cmd_toggle_realtime, 0, nullptr},
    {"/Special/sep1", nullptr, kSep, nullptr, 0, nullptr},
    {"/Special/Add computational channels", nullptr, kItem, cmd_add_computational_channels, 0,
     nullptr},
    {"/Special/sep2", nullptr, kSep, nullptr, 0, nullptr},
    {"/Special/Voxelize visible tracklines as/Grey volume", nullptr, kItem, cmd_voxelize, PCD_VOXELIZE_GREY, nullptr},
    {"/Special/Voxelize visible tracklines as/Color volume", nullptr, kItem, cmd_voxelize, PCD_VOXELIZE_COLOR, nullptr},
    {"/Special/Voxelize visible tracklines as/sep1", nullptr, kSep, nullptr, 0, nullptr},
    {"/Special/Voxelize visible tracklines as/Voxelgroup ROI", nullptr, kItem, cmd_voxelize, PCD_VOXELIZE_VOXELGROUP,
     nullptr},
    {"/Special/sep3", nullptr, kSep, nullptr, 0, nullptr},
    {"/Special/ROI palette frame/Channel/First", "F", kItem, cmd_palette_channel, PCD_CHANNEL_FIRST, nullptr},
    {"/Special/ROI palette frame/Channel/Last", "L", kItem, cmd_palette_channel, PCD_CHANNEL_LAST, nullptr},
    {"/Special/ROI palette frame/Channel/sep1", nullptr, kSep, nullptr, 0, nullptr},
    {"/Special/ROI palette frame/Channel/Next", "N", kItem, cmd_palette_channel, PCD_CHANNEL_NEXT, nullptr},
    {"/Special/ROI palette frame/Channel/Previous", "B", kItem, cmd_palette_channel, PCD_CHANNEL_PREVIOUS, nullptr},
    {"/Special/ROI palette frame/sep1", nullptr, kSep, nullptr, 0, nullptr},
    {"/Special/ROI palette frame/Upload current channel", "<control>U", kItem, cmd_palette_upload, 0,
     nullptr},
    {"/Special/ROI palette frame/sep2", nullptr, kSep, nullptr, 0, nullptr},
    {"/Special/ROI palette frame/Adjust greyscale", "G", kItem, cmd_palette_adjust_greyscale, 0, nullptr},
    {"/Special/ROI palette frame/sep3", nullptr, kSep, nullptr, 0, nullptr},
    {"/Special/ROI palette frame/Export ROI to editor", nullptr, kItem, cmd_palette_export, 0, nullptr},

    {"/_Help", nullptr, kLast, nullptr, 0, nullptr},
    {"/_Help/About ...", nullptr, kItem, cmd_about, 0, nullptr},
};
