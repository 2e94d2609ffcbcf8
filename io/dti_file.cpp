#include "io/dti_file.h"

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <new>
#include <vector>

#include "io/c_locale.h"
#include "io/file_util.h"
#include "io/notice.h"

namespace {

struct FileCloser {
  void operator()(FILE* f) const { std::fclose(f); }
};
using FilePtr = std::unique_ptr<FILE, FileCloser>;

const char kInvalidMpg[] = "Error: Invalid MPG axes.  Setting unchanged.\n";

int32_t volume_channels(const PcdDtiData* dti) {
  return dti != nullptr && dti->volume != nullptr && dti->volume->matrixSize != nullptr
             ? dti->volume->matrixSize->channels
             : 0;
}

// A channel line "b x y z". A number the scanner cannot read stays as it was (zero for
// a fresh line), as the format has always been read.
void scan_channel_line(FILE* file, float* b, PcdVector3D* g) {
  if (b != nullptr && std::fscanf(file, "%f", b) != 1) return;
  if (std::fscanf(file, "%f", &g->x) != 1) return;
  if (std::fscanf(file, "%f", &g->y) != 1) return;
  std::fscanf(file, "%f", &g->z);
}

void scan_vector(FILE* file, PcdVector3D* g) { scan_channel_line(file, nullptr, g); }

// Current layout, after its magic line. The channel arrays of the record hold 256
// channels, so larger counts and negative So counts are refused as invalid as well.
int read_current_layout(FILE* file, PcdDtiData* dti) {
  PcdVector3D u{0.0f, 0.0f, 0.0f};
  PcdVector3D v{0.0f, 0.0f, 0.0f};
  int n = 0;
  int m = 0;
  scan_vector(file, &u);
  scan_vector(file, &v);
  if (std::fscanf(file, "%d", &n) == 1) std::fscanf(file, "%d", &m);
  if (n > volume_channels(dti) || int64_t{n} - m < 6 || n > kPcdDtiMaxChannels || m < 0) {
    std::fputs(kInvalidMpg, stderr);
    return 0;
  }
  std::vector<float> b(static_cast<size_t>(n), 0.0f);
  std::vector<PcdVector3D> g(static_cast<size_t>(n), PcdVector3D{0.0f, 0.0f, 0.0f});
  for (int i = 0; i < n; ++i) scan_channel_line(file, &b[i], &g[i]);
  PCDdti_SetPropertiesOfDiffusionTensorImageData(dti, n, m, b.data(), g.data());
  RotateMpgVectors(dti, &v, &u);
  return 1;
}

// Earlier layout: n, the shared b value, n directions; channel 0 is the single So.
// n is compared with the volume's channel count (not n + 1), so one channel more than
// the volume holds passes; the record's arrays still bound n + 1 by 256.
int read_earlier_layout(FILE* file, PcdDtiData* dti) {
  int n = 0;
  std::fscanf(file, "%d", &n);
  if (n > volume_channels(dti) || n < 6 || n + 1 > kPcdDtiMaxChannels) {
    std::fputs(kInvalidMpg, stderr);
    return 0;
  }
  float shared = 0.0f;
  std::fscanf(file, "%f", &shared);
  std::vector<float> b(static_cast<size_t>(n) + 1, shared);
  std::vector<PcdVector3D> g(static_cast<size_t>(n) + 1, PcdVector3D{0.0f, 0.0f, 0.0f});
  b[0] = 0.0f;
  for (int i = 1; i <= n; ++i) scan_vector(file, &g[i]);
  if (n + 1 > volume_channels(dti)) {
    std::fprintf(stderr, "Warning: the MPG file describes %d channels, the volume has %d\n",
                 n + 1, volume_channels(dti));
  }
  PCDdti_SetPropertiesOfDiffusionTensorImageData(dti, n + 1, 1, b.data(), g.data());
  return 1;
}

}  // namespace

PcdDtiData* ReadDtiFile(const char* fileName, std::string* information) {
  const int64_t fileSize = pcd_regular_file_size(fileName);
  FilePtr file(fileSize >= 0 ? std::fopen(fileName, "rb") : nullptr);
  if (!file) return nullptr;

  char magic[kPcdDtiFileMagicLength] = {};
  if (std::fread(magic, 1, sizeof magic, file.get()) != sizeof magic ||
      std::memcmp(magic, kPcdDtiFileMagic, sizeof magic) != 0) {
    PCD_Notice(PCD_NOTICE_WARNING, "Warning", "This is NOT a DTI file.", 240, 100);
    return nullptr;
  }

  std::fputs("Notice: just creating DTI data with NULL volume\n", stderr);
  PcdDtiData* dti = PCDdti_NewDiffusionTensorImageData(nullptr, 0);
  if (dti == nullptr) {
    std::fputs("Err: failed to create DTI data\n", stderr);
    return nullptr;
  }
  // The whole file's size bounds the rest of it.
  std::unique_ptr<uint8_t[]> buffer(new (std::nothrow) uint8_t[static_cast<size_t>(fileSize)]);
  if (!buffer) {
    std::free(dti);
    std::fputs("Err: failed to allocate memory for DTI data\n", stderr);
    return nullptr;
  }
  const size_t rest = static_cast<size_t>(fileSize - kPcdDtiFileMagicLength);
  const size_t got = std::fread(buffer.get(), 1, rest, file.get());
  file.reset();
  if (got != rest ||
      PCDdti_GetDiffusionTensorImageDataFromSerializedDataChecked(dti, buffer.get(), got) != 0) {
    std::fprintf(stderr, "Err: DTI file (%s) is damaged or truncated\n", fileName);
    PCD_DeleteRawVolumeData(dti->volume);
    std::free(dti);
    return nullptr;
  }
  if (information != nullptr)
    *information = pcd_format("Data Source: DTI file\nFile name: %s\n", fileName);
  return dti;
}

int WriteDtiFile(const PcdDtiData* dti, const char* fileName) {
  const size_t size = PCDdti_GetSerializedSizeOfDiffusionTensorImageData(dti);
  if (size == 0 || fileName == nullptr) return -1;
  FilePtr file(std::fopen(fileName, "wb"));
  if (!file) return -1;
  std::unique_ptr<uint8_t[]> buffer(new (std::nothrow) uint8_t[size]);
  if (!buffer || PCDdti_SerializeDiffusionTensorImageData(dti, buffer.get()) != 0) return -1;
  bool ok = std::fwrite(kPcdDtiFileMagic, 1, kPcdDtiFileMagicLength, file.get()) ==
            static_cast<size_t>(kPcdDtiFileMagicLength);
  ok = ok && std::fwrite(buffer.get(), 1, size, file.get()) == size;
  return std::fclose(file.release()) == 0 && ok ? 0 : -1;
}

int ReadMpgDescriptionFile(const char* fileName, PcdDtiData* dti) {
  if (fileName == nullptr || dti == nullptr) return 0;
  FilePtr file(std::fopen(fileName, "r"));
  if (!file) return 0;
  PcdScopedCLocale cLocale;

  char line[1024] = {};
  if (std::fgets(line, sizeof line, file.get()) == nullptr) line[0] = '\0';
  pcd_cut_line_end(line);
  if (std::strcmp(line, kPcdMpgFileMagic) == 0) return read_current_layout(file.get(), dti);
  std::rewind(file.get());
  return read_earlier_layout(file.get(), dti);
}

int WriteMpgDescriptionFile(const char* fileName, const PcdDtiData* dti) {
  if (fileName == nullptr || dti == nullptr || dti->channelCount < 0 ||
      dti->channelCount > kPcdDtiMaxChannels)
    return -1;
  FilePtr file(std::fopen(fileName, "w"));
  if (!file) return -1;
  PcdScopedCLocale cLocale;
  std::fprintf(file.get(), "%s\n", kPcdMpgFileMagic);
  std::fputs("1.0 0.0 0.0\n", file.get());
  std::fputs("0.0 1.0 0.0\n", file.get());
  std::fprintf(file.get(), "%d\n", dti->channelCount);
  std::fprintf(file.get(), "%d\n", dti->soCount);
  for (int32_t i = 0; i < dti->channelCount; ++i) {
    const PcdVector3D& g = dti->mpgVectors[i];
    std::fprintf(file.get(), "%f %f %f %f\n", static_cast<double>(dti->bValues[i]),
                 static_cast<double>(g.x), static_cast<double>(g.y), static_cast<double>(g.z));
  }
  const bool ok = std::ferror(file.get()) == 0;
  return std::fclose(file.release()) == 0 && ok ? 0 : -1;
}

void RotateMpgVectors(PcdDtiData* dti, const PcdVector3D* v, const PcdVector3D* u) {
  if (dti == nullptr || v == nullptr || u == nullptr) return;
  if (u->x == 1.0f && u->y == 0.0f && u->z == 0.0f && v->x == 0.0f && v->y == 1.0f &&
      v->z == 0.0f)
    return;
  PcdVector3D w{0.0f, 0.0f, 0.0f};
  PCD_OuterProduct3D(u, v, &w);
  {
    PcdScopedCLocale cLocale;
    std::fputs("MPG vectors rotated by:\n", stderr);
    std::fprintf(stderr, "\tu=(%f,%f,%f)\n", static_cast<double>(u->x),
                 static_cast<double>(u->y), static_cast<double>(u->z));
    std::fprintf(stderr, "\tv=(%f,%f,%f)\n", static_cast<double>(v->x),
                 static_cast<double>(v->y), static_cast<double>(v->z));
    std::fprintf(stderr, "\tw=(%f,%f,%f)\n", static_cast<double>(w.x),
                 static_cast<double>(w.y), static_cast<double>(w.z));
  }
  const int32_t count = dti->channelCount < kPcdDtiMaxChannels ? dti->channelCount
                                                               : kPcdDtiMaxChannels;
  for (int32_t i = 0; i < count; ++i) {
    const PcdVector3D g = dti->mpgVectors[i];
    dti->mpgVectors[i] = PcdVector3D{static_cast<float>(PCD_InnerProduct3D(&g, u)),
                                     static_cast<float>(PCD_InnerProduct3D(&g, v)),
                                     static_cast<float>(PCD_InnerProduct3D(&g, &w))};
  }
}
