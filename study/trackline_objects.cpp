#include "study/trackline_objects.h"

#include <algorithm>
#include <cmath>
#include <cstring>

#include "fiber/tracking.h"

namespace {

void append_half(const PcdTrakLineBuffer* half, std::vector<PcdPolyline>* lines) {
  PcdPolyline line;
  if (half != nullptr)
    for (int i = 0; i < half->nodeCount; ++i) line.push_back({half->x[i], half->y[i], half->z[i]});
  lines->push_back(std::move(line));
}

void put_floats(std::vector<uint8_t>* payload, size_t at, std::initializer_list<float> values) {
  for (float v : values) {
    std::memcpy(payload->data() + at, &v, 4);
    at += 4;
  }
}

// Visits the voxels a polyline passes through, at most once per line and voxel.
template <typename Visit>
void walk_line(const PcdPolyline& line, const PcdIntSize3D* size, std::vector<uint32_t>* seenBy,
               uint32_t lineTag, Visit visit) {
  auto touch = [&](float x, float y, float z, const PcdVector3D& direction) {
    size_t at = 0;
    if (!PCDdti_VoxelIndexOfPoint(x, y, z, *size, &at)) return;
    if ((*seenBy)[at] == lineTag) return;
    (*seenBy)[at] = lineTag;
    visit(at, direction);
  };
  if (line.size() == 1) touch(line[0].x, line[0].y, line[0].z, {0, 0, 0});
  for (size_t i = 1; i < line.size(); ++i) {
    const PcdVector3D a = line[i - 1], b = line[i];
    const float dx = b.x - a.x, dy = b.y - a.y, dz = b.z - a.z;
    const float length = std::sqrt(dx * dx + dy * dy + dz * dz);
    const PcdVector3D unit = length > 0 ? PcdVector3D{dx / length, dy / length, dz / length} : PcdVector3D{0, 0, 0};
    const int steps = std::max(1, static_cast<int>(std::ceil(length * 4.0f)));
    for (int s = 0; s <= steps; ++s) {
      const float t = static_cast<float>(s) / static_cast<float>(steps);
      touch(a.x + t * dx, a.y + t * dy, a.z + t * dz, unit);
    }
  }
}

size_t voxels_of(const PcdIntSize3D* size) {
  if (size->x <= 0 || size->y <= 0 || size->z <= 0) return 0;
  return static_cast<size_t>(size->x) * static_cast<size_t>(size->y) * static_cast<size_t>(size->z);
}

}  // namespace

std::vector<PcdPolyline> PCD_GetSelectedHalfLines(const PcdFibeTrakBuffer* buffer) {
  std::vector<PcdPolyline> lines;
  if (buffer == nullptr) return lines;
  for (int32_t i = 0; i < buffer->lineCount; ++i) {
    const PcdTrakLinePair* pair = buffer->pairs[i];
    if (pair == nullptr || pair->selection == 0) continue;
    append_half(pair->forward, &lines);
    append_half(pair->backward, &lines);
  }
  return lines;
}

PcdObjectGroup PCD_BuildPolylineObjectGroup(const std::vector<PcdPolyline>& lines, bool tubular) {
  PcdObjectGroup group;
  int32_t value = 0;
  for (const PcdPolyline& line : lines) {
    PcdDisplayObject o;
    o.value = value++;
    o.k = static_cast<int32_t>(line.size());
    if (!tubular) {
      o.type = 21;
      o.payload.assign(12 * line.size() + 32, 0);
      PcdVector3D lo{0, 0, 0}, hi{0, 0, 0};
      if (!line.empty()) lo = hi = line[0];
      for (const PcdVector3D& p : line) {
        lo = {std::min(lo.x, p.x), std::min(lo.y, p.y), std::min(lo.z, p.z)};
        hi = {std::max(hi.x, p.x), std::max(hi.y, p.y), std::max(hi.z, p.z)};
      }
      std::memcpy(o.payload.data(), &o.k, 4);
      put_floats(&o.payload, 8, {lo.x, lo.y, lo.z, hi.x, hi.y, hi.z});
      for (size_t i = 0; i < line.size(); ++i) put_floats(&o.payload, 32 + 12 * i, {line[i].x, line[i].y, line[i].z});
    } else {
      o.type = 31;
      o.payload.assign(24 * line.size() + 4, 0);
      std::memcpy(o.payload.data(), &o.k, 4);
      for (size_t i = 0; i < line.size(); ++i) {
        PcdVector3D d{0, 0, 0};
        if (i + 1 < line.size()) {
          d = {line[i + 1].x - line[i].x, line[i + 1].y - line[i].y, line[i + 1].z - line[i].z};
          const float n = std::sqrt(d.x * d.x + d.y * d.y + d.z * d.z);
          if (n > 0) d = {d.x / n, d.y / n, d.z / n};
        }
        put_floats(&o.payload, 4 + 24 * i, {line[i].x, line[i].y, line[i].z, d.x, d.y, d.z});
      }
    }
    group.objects.push_back(std::move(o));
  }
  return group;
}

std::vector<uint32_t> PCD_CountLinesPerVoxel(const std::vector<PcdPolyline>& lines, const PcdIntSize3D* size) {
  std::vector<uint32_t> counts(voxels_of(size), 0);
  std::vector<uint32_t> seen(counts.size(), 0);
  uint32_t tag = 0;
  for (const PcdPolyline& line : lines)
    walk_line(line, size, &seen, ++tag, [&](size_t at, const PcdVector3D&) { ++counts[at]; });
  return counts;
}

std::vector<uint32_t> PCD_DirectionColorsPerVoxel(const std::vector<PcdPolyline>& lines, const PcdIntSize3D* size) {
  const size_t n = voxels_of(size);
  std::vector<float> sum(3 * n, 0.0f);
  std::vector<uint32_t> hits(n, 0), seen(n, 0);
  uint32_t tag = 0;
  for (const PcdPolyline& line : lines)
    walk_line(line, size, &seen, ++tag, [&](size_t at, const PcdVector3D& d) {
      sum[3 * at] += std::fabs(d.x);
      sum[3 * at + 1] += std::fabs(d.y);
      sum[3 * at + 2] += std::fabs(d.z);
      ++hits[at];
    });
  std::vector<uint32_t> rgba(n, 0);
  for (size_t i = 0; i < n; ++i) {
    if (hits[i] == 0) continue;
    const float r = sum[3 * i], g = sum[3 * i + 1], b = sum[3 * i + 2];
    const float m = std::max({r, g, b});
    auto byte = [m](float v) { return m > 0 ? static_cast<uint32_t>(std::lround(255.0f * v / m)) : 0u; };
    rgba[i] = byte(r) << 24 | byte(g) << 16 | byte(b) << 8 | 255u;
  }
  return rgba;
}
