#include "io/dicom_scanner.h"

#include <gdcmDataSet.h>
#include <gdcmImage.h>
#include <gdcmPrivateTag.h>
#include <gdcmReader.h>
#include <gdcmSequenceOfItems.h>
#include <gdcmTrace.h>

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
#include <memory>
#include <set>
#include <system_error>
#include <type_traits>

#include "io/c_locale.h"
#include "io/dicom_structure.h"
#include "io/file_util.h"
#include "io/nifti_file.h"

namespace {

// Limits on what a header may claim before anything is sized by it.
constexpr int64_t kMaxFileBytes = int64_t{2} << 30;
constexpr int32_t kMaxMatrix = 16384;
constexpr int32_t kMaxFrames = 65536;
constexpr int32_t kMaxMosaicImages = 1024;
constexpr int64_t kMaxCompressionRatio = 256;

// ---- small vectors --------------------------------------------------------------------

struct Vec3 {
  double x = 0, y = 0, z = 0;
};
double dot(const Vec3& a, const Vec3& b) { return a.x * b.x + a.y * b.y + a.z * b.z; }
Vec3 cross(const Vec3& a, const Vec3& b) {
  return {a.y * b.z - a.z * b.y, a.z * b.x - a.x * b.z, a.x * b.y - a.y * b.x};
}
Vec3 add(const Vec3& a, const Vec3& b, double s) { return {a.x + s * b.x, a.y + s * b.y, a.z + s * b.z}; }
double norm(const Vec3& a) { return std::sqrt(dot(a, a)); }
Vec3 vec(const double* v) { return {v[0], v[1], v[2]}; }

// ---- values of elements ---------------------------------------------------------------

// GDCM talks on std::cerr unless told not to; our diagnostics are our own lines.
void silence_gdcm() {
  gdcm::Trace::SetDebug(false);
  gdcm::Trace::SetWarning(false);
  gdcm::Trace::SetError(false);
}

// The bytes of an element's value, or an empty view when it has none.
struct Bytes {
  const char* data = nullptr;
  size_t size = 0;
};

Bytes bytes_of(const gdcm::DataElement& de) {
  const gdcm::ByteValue* bv = de.GetByteValue();
  if (bv == nullptr || bv->GetPointer() == nullptr) return {};
  return {bv->GetPointer(), static_cast<size_t>(bv->GetLength())};
}

template <typename TagType>
Bytes find_bytes(const gdcm::DataSet& ds, const TagType& tag) {
  if (!ds.FindDataElement(tag)) return {};
  return bytes_of(ds.GetDataElement(tag));
}

// Text up to the first NUL, without the padding blanks at either end.
std::string text_of(Bytes b) {
  if (b.data == nullptr) return {};
  size_t n = strnlen(b.data, b.size);
  size_t start = 0;
  while (start < n && (b.data[start] == ' ')) ++start;
  while (n > start && (b.data[n - 1] == ' ')) --n;
  return std::string(b.data + start, n - start);
}

// The numbers of a backslash-separated text value (DS, IS), at most max of them; a part
// that is no number ends the list.
std::vector<double> numbers_of(const std::string& text, size_t max = 16) {
  std::vector<double> out;
  size_t at = 0;
  while (at <= text.size() && out.size() < max) {
    const size_t end = std::min(text.find('\\', at), text.size());
    const std::string part = text.substr(at, end - at);
    double v = 0.0;
    if (std::sscanf(part.c_str(), "%lf", &v) != 1 || !std::isfinite(v)) break;
    out.push_back(v);
    at = end + 1;
  }
  return out;
}

// Binary little-endian words of a value (FD, FL, US), nothing when the length is not a
// whole number of them.
std::vector<double> doubles_of(Bytes b) {
  std::vector<double> out;
  if (b.data == nullptr || b.size % 8 != 0) return out;
  for (size_t i = 0; i < b.size; i += 8) {
    double v;
    std::memcpy(&v, b.data + i, 8);
    out.push_back(v);
  }
  return out;
}
std::vector<double> floats_of(Bytes b) {
  std::vector<double> out;
  if (b.data == nullptr || b.size % 4 != 0) return out;
  for (size_t i = 0; i < b.size; i += 4) {
    float v;
    std::memcpy(&v, b.data + i, 4);
    out.push_back(v);
  }
  return out;
}
int32_t us_of(Bytes b) {
  if (b.data == nullptr || b.size < 2) return 0;
  const auto* p = reinterpret_cast<const uint8_t*>(b.data);
  return p[0] | p[1] << 8;
}

// An FD value written as binary or, by some writers, as text.
std::vector<double> fd_values(Bytes b, size_t count) {
  std::vector<double> v = doubles_of(b);
  if (v.size() != count) v = numbers_of(text_of(b), count);
  for (double d : v)
    if (!std::isfinite(d)) return {};
  return v.size() == count ? v : std::vector<double>{};
}
std::vector<double> fl_values(Bytes b, size_t count) {
  std::vector<double> v = floats_of(b);
  if (v.size() != count) v = numbers_of(text_of(b), count);
  for (double d : v)
    if (!std::isfinite(d)) return {};
  return v.size() == count ? v : std::vector<double>{};
}

// The first item's data set of a sequence element, or null.
const gdcm::DataSet* first_item(const gdcm::DataSet& ds, const gdcm::Tag& tag,
                                gdcm::SmartPointer<gdcm::SequenceOfItems>* keep) {
  if (!ds.FindDataElement(tag)) return nullptr;
  *keep = ds.GetDataElement(tag).GetValueAsSQ();
  if (!*keep || (*keep)->GetNumberOfItems() < 1) return nullptr;
  return &(*keep)->GetItem(1).GetNestedDataSet();
}

// ---- one file -------------------------------------------------------------------------

struct Frame {
  Vec3 position;
  PcdDicomFrameDiffusion diffusion;
  double slope = 1.0, intercept = 0.0;
  int32_t index = 0;  // frame (multi-frame) or tile (mosaic) within its file
};

struct FileMeta {
  std::string name;
  std::string seriesUid, description, syntax, maker;
  int32_t seriesNumber = -1;
  int32_t instance = 0;
  int32_t rows = 0, columns = 0;          // of one frame (a tile of a mosaic)
  int32_t storedRows = 0, storedColumns = 0;  // as stored
  int32_t mosaicTiles = 0;                // tiles per side of a mosaic, 0 otherwise
  bool enhanced = false;
  bool hasOrientation = false;
  Vec3 row{1, 0, 0}, column{0, 1, 0};
  double pixelSpacing[2] = {0, 0};  // between rows, between columns
  double sliceSpacing = 0.0;
  int32_t bitsAllocated = 0, bitsStored = 0, samplesPerPixel = 0, pixelRepresentation = 0;
  std::vector<Frame> frames;
  // where the structure check found the pixel data, in a file of fileSize bytes
  PcdDicomPixelSpan pixels;
  size_t fileSize = 0;
  std::string institution, date, patientName, patientId, model;
};

bool is_plain_syntax(const std::string& uid) {
  return uid.empty() || uid == "1.2.840.10008.1.2" || uid == "1.2.840.10008.1.2.1";
}

// Orientation, spacing and position from a data set (the file's top level or a
// functional group item); what is missing stays as it was.
void take_orientation(const gdcm::DataSet& ds, FileMeta* f) {
  const std::vector<double> o = numbers_of(text_of(find_bytes(ds, gdcm::Tag(0x0020, 0x0037))), 6);
  if (o.size() != 6) return;
  const Vec3 r{o[0], o[1], o[2]}, c{o[3], o[4], o[5]};
  if (!(norm(r) > 0.5 && norm(c) > 0.5 && norm(cross(r, c)) > 0.25)) return;
  f->row = {r.x / norm(r), r.y / norm(r), r.z / norm(r)};
  f->column = {c.x / norm(c), c.y / norm(c), c.z / norm(c)};
  f->hasOrientation = true;
}
void take_spacing(const gdcm::DataSet& ds, FileMeta* f) {
  const std::vector<double> s = numbers_of(text_of(find_bytes(ds, gdcm::Tag(0x0028, 0x0030))), 2);
  if (s.size() == 2 && s[0] > 0 && s[1] > 0) {
    f->pixelSpacing[0] = s[0];
    f->pixelSpacing[1] = s[1];
  }
  for (const gdcm::Tag& t : {gdcm::Tag(0x0018, 0x0088), gdcm::Tag(0x0018, 0x0050)}) {
    const std::vector<double> v = numbers_of(text_of(find_bytes(ds, t)), 1);
    if (v.size() == 1 && v[0] > 0) {
      f->sliceSpacing = v[0];
      break;
    }
  }
}
bool take_position(const gdcm::DataSet& ds, Vec3* p) {
  const std::vector<double> v = numbers_of(text_of(find_bytes(ds, gdcm::Tag(0x0020, 0x0032))), 3);
  if (v.size() != 3) return false;
  *p = {v[0], v[1], v[2]};
  return true;
}
void take_rescale(const gdcm::DataSet& ds, Frame* frame) {
  const std::vector<double> i = numbers_of(text_of(find_bytes(ds, gdcm::Tag(0x0028, 0x1052))), 1);
  const std::vector<double> s = numbers_of(text_of(find_bytes(ds, gdcm::Tag(0x0028, 0x1053))), 1);
  if (i.size() == 1) frame->intercept = i[0];
  if (s.size() == 1 && s[0] != 0.0) frame->slope = s[0];
}

// ---- diffusion, source by source ------------------------------------------------------

void set_direction(PcdDicomFrameDiffusion* d, const std::vector<double>& v) {
  if (v.size() != 3) return;
  for (int i = 0; i < 3; ++i) d->direction[i] = v[static_cast<size_t>(i)];
  d->hasDirection = true;
}

// (0018,9087) and (0018,9089), at the top level or in an MR Diffusion item.
bool standard_diffusion(const gdcm::DataSet& ds, PcdDicomFrameDiffusion* d) {
  const std::vector<double> b = fd_values(find_bytes(ds, gdcm::Tag(0x0018, 0x9087)), 1);
  if (b.empty()) return false;
  *d = {};
  d->hasB = true;
  d->b = b[0];
  d->source = "standard (0018,9087/9089)";
  set_direction(d, fd_values(find_bytes(ds, gdcm::Tag(0x0018, 0x9089)), 3));
  gdcm::SmartPointer<gdcm::SequenceOfItems> keep;
  if (const gdcm::DataSet* g = first_item(ds, gdcm::Tag(0x0018, 0x9076), &keep))
    set_direction(d, fd_values(find_bytes(*g, gdcm::Tag(0x0018, 0x9089)), 3));
  const std::string directionality = text_of(find_bytes(ds, gdcm::Tag(0x0018, 0x9075)));
  d->isotropic = directionality == "ISOTROPIC";
  return true;
}

// The principal axis of a symmetric B matrix (bxx bxy bxz byy byz bzz): its largest
// eigenvector by power iteration, which is the gradient direction of a single-direction
// acquisition (B = b g g^T).
std::vector<double> b_matrix_direction(const std::vector<double>& m) {
  if (m.size() != 6) return {};
  const double a[3][3] = {{m[0], m[1], m[2]}, {m[1], m[3], m[4]}, {m[2], m[4], m[5]}};
  Vec3 v{1, 1, 1};
  for (int k = 0; k < 3; ++k)  // start from the largest diagonal's axis
    if (a[k][k] >= a[0][0] && a[k][k] >= a[1][1] && a[k][k] >= a[2][2]) v = {k == 0 ? 1.0 : 0.1, k == 1 ? 1.0 : 0.1, k == 2 ? 1.0 : 0.1};
  for (int it = 0; it < 100; ++it) {
    const Vec3 w{a[0][0] * v.x + a[0][1] * v.y + a[0][2] * v.z, a[1][0] * v.x + a[1][1] * v.y + a[1][2] * v.z,
                 a[2][0] * v.x + a[2][1] * v.y + a[2][2] * v.z};
    const double n = norm(w);
    if (!(n > 0)) return {0, 0, 0};
    v = {w.x / n, w.y / n, w.z / n};
  }
  return {v.x, v.y, v.z};
}

// The numbers of one CSA element: its items are texts, NUL-terminated.
std::vector<double> csa_numbers(const PcdCsaHeader& csa, const char* name, size_t max) {
  auto it = csa.find(name);
  std::vector<double> out;
  if (it == csa.end()) return out;
  for (const std::string& item : it->second) {
    if (out.size() >= max) break;
    double v = 0.0;
    if (std::sscanf(item.c_str(), "%lf", &v) == 1 && std::isfinite(v)) out.push_back(v);
  }
  return out;
}

struct CsaFields {
  bool loaded = false;
  PcdDicomFrameDiffusion diffusion;
  int32_t mosaicImages = 0;
  bool hasNormal = false;
  Vec3 normal;
};

CsaFields read_csa(const gdcm::DataSet& ds) {
  CsaFields out;
  const Bytes bytes = find_bytes(ds, gdcm::PrivateTag(0x0029, 0x10, "SIEMENS CSA HEADER"));
  PcdCsaHeader csa;
  if (!pcd_parse_csa_header(reinterpret_cast<const uint8_t*>(bytes.data), bytes.size, &csa)) return out;
  out.loaded = true;
  const std::vector<double> mosaic = csa_numbers(csa, "NumberOfImagesInMosaic", 1);
  if (!mosaic.empty() && mosaic[0] >= 1 && mosaic[0] <= kMaxMosaicImages) out.mosaicImages = static_cast<int32_t>(mosaic[0]);
  const std::vector<double> normal = csa_numbers(csa, "SliceNormalVector", 3);
  if (normal.size() == 3 && norm(vec(normal.data())) > 0.5) {
    out.hasNormal = true;
    out.normal = vec(normal.data());
  }
  const std::vector<double> b = csa_numbers(csa, "B_value", 1);
  if (!b.empty()) {
    PcdDicomFrameDiffusion& d = out.diffusion;
    d.hasB = true;
    d.b = b[0];
    d.source = "Siemens CSA";
    std::vector<double> g = csa_numbers(csa, "DiffusionGradientDirection", 3);
    if (g.size() != 3) g = b_matrix_direction(csa_numbers(csa, "B_matrix", 6));
    set_direction(&d, g);
  }
  return out;
}

bool siemens_diffusion(const gdcm::DataSet& ds, PcdDicomFrameDiffusion* d) {
  const std::vector<double> b =
      numbers_of(text_of(find_bytes(ds, gdcm::PrivateTag(0x0019, 0x0C, "SIEMENS MR HEADER"))), 1);
  if (b.empty()) return false;
  *d = {};
  d->hasB = true;
  d->b = b[0];
  d->source = "Siemens (0019,100C/100E)";
  set_direction(d, fd_values(find_bytes(ds, gdcm::PrivateTag(0x0019, 0x0E, "SIEMENS MR HEADER")), 3));
  return true;
}

bool ge_diffusion(const gdcm::DataSet& ds, PcdDicomFrameDiffusion* d) {
  const std::vector<double> b =
      numbers_of(text_of(find_bytes(ds, gdcm::PrivateTag(0x0043, 0x39, "GEMS_PARM_01"))), 1);
  if (b.empty()) return false;
  *d = {};
  d->hasB = true;
  // some releases add 10^9 (or multiples of it) to flag the b value
  d->b = b[0] >= 1e9 ? std::fmod(b[0], 1e9) : b[0];
  d->source = "GE (0043,1039) and (0019,10BB/BC/BD)";
  d->inImageAxes = true;
  std::vector<double> g;
  for (uint8_t e : {uint8_t{0xBB}, uint8_t{0xBC}, uint8_t{0xBD}}) {
    const std::vector<double> v =
        numbers_of(text_of(find_bytes(ds, gdcm::PrivateTag(0x0019, e, "GEMS_ACQU_01"))), 1);
    if (v.size() == 1) g.push_back(v[0]);
  }
  set_direction(d, g);
  return true;
}

bool philips_diffusion(const gdcm::DataSet& ds, PcdDicomFrameDiffusion* d) {
  const std::vector<double> b =
      fl_values(find_bytes(ds, gdcm::PrivateTag(0x2001, 0x03, "Philips Imaging DD 001")), 1);
  if (b.empty()) return false;
  *d = {};
  d->hasB = true;
  d->b = b[0];
  d->source = "Philips (2001,1003) and (2005,10B0/B1/B2)";
  std::vector<double> g;
  for (uint8_t e : {uint8_t{0xB0}, uint8_t{0xB1}, uint8_t{0xB2}}) {
    const std::vector<double> v =
        fl_values(find_bytes(ds, gdcm::PrivateTag(0x2005, e, "Philips MR Imaging DD 001")), 1);
    if (v.size() == 1) g.push_back(v[0]);
  }
  set_direction(d, g);
  d->isotropic = text_of(find_bytes(ds, gdcm::PrivateTag(0x2001, 0x04, "Philips Imaging DD 001"))) == "I";
  return true;
}

// Canon writes "b=1000(0.267,0.535,0.802)" into the image comments.
bool canon_diffusion(const gdcm::DataSet& ds, PcdDicomFrameDiffusion* d) {
  const std::string text = text_of(find_bytes(ds, gdcm::Tag(0x0020, 0x4000)));
  const size_t at = text.find("b=");
  if (at == std::string::npos) return false;
  double b = 0, g[3] = {};
  const int n = std::sscanf(text.c_str() + at, "b=%lf(%lf,%lf,%lf)", &b, &g[0], &g[1], &g[2]);
  if (n < 1 || !std::isfinite(b)) return false;
  *d = {};
  d->hasB = true;
  d->b = b;
  d->source = "Canon (0020,4000)";
  if (n == 4 && std::isfinite(g[0]) && std::isfinite(g[1]) && std::isfinite(g[2])) set_direction(d, {g[0], g[1], g[2]});
  return true;
}

// The standard elements first, then the vendors' own.
PcdDicomFrameDiffusion file_diffusion(const gdcm::DataSet& ds, const CsaFields& csa) {
  PcdDicomFrameDiffusion d;
  if (standard_diffusion(ds, &d)) return d;
  if (csa.diffusion.hasB) return csa.diffusion;
  if (siemens_diffusion(ds, &d) || ge_diffusion(ds, &d) || philips_diffusion(ds, &d) || canon_diffusion(ds, &d))
    return d;
  return {};
}

// A diffusion-weighted frame without a direction is a trace image.
void settle_isotropic(PcdDicomFrameDiffusion* d) {
  if (!d->hasB || d->b <= kPcdNiftiB0Threshold) return;
  const double n = d->hasDirection ? norm(vec(d->direction)) : 0.0;
  if (!(n > 1e-6)) d->isotropic = true;
}

// The frames of an enhanced (multi-frame) file from its functional groups: per-frame
// items override the shared ones.
bool take_enhanced_frames(const gdcm::DataSet& ds, int32_t frameCount, FileMeta* f) {
  gdcm::SmartPointer<gdcm::SequenceOfItems> sharedKeep, perFrame;
  const gdcm::DataSet* shared = first_item(ds, gdcm::Tag(0x5200, 0x9229), &sharedKeep);
  if (!ds.FindDataElement(gdcm::Tag(0x5200, 0x9230))) return false;
  perFrame = ds.GetDataElement(gdcm::Tag(0x5200, 0x9230)).GetValueAsSQ();
  if (!perFrame || perFrame->GetNumberOfItems() != static_cast<size_t>(frameCount)) return false;
  auto groups = [&](const gdcm::DataSet& item, auto&& take) {
    for (const gdcm::DataSet* g : {shared, &item})
      if (g != nullptr) take(*g);
  };
  for (int32_t i = 0; i < frameCount; ++i) {
    const gdcm::DataSet& item = perFrame->GetItem(static_cast<size_t>(i) + 1).GetNestedDataSet();
    Frame frame;
    frame.index = i;
    bool hasPosition = false;
    groups(item, [&](const gdcm::DataSet& g) {
      gdcm::SmartPointer<gdcm::SequenceOfItems> keep;
      if (const gdcm::DataSet* s = first_item(g, gdcm::Tag(0x0020, 0x9116), &keep)) take_orientation(*s, f);
      if (const gdcm::DataSet* s = first_item(g, gdcm::Tag(0x0028, 0x9110), &keep)) take_spacing(*s, f);
      if (const gdcm::DataSet* s = first_item(g, gdcm::Tag(0x0020, 0x9113), &keep))
        hasPosition = take_position(*s, &frame.position) || hasPosition;
      if (const gdcm::DataSet* s = first_item(g, gdcm::Tag(0x0028, 0x9145), &keep)) take_rescale(*s, &frame);
      if (const gdcm::DataSet* s = first_item(g, gdcm::Tag(0x0018, 0x9117), &keep))
        standard_diffusion(*s, &frame.diffusion);
    });
    if (!hasPosition) return false;
    settle_isotropic(&frame.diffusion);
    f->frames.push_back(frame);
  }
  return true;
}

// The tiles of a Siemens mosaic as frames: the stored position is that of the whole
// mosaic's corner; tile k lies k slice spacings along the slice normal from the first
// tile, whose corner is moved by half the difference of the mosaic and tile sizes.
bool take_mosaic_frames(const CsaFields& csa, const Vec3& position, const Frame& base, FileMeta* f) {
  const int32_t n = csa.mosaicImages;
  const auto tiles = static_cast<int32_t>(std::ceil(std::sqrt(static_cast<double>(n)) - 1e-9));
  // tiles need a place along the normal: without a slice spacing they would all coincide
  if (tiles < 1 || f->storedRows % tiles != 0 || f->storedColumns % tiles != 0 || !(f->sliceSpacing > 0)) return false;
  f->mosaicTiles = tiles;
  f->rows = f->storedRows / tiles;
  f->columns = f->storedColumns / tiles;
  const Vec3 normal = csa.hasNormal ? csa.normal : cross(f->row, f->column);
  const double nn = norm(normal);
  const Vec3 unit{normal.x / nn, normal.y / nn, normal.z / nn};
  Vec3 first = add(position, f->row, f->pixelSpacing[1] * (f->storedColumns - f->columns) / 2.0);
  first = add(first, f->column, f->pixelSpacing[0] * (f->storedRows - f->rows) / 2.0);
  for (int32_t k = 0; k < n; ++k) {
    Frame frame = base;
    frame.index = k;
    frame.position = add(first, unit, f->sliceSpacing * k);
    f->frames.push_back(frame);
  }
  return true;
}

// Reads the header of one file (up to its pixel data). False for what is no DICOM image
// we can use.
// A file's bytes while they are needed: small files (one slice) are read into a buffer
// kept from file to file, large ones (mosaics, multi-frame) mapped read-only, so that
// nothing is zeroed or copied for pixel data a pass does not use. The buffer is the
// thread's own: one object at a time per thread.
class MappedBytes {
 public:
  explicit MappedBytes(const std::string& name) {
    const int fd = ::open(name.c_str(), O_RDONLY | O_CLOEXEC);
    if (fd < 0) return;
    struct stat st {};
    if (fstat(fd, &st) == 0 && S_ISREG(st.st_mode) && st.st_size > 0 && st.st_size <= kMaxFileBytes) {
      const auto size = static_cast<size_t>(st.st_size);
      if (size <= kReadLimit) {
        thread_local std::unique_ptr<uint8_t[]> buffer;
        thread_local size_t capacity = 0;
        if (capacity < size) {
          buffer.reset(new uint8_t[kReadLimit]);
          capacity = kReadLimit;
        }
        size_t got = 0;
        while (got < size) {
          const ssize_t n = ::read(fd, buffer.get() + got, size - got);
          if (n <= 0) break;
          got += static_cast<size_t>(n);
        }
        if (got == size) data_ = buffer.get(), size_ = size;
      } else {
        void* p = mmap(nullptr, size, PROT_READ, MAP_PRIVATE, fd, 0);
        if (p != MAP_FAILED) data_ = static_cast<const uint8_t*>(p), size_ = size, mapped_ = true;
      }
    }
    ::close(fd);
  }
  ~MappedBytes() {
    if (mapped_) munmap(const_cast<uint8_t*>(data_), size_);
  }
  MappedBytes(const MappedBytes&) = delete;
  MappedBytes& operator=(const MappedBytes&) = delete;
  const uint8_t* data() const { return data_; }
  size_t size() const { return size_; }

 private:
  static constexpr size_t kReadLimit = size_t{1} << 20;
  const uint8_t* data_ = nullptr;
  size_t size_ = 0;
  bool mapped_ = false;
};

// The bytes of one file, rebuilt for GDCM, when their structure is sound.
bool read_sound_bytes(const MappedBytes& file, std::string* bytes, PcdDicomPixelSpan* pixels, bool headerOnly) {
  return file.data() != nullptr && pcd_dicom_canonical_bytes(file.data(), file.size(), bytes, pixels, headerOnly);
}

bool read_file_meta(const std::string& name, FileMeta* f) {
  std::string bytes;
  PcdDicomPixelSpan span;
  {
    const MappedBytes file(name);
    if (!read_sound_bytes(file, &bytes, &span, true)) return false;
    f->pixels = span;
    f->fileSize = file.size();
  }
  const int64_t pixelBytes = span.length;
  PcdMemoryStreamBuf buffer(bytes.data(), bytes.size());
  std::istream stream(&buffer);
  gdcm::Reader reader;
  reader.SetStream(stream);
  if (!reader.ReadUpToTag(gdcm::Tag(0x7FE0, 0x0010))) return false;
  const gdcm::File& file = reader.GetFile();
  const gdcm::DataSet& ds = file.GetDataSet();
  f->name = name;
  f->syntax = file.GetHeader().GetDataSetTransferSyntax().GetString() != nullptr
                  ? file.GetHeader().GetDataSetTransferSyntax().GetString()
                  : "";
  f->syntax = text_of({f->syntax.data(), f->syntax.size()});
  f->seriesUid = text_of(find_bytes(ds, gdcm::Tag(0x0020, 0x000E)));
  f->description = text_of(find_bytes(ds, gdcm::Tag(0x0008, 0x103E)));
  f->maker = text_of(find_bytes(ds, gdcm::Tag(0x0008, 0x0070)));
  f->model = text_of(find_bytes(ds, gdcm::Tag(0x0008, 0x1090)));
  f->institution = text_of(find_bytes(ds, gdcm::Tag(0x0008, 0x0080)));
  f->date = text_of(find_bytes(ds, gdcm::Tag(0x0008, 0x0020)));
  f->patientName = text_of(find_bytes(ds, gdcm::Tag(0x0010, 0x0010)));
  f->patientId = text_of(find_bytes(ds, gdcm::Tag(0x0010, 0x0020)));
  const std::vector<double> number = numbers_of(text_of(find_bytes(ds, gdcm::Tag(0x0020, 0x0011))), 1);
  if (number.size() == 1 && std::fabs(number[0]) < 1e9) f->seriesNumber = static_cast<int32_t>(number[0]);
  const std::vector<double> instance = numbers_of(text_of(find_bytes(ds, gdcm::Tag(0x0020, 0x0013))), 1);
  if (instance.size() == 1 && std::fabs(instance[0]) < 1e9) f->instance = static_cast<int32_t>(instance[0]);
  f->storedRows = us_of(find_bytes(ds, gdcm::Tag(0x0028, 0x0010)));
  f->storedColumns = us_of(find_bytes(ds, gdcm::Tag(0x0028, 0x0011)));
  f->bitsAllocated = us_of(find_bytes(ds, gdcm::Tag(0x0028, 0x0100)));
  f->bitsStored = us_of(find_bytes(ds, gdcm::Tag(0x0028, 0x0101)));
  f->samplesPerPixel = us_of(find_bytes(ds, gdcm::Tag(0x0028, 0x0002)));
  f->pixelRepresentation = us_of(find_bytes(ds, gdcm::Tag(0x0028, 0x0103)));
  if (f->storedRows < 1 || f->storedColumns < 1 || f->storedRows > kMaxMatrix || f->storedColumns > kMaxMatrix)
    return false;
  f->rows = f->storedRows;
  f->columns = f->storedColumns;
  const std::vector<double> frames = numbers_of(text_of(find_bytes(ds, gdcm::Tag(0x0028, 0x0008))), 1);
  const int32_t frameCount = frames.size() == 1 && frames[0] >= 1 && frames[0] <= kMaxFrames ? static_cast<int32_t>(frames[0]) : 1;
  // the matrix the header claims must lie in the file's pixel data (compressed data within
  // a ratio no codec we take reaches), or the pixels would size memory by a header alone
  const int64_t claimed = int64_t{f->storedRows} * f->storedColumns * frameCount * std::max(f->bitsAllocated, 8) / 8;
  if (claimed > pixelBytes * (is_plain_syntax(f->syntax) ? 1 : kMaxCompressionRatio)) return false;
  take_orientation(ds, f);
  take_spacing(ds, f);

  if (ds.FindDataElement(gdcm::Tag(0x5200, 0x9230))) {
    f->enhanced = true;
    return take_enhanced_frames(ds, frameCount, f);
  }
  if (frameCount != 1) return false;  // multi-frame without functional groups: no geometry
  Frame base;
  take_rescale(ds, &base);
  Vec3 position;
  if (!take_position(ds, &position)) return false;
  const CsaFields csa = read_csa(ds);
  base.diffusion = file_diffusion(ds, csa);
  settle_isotropic(&base.diffusion);
  int32_t mosaic = csa.mosaicImages;
  if (mosaic == 0) mosaic = us_of(find_bytes(ds, gdcm::PrivateTag(0x0019, 0x0A, "SIEMENS MR HEADER")));
  if (mosaic > 1 && mosaic <= kMaxMosaicImages) {
    CsaFields withCount = csa;
    withCount.mosaicImages = mosaic;
    return take_mosaic_frames(withCount, position, base, f);
  }
  base.position = position;
  f->frames.push_back(base);
  return true;
}

// The regular files of a directory, sorted.
std::vector<std::string> list_files(const std::string& directory) {
  std::vector<std::string> names;
  std::error_code error;
  std::filesystem::directory_iterator it(directory, error);
  for (; !error && it != std::filesystem::directory_iterator(); it.increment(error)) {
    std::error_code kindError;
    if (it->is_regular_file(kindError)) names.push_back(it->path().string());
  }
  std::sort(names.begin(), names.end());
  return names;
}

std::vector<FileMeta> read_directory_meta(const std::string& directory) {
  silence_gdcm();
  PcdScopedCLocale cLocale;
  std::vector<FileMeta> metas;
  for (const std::string& name : list_files(directory)) {
    FileMeta f;
    if (read_file_meta(name, &f)) metas.push_back(std::move(f));
  }
  return metas;
}

// ---- series and their layout ------------------------------------------------------------

struct Series {
  std::string uid;
  std::vector<const FileMeta*> files;  // in instance order
};

std::vector<Series> group_series(const std::vector<FileMeta>& metas) {
  std::map<std::string, Series> byUid;
  for (const FileMeta& f : metas) {
    Series& s = byUid[f.seriesUid];
    s.uid = f.seriesUid;
    s.files.push_back(&f);
  }
  std::vector<Series> out;
  for (auto& [uid, s] : byUid) {
    std::stable_sort(s.files.begin(), s.files.end(),
                     [](const FileMeta* a, const FileMeta* b) { return a->instance < b->instance; });
    out.push_back(std::move(s));
  }
  std::stable_sort(out.begin(), out.end(), [](const Series& a, const Series& b) {
    return a.files[0]->seriesNumber < b.files[0]->seriesNumber;
  });
  return out;
}

// One frame of the series and where it goes.
struct PlacedFrame {
  const FileMeta* file;
  const Frame* frame;
};

// The series laid out as slices x channels: slices along the normal (row x column),
// channels in file and frame order within each slice.
struct Layout {
  std::string problem;  // why no volume can be made, or empty
  int32_t columns = 0, rows = 0, slices = 0, channels = 0;
  Vec3 row, column, normal;
  double sliceSpacing = 0.0;
  std::vector<std::vector<PlacedFrame>> slicesOfFrames;  // [slice][channel], slice 0 lowest
};

Layout lay_out(const Series& s) {
  Layout L;
  const FileMeta& first = *s.files[0];
  L.columns = first.columns;
  L.rows = first.rows;
  L.row = first.row;
  L.column = first.column;
  const Vec3 n = cross(first.row, first.column);
  L.normal = {n.x / norm(n), n.y / norm(n), n.z / norm(n)};
  std::vector<std::pair<double, PlacedFrame>> along;
  for (const FileMeta* f : s.files) {
    if (f->columns != L.columns || f->rows != L.rows) {
      L.problem = f->name + " has another matrix than " + first.name;
      return L;
    }
    if (std::fabs(dot(f->row, first.row) - 1) > 1e-4 || std::fabs(dot(f->column, first.column) - 1) > 1e-4) {
      L.problem = f->name + " has another orientation than " + first.name;
      return L;
    }
    for (const Frame& fr : f->frames) along.push_back({dot(fr.position, L.normal), {f, &fr}});
  }
  std::stable_sort(along.begin(), along.end(), [](const auto& a, const auto& b) { return a.first < b.first; });
  // frames closer than a hundredth of a millimetre along the normal share a slice
  for (size_t i = 0; i < along.size(); ++i) {
    if (i == 0 || along[i].first - along[i - 1].first > 0.01) L.slicesOfFrames.emplace_back();
    L.slicesOfFrames.back().push_back(along[i].second);
  }
  L.slices = static_cast<int32_t>(L.slicesOfFrames.size());
  L.channels = static_cast<int32_t>(L.slicesOfFrames[0].size());
  for (const auto& slice : L.slicesOfFrames)
    if (static_cast<int32_t>(slice.size()) != L.channels) {
      L.problem = "its " + std::to_string(along.size()) + " frames do not form slices of equal channel counts";
      return L;
    }
  if (L.slices > 1) {
    const double span = dot(L.slicesOfFrames.back()[0].frame->position, L.normal) -
                        dot(L.slicesOfFrames[0][0].frame->position, L.normal);
    L.sliceSpacing = span / (L.slices - 1);
  } else {
    L.sliceSpacing = first.sliceSpacing;
  }
  return L;
}

const char* layout_name(const Series& s) {
  if (s.files[0]->mosaicTiles > 0) return "Siemens mosaic";
  if (s.files[0]->enhanced) return "enhanced multi-frame";
  return "one slice per file";
}

PcdDicomSeriesSummary summarize(const Series& s) {
  PcdDicomSeriesSummary out;
  const FileMeta& first = *s.files[0];
  out.seriesNumber = first.seriesNumber;
  out.uid = s.uid;
  out.description = first.description;
  out.layout = layout_name(s);
  out.files = static_cast<int32_t>(s.files.size());
  const Layout L = lay_out(s);
  if (L.problem.empty()) {
    out.columns = L.columns;
    out.rows = L.rows;
    out.slices = L.slices;
    out.channels = L.channels;
  }
  std::set<float> b;
  for (const FileMeta* f : s.files)
    for (const Frame& fr : f->frames)
      if (fr.diffusion.hasB) {
        b.insert(static_cast<float>(fr.diffusion.b));
        out.diffusionSource = fr.diffusion.source;
      }
  out.bValues.assign(b.begin(), b.end());
  return out;
}

// ---- pixels ---------------------------------------------------------------------------

// Converts stored values into the signed 16-bit volume, rescaled; counts what is clamped.
struct Converter {
  int64_t clamped = 0;
  int16_t operator()(double stored, const Frame& frame) {
    const double v = std::nearbyint(stored * frame.slope + frame.intercept);
    if (v > 32767.0 || v < -32768.0 || !std::isfinite(v)) {
      ++clamped;
      return v > 0 ? int16_t{32767} : int16_t{-32768};
    }
    return static_cast<int16_t>(v);
  }
};

// The decoded pixels of one file; empty (with the reason) when they cannot be had.
struct Pixels {
  std::vector<char> buffer;
  gdcm::PixelFormat format;
  uint32_t width = 0, height = 0, frames = 0;
};

// Uncompressed pixels are taken from the bytes as they lie; compressed ones are decoded by
// GDCM's codecs through an image made from the checked header values alone (GDCM's own
// reading of an image's header asserts on values it dislikes).
std::string read_pixels(const FileMeta& f, Pixels* out) {
  const MappedBytes file(f.name);
  std::string bytes;
  PcdDicomPixelSpan span = f.pixels;
  const bool plain = is_plain_syntax(f.syntax);
  // uncompressed pixels lie where the header pass found them, in a file of the same size
  if (file.data() == nullptr || file.size() != f.fileSize) return "it changed while it was read";
  if (!plain && !read_sound_bytes(file, &bytes, &span, false)) return "it changed while it was read";
  if (span.offset < 0) return "it has no pixel data";
  if (f.samplesPerPixel > 1) return "its pixels are not monochrome";
  const int32_t bits = f.bitsAllocated == 0 ? 16 : f.bitsAllocated;
  if (bits != 8 && bits != 16 && bits != 32) return "its pixels are not 8, 16 or 32-bit integers";
  const int32_t stored = f.bitsStored >= 1 && f.bitsStored <= bits ? f.bitsStored : bits;
  out->format = gdcm::PixelFormat(1, static_cast<unsigned short>(bits), static_cast<unsigned short>(stored),
                                  static_cast<unsigned short>(stored - 1), f.pixelRepresentation == 1 ? 1 : 0);
  out->width = static_cast<uint32_t>(f.storedColumns);
  out->height = static_cast<uint32_t>(f.storedRows);
  out->frames = f.mosaicTiles > 0 ? 1 : static_cast<uint32_t>(f.frames.size());
  const int64_t needed = int64_t{out->width} * out->height * out->frames * (bits / 8);
  if (plain) {
    if (span.encapsulated || span.length < needed) return "its pixel data are shorter than its matrix";
    const char* at = reinterpret_cast<const char*>(file.data()) + span.fileOffset;
    out->buffer.assign(at, at + needed);
    return {};
  }
  PcdMemoryStreamBuf buffer(bytes.data(), bytes.size());
  std::istream stream(&buffer);
  gdcm::Reader reader;
  reader.SetStream(stream);
  if (!reader.Read()) return "GDCM cannot read it";
  const gdcm::DataSet& ds = reader.GetFile().GetDataSet();
  if (!ds.FindDataElement(gdcm::Tag(0x7FE0, 0x0010))) return "it has no pixel data";
  gdcm::Image image;
  image.SetNumberOfDimensions(out->frames > 1 ? 3 : 2);
  image.SetDimension(0, out->width);
  image.SetDimension(1, out->height);
  if (out->frames > 1) image.SetDimension(2, out->frames);
  image.SetPixelFormat(out->format);
  image.SetPhotometricInterpretation(gdcm::PhotometricInterpretation::MONOCHROME2);
  image.SetTransferSyntax(gdcm::TransferSyntax::GetTSType(f.syntax.c_str()));
  image.SetDataElement(ds.GetDataElement(gdcm::Tag(0x7FE0, 0x0010)));
  if (static_cast<int64_t>(image.GetBufferLength()) != needed) return "its pixel data do not match its matrix";
  out->buffer.resize(static_cast<size_t>(needed));
  if (!image.GetBuffer(out->buffer.data())) return "its pixel data cannot be decoded";
  return {};
}

// One row of stored values of type T into the volume, rescaled; a plain signed 16-bit
// row without rescaling is copied as it is.
template <typename T>
void convert_row(const char* from, size_t n, const Frame& frame, Converter* convert, int16_t* out) {
  if constexpr (std::is_same_v<T, int16_t>) {
    if (frame.slope == 1.0 && frame.intercept == 0.0) {
      std::memcpy(out, from, n * sizeof(int16_t));
      return;
    }
  }
  for (size_t x = 0; x < n; ++x) {
    T v;
    std::memcpy(&v, from + x * sizeof(T), sizeof(T));
    out[x] = (*convert)(static_cast<double>(v), frame);
  }
}

// Copies one frame (or mosaic tile) into plane out (columns x rows of the layout).
void copy_frame(const Pixels& p, const FileMeta& f, const Frame& frame, Converter* convert, int16_t* out) {
  const size_t w = static_cast<size_t>(f.columns), h = static_cast<size_t>(f.rows);
  size_t x0 = 0, y0 = 0, base = 0;
  if (f.mosaicTiles > 0) {
    x0 = static_cast<size_t>(frame.index % f.mosaicTiles) * w;
    y0 = static_cast<size_t>(frame.index / f.mosaicTiles) * h;
  } else {
    base = static_cast<size_t>(frame.index) * w * h;
  }
  const gdcm::PixelFormat::ScalarType type = p.format.GetScalarType();
  const size_t size = p.format.GetPixelSize();
  for (size_t y = 0; y < h; ++y) {
    const char* from = p.buffer.data() + (base + (y0 + y) * p.width + x0) * size;
    int16_t* row = out + y * w;
    switch (type) {
      case gdcm::PixelFormat::UINT8: convert_row<uint8_t>(from, w, frame, convert, row); break;
      case gdcm::PixelFormat::INT8: convert_row<int8_t>(from, w, frame, convert, row); break;
      case gdcm::PixelFormat::UINT16: convert_row<uint16_t>(from, w, frame, convert, row); break;
      case gdcm::PixelFormat::INT16: convert_row<int16_t>(from, w, frame, convert, row); break;
      case gdcm::PixelFormat::UINT32: convert_row<uint32_t>(from, w, frame, convert, row); break;
      case gdcm::PixelFormat::INT32: convert_row<int32_t>(from, w, frame, convert, row); break;
      default: std::fill(row, row + w, int16_t{0}); break;
    }
  }
}

// ---- diffusion of the channels ----------------------------------------------------------

// Drops trace channels, moves b = 0 channels in front and turns the directions into the
// volume's axes. Returns the kept channels in their new order.
std::vector<int32_t> settle_channels(const Layout& L, PcdDicomSeries* series) {
  const std::vector<PlacedFrame>& slice = L.slicesOfFrames[0];
  std::vector<int32_t> keep;
  int32_t withB = 0;
  for (const PlacedFrame& p : slice) withB += p.frame->diffusion.hasB;
  const bool useDiffusion = withB == L.channels;
  if (withB > 0 && !useDiffusion)
    std::fprintf(stderr, "Warning: only %d of %d channels carry a b value; the diffusion fields are not used\n", withB,
                 L.channels);
  for (int32_t c = 0; c < L.channels; ++c) {
    const PcdDicomFrameDiffusion& d = slice[static_cast<size_t>(c)].frame->diffusion;
    if (useDiffusion && d.isotropic) {
      std::fprintf(stderr, "Warning: channel %d (b=%g) is an isotropic trace image; dropped\n", c + 1, d.b);
      continue;
    }
    keep.push_back(c);
  }
  if (!useDiffusion) return keep;
  std::vector<int32_t> order;
  for (int32_t c : keep)
    if (slice[static_cast<size_t>(c)].frame->diffusion.b <= kPcdNiftiB0Threshold) order.push_back(c);
  const auto soCount = static_cast<int32_t>(order.size());
  for (int32_t c : keep)
    if (slice[static_cast<size_t>(c)].frame->diffusion.b > kPcdNiftiB0Threshold) order.push_back(c);
  bool moved = false;
  for (size_t i = 0; i < order.size(); ++i) moved = moved || order[i] != keep[i];
  if (moved)
    std::fprintf(stderr, "Warning: the %d b=0 channels were moved in front of the diffusion-weighted ones\n", soCount);
  series->hasDiffusion = true;
  series->soCount = soCount;
  series->diffusionSource = slice[0].frame->diffusion.source;
  for (size_t i = 0; i < order.size(); ++i) {
    const PcdDicomFrameDiffusion& d = slice[static_cast<size_t>(order[i])].frame->diffusion;
    const bool isSo = static_cast<int32_t>(i) < soCount;
    series->bValues.push_back(isSo ? 0.0f : static_cast<float>(d.b));
    const Vec3 g = vec(d.direction);
    const double length = norm(g);
    if (isSo || !(length > 0)) {
      series->directions.push_back({0, 0, 0});
      continue;
    }
    if (d.inImageAxes)  // GE's y axis runs up the image, against the column direction
      series->directions.push_back({static_cast<float>(g.x / length), static_cast<float>(-g.y / length),
                                    static_cast<float>(g.z / length)});
    else
      series->directions.push_back({static_cast<float>(dot(g, L.row) / length),
                                    static_cast<float>(dot(g, L.column) / length),
                                    static_cast<float>(dot(g, L.normal) / length)});
  }
  return order;
}

int32_t pick_series(const std::vector<Series>& all) {
  int32_t best = 0;
  auto channels = [](const Series& s) {
    const PcdDicomSeriesSummary sum = summarize(s);
    return sum.bValues.size() > 1 ? sum.channels : -1;
  };
  for (int32_t i = 1; i < static_cast<int32_t>(all.size()); ++i) {
    const int32_t a = channels(all[static_cast<size_t>(i)]), b = channels(all[static_cast<size_t>(best)]);
    if (a > b || (a == b && all[static_cast<size_t>(i)].files.size() > all[static_cast<size_t>(best)].files.size()))
      best = i;
  }
  return best + 1;
}

void add_information(const std::string& dir, const FileMeta& f, const Series& s, int32_t index,
                     std::string* information) {
  if (information == nullptr) return;
  *information = "Data Source: DICOM\n";
  *information += pcd_format("Local DICOM directory: \n%s\n", dir.c_str());
  *information += pcd_format("Institution: %s\n", f.institution.c_str());
  *information += pcd_format("Date: %s\n", f.date.c_str());
  *information += pcd_format("Patient: %s %s\n", f.patientName.c_str(), f.patientId.c_str());
  *information += pcd_format("Scanner: %s %s\n", f.maker.c_str(), f.model.c_str());
  *information += pcd_format("Series: %d (number %d, \"%s\", %s)\n", index, f.seriesNumber,
                             f.description.c_str(), layout_name(s));
}

}  // namespace

bool pcd_parse_csa_header(const uint8_t* bytes, size_t size, PcdCsaHeader* csa) {
  csa->clear();
  auto u32 = [&](size_t at) {
    return static_cast<uint32_t>(bytes[at]) | static_cast<uint32_t>(bytes[at + 1]) << 8 |
           static_cast<uint32_t>(bytes[at + 2]) << 16 | static_cast<uint32_t>(bytes[at + 3]) << 24;
  };
  if (bytes == nullptr || size < 16 || std::memcmp(bytes, "SV10", 4) != 0) return false;
  const uint32_t tags = u32(8);
  if (tags < 1 || tags > 512) return false;
  size_t pos = 16;
  for (uint32_t t = 0; t < tags; ++t) {
    if (size - pos < 84) return false;
    const char* nameAt = reinterpret_cast<const char*>(bytes + pos);
    const std::string name(nameAt, strnlen(nameAt, 64));
    const uint32_t items = u32(pos + 76);
    if (items > 512) return false;
    pos += 84;
    std::vector<std::string>& values = (*csa)[name];
    for (uint32_t i = 0; i < items; ++i) {
      if (size - pos < 16) return false;
      const uint32_t length = u32(pos + 4);
      pos += 16;
      if (length > size - pos) return false;
      const char* valueAt = reinterpret_cast<const char*>(bytes + pos);
      if (length > 0) values.emplace_back(valueAt, strnlen(valueAt, length));
      const size_t padded = (static_cast<size_t>(length) + 3) / 4 * 4;
      pos += std::min(padded, size - pos);
    }
  }
  return true;
}

struct PcdDicomDirectoryScan {
  std::string directory;
  std::vector<FileMeta> metas;
};

std::shared_ptr<const PcdDicomDirectoryScan> pcd_scan_dicom_directory(const std::string& directory) {
  auto scan = std::make_shared<PcdDicomDirectoryScan>();
  scan->directory = directory;
  scan->metas = read_directory_meta(directory);
  return scan;
}

std::vector<PcdDicomSeriesSummary> PCD_ListDicomSeries(const char* directory) {
  if (directory == nullptr) return {};
  const std::vector<FileMeta> metas = read_directory_meta(directory);
  std::vector<PcdDicomSeriesSummary> out;
  for (const Series& s : group_series(metas)) out.push_back(summarize(s));
  return out;
}

bool pcd_dicom_scan_needs_scanner(const PcdDicomDirectoryScan& scan) {
  std::set<std::string> uids;
  for (const FileMeta& f : scan.metas) {
    uids.insert(f.seriesUid);
    if (f.enhanced || f.mosaicTiles > 0 || f.frames.size() != 1 || !is_plain_syntax(f.syntax) ||
        (f.bitsAllocated != 0 && f.bitsAllocated != 16))
      return true;
    const PcdDicomFrameDiffusion& d = f.frames[0].diffusion;
    if (d.hasB && std::strcmp(d.source, "standard (0018,9087/9089)") != 0) return true;
  }
  return uids.size() > 1;
}

bool pcd_dicom_directory_needs_scanner(const std::string& directory) {
  return pcd_dicom_scan_needs_scanner(*pcd_scan_dicom_directory(directory));
}

PcdRawVolumeData* pcd_read_scanner_dicom(const std::string& dir, int32_t seriesIndex, std::string* information,
                                         PcdDicomSeries* series) {
  return pcd_read_scanner_dicom(*pcd_scan_dicom_directory(dir), seriesIndex, information, series);
}

PcdRawVolumeData* pcd_read_scanner_dicom(const PcdDicomDirectoryScan& scan, int32_t seriesIndex,
                                         std::string* information, PcdDicomSeries* series) {
  PcdDicomSeries local;
  if (series == nullptr) series = &local;
  const std::string& dir = scan.directory;
  const std::vector<FileMeta>& metas = scan.metas;
  const std::vector<Series> all = group_series(metas);
  std::fprintf(stderr, "DICOM series found: %d (in %d files)\n", static_cast<int>(all.size()),
               static_cast<int>(metas.size()));
  if (all.empty()) {
    std::fprintf(stderr, "Err: no DICOM image in %s\n", dir.c_str());
    return nullptr;
  }
  if (seriesIndex < 0 || seriesIndex > static_cast<int32_t>(all.size())) {
    std::fprintf(stderr, "Err: %s holds %d series; there is no series %d\n", dir.c_str(),
                 static_cast<int>(all.size()), seriesIndex);
    return nullptr;
  }
  const int32_t index = seriesIndex > 0 ? seriesIndex : pick_series(all);
  const Series& s = all[static_cast<size_t>(index) - 1];
  if (all.size() > 1 && seriesIndex == 0)
    std::fprintf(stderr, "Warning: series %d of %d chosen (\"%s\"); --series N picks another\n", index,
                 static_cast<int>(all.size()), s.files[0]->description.c_str());
  const Layout L = lay_out(s);
  if (!L.problem.empty()) {
    std::fprintf(stderr, "Err: series %d of %s cannot be read: %s\n", index, dir.c_str(), L.problem.c_str());
    return nullptr;
  }
  const FileMeta& first = *s.files[0];
  add_information(dir, first, s, index, information);
  std::fprintf(stderr, "Series %d: %s, %d files\n", index, layout_name(s), static_cast<int>(s.files.size()));

  const std::vector<int32_t> channels = settle_channels(L, series);
  if (channels.empty()) {
    std::fprintf(stderr, "Err: series %d of %s has no channel left\n", index, dir.c_str());
    return nullptr;
  }
  const auto channelCount = static_cast<int32_t>(channels.size());
  std::fprintf(stderr, "Recognized volume: %d x %d x %d x %d\n", L.columns, L.rows, L.slices, channelCount);
  const PcdIntSize4D size{L.columns, L.rows, L.slices, channelCount};
  std::vector<int32_t> types(static_cast<size_t>(channelCount), SINT16);
  std::vector<int32_t> formats(static_cast<size_t>(channelCount), PCD_MONOCHROME);
  std::unique_ptr<PcdRawVolumeData, void (*)(PcdRawVolumeData*)> volume(
      PCD_NewRawVolumeData(&size, types.data(), formats.data()), &PCD_DeleteRawVolumeData);
  if (!volume) {
    std::fprintf(stderr, "Err: not enough memory for the volume of %s\n", dir.c_str());
    return nullptr;
  }

  // where each frame of each file goes: (slice, new channel)
  std::map<std::pair<const FileMeta*, const Frame*>, std::pair<int32_t, int32_t>> target;
  for (int32_t z = 0; z < L.slices; ++z)
    for (int32_t k = 0; k < channelCount; ++k) {
      const PlacedFrame& p = L.slicesOfFrames[static_cast<size_t>(z)][static_cast<size_t>(channels[static_cast<size_t>(k)])];
      target[{p.file, p.frame}] = {z, k};
    }
  Converter convert;
  const size_t plane = static_cast<size_t>(L.columns) * static_cast<size_t>(L.rows);
  for (const FileMeta* f : s.files) {
    Pixels pixels;
    const std::string problem = read_pixels(*f, &pixels);
    if (!problem.empty()) {
      std::fprintf(stderr, "Err: %s cannot be read: %s\n", f->name.c_str(), problem.c_str());
      return nullptr;
    }
    for (const Frame& fr : f->frames) {
      auto it = target.find({f, &fr});
      if (it == target.end()) continue;  // a dropped trace channel
      int16_t* out = static_cast<int16_t*>(volume->data[it->second.second]) + plane * static_cast<size_t>(it->second.first);
      copy_frame(pixels, *f, fr, &convert, out);
    }
  }
  if (convert.clamped > 0)
    std::fprintf(stderr, "Warning: %lld pixel values of series %d do not fit in signed 16 bits; clamped to -32768..32767\n",
                 static_cast<long long>(convert.clamped), index);

  const double pixel = first.pixelSpacing[1];
  std::fprintf(stderr, "Voxel size: %f mm\n", pixel);
  const double axes[3][3] = {{L.row.x, L.row.y, L.row.z}, {L.column.x, L.column.y, L.column.z},
                             {L.normal.x, L.normal.y, L.normal.z}};
  const Vec3 origin = L.slicesOfFrames[0][0].frame->position;
  const double position[3] = {origin.x, origin.y, origin.z};
  return pcd_finish_dicom_volume(volume.release(), dir, L.sliceSpacing, pixel, position, axes,
                                 first.hasOrientation, series);
}
