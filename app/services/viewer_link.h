// The program's side of the viewer link, as the shell uses it: one call per exchange,
// with the console lines the program prints around them.
#pragma once

#include <cstdint>

#include "vol/raw_volume.h"

constexpr char kPcdClientId[] = "Quorix:v2.0";

// How long start-up waits for a viewer that another client holds before it gives up.
constexpr int kPcdBusyViewerWaitSeconds = 20;

// Sets the retry limit and initialises the client for the server number; prints whether
// the link is available. 1 when it is.
int pcd_viewer_initialize(int32_t serverNumber);
// The attached link, null when the boards are not there.
void* pcd_viewer_attach();
// Closes the boards (only after a successful initialisation).
void pcd_viewer_detach();

// When another client holds the viewer, says so on the console at once and waits up to
// kPcdBusyViewerWaitSeconds for it to be free. 1 when the viewer is free (or ours), 0 when
// it stayed busy: the exchanges that follow then fail at once instead of each waiting out
// the link's retry limit.
int pcd_viewer_wait_until_free();

// Asks the viewer for an object group for this program's 3D objects; its id, or -1.
int32_t pcd_viewer_allocate_object_group();
// Removes an object ("Requesting removal of Object %d\n" is printed by the caller).
void pcd_viewer_remove_object(int32_t objectId);
// Releases what the link keeps per object.
void pcd_viewer_release_objects();

// Connects, takes over the viewer's volume and disconnects; null on failure (printed), and
// null with *viewerEmpty set (when given) when the viewer holds no volume.
PcdRawVolumeData* pcd_viewer_receive_volume(bool* viewerEmpty = nullptr);
// Sends one channel for display; 0, or -1 (printed).
int pcd_viewer_send_channel(const PcdRawVolumeData* volume, int32_t channel);
// Sends the volume's first channel as the viewer's volume; 0 or -1.
int pcd_viewer_send_volume(const PcdRawVolumeData* volume);
// Tells the viewer the voxel size; -1 when it could not be told.
int pcd_viewer_send_voxel_size(float millimetres);
// Reads the viewer's broadcast state into the link's record; 0 or -1 (printed).
int pcd_viewer_read_broadcast();

// Tells the viewer the slice views' cursor (request 464) or the box VOI (request 465);
// 0, or -1 when the viewer could not be told.
int pcd_viewer_send_position(const PcdIntVector3D* position);
int pcd_viewer_send_region(const PcdIntVector3D* origin, const PcdIntSize3D* size);
// Reads the broadcast state and gives the viewer's box VOI (its region) or its position.
// 0, or -1 (printed).
int pcd_viewer_get_box(PcdIntVector3D* origin, PcdIntSize3D* size);
int pcd_viewer_get_position(PcdIntVector3D* position);
