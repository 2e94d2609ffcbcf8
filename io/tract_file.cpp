#include "io/tract_file.h"

#include <cmath>
#include <cstdio>
#include <cstring>
#include <limits>
#include <memory>
#include <string>
#include <vector>

#include "fiber/tracking.h"
#include "study/fiber_dump.h"
#include "vol/serialize.h"

namespace {

struct FileCloser {
  void operator()(FILE* f) const { std::fclose(f); }
};
using File = std::unique_ptr<FILE, FileCloser>;

void AppendFloat(std::vector<uint8_t>* out, float v) {
  uint8_t b[4];
  PCD_PutFloat32LE(b, v);
  out->insert(out->end(), b, b + 4);
}

void AppendInt(std::vector<uint8_t>* out, int32_t v) {
  uint8_t b[4];
  PCD_PutInt32LE(b, v);
  out->insert(out->end(), b, b + 4);
}

int Finish(File file, const std::vector<uint8_t>& body, const char* fileName) {
  if (std::fwrite(body.data(), 1, body.size(), file.get()) != body.size() ||
      std::fclose(file.release()) != 0) {
    std::fprintf(stderr, "Err: cannot write %s\n", fileName);
    return -1;
  }
  return 0;
}

int SelectedCount(const PcdFibeTrakBuffer* buffer) {
  int n = 0;
  for (int32_t i = 0; i < buffer->lineCount; ++i) n += buffer->pairs[i]->selection != 0;
  return n;
}

}  // namespace

int WriteTckFile(const PcdFibeTrakBuffer* buffer, const PcdWorldGeometry* geometry,
                 const char* fileName) {
  File file(std::fopen(fileName, "wb"));
  if (!file) {
    std::fprintf(stderr, "Err: cannot write %s\n", fileName);
    return -1;
  }
  const int count = SelectedCount(buffer);
  // the offset of the data is written with a fixed width, so the header's size is known
  std::string header = "mrtrix tracks\ncount: " + std::to_string(count) +
                       "\ndatatype: Float32LE\nfile: . ";
  const size_t dataOffset = header.size() + 8 + 5;  // 8 digits, then "\nEND\n"
  char offset[16];
  std::snprintf(offset, sizeof offset, "%08zu", dataOffset);
  header += offset;
  header += "\nEND\n";
  // written a piece at a time: a whole-file buffer would be as large as the tracks again
  std::vector<uint8_t> body;
  body.reserve(header.size() + (size_t{1} << 16) + 64);
  body.assign(header.begin(), header.end());
  bool written = true;
  auto flushIfFull = [&]() {
    if (body.size() < (size_t{1} << 16)) return;
    written = written && std::fwrite(body.data(), 1, body.size(), file.get()) == body.size();
    body.clear();
  };
  const auto& m = geometry->voxelToWorld;
  for (int32_t i = 0; i < buffer->lineCount; ++i) {
    const PcdTrakLinePair* pair = buffer->pairs[i];
    if (pair->selection == 0) continue;
    PCD_ForEachFiberNode(pair, [&](float x, float y, float z, float, float, float) {
      // fiber points are voxel index coordinates already (PCDdti_SeedInVoxel)
      const double v[3] = {x, y, z};
      for (int r = 0; r < 3; ++r)
        AppendFloat(&body, static_cast<float>(m[r][0] * v[0] + m[r][1] * v[1] + m[r][2] * v[2] + m[r][3]));
      flushIfFull();
    });
    for (int k = 0; k < 3; ++k) AppendFloat(&body, std::numeric_limits<float>::quiet_NaN());
  }
  for (int k = 0; k < 3; ++k) AppendFloat(&body, std::numeric_limits<float>::infinity());
  if (!written) {
    std::fprintf(stderr, "Err: cannot write %s\n", fileName);
    return -1;
  }
  return Finish(std::move(file), body, fileName);
}

int WriteTrkFile(const PcdFibeTrakBuffer* buffer, const PcdWorldGeometry* geometry,
                 const PcdIntSize4D* size, const char* fileName) {
  File file(std::fopen(fileName, "wb"));
  if (!file) {
    std::fprintf(stderr, "Err: cannot write %s\n", fileName);
    return -1;
  }
  std::vector<uint8_t> h(1000, 0);
  std::memcpy(&h[0], "TRACK", 6);
  const int32_t dims[3] = {size->x, size->y, size->z};
  for (int k = 0; k < 3; ++k) {
    h[6 + 2 * k] = static_cast<uint8_t>(dims[k]);
    h[7 + 2 * k] = static_cast<uint8_t>(dims[k] >> 8);
    PCD_PutFloat32LE(&h[12 + 4 * k], geometry->voxelSize[k]);
  }
  for (int r = 0; r < 4; ++r)
    for (int c = 0; c < 4; ++c)
      PCD_PutFloat32LE(&h[440 + 4 * (4 * r + c)], static_cast<float>(geometry->voxelToWorld[r][c]));
  std::memcpy(&h[948], "RAS", 3);
  PCD_PutFloat32LE(&h[956], 1.0f);  // image orientation: rows along x, columns along y
  PCD_PutFloat32LE(&h[956 + 16], 1.0f);
  PCD_PutInt32LE(&h[988], SelectedCount(buffer));
  PCD_PutInt32LE(&h[992], 2);
  PCD_PutInt32LE(&h[996], 1000);
  for (int32_t i = 0; i < buffer->lineCount; ++i) {
    const PcdTrakLinePair* pair = buffer->pairs[i];
    if (pair->selection == 0) continue;
    AppendInt(&h, PCD_FiberNodeCount(pair));
    PCD_ForEachFiberNode(pair, [&](float x, float y, float z, float, float, float) {
      AppendFloat(&h, (x + kPcdVoxelCentreFromCorner) * geometry->voxelSize[0]);
      AppendFloat(&h, (y + kPcdVoxelCentreFromCorner) * geometry->voxelSize[1]);
      AppendFloat(&h, (z + kPcdVoxelCentreFromCorner) * geometry->voxelSize[2]);
    });
  }
  return Finish(std::move(file), h, fileName);
}
