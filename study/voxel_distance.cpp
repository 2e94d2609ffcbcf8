#include "study/voxel_distance.h"

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <limits>
#include <vector>

namespace {

struct Voxel {
  int64_t c[3];
};

int64_t squared_distance(const Voxel& p, const Voxel& q) {
  int64_t sum = 0;
  for (int k = 0; k < 3; ++k) sum += (p.c[k] - q.c[k]) * (p.c[k] - q.c[k]);
  return sum;
}

// Calls visit(x, y, z) with the group's own indices of every set voxel.
template <typename Visit>
void for_each_voxel(const PcdVoxelGroup* g, Visit visit) {
  for (int32_t z = 0; z < g->size.z; ++z)
    for (int32_t y = 0; y < g->size.y; ++y)
      for (int32_t x = 0; x < g->size.x; ++x)
        if (PCD_GetVoxelOfVoxelGroup(g, x, y, z)) visit(x, y, z);
}

Voxel absolute(const PcdVoxelGroup* g, int32_t x, int32_t y, int32_t z) {
  return {{int64_t{g->origin.x} + x, int64_t{g->origin.y} + y, int64_t{g->origin.z} + z}};
}

bool in_range(const Voxel& v) {
  for (int64_t c : v.c)
    if (c < -kPcdVoxelDistanceRange || c >= kPcdVoxelDistanceRange) return false;
  return true;
}

// Every set voxel, or only those with a face neighbour outside the group. False when a
// voxel lies out of range.
bool collect(const PcdVoxelGroup* g, bool boundaryOnly, std::vector<Voxel>* out) {
  bool ok = true;
  for_each_voxel(g, [&](int32_t x, int32_t y, int32_t z) {
    const bool inner = PCD_GetVoxelOfVoxelGroup(g, x + 1, y, z) && PCD_GetVoxelOfVoxelGroup(g, x - 1, y, z) &&
                       PCD_GetVoxelOfVoxelGroup(g, x, y + 1, z) && PCD_GetVoxelOfVoxelGroup(g, x, y - 1, z) &&
                       PCD_GetVoxelOfVoxelGroup(g, x, y, z + 1) && PCD_GetVoxelOfVoxelGroup(g, x, y, z - 1);
    if (boundaryOnly && inner) return;
    const Voxel v = absolute(g, x, y, z);
    ok = ok && in_range(v);
    out->push_back(v);
  });
  return ok;
}

// An implicit k-d tree: the median of each range by the axis of its depth, the lower
// half before it and the upper half after it.
void build_tree(std::vector<Voxel>& v, size_t lo, size_t hi, int axis) {
  if (hi - lo <= 1) return;
  const size_t mid = lo + (hi - lo) / 2;
  std::nth_element(v.begin() + static_cast<std::ptrdiff_t>(lo), v.begin() + static_cast<std::ptrdiff_t>(mid),
                   v.begin() + static_cast<std::ptrdiff_t>(hi),
                   [axis](const Voxel& p, const Voxel& q) { return p.c[axis] < q.c[axis]; });
  build_tree(v, lo, mid, (axis + 1) % 3);
  build_tree(v, mid + 1, hi, (axis + 1) % 3);
}

// Lowers best to the squared distance from q to the nearest point of the range when
// that is smaller. A far half is visited only when its splitting plane is nearer than
// best, since all of its points lie beyond the plane.
void nearest(const std::vector<Voxel>& v, size_t lo, size_t hi, int axis, const Voxel& q, int64_t* best) {
  if (lo >= hi) return;
  const size_t mid = lo + (hi - lo) / 2;
  *best = std::min(*best, squared_distance(v[mid], q));
  const int64_t gap = q.c[axis] - v[mid].c[axis];
  const int next = (axis + 1) % 3;
  if (gap < 0) {
    nearest(v, lo, mid, next, q, best);
    if (gap * gap < *best) nearest(v, mid + 1, hi, next, q, best);
  } else {
    nearest(v, mid + 1, hi, next, q, best);
    if (gap * gap < *best) nearest(v, lo, mid, next, q, best);
  }
}

// Whether the group holds the voxel at these absolute coordinates.
bool holds(const PcdVoxelGroup* g, const Voxel& v) {
  const int64_t at[3] = {v.c[0] - g->origin.x, v.c[1] - g->origin.y, v.c[2] - g->origin.z};
  const int32_t n[3] = {g->size.x, g->size.y, g->size.z};
  for (int k = 0; k < 3; ++k)
    if (at[k] < 0 || at[k] >= n[k]) return false;
  return PCD_GetVoxelOfVoxelGroup(g, static_cast<int32_t>(at[0]), static_cast<int32_t>(at[1]),
                                  static_cast<int32_t>(at[2])) != 0;
}

}  // namespace

int64_t PCD_GetVoxelGroupSquaredDistance(const PcdVoxelGroup* a, const PcdVoxelGroup* b) {
  if (a == nullptr || b == nullptr) return -1;
  // inner voxels lie between boundary voxels on every axis: the range check of the
  // boundary covers them
  std::vector<Voxel> boundaryA, boundaryB;
  if (!collect(a, true, &boundaryA) || !collect(b, true, &boundaryB)) return -2;
  if (boundaryA.empty() || boundaryB.empty()) return -1;
  // a shared voxel is distance 0 even deep inside both groups, where no boundary sees it
  bool shared = false;
  for_each_voxel(a, [&](int32_t x, int32_t y, int32_t z) { shared = shared || holds(b, absolute(a, x, y, z)); });
  if (shared) return 0;
  build_tree(boundaryB, 0, boundaryB.size(), 0);
  int64_t best = std::numeric_limits<int64_t>::max();
  for (const Voxel& q : boundaryA) nearest(boundaryB, 0, boundaryB.size(), 0, q, &best);
  return best;
}

int64_t PCD_GetVoxelGroupSquaredDistanceByPairs(const PcdVoxelGroup* a, const PcdVoxelGroup* b) {
  if (a == nullptr || b == nullptr) return -1;
  std::vector<Voxel> all[2];
  if (!collect(a, false, &all[0]) || !collect(b, false, &all[1])) return -2;
  if (all[0].empty() || all[1].empty()) return -1;
  int64_t best = std::numeric_limits<int64_t>::max();
  for (const Voxel& p : all[0])
    for (const Voxel& q : all[1]) best = std::min(best, squared_distance(p, q));
  return best;
}

int PCD_RunVoxelGroupDistance(const PcdRoiList* rois, uint16_t idA, uint16_t idB, float voxelSize,
                              std::string* line) {
  const PcdRoiObject* roi[2] = {PCD_FindRoiObject(rois, idA), PCD_FindRoiObject(rois, idB)};
  for (const PcdRoiObject* r : roi)
    if (r == nullptr || r->type != PCD_ROI_VOXELGROUP || !r->voxelGroup) {
      std::fputs("Err: the distance needs two voxelgroup ROIs\n", stderr);
      return -1;
    }
  const int64_t squared = PCD_GetVoxelGroupSquaredDistance(roi[0]->voxelGroup.get(), roi[1]->voxelGroup.get());
  if (squared < 0) {
    std::fputs(squared == -1 ? "Err: an empty voxel group has no distance\n"
                             : "Err: a voxel group lies too far out for a distance\n",
               stderr);
    return -1;
  }
  char text[96];
  std::snprintf(text, sizeof text, "Distance between 2 voxelgroups: %4.3f(mm)\n",
                std::sqrt(static_cast<double>(squared)) * static_cast<double>(voxelSize));
  std::fputs(text, stderr);
  if (line != nullptr) *line = text;
  return 0;
}
