#include "app/services/viewer_link.h"

#include <chrono>
#include <cstdio>
#include <cstring>
#include <string>
#include <thread>

#include "ipc/ipc.h"

namespace {
bool g_initialized = false;
bool g_busy = false;  // another client kept the viewer through the whole start-up wait
PcdIpcBroadcast g_broadcast;

// The client that holds the viewer, or "" when it is free, ours or cannot be read.
std::string other_holder() {
  PcdIpcBroadcast b;
  if (PCDipc_GetBroadcastedInfo(&b) != 0 || b.state != 1 || std::strcmp(b.clientId, kPcdClientId) == 0) return "";
  return b.clientId[0] != '\0' ? b.clientId : "?";
}
}  // namespace

int pcd_viewer_wait_until_free() {
  g_busy = false;
  if (!g_initialized) return 1;
  std::string holder = other_holder();
  if (holder.empty()) return 1;
  std::fprintf(stderr, "Warning: the viewer is in use by client \"%s\"; waiting up to %d s for it to be free.\n",
               holder.c_str(), kPcdBusyViewerWaitSeconds);
  const auto until = std::chrono::steady_clock::now() + std::chrono::seconds(kPcdBusyViewerWaitSeconds);
  while (!holder.empty() && std::chrono::steady_clock::now() < until) {
    std::this_thread::sleep_for(std::chrono::milliseconds(50));
    holder = other_holder();
  }
  g_busy = !holder.empty();
  if (g_busy) std::fprintf(stderr, "Warning: the viewer is still in use by client \"%s\".\n", holder.c_str());
  return g_busy ? 0 : 1;
}

int pcd_viewer_initialize(int32_t serverNumber) {
  PCDipc_SetRetryLimit(6553500);
  g_initialized = PCDipc_InitializeClient(kPcdClientId, serverNumber) == 0;
  std::fputs(g_initialized ? "IPC available (IPC Client initialization succeeded)\n"
                           : "IPC NOT available (IPC Client initialization failure)\n",
             stderr);
  return g_initialized ? 1 : 0;
}

// The link is the client's broadcast record: it exists while the boards are open.
void* pcd_viewer_attach() { return g_initialized ? &g_broadcast : nullptr; }

void pcd_viewer_detach() {
  if (g_initialized) PCDipc_FinalizeClient();
  g_initialized = false;
}

int32_t pcd_viewer_allocate_object_group() {
  if (!g_initialized || g_busy || PCDipc_SendConnectionRequest() != 0) return -1;
  PcdObjectGroup empty;
  int32_t id = -1;
  if (PCDipc_TransferObjectGroup(&empty, &id) != 0) id = -1;
  PCDipc_SendDisconnectionRequest();
  return id;
}

void pcd_viewer_remove_object(int32_t objectId) {
  if (!g_initialized || PCDipc_SendConnectionRequest() != 0) return;
  PCDipc_RemoveObject(objectId);
  PCDipc_SendDisconnectionRequest();
}

void pcd_viewer_release_objects() {}

PcdRawVolumeData* pcd_viewer_receive_volume(bool* viewerEmpty) {
  if (viewerEmpty != nullptr) *viewerEmpty = false;
  if (g_busy) {
    // a disconnection from a viewer held by someone else would wait out the retry limit
    std::fputs("Failed <PCDipc_SendConnectionRequest>. Exit now.\n", stderr);
    return nullptr;
  }
  return g_initialized ? PCDipc_ReceiveVolumeFromViewer(viewerEmpty) : nullptr;
}

int pcd_viewer_send_channel(const PcdRawVolumeData* volume, int32_t channel) {
  return g_initialized ? PCDipc_SendChannelToViewer(volume, channel) : -1;
}

int pcd_viewer_send_volume(const PcdRawVolumeData* volume) {
  if (!g_initialized || PCDipc_SendConnectionRequest() != 0) return -1;
  return PCDipc_SendVolumeToViewer(volume);
}

int pcd_viewer_send_voxel_size(float millimetres) {
  if (!g_initialized || PCDipc_SendConnectionRequest() != 0) return -1;
  const int sent = PCDipc_SendVoxelSize(millimetres);
  PCDipc_SendDisconnectionRequest();
  return sent;
}

int pcd_viewer_read_broadcast() {
  if (!g_initialized || PCDipc_GetBroadcastedInfo(&g_broadcast) != 0) {
    std::fputs("broadcasted info acquisition error\n", stderr);
    return -1;
  }
  return 0;
}

int pcd_viewer_send_position(const PcdIntVector3D* position) {
  if (!g_initialized || PCDipc_SendConnectionRequest() != 0) return -1;
  const int sent = PCDipc_SendPosition(position);
  PCDipc_SendDisconnectionRequest();
  return sent;
}

int pcd_viewer_send_region(const PcdIntVector3D* origin, const PcdIntSize3D* size) {
  if (!g_initialized || PCDipc_SendConnectionRequest() != 0) return -1;
  const PcdVector3D o{float(origin->x), float(origin->y), float(origin->z)};
  const PcdVector3D s{float(size->x), float(size->y), float(size->z)};
  const int sent = PCDipc_SendRegion(&o, &s);
  PCDipc_SendDisconnectionRequest();
  return sent;
}

int pcd_viewer_get_box(PcdIntVector3D* origin, PcdIntSize3D* size) {
  if (pcd_viewer_read_broadcast() != 0) return -1;
  *origin = g_broadcast.regionOrigin;
  *size = {g_broadcast.regionSize.x, g_broadcast.regionSize.y, g_broadcast.regionSize.z};
  return 0;
}

int pcd_viewer_get_position(PcdIntVector3D* position) {
  if (pcd_viewer_read_broadcast() != 0) return -1;
  *position = g_broadcast.position;
  return 0;
}
