#include "io/nifti_file.h"

#include <nifti1_io.h>
#include <zlib.h>

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <vector>

#include "io/file_util.h"

namespace {

struct NiftiFree {
  void operator()(nifti_image* nim) const { nifti_image_free(nim); }
};
using NiftiPtr = std::unique_ptr<nifti_image, NiftiFree>;

// deflate cannot shrink data by more than about 1032:1; a gzip file announcing more than
// this many bytes per stored byte is lying about its size.
constexpr int64_t kMaxDeflateRatio = 1100;
// Gradient tables are a few kilobytes; anything near this is not one.
constexpr int64_t kMaxGradientFileBytes = 16 << 20;

bool ends_with(const std::string& text, const char* suffix) {
  const size_t n = std::strlen(suffix);
  return text.size() >= n && text.compare(text.size() - n, n, suffix) == 0;
}

// ---- reading values of any supported NIfTI type ----------------------------------------

template <typename T>
double value_at(const void* data, size_t index) {
  T v;
  std::memcpy(&v, static_cast<const uint8_t*>(data) + index * sizeof(T), sizeof v);
  return static_cast<double>(v);
}

using ValueReader = double (*)(const void*, size_t);

ValueReader reader_for(int datatype) {
  switch (datatype) {
    case DT_UINT8: return value_at<uint8_t>;
    case DT_INT8: return value_at<int8_t>;
    case DT_UINT16: return value_at<uint16_t>;
    case DT_INT16: return value_at<int16_t>;
    case DT_UINT32: return value_at<uint32_t>;
    case DT_INT32: return value_at<int32_t>;
    case DT_UINT64: return value_at<uint64_t>;
    case DT_INT64: return value_at<int64_t>;
    case DT_FLOAT32: return value_at<float>;
    case DT_FLOAT64: return value_at<double>;
    default: return nullptr;
  }
}

// Nearest signed 16-bit value, saturated; NaN becomes 0 rather than reach the conversion.
int16_t to_sint16(double v) {
  if (std::isnan(v)) return 0;
  return static_cast<int16_t>(std::clamp(std::nearbyint(v), -32768.0, 32767.0));
}

// ---- opening and checking a header before anything large is allocated -----------------

NiftiPtr open_header(const char* fileName) {
  nifti_set_debug_level(0);  // our own "Err: " lines say what went wrong
  NiftiPtr nim(nifti_image_read(fileName, 0));
  if (!nim) {
    std::fprintf(stderr, "Err: %s is not a readable NIfTI-1 file\n", fileName);
    return nim;
  }
  // sizes past dim[0] mean nothing, and writers (ours among them) may leave them 0
  if (nim->dim[0] >= 1 && nim->dim[0] < 7) {
    bool changed = false;
    for (int d = nim->dim[0] + 1; d <= 7; ++d)
      if (nim->dim[d] != 1) nim->dim[d] = 1, changed = true;
    if (changed) nifti_update_dims_from_array(nim.get());
  }
  return nim;
}

// The voxel bytes the header announces, or -1 (with an "Err: " line) for dimensions,
// types or sizes that this reader does not take or that the file cannot hold.
int64_t checked_data_bytes(const nifti_image* nim, const char* fileName) {
  if (nim->nx < 1 || nim->ny < 1 || nim->nz < 1 || nim->nt < 1) {
    std::fprintf(stderr, "Err: %s: invalid image size %d x %d x %d x %d\n", fileName, nim->nx,
                 nim->ny, nim->nz, nim->nt);
    return -1;
  }
  for (int d = 5; d <= 7 && d <= nim->dim[0]; ++d) {
    if (nim->dim[d] > 1) {
      std::fprintf(stderr, "Err: %s has more than four dimensions\n", fileName);
      return -1;
    }
  }
  if (reader_for(nim->datatype) == nullptr) {
    std::fprintf(stderr, "Err: %s: NIfTI data type %s is not supported\n", fileName,
                 nifti_datatype_string(nim->datatype));
    return -1;
  }
  int64_t voxels = 0;
  int64_t bytes = 0;
  if (!pcd_checked_mul(int64_t{nim->nx} * nim->ny, nim->nz, &voxels) ||
      !pcd_checked_mul(voxels, nim->nt, &voxels) ||
      !pcd_checked_mul(voxels, nim->nbyper, &bytes)) {
    std::fprintf(stderr, "Err: %s: image size too large\n", fileName);
    return -1;
  }
  const char* dataName = nim->iname != nullptr ? nim->iname : fileName;
  const int64_t fileSize = pcd_regular_file_size(dataName);
  const int64_t offset = nim->iname_offset > 0 ? nim->iname_offset : 0;
  const bool fits = nifti_is_gzfile(dataName)
                        ? fileSize > 0 && bytes / kMaxDeflateRatio <= fileSize
                        : fileSize >= offset && bytes <= fileSize - offset;
  if (!fits) {
    std::fprintf(stderr, "Err: %s is truncated: %lld voxel bytes announced\n", fileName,
                 static_cast<long long>(bytes));
    return -1;
  }
  return bytes;
}

void take_geometry(const nifti_image* nim, PcdWorldGeometry* geometry) {
  const mat44& m = nim->sform_code > 0 ? nim->sto_xyz : nim->qto_xyz;
  for (int i = 0; i < 4; ++i)
    for (int j = 0; j < 4; ++j) geometry->voxelToWorld[i][j] = m.m[i][j];
  const float spacing[3] = {nim->dx, nim->dy, nim->dz};
  for (int i = 0; i < 3; ++i) {
    const float s = std::fabs(spacing[i]);
    geometry->voxelSize[i] = std::isfinite(s) && s > 0.0f ? s : 1.0f;
  }
  geometry->xformCode = nim->sform_code > 0 ? nim->sform_code : nim->qform_code;
  geometry->fromNifti = 1;
}

// Converts the loaded image into SINT16 channels; volume t of the file becomes channel
// destination[t]. The rule is the one described in the header.
PcdRawVolumeData* convert_to_sint16(const nifti_image* nim, const char* fileName,
                                    const std::vector<int32_t>& destination) {
  const ValueReader read = reader_for(nim->datatype);
  const bool scaled = nim->scl_slope != 0.0f && std::isfinite(nim->scl_slope) &&
                      std::isfinite(nim->scl_inter);
  const double slope = scaled ? nim->scl_slope : 1.0;
  const double inter = scaled ? nim->scl_inter : 0.0;
  const size_t perVolume =
      static_cast<size_t>(nim->nx) * static_cast<size_t>(nim->ny) * static_cast<size_t>(nim->nz);
  const size_t total = perVolume * static_cast<size_t>(nim->nt);

  // int16 data that nothing scales is stored as it is: every value already fits
  const bool asIs = nim->datatype == DT_INT16 && slope == 1.0 && inter == 0.0;
  bool integral = true;
  double maxAbs = 0.0;
  size_t nonFinite = 0;
  for (size_t i = 0; !asIs && i < total; ++i) {
    const double v = read(nim->data, i) * slope + inter;
    if (!std::isfinite(v)) {
      ++nonFinite;
      continue;
    }
    maxAbs = std::max(maxAbs, std::fabs(v));
    if (integral && (v != std::floor(v) || v < -32768.0 || v > 32767.0)) integral = false;
  }
  const bool rescale = !integral && maxAbs > 0.0;
  // Below about 1.8e-304 the factor 32767 / maxAbs overflows to infinity (and 0 times
  // infinity is NaN); dividing by maxAbs first keeps every value within -1..1.
  const double factor = rescale ? 32767.0 / maxAbs : 1.0;
  const bool divideFirst = !std::isfinite(factor);
  if (rescale)
    std::fprintf(stderr,
                 "Warning: values of %s rescaled by %g into signed 16-bit (largest absolute "
                 "value %g)\n",
                 fileName, factor, maxAbs);
  if (nonFinite > 0)
    std::fprintf(stderr, "Warning: %zu NaN or infinite values of %s set to 0\n", nonFinite,
                 fileName);

  const PcdIntSize4D size{nim->nx, nim->ny, nim->nz, nim->nt};
  const std::vector<int32_t> types(static_cast<size_t>(nim->nt), SINT16);
  const std::vector<int32_t> colours(static_cast<size_t>(nim->nt), PCD_MONOCHROME);
  PcdRawVolumeData* volume = PCD_NewRawVolumeData(&size, types.data(), colours.data());
  if (volume == nullptr) {
    std::fprintf(stderr, "Err: not enough memory for the volume of %s\n", fileName);
    return nullptr;
  }
  for (int32_t t = 0; t < nim->nt; ++t) {
    auto* out = static_cast<int16_t*>(volume->data[destination[static_cast<size_t>(t)]]);
    const size_t first = perVolume * static_cast<size_t>(t);
    if (asIs) {
      std::memcpy(out, static_cast<const int16_t*>(nim->data) + first, perVolume * sizeof(int16_t));
      continue;
    }
    for (size_t i = 0; i < perVolume; ++i) {
      const double v = read(nim->data, first + i) * slope + inter;
      if (!std::isfinite(v)) out[i] = 0;
      else out[i] = to_sint16(divideFirst ? v / maxAbs * 32767.0 : v * factor);
    }
  }
  return volume;
}

PcdRawVolumeData* load_volume(nifti_image* nim, const char* fileName,
                              const std::vector<int32_t>& destination) {
  if (nifti_image_load(nim) != 0 || nim->data == nullptr) {
    std::fprintf(stderr, "Err: voxel data of %s could not be read\n", fileName);
    return nullptr;
  }
  PcdRawVolumeData* volume = convert_to_sint16(nim, fileName, destination);
  nifti_image_unload(nim);
  return volume;
}

std::vector<int32_t> identity_order(int32_t count) {
  std::vector<int32_t> order(static_cast<size_t>(count));
  for (int32_t i = 0; i < count; ++i) order[static_cast<size_t>(i)] = i;
  return order;
}

// ---- FSL gradient files ---------------------------------------------------------------

// Numbers of each non-empty line; false when a token is not a number.
bool read_number_lines(const std::string& fileName, std::vector<std::vector<double>>* lines) {
  std::string text;
  if (!pcd_read_whole_file(fileName.c_str(), kMaxGradientFileBytes, &text)) {
    std::fprintf(stderr, "Err: cannot read %s\n", fileName.c_str());
    return false;
  }
  lines->clear();
  std::vector<double> current;
  std::string token;
  auto end_token = [&]() {
    if (token.empty()) return true;
    double v = 0.0;
    if (!pcd_parse_double(token, &v)) {
      std::fprintf(stderr, "Err: %s: \"%s\" is not a number\n", fileName.c_str(), token.c_str());
      return false;
    }
    current.push_back(v);
    token.clear();
    return true;
  };
  for (const char c : text + "\n") {
    if (c == '\n') {
      if (!end_token()) return false;
      if (!current.empty()) lines->push_back(current);
      current.clear();
    } else if (pcd_is_blank(static_cast<unsigned char>(c)) || c == ',') {
      if (!end_token()) return false;
    } else {
      token.push_back(c);
    }
  }
  return true;
}

bool read_bvals(const std::string& fileName, int32_t count, std::vector<double>* bvals) {
  std::vector<std::vector<double>> lines;
  if (!read_number_lines(fileName, &lines)) return false;
  bvals->clear();
  for (const auto& line : lines) bvals->insert(bvals->end(), line.begin(), line.end());
  if (bvals->size() != static_cast<size_t>(count)) {
    std::fprintf(stderr, "Err: %s holds %zu b values, the image has %d volumes\n",
                 fileName.c_str(), bvals->size(), count);
    return false;
  }
  return true;
}

// Three rows of count numbers (FSL), or count rows of three.
bool read_bvecs(const std::string& fileName, int32_t count, std::vector<PcdVector3D>* bvecs) {
  std::vector<std::vector<double>> lines;
  if (!read_number_lines(fileName, &lines)) return false;
  const size_t n = static_cast<size_t>(count);
  bvecs->assign(n, PcdVector3D{0.0f, 0.0f, 0.0f});
  auto line_sizes_are = [&](size_t rows, size_t columns) {
    return lines.size() == rows &&
           std::all_of(lines.begin(), lines.end(),
                       [&](const std::vector<double>& l) { return l.size() == columns; });
  };
  if (line_sizes_are(3, n)) {
    for (size_t i = 0; i < n; ++i)
      (*bvecs)[i] = PcdVector3D{static_cast<float>(lines[0][i]), static_cast<float>(lines[1][i]),
                                static_cast<float>(lines[2][i])};
  } else if (line_sizes_are(n, 3)) {
    for (size_t i = 0; i < n; ++i)
      (*bvecs)[i] = PcdVector3D{static_cast<float>(lines[i][0]), static_cast<float>(lines[i][1]),
                                static_cast<float>(lines[i][2])};
  } else {
    std::fprintf(stderr, "Err: %s must hold 3 rows of %d numbers\n", fileName.c_str(), count);
    return false;
  }
  return true;
}

std::string first_existing(const std::vector<std::string>& candidates) {
  for (const auto& name : candidates)
    if (pcd_regular_file_size(name.c_str()) >= 0) return name;
  return {};
}

std::string folder_of(const std::string& fileName) {
  const size_t slash = fileName.find_last_of('/');
  return slash == std::string::npos ? std::string() : fileName.substr(0, slash + 1);
}

// The MPG setting of the file's volumes (in the volume's new channel order).
struct Gradients {
  std::vector<float> b;
  std::vector<PcdVector3D> g;
  int32_t soCount = 0;
  std::vector<int32_t> destination;  // channel of each file volume
};

Gradients order_gradients(const std::vector<double>& bvals, const std::vector<PcdVector3D>& bvecs,
                          const PcdWorldGeometry& geometry, const char* fileName) {
  const size_t n = bvals.size();
  Gradients out;
  out.b.assign(n, 0.0f);
  out.g.assign(n, PcdVector3D{0.0f, 0.0f, 0.0f});
  out.destination.assign(n, 0);
  for (size_t t = 0; t < n; ++t)
    if (bvals[t] <= kPcdNiftiB0Threshold) ++out.soCount;

  const bool flip = PCD_BvecFlipsX(&geometry);
  int32_t nextSo = 0;
  int32_t nextDwi = out.soCount;
  int32_t notUnit = 0;
  bool moved = false;
  for (size_t t = 0; t < n; ++t) {
    const bool isSo = bvals[t] <= kPcdNiftiB0Threshold;
    const int32_t c = isSo ? nextSo++ : nextDwi++;
    out.destination[t] = c;
    moved = moved || c != static_cast<int32_t>(t);
    if (isSo) continue;  // b = 0 and no direction
    PcdVector3D g = bvecs[t];
    const double length = std::sqrt(double{g.x} * g.x + double{g.y} * g.y + double{g.z} * g.z);
    if (length == 0.0) {
      std::fprintf(stderr, "Warning: volume %zu of %s has b=%g but no direction\n", t, fileName,
                   bvals[t]);
    } else if (std::fabs(length - 1.0) > 1e-3) {
      ++notUnit;
      g = PcdVector3D{static_cast<float>(g.x / length), static_cast<float>(g.y / length),
                      static_cast<float>(g.z / length)};
    }
    if (flip) g.x = -g.x;
    out.b[static_cast<size_t>(c)] = static_cast<float>(bvals[t]);
    out.g[static_cast<size_t>(c)] = g;
  }
  if (moved)
    std::fprintf(stderr, "Warning: the %d b=0 volumes of %s were moved in front of the DWIs\n",
                 out.soCount, fileName);
  if (notUnit > 0)
    std::fprintf(stderr, "Warning: %d directions of %s were not unit vectors; normalised\n",
                 notUnit, fileName);
  return out;
}

// ---- writing --------------------------------------------------------------------------

int nifti_type_of(int32_t dataType, int32_t colorFormat) {
  if (dataType == UINT32 && colorFormat == PCD_RGBA_PACKED) return DT_RGB24;
  switch (dataType) {
    case UINT8: return DT_UINT8;
    case SINT8: return DT_INT8;
    case UINT16: return DT_UINT16;
    case SINT16: return DT_INT16;
    case UINT32: return DT_UINT32;
    case SINT32: return DT_INT32;
    case FLOAT32: return DT_FLOAT32;
    case FLOAT64: return DT_FLOAT64;
    default: return DT_UNKNOWN;
  }
}

void put_geometry(nifti_image* nim, const PcdWorldGeometry& geometry) {
  mat44 m{};
  for (int i = 0; i < 4; ++i)
    for (int j = 0; j < 4; ++j) m.m[i][j] = static_cast<float>(geometry.voxelToWorld[i][j]);
  nim->dx = nim->pixdim[1] = geometry.voxelSize[0];
  nim->dy = nim->pixdim[2] = geometry.voxelSize[1];
  nim->dz = nim->pixdim[3] = geometry.voxelSize[2];
  nim->xyz_units = NIFTI_UNITS_MM;
  nim->qform_code = nim->sform_code = geometry.xformCode;
  if (geometry.xformCode <= 0) return;  // voxel sizes only, as the image came
  nim->sto_xyz = m;
  float dx = 0.0f;
  float dy = 0.0f;
  float dz = 0.0f;
  nifti_mat44_to_quatern(m, &nim->quatern_b, &nim->quatern_c, &nim->quatern_d, &nim->qoffset_x,
                         &nim->qoffset_y, &nim->qoffset_z, &dx, &dy, &dz, &nim->qfac);
  nim->qto_xyz = m;
}

bool write_gradients(const PcdDtiData* dti, const PcdWorldGeometry& geometry,
                     const std::string& stem) {
  const bool flip = PCD_BvecFlipsX(&geometry);
  std::string bval;
  std::string rows[3];
  for (int32_t i = 0; i < dti->channelCount; ++i) {
    const char* sep = i == 0 ? "" : " ";
    PcdVector3D g = dti->mpgVectors[i];
    if (flip && g.x != 0.0f) g.x = -g.x;
    bval += pcd_format("%s%g", sep, static_cast<double>(dti->bValues[i]));
    rows[0] += pcd_format("%s%.6f", sep, static_cast<double>(g.x));
    rows[1] += pcd_format("%s%.6f", sep, static_cast<double>(g.y));
    rows[2] += pcd_format("%s%.6f", sep, static_cast<double>(g.z));
  }
  const std::string bvec = rows[0] + "\n" + rows[1] + "\n" + rows[2] + "\n";
  bval += "\n";
  for (const auto& [name, text] : {std::pair{stem + ".bval", bval}, std::pair{stem + ".bvec", bvec}}) {
    std::unique_ptr<FILE, int (*)(FILE*)> file(std::fopen(name.c_str(), "w"), &std::fclose);
    if (!file || std::fwrite(text.data(), 1, text.size(), file.get()) != text.size() ||
        std::fclose(file.release()) != 0) {
      std::fprintf(stderr, "Err: cannot write %s\n", name.c_str());
      return false;
    }
  }
  return true;
}

}  // namespace

void PCD_SetDefaultWorldGeometry(PcdWorldGeometry* geometry, float voxelSize) {
  if (geometry == nullptr) return;
  *geometry = PcdWorldGeometry{};
  for (int i = 0; i < 3; ++i) {
    geometry->voxelToWorld[i][i] = voxelSize;
    geometry->voxelSize[i] = voxelSize;
  }
  geometry->voxelToWorld[3][3] = 1.0;
  geometry->xformCode = NIFTI_XFORM_SCANNER_ANAT;
  geometry->fromNifti = 0;
}

double PCD_WorldGeometryDeterminant(const PcdWorldGeometry* geometry) {
  const auto& m = geometry->voxelToWorld;
  return m[0][0] * (m[1][1] * m[2][2] - m[1][2] * m[2][1]) -
         m[0][1] * (m[1][0] * m[2][2] - m[1][2] * m[2][0]) +
         m[0][2] * (m[1][0] * m[2][1] - m[1][1] * m[2][0]);
}

bool PCD_BvecFlipsX(const PcdWorldGeometry* geometry) {
  return geometry != nullptr && geometry->xformCode > 0 &&
         PCD_WorldGeometryDeterminant(geometry) > 0.0;
}

std::string PCD_NiftiStem(const std::string& fileName) {
  for (const char* suffix : {".nii.gz", ".nii", ".hdr.gz", ".img.gz", ".hdr", ".img"})
    if (ends_with(fileName, suffix)) return fileName.substr(0, fileName.size() - std::strlen(suffix));
  return fileName;
}

bool PCD_IsNiftiFile(const char* fileName) {
  if (fileName == nullptr) return false;
  const std::string name = fileName;
  if (ends_with(name, ".nii") || ends_with(name, ".nii.gz")) return true;
  // A header without the usual name: the magic "n+1" at byte 344, stored plainly or
  // inside a gzip stream.
  gzFile file = gzopen(fileName, "rb");
  if (file == nullptr) return false;
  char header[348] = {};
  const int got = gzread(file, header, sizeof header);
  gzclose(file);
  return got == static_cast<int>(sizeof header) && std::memcmp(header + 344, "n+1", 4) == 0;
}

PcdRawVolumeData* ReadNiftiVolumeFile(const char* fileName, PcdWorldGeometry* geometry,
                                      std::string* information) {
  if (fileName == nullptr) return nullptr;
  NiftiPtr nim = open_header(fileName);
  if (!nim || checked_data_bytes(nim.get(), fileName) < 0) return nullptr;
  PcdWorldGeometry found{};
  take_geometry(nim.get(), &found);
  PcdRawVolumeData* volume = load_volume(nim.get(), fileName, identity_order(nim->nt));
  if (volume == nullptr) return nullptr;
  if (geometry != nullptr) *geometry = found;
  if (information != nullptr)
    *information = pcd_format("Data Source: NIfTI file\nFile name: %s\n", fileName);
  return volume;
}

PcdDtiData* ReadNiftiDwiFile(const char* fileName, const char* bvalFile, const char* bvecFile,
                             PcdWorldGeometry* geometry, std::string* information) {
  if (fileName == nullptr) return nullptr;
  NiftiPtr nim = open_header(fileName);
  if (!nim || checked_data_bytes(nim.get(), fileName) < 0) return nullptr;
  const int32_t volumes = nim->nt;
  if (volumes > kPcdDtiMaxChannels) {
    std::fprintf(stderr, "Err: %s has %d volumes; a DTI data set holds at most %d\n", fileName,
                 volumes, kPcdDtiMaxChannels);
    return nullptr;
  }
  PcdWorldGeometry found{};
  take_geometry(nim.get(), &found);

  const std::string stem = PCD_NiftiStem(fileName);
  const std::string folder = folder_of(fileName);
  const std::string bvalName =
      bvalFile != nullptr ? bvalFile
                          : first_existing({stem + ".bval", stem + ".bvals", folder + "bvals"});
  const std::string bvecName =
      bvecFile != nullptr ? bvecFile
                          : first_existing({stem + ".bvec", stem + ".bvecs", folder + "bvecs"});
  const bool haveGradients = !bvalName.empty() || !bvecName.empty();
  Gradients gradients;
  if (haveGradients) {
    if (bvalName.empty() || bvecName.empty()) {
      std::fprintf(stderr, "Err: %s has a %s file but no %s file\n", fileName,
                   bvalName.empty() ? ".bvec" : ".bval", bvalName.empty() ? ".bval" : ".bvec");
      return nullptr;
    }
    std::vector<double> bvals;
    std::vector<PcdVector3D> bvecs;
    if (!read_bvals(bvalName, volumes, &bvals) || !read_bvecs(bvecName, volumes, &bvecs))
      return nullptr;
    gradients = order_gradients(bvals, bvecs, found, fileName);
  } else {
    std::fprintf(stderr,
                 "Warning: no .bval/.bvec files for %s; the single-So default MPG setting "
                 "is used\n",
                 fileName);
    gradients.destination = identity_order(volumes);
  }

  PcdRawVolumeData* volume = load_volume(nim.get(), fileName, gradients.destination);
  if (volume == nullptr) return nullptr;
  PcdDtiData* dti = PCDdti_NewDiffusionTensorImageData(volume, volumes);
  if (dti == nullptr) {
    std::fputs("Err: failed to create DTI data\n", stderr);
    PCD_DeleteRawVolumeData(volume);
    return nullptr;
  }
  if (haveGradients) {
    PCDdti_SetPropertiesOfDiffusionTensorImageData(dti, volumes, gradients.soCount,
                                                   gradients.b.data(), gradients.g.data());
    if (gradients.soCount == 0)
      std::fprintf(stderr, "Warning: %s has no b=0 volume\n", fileName);
  } else {
    PCDdti_SetPropertiesOfDiffusionTensorImageDataAsSingleSoDefault(dti, volumes);
  }
  if (dti->isReady != 1)
    std::fprintf(stderr,
                 "Warning: %d diffusion-weighted volumes in %s; the MPG setting is NOT ready "
                 "(%d to %d needed)\n",
                 volumes - (haveGradients ? gradients.soCount : 1), fileName, kPcdDtiMinDwi,
                 kPcdDtiMaxDwi);

  const float* size = found.voxelSize;
  if (std::fabs(size[1] - size[0]) > 0.01f * size[0] ||
      std::fabs(size[2] - size[0]) > 0.01f * size[0])
    std::fprintf(stderr, "Warning: voxels of %s are not isotropic (%g x %g x %g mm); %g mm is used\n",
                 fileName, static_cast<double>(size[0]), static_cast<double>(size[1]),
                 static_cast<double>(size[2]), static_cast<double>(size[0]));
  dti->reserved = size[0];
  if (geometry != nullptr) *geometry = found;
  if (information != nullptr)
    *information = pcd_format("Data Source: NIfTI file\nFile name: %s\n", fileName);
  return dti;
}

bool PCD_NiftiCanHold(const PcdIntSize3D& size, int32_t count, const char* fileName) {
  // the NIfTI-1 header keeps each dimension in 16 bits; a larger one would wrap there and
  // the image's size with it
  constexpr int32_t kMaxDim = 32767;
  if (size.x >= 1 && size.y >= 1 && size.z >= 1 && count >= 1 && size.x <= kMaxDim && size.y <= kMaxDim &&
      size.z <= kMaxDim && count <= kMaxDim)
    return true;
  std::fprintf(stderr, "Err: %s: NIfTI-1 holds 1 to %d voxels along an axis; the volume is %d x %d x %d x %d\n",
               fileName, kMaxDim, size.x, size.y, size.z, count);
  return false;
}

int WriteNiftiChannels(const PcdRawVolumeData* volume, const int32_t* channels, int32_t count,
                       const PcdWorldGeometry* geometry, const char* fileName, float sclSlope) {
  if (fileName == nullptr) return -1;
  const std::string name = fileName;
  if (!ends_with(name, ".nii") && !ends_with(name, ".nii.gz")) {
    std::fprintf(stderr, "Err: NIfTI output %s must end in .nii or .nii.gz\n", fileName);
    return -1;
  }
  if (volume == nullptr || volume->matrixSize == nullptr || channels == nullptr || count < 1) {
    std::fprintf(stderr, "Err: nothing to write to %s\n", fileName);
    return -1;
  }
  const PcdIntSize4D& size = *volume->matrixSize;
  for (int32_t k = 0; k < count; ++k) {
    const int32_t c = channels[k];
    if (c < 0 || c >= size.channels || volume->dataType[c] != volume->dataType[channels[0]] ||
        volume->colorFormat[c] != volume->colorFormat[channels[0]]) {
      std::fprintf(stderr, "Err: channels written to %s must exist and share one data type\n",
                   fileName);
      return -1;
    }
  }
  const int32_t type = volume->dataType[channels[0]];
  const int32_t colour = volume->colorFormat[channels[0]];
  const int datatype = nifti_type_of(type, colour);
  if (datatype == DT_UNKNOWN) {
    std::fprintf(stderr, "Err: data type %d cannot be written to %s\n", type, fileName);
    return -1;
  }

  if (!PCD_NiftiCanHold(PcdIntSize3D{size.x, size.y, size.z}, count, fileName)) return -1;
  const int dims[8] = {count > 1 ? 4 : 3, size.x, size.y, size.z, count, 1, 1, 1};
  nifti_set_debug_level(0);
  NiftiPtr nim(nifti_make_new_nim(dims, datatype, 1));
  if (!nim || nim->data == nullptr) {
    std::fprintf(stderr, "Err: not enough memory to write %s\n", fileName);
    return -1;
  }
  const size_t voxels = static_cast<size_t>(PCD_GetNumberOfVoxels(volume));
  auto* out = static_cast<uint8_t*>(nim->data);
  for (int32_t k = 0; k < count; ++k) {
    const void* block = volume->data[channels[k]];
    if (datatype == DT_RGB24) {
      const auto* words = static_cast<const uint32_t*>(block);
      for (size_t i = 0; i < voxels; ++i, out += 3) {
        out[0] = static_cast<uint8_t>(words[i] >> 24);
        out[1] = static_cast<uint8_t>(words[i] >> 16);
        out[2] = static_cast<uint8_t>(words[i] >> 8);
      }
    } else {
      const size_t bytes = voxels * static_cast<size_t>(PCD_SizeOfDataType(type));
      std::memcpy(out, block, bytes);
      out += bytes;
    }
  }

  PcdWorldGeometry fallback{};
  PCD_SetDefaultWorldGeometry(&fallback, 1.0f);
  put_geometry(nim.get(), geometry != nullptr ? *geometry : fallback);
  if (sclSlope != 0.0f && datatype != DT_RGB24) {
    nim->scl_slope = sclSlope;
    nim->scl_inter = 0.0f;
  }
  std::snprintf(nim->descrip, sizeof nim->descrip, "Quorix.II");

  std::remove(fileName);
  if (nifti_set_filenames(nim.get(), fileName, 0, 1) != 0) {
    std::fprintf(stderr, "Err: cannot write %s\n", fileName);
    return -1;
  }
  nim->nifti_type = NIFTI_FTYPE_NIFTI1_1;
  nifti_image_write(nim.get());
  if (pcd_regular_file_size(fileName) <= 0) {
    std::fprintf(stderr, "Err: cannot write %s\n", fileName);
    return -1;
  }
  return 0;
}

int WriteNiftiDwiFile(const PcdDtiData* dti, const PcdWorldGeometry* geometry,
                      const char* fileName) {
  if (dti == nullptr || dti->volume == nullptr || dti->volume->matrixSize == nullptr ||
      dti->channelCount < 1 || dti->channelCount > dti->volume->matrixSize->channels ||
      dti->channelCount > kPcdDtiMaxChannels) {
    std::fprintf(stderr, "Err: no DTI channels to write to %s\n", fileName ? fileName : "");
    return -1;
  }
  PcdWorldGeometry fallback{};
  PCD_SetDefaultWorldGeometry(&fallback, dti->reserved > 0.0f ? dti->reserved : 1.0f);
  const PcdWorldGeometry& used = geometry != nullptr ? *geometry : fallback;
  const std::vector<int32_t> channels = identity_order(dti->channelCount);
  if (WriteNiftiChannels(dti->volume, channels.data(), dti->channelCount, &used, fileName) != 0)
    return -1;
  if (dti->isReady != 1) {
    std::fprintf(stderr, "Warning: MPG setting NOT ready; no .bval/.bvec written for %s\n",
                 fileName);
    return 0;
  }
  return write_gradients(dti, used, PCD_NiftiStem(fileName)) ? 0 : -1;
}
