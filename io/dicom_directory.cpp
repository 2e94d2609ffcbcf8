#include "io/dicom_directory.h"

#include <fcntl.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <map>
#include <numeric>
#include <system_error>

#include "io/c_locale.h"
#include "io/dicom_element.h"
#include "io/dicom_scanner.h"
#include "io/file_util.h"

namespace {

constexpr int64_t kMaxDicomFileBytes = int64_t{1} << 30;

// ---- one file ---------------------------------------------------------------------------

double le_double(const uint8_t* p) {
  double v;
  std::memcpy(&v, p, sizeof v);  // the files are little-endian, as is every host we build for
  return v;
}

// A text value up to its first NUL, without the blanks that pad it to an even length.
std::string text_value(const uint8_t* bytes, const PcdDicomElementHead& head) {
  const char* p = reinterpret_cast<const char*>(bytes) + head.offset;
  size_t n = strnlen(p, static_cast<size_t>(head.length));
  while (n > 0 && p[n - 1] == ' ') --n;
  return std::string(p, n);
}

int32_t us_value(const uint8_t* bytes, const PcdDicomElementHead& head) {
  if (head.length < 2) return 0;
  const uint8_t* p = bytes + head.offset;
  return p[0] | p[1] << 8;
}

constexpr uint32_t tag(uint16_t group, uint16_t element) {
  return static_cast<uint32_t>(group) << 16 | element;
}

// Takes one element into the record; each tag counts only where it first occurs.
struct FileScan {
  const uint8_t* bytes;
  PcdDicomFileInfo* info;
  uint32_t seen = 0;  // one bit per entry of the switch below
  int64_t pixel[3][2] = {{-1, 0}, {-1, 0}, {-1, 0}};  // 7F88,0010 / 7FE0,0010 / FFFE,E000

  bool first(int bit) {
    const uint32_t mask = uint32_t{1} << bit;
    if (seen & mask) return false;
    seen |= mask;
    return true;
  }

  PcdDicomVisit operator()(const PcdDicomElementHead& head) {
    if (head.length == kPcdDicomUndefinedLength) {
      take_pixels(head);
      return PcdDicomVisit::kContinue;
    }
    PcdDicomFileInfo& f = *info;
    switch (tag(head.group, head.element)) {
      case tag(0x0002, 0x0010): if (first(0)) f.transferSyntax = text_value(bytes, head); break;
      case tag(0x0008, 0x0020): if (first(1)) f.date = text_value(bytes, head); break;
      case tag(0x0008, 0x0070): if (first(2)) f.maker = text_value(bytes, head); break;
      case tag(0x0008, 0x0080): if (first(3)) f.institution = text_value(bytes, head); break;
      case tag(0x0008, 0x1090): if (first(4)) f.model = text_value(bytes, head); break;
      case tag(0x0010, 0x0010): if (first(5)) f.patientName = text_value(bytes, head); break;
      case tag(0x0010, 0x0020): if (first(6)) f.patientId = text_value(bytes, head); break;
      case tag(0x0018, 0x0088): if (first(7)) f.sliceSpacing = text_value(bytes, head); break;
      case tag(0x0018, 0x1100): if (first(8)) f.fieldOfView = text_value(bytes, head); break;
      case tag(0x0018, 0x9087): if (first(9)) take_b_value(head); break;
      case tag(0x0018, 0x9089): if (first(10)) take_direction(head); break;
      case tag(0x0020, 0x0013):
        if (first(11)) f.hasInstance = std::sscanf(text_value(bytes, head).c_str(), "%d", &f.instance) == 1;
        break;
      case tag(0x0020, 0x0032): if (first(12)) take_position(head); break;
      case tag(0x0020, 0x0037): if (first(13)) take_orientation(head); break;
      case tag(0x0028, 0x0010): if (first(14)) f.rows = us_value(bytes, head); break;
      case tag(0x0028, 0x0011): if (first(15)) f.columns = us_value(bytes, head); break;
      case tag(0x0028, 0x0030): if (first(16)) f.pixelSpacing = text_value(bytes, head); break;
      case tag(0x0028, 0x0100): if (first(17)) f.bitsAllocated = us_value(bytes, head); break;
      case tag(0x0028, 0x0103):
        if (first(18) && head.length >= 2) f.pixelRepresentation = us_value(bytes, head);
        break;
      default: take_pixels(head); break;
    }
    return PcdDicomVisit::kContinue;
  }

  void take_pixels(const PcdDicomElementHead& head) {
    const uint32_t t = tag(head.group, head.element);
    const int which = t == tag(0x7F88, 0x0010) ? 0 : t == tag(0x7FE0, 0x0010) ? 1
                      : t == tag(0xFFFE, 0xE000) ? 2 : -1;
    if (which < 0 || pixel[which][0] >= 0) return;
    pixel[which][0] = head.offset;
    pixel[which][1] = head.length;
  }

  void take_b_value(const PcdDicomElementHead& head) {
    PcdDicomFileInfo& f = *info;
    if (head.length == 8) {
      f.bValue = le_double(bytes + head.offset);
      f.hasBValue = true;
    } else {  // a writer that stored it as text
      f.hasBValue = std::sscanf(text_value(bytes, head).c_str(), "%lf", &f.bValue) == 1;
    }
    f.hasBValue = f.hasBValue && std::isfinite(f.bValue);
  }

  void take_direction(const PcdDicomElementHead& head) {
    PcdDicomFileInfo& f = *info;
    if (head.length == 24) {
      for (int i = 0; i < 3; ++i) f.direction[i] = le_double(bytes + head.offset + 8 * i);
      f.hasDirection = true;
    } else {
      f.hasDirection = std::sscanf(text_value(bytes, head).c_str(), "%lf\\%lf\\%lf",
                                   &f.direction[0], &f.direction[1], &f.direction[2]) == 3;
    }
    for (double d : f.direction) f.hasDirection = f.hasDirection && std::isfinite(d);
  }

  void take_position(const PcdDicomElementHead& head) {
    PcdDicomFileInfo& f = *info;
    float p[3];
    f.hasPosition =
        std::sscanf(text_value(bytes, head).c_str(), "%f\\%f\\%f", &p[0], &p[1], &p[2]) == 3;
    for (int i = 0; i < 3; ++i) {
      f.position[i] = p[i];
      f.hasPosition = f.hasPosition && std::isfinite(p[i]);
    }
  }

  void take_orientation(const PcdDicomElementHead& head) {
    PcdDicomFileInfo& f = *info;
    double* o = f.orientation;
    f.hasOrientation = std::sscanf(text_value(bytes, head).c_str(), "%lf\\%lf\\%lf\\%lf\\%lf\\%lf",
                                   &o[0], &o[1], &o[2], &o[3], &o[4], &o[5]) == 6;
    for (int i = 0; i < 6; ++i) f.hasOrientation = f.hasOrientation && std::isfinite(o[i]);
  }
};

// ---- geometry -------------------------------------------------------------------------

struct Vec3 {
  double x, y, z;
};
double dot(const Vec3& a, const Vec3& b) { return a.x * b.x + a.y * b.y + a.z * b.z; }
Vec3 cross(const Vec3& a, const Vec3& b) {
  return {a.y * b.z - a.z * b.y, a.z * b.x - a.x * b.z, a.x * b.y - a.y * b.x};
}
double norm(const Vec3& a) { return std::sqrt(dot(a, a)); }
Vec3 position_of(const PcdDicomFileInfo& f) { return {f.position[0], f.position[1], f.position[2]}; }

// The volume's axes in patient coordinates: along a row (x), down a column (y) and the
// slice normal (z). Without a usable orientation the patient axes themselves.
struct Axes {
  Vec3 x{1, 0, 0}, y{0, 1, 0}, z{0, 0, 1};
  bool fromFile = false;
};

Axes axes_of(const PcdDicomFileInfo& f) {
  Axes a;
  if (!f.hasOrientation) return a;
  const Vec3 r{f.orientation[0], f.orientation[1], f.orientation[2]};
  const Vec3 c{f.orientation[3], f.orientation[4], f.orientation[5]};
  const Vec3 n = cross(r, c);
  const double nr = norm(r), nc = norm(c), nn = norm(n);
  if (!(nr > 0.5 && nc > 0.5 && nn > 0.25)) return a;  // not two independent directions
  a.x = {r.x / nr, r.y / nr, r.z / nr};
  a.y = {c.x / nc, c.y / nc, c.z / nc};
  a.z = {n.x / nn, n.y / nn, n.z / nn};
  a.fromFile = true;
  return a;
}

// ---- reading the directory ------------------------------------------------------------

// A file's bytes, mapped read-only for as long as the import needs them: each file is
// read once, by the page cache, and its plane is copied once, into the volume.
class MappedFile {
 public:
  MappedFile() = default;
  MappedFile(MappedFile&& other) noexcept : data_(other.data_), size_(other.size_) {
    other.data_ = nullptr;
    other.size_ = 0;
  }
  MappedFile& operator=(MappedFile&& other) noexcept {
    std::swap(data_, other.data_);
    std::swap(size_, other.size_);
    return *this;
  }
  MappedFile(const MappedFile&) = delete;
  MappedFile& operator=(const MappedFile&) = delete;
  ~MappedFile() { release(); }

  // False when the file cannot be opened, is not a regular file or is too large.
  bool open_file(const std::string& name) {
    release();
    const int fd = ::open(name.c_str(), O_RDONLY | O_CLOEXEC);
    if (fd < 0) return false;
    struct stat st {};
    bool ok = fstat(fd, &st) == 0 && S_ISREG(st.st_mode) && st.st_size <= kMaxDicomFileBytes;
    if (ok && st.st_size > 0) {
      void* p = mmap(nullptr, static_cast<size_t>(st.st_size), PROT_READ, MAP_PRIVATE | MAP_POPULATE, fd, 0);
      ok = p != MAP_FAILED;
      if (ok) data_ = static_cast<const uint8_t*>(p), size_ = static_cast<size_t>(st.st_size);
    }
    close(fd);
    return ok;
  }
  void release() {
    if (data_ != nullptr) munmap(const_cast<uint8_t*>(data_), size_);
    data_ = nullptr;
    size_ = 0;
  }
  const uint8_t* data() const { return data_ != nullptr ? data_ : reinterpret_cast<const uint8_t*>(""); }
  size_t size() const { return size_; }

 private:
  const uint8_t* data_ = nullptr;
  size_t size_ = 0;
};

struct SliceFile {
  std::string name;
  PcdDicomFileInfo info;
  MappedFile bytes;
  const uint8_t* plane = nullptr;  // rows x columns x 2 bytes inside the pixel data, or null
};

// The file names of the directory, sorted, regular files only.
std::vector<std::string> list_directory(const std::string& directory) {
  std::vector<std::string> names;
  std::error_code error;
  std::filesystem::directory_iterator it(directory, error);
  for (; !error && it != std::filesystem::directory_iterator(); it.increment(error)) {
    std::error_code kindError;
    if (it->is_regular_file(kindError)) names.push_back(it->path().filename().string());
  }
  std::sort(names.begin(), names.end());
  return names;
}

// Uncompressed little-endian transfer syntaxes (or none, as in files without meta group).
bool is_readable_syntax(const std::string& uid) {
  return uid.empty() || uid == "1.2.840.10008.1.2" || uid == "1.2.840.10008.1.2.1";
}

// One file: its elements and where its first plane lies. False (with a line) for what is
// no slice.
bool load_file(const std::string& name, SliceFile* out) {
  if (!out->bytes.open_file(name)) {
    std::fprintf(stderr, "Warning: %s cannot be read; skipped\n", name.c_str());
    return false;
  }
  out->name = name;
  out->info = pcd_scan_dicom_bytes(out->bytes.data(), out->bytes.size());
  const PcdDicomFileInfo& f = out->info;
  if (!f.hasInstance) {
    std::fprintf(stderr, "Warning: %s has no instance number (not a DICOM image); skipped\n",
                 name.c_str());
    out->bytes.release();
    return false;
  }
  const int64_t plane = int64_t{f.rows} * f.columns * 2;
  if (f.pixelOffset >= 0 && f.pixelLength != kPcdDicomUndefinedLength && plane > 0 &&
      f.pixelLength >= plane)
    out->plane = out->bytes.data() + f.pixelOffset;  // the walk checked the value against the size
  return true;
}

// Why a file cannot give its plane, or null.
const char* plane_problem(const SliceFile& file, int32_t rows, int32_t columns) {
  const PcdDicomFileInfo& f = file.info;
  if (!is_readable_syntax(f.transferSyntax)) return "its transfer syntax is not uncompressed little-endian";
  if (f.bitsAllocated != 0 && f.bitsAllocated != 16) return "its pixels are not 16-bit";
  if (f.rows != rows || f.columns != columns) return "its matrix differs from the first file's";
  if (f.pixelOffset < 0) return "it has no pixel data";
  if (f.pixelLength == kPcdDicomUndefinedLength) return "its pixel data are compressed";
  if (file.plane == nullptr) return "its pixel data are shorter than one plane";
  return nullptr;
}

bool same_position(const PcdDicomFileInfo& a, const PcdDicomFileInfo& b) {
  return a.hasPosition && b.hasPosition && a.position[0] == b.position[0] &&
         a.position[1] == b.position[1] && a.position[2] == b.position[2];
}

// Files in instance order: position i holds number i + 1, up to the first missing number.
std::vector<SliceFile> order_by_instance(std::vector<SliceFile>* files) {
  std::map<int32_t, size_t> byNumber;
  for (size_t i = 0; i < files->size(); ++i) {
    auto [it, inserted] = byNumber.emplace((*files)[i].info.instance, i);
    if (!inserted)
      std::fprintf(stderr, "Warning: %s repeats instance number %d; skipped\n",
                   (*files)[i].name.c_str(), (*files)[i].info.instance);
  }
  std::vector<SliceFile> ordered;
  for (int32_t n = 1;; ++n) {
    auto it = byNumber.find(n);
    if (it == byNumber.end()) break;
    ordered.push_back(std::move((*files)[it->second]));
  }
  if (ordered.size() < byNumber.size())
    std::fprintf(stderr, "Warning: instance number %zu is missing; the %zu files after it are not used\n",
                 ordered.size() + 1, byNumber.size() - ordered.size());
  return ordered;
}

// The files of each slice (in instance order), or empty when the files do not form
// slices x channels.
std::vector<std::vector<const SliceFile*>> group_slices(const std::vector<SliceFile>& files,
                                                        int32_t slices, int32_t channels) {
  std::vector<std::vector<const SliceFile*>> groups;
  for (int64_t i = 0; i < int64_t{slices} * channels; ++i) {
    const SliceFile& file = files[static_cast<size_t>(i)];
    auto it = std::find_if(groups.begin(), groups.end(),
                           [&](const auto& g) { return same_position(g[0]->info, file.info); });
    if (it == groups.end()) {
      if (!file.info.hasPosition || static_cast<int32_t>(groups.size()) == slices) return {};
      groups.push_back({&file});
    } else {
      it->push_back(&file);
    }
  }
  for (const auto& g : groups)
    if (static_cast<int32_t>(g.size()) != channels) return {};
  if (static_cast<int32_t>(groups.size()) != slices) return {};
  return groups;
}

void add_data_source(const std::string& directory, const PcdDicomFileInfo& f,
                     std::string* information) {
  if (information == nullptr) return;
  *information = "Data Source: DICOM\n";
  *information += pcd_format("Local DICOM directory: \n%s\n", directory.c_str());
  *information += pcd_format("Institution: %s\n", f.institution.c_str());
  *information += pcd_format("Date: %s\n", f.date.c_str());
  *information += pcd_format("Patient: %s %s\n", f.patientName.c_str(), f.patientId.c_str());
  *information += pcd_format("Scanner: %s %s\n", f.maker.c_str(), f.model.c_str());
}

// The order of the slices along z: instance order, reversed when the positions run
// against the normal, sorted along it when they are not monotonic.
std::vector<size_t> slice_order(const std::vector<std::vector<const SliceFile*>>& groups,
                                const Vec3& normal) {
  std::vector<size_t> order(groups.size());
  std::iota(order.begin(), order.end(), size_t{0});
  std::vector<double> along(groups.size());
  for (size_t s = 0; s < groups.size(); ++s) along[s] = dot(position_of(groups[s][0]->info), normal);
  bool rising = true, falling = true;
  for (size_t s = 1; s < along.size(); ++s) {
    rising = rising && along[s] > along[s - 1];
    falling = falling && along[s] < along[s - 1];
  }
  if (along.size() > 1 && falling) {
    std::fputs("Flip in Z\n", stderr);
    std::reverse(order.begin(), order.end());
  } else if (along.size() > 1 && !rising) {
    std::fputs("Warning: slice positions are not in order along the slice normal; slices sorted by position\n",
               stderr);
    std::stable_sort(order.begin(), order.end(), [&](size_t a, size_t b) { return along[a] < along[b]; });
  }
  return order;
}


// Pixel representation 0 declares unsigned pixels; the volume is signed, so values above
// 32767 come out negative. Said once, naming the first file that holds such values.
void warn_unsigned_wrap(const std::vector<std::vector<const SliceFile*>>& groups, size_t planeValues) {
  for (const auto& group : groups)
    for (const SliceFile* f : group) {
      if (f->info.pixelRepresentation != 0) continue;
      for (size_t v = 0; v < planeValues; ++v)
        if (f->plane[2 * v + 1] & 0x80) {
          std::fprintf(stderr, "Warning: %s holds unsigned pixel values above 32767; they wrap to negative values\n",
                       f->name.c_str());
          return;
        }
    }
}

// The b values and directions of the channels, from the files of one slice.
void take_diffusion(const std::vector<const SliceFile*>& slice, const Axes& axes,
                    PcdRawVolumeData* volume, PcdDicomSeries* series) {
  const int32_t channels = static_cast<int32_t>(slice.size());
  int32_t withB = 0;
  for (const SliceFile* f : slice) withB += f->info.hasBValue;
  if (withB == 0) return;
  if (withB < channels) {
    std::fprintf(stderr, "Warning: only %d of %d channels carry a b value (0018,9087); the diffusion elements are not used\n",
                 withB, channels);
    return;
  }
  if (!axes.fromFile)
    std::fputs("Warning: no image orientation (0020,0037); gradient directions are taken as the volume's axes\n",
               stderr);
  std::vector<float> b(static_cast<size_t>(channels), 0.0f);
  std::vector<PcdVector3D> g(static_cast<size_t>(channels), PcdVector3D{0, 0, 0});
  std::vector<int32_t> destination(static_cast<size_t>(channels));
  int32_t soCount = 0;
  for (const SliceFile* f : slice) soCount += f->info.bValue <= kPcdNiftiB0Threshold;
  int32_t nextSo = 0, nextDwi = soCount;
  bool moved = false;
  for (int32_t c = 0; c < channels; ++c) {
    const PcdDicomFileInfo& f = slice[static_cast<size_t>(c)]->info;
    const bool isSo = f.bValue <= kPcdNiftiB0Threshold;
    const int32_t d = isSo ? nextSo++ : nextDwi++;
    destination[static_cast<size_t>(c)] = d;
    moved = moved || d != c;
    if (isSo) continue;
    const Vec3 dir{f.direction[0], f.direction[1], f.direction[2]};
    const double length = norm(dir);
    if (!f.hasDirection || !(length > 0.0)) {
      std::fprintf(stderr, "Warning: channel %d has b=%g but no gradient direction (0018,9089); the diffusion elements are not used\n",
                   c + 1, f.bValue);
      return;
    }
    b[static_cast<size_t>(d)] = static_cast<float>(f.bValue);
    g[static_cast<size_t>(d)] = {static_cast<float>(dot(dir, axes.x) / length),
                                 static_cast<float>(dot(dir, axes.y) / length),
                                 static_cast<float>(dot(dir, axes.z) / length)};
  }
  if (moved) {
    // every channel is SINT16 of one size: moving a channel is moving its block
    std::vector<void*> data(volume->data, volume->data + channels);
    std::vector<Pcd3DArray> arrays(volume->array3D, volume->array3D + channels);
    for (int32_t c = 0; c < channels; ++c) {
      volume->data[destination[static_cast<size_t>(c)]] = data[static_cast<size_t>(c)];
      volume->array3D[destination[static_cast<size_t>(c)]] = arrays[static_cast<size_t>(c)];
    }
    std::fprintf(stderr, "Warning: the %d b=0 channels were moved in front of the diffusion-weighted ones\n",
                 soCount);
  }
  series->hasDiffusion = true;
  series->soCount = soCount;
  series->bValues = std::move(b);
  series->directions = std::move(g);
}

struct Spacing {
  double slice = 0.0;  // mm between slice centres
  double pixel = 0.0;  // mm in plane, 0 when unknown
};

Spacing read_spacing(const std::vector<std::vector<const SliceFile*>>& groups, const PcdDicomFileInfo& f) {
  Spacing s;
  float value = 0.0f;
  if (std::sscanf(f.sliceSpacing.c_str(), "%f", &value) == 1 && value > 0.0f && std::isfinite(value)) {
    s.slice = value;
  } else {
    std::fputs("Warning: DBS not found in DICOM or 0 (IMAGE_POSITION used instead)\n", stderr);
    if (groups.size() > 1) {
      const Vec3 a = position_of(groups[0][0]->info), b = position_of(groups[1][0]->info);
      s.slice = norm({b.x - a.x, b.y - a.y, b.z - a.z});
    }
  }
  float fov = 0.0f;
  if (std::sscanf(f.fieldOfView.c_str(), "%f", &fov) != 1 || !std::isfinite(fov)) {
    std::fputs("Warning: FOV not found in DICOM (PIXEL_DIMENSION used instead)\n", stderr);
    float rowSpacing = 0.0f, columnSpacing = 0.0f;
    fov = std::sscanf(f.pixelSpacing.c_str(), "%f\\%f", &rowSpacing, &columnSpacing) == 2
              ? columnSpacing * static_cast<float>(f.columns)
              : 0.0f;
  }
  if (fov > 0.0f && std::isfinite(fov)) s.pixel = static_cast<double>(fov) / f.columns;
  return s;
}

}  // namespace

PcdDicomFileInfo pcd_scan_dicom_bytes(const uint8_t* bytes, size_t size) {
  PcdDicomFileInfo info;
  if (bytes == nullptr) return info;
  FileScan scan{bytes, &info};
  info.corrupt = pcd_walk_dicom_elements(bytes, size, pcd_dicom_data_set_start(bytes, size), scan) ==
                 PcdDicomWalkEnd::kCorrupt;
  for (const auto& p : scan.pixel) {
    if (p[0] >= 0) {
      info.pixelOffset = p[0];
      info.pixelLength = p[1];
      break;
    }
  }
  return info;
}


namespace {

// The reader of one series of one-slice-per-file uncompressed images.
PcdRawVolumeData* read_slice_files(const std::string& dir, std::string* information, PcdDicomSeries& out) {

  // 1. the listing, 2. every file read once and ordered by instance number
  std::fprintf(stderr, "DICOM directory: %s\n", dir.c_str());
  const std::vector<std::string> names = list_directory(dir);
  std::fprintf(stderr, "Found %d files\n", static_cast<int>(names.size()));
  std::vector<SliceFile> files;
  files.reserve(names.size());
  for (const std::string& name : names) {
    SliceFile file;
    if (load_file(dir + name, &file)) files.push_back(std::move(file));
  }
  std::vector<SliceFile> ordered = order_by_instance(&files);
  if (ordered.empty()) {
    std::fprintf(stderr, "Err: no DICOM image numbered 1 in %s\n", dir.c_str());
    return nullptr;
  }

  // 3. channels: the files at the first file's position
  const PcdDicomFileInfo& first = ordered[0].info;
  if (!first.hasPosition) {
    std::fprintf(stderr, "Err: %s has no image position (0020,0032)\n", ordered[0].name.c_str());
    return nullptr;
  }
  int32_t channels = 0;
  for (const SliceFile& f : ordered) channels += same_position(f.info, first);
  std::fprintf(stderr, "Number of channels: %d\n", channels);
  const int32_t slices = static_cast<int32_t>(ordered.size()) / channels;
  if (int64_t{slices} * channels < static_cast<int64_t>(ordered.size()))
    std::fprintf(stderr, "Warning: %d files beyond %d slices of %d channels are not used\n",
                 static_cast<int>(ordered.size() - static_cast<size_t>(slices) * channels), slices,
                 channels);

  // 4. the data-source text, 5. geometry
  add_data_source(dir, first, information);
  if (first.rows <= 0 || first.columns <= 0) {
    std::fprintf(stderr, "Err: %s has no rows and columns (0028,0010/0011)\n", ordered[0].name.c_str());
    return nullptr;
  }
  const auto groups = group_slices(ordered, slices, channels);
  if (groups.empty()) {
    std::fprintf(stderr, "Err: the files of %s do not form %d slices of %d channels by their image positions\n",
                 dir.c_str(), slices, channels);
    return nullptr;
  }
  for (const auto& group : groups)
    for (const SliceFile* f : group)
      if (const char* problem = plane_problem(*f, first.rows, first.columns)) {
        std::fprintf(stderr, "Err: %s cannot be read: %s\n", f->name.c_str(), problem);
        return nullptr;
      }
  const Spacing spacing = read_spacing(groups, first);

  // 6. the volume
  std::fprintf(stderr, "Recognized volume: %d x %d x %d x %d\n", first.columns, first.rows, slices, channels);
  const PcdIntSize4D size{first.columns, first.rows, slices, channels};
  std::vector<int32_t> types(static_cast<size_t>(channels), SINT16);
  std::vector<int32_t> formats(static_cast<size_t>(channels), PCD_MONOCHROME);
  PcdRawVolumeData* volume = PCD_NewRawVolumeData(&size, types.data(), formats.data());
  if (volume == nullptr) {
    std::fprintf(stderr, "Err: not enough memory for the volume of %s\n", dir.c_str());
    return nullptr;
  }
  std::fprintf(stderr, "Voxel size: %f mm\n", spacing.pixel);

  // 7. the planes, each into its slice (8. reversed or sorted along the normal)
  const Axes axes = axes_of(first);
  const std::vector<size_t> order = slice_order(groups, axes.z);
  const size_t planeBytes = static_cast<size_t>(size.x) * static_cast<size_t>(size.y) * 2;
  for (size_t z = 0; z < order.size(); ++z)
    for (int32_t c = 0; c < channels; ++c)
      std::memcpy(static_cast<uint8_t*>(volume->data[c]) + planeBytes * z,
                  groups[order[z]][static_cast<size_t>(c)]->plane, planeBytes);
  warn_unsigned_wrap(groups, static_cast<size_t>(size.x) * static_cast<size_t>(size.y));
  take_diffusion(groups[0], axes, volume, &out);
  if (out.hasDiffusion) out.diffusionSource = "standard (0018,9087/9089)";

  // 9. cubic voxels
  const PcdDicomFileInfo& lowest = groups[order[0]][0]->info;
  const double axisRows[3][3] = {{axes.x.x, axes.x.y, axes.x.z}, {axes.y.x, axes.y.y, axes.y.z},
                                 {axes.z.x, axes.z.y, axes.z.z}};
  return pcd_finish_dicom_volume(volume, dir, spacing.slice, spacing.pixel, lowest.position, axisRows,
                                 axes.fromFile && lowest.hasPosition, &out);
}

}  // namespace


PcdRawVolumeData* ReadDicomDirectorySeries(const char* directory, int32_t seriesIndex,
                                           std::string* information, PcdDicomSeries* series) {
  if (directory == nullptr) return nullptr;
  PcdScopedCLocale cLocale;
  PcdDicomSeries local;
  PcdDicomSeries& out = series != nullptr ? *series : local;
  out = PcdDicomSeries{};
  std::string dir = directory;
  if (dir.empty() || dir.back() != '/') dir += '/';
  // every header read once; the minimal reader reads its files itself
  const std::shared_ptr<const PcdDicomDirectoryScan> scan = pcd_scan_dicom_directory(dir);
  if (seriesIndex > 1 || pcd_dicom_scan_needs_scanner(*scan))
    return pcd_read_scanner_dicom(*scan, seriesIndex, information, &out);
  return read_slice_files(dir, information, out);
}

PcdRawVolumeData* ReadDicomDirectory(const char* directory, std::string* information,
                                     PcdDicomSeries* series) {
  return ReadDicomDirectorySeries(directory, 0, information, series);
}

int PCD_SetDicomMpgSetting(PcdDtiData* dti, const PcdDicomSeries& series) {
  if (dti == nullptr || !series.hasDiffusion) return 0;
  const int32_t count = static_cast<int32_t>(series.bValues.size());
  if (count != dti->channelCount || count > kPcdDtiMaxChannels) {
    std::fprintf(stderr, "Warning: the DICOM diffusion elements describe %d channels, the DTI data has %d; not used\n",
                 count, dti->channelCount);
    return 0;
  }
  PCDdti_SetPropertiesOfDiffusionTensorImageData(dti, count, series.soCount, series.bValues.data(),
                                                 series.directions.data());
  if (series.diffusionSource.empty() || series.diffusionSource == "standard (0018,9087/9089)")
    std::fprintf(stderr, "MPG setting from the DICOM diffusion elements: %d b=0 and %d diffusion-weighted channels\n",
                 series.soCount, count - series.soCount);
  else
    std::fprintf(stderr, "MPG setting from the DICOM diffusion fields of %s: %d b=0 and %d diffusion-weighted channels\n",
                 series.diffusionSource.c_str(), series.soCount, count - series.soCount);
  if (dti->isReady != 1)
    std::fputs("Warning: the DICOM diffusion elements do not make a ready MPG setting\n", stderr);
  return dti->isReady == 1 ? 1 : 0;
}
