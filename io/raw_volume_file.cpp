#include "io/raw_volume_file.h"

#include <fcntl.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <bit>
#include <climits>
#include <cstdio>
#include <cstring>
#include <memory>
#include <vector>

#include "io/file_util.h"
#include "io/notice.h"

static_assert(std::endian::native == std::endian::little,
              "raw volume bodies are little-endian and copied as they lie in memory");

namespace {

const char kDataSourceFormat[] = "Data Source: PELLUCID file: \nFile name: %s\n";

// Reads one blank-separated token of at most 63 characters. False at the end of the file
// or when the token is longer (no header item is that long).
bool read_token(FILE* file, std::string* token) {
  token->clear();
  int c = std::fgetc(file);
  while (c != EOF && pcd_is_blank(c)) c = std::fgetc(file);
  while (c != EOF && !pcd_is_blank(c)) {
    if (token->size() >= 63) return false;
    token->push_back(static_cast<char>(c));
    c = std::fgetc(file);
  }
  return !token->empty();
}

bool read_int(FILE* file, int64_t* value) {
  std::string token;
  return read_token(file, &token) && pcd_parse_int64(token, value);
}

// A header item that does not fit in 32 bits is as wrong as a missing one.
bool read_int32(FILE* file, int32_t* value) {
  int64_t v = 0;
  if (!read_int(file, &v) || v < INT32_MIN || v > INT32_MAX) return false;
  *value = static_cast<int32_t>(v);
  return true;
}

// Bytes of all channel blocks, or -1 when the product does not fit in 63 bits.
int64_t body_bytes(const PcdIntSize4D& size, const int32_t* dataType) {
  int64_t voxels = 0;
  if (!pcd_checked_mul(int64_t{size.x}, int64_t{size.y}, &voxels) ||
      !pcd_checked_mul(voxels, int64_t{size.z}, &voxels))
    return -1;
  int64_t total = 0;
  for (int32_t c = 0; c < size.channels; ++c) {
    int64_t block = 0;
    if (!pcd_checked_mul(voxels, int64_t{PCD_SizeOfDataType(dataType[c])}, &block) ||
        __builtin_add_overflow(total, block, &total))
      return -1;
  }
  return total;
}

struct FileCloser {
  void operator()(FILE* f) const { std::fclose(f); }
};
using FilePtr = std::unique_ptr<FILE, FileCloser>;

// The header items after the magic line; false with an "Err: " line for sizes and codes
// that no volume can have, false silently for what is simply not this format.
bool read_header_items(FILE* file, const char* fileName, PcdIntSize4D* size, int32_t* dataType,
                       int32_t* colorFormat, int64_t* byteCount) {
  if (!read_int32(file, &size->x) || !read_int32(file, &size->y) ||
      !read_int32(file, &size->z) || !read_int32(file, &size->channels)) {
    std::fprintf(stderr, "Err: raw volume file (%s): the matrix size line is unreadable\n",
                 fileName);
    return false;
  }
  if (size->x <= 0 || size->y <= 0 || size->z <= 0 || size->channels <= 0) {
    std::fprintf(stderr, "Err: raw volume file (%s): invalid matrix size %d x %d x %d x %d\n",
                 fileName, size->x, size->y, size->z, size->channels);
    return false;
  }
  if (size->channels > kPcdRawVolumeFileMaxChannels) {
    std::fprintf(stderr, "Err: raw volume file (%s): %d channels announced, at most %d\n",
                 fileName, size->channels, kPcdRawVolumeFileMaxChannels);
    return false;
  }
  for (int32_t c = 0; c < size->channels; ++c) {
    if (!read_int32(file, &dataType[c]) || !PCD_IsValidDataType(dataType[c])) {
      std::fprintf(stderr, "Err: raw volume file (%s): invalid data type code of channel %d\n",
                   fileName, c);
      return false;
    }
  }
  for (int32_t c = 0; c < size->channels; ++c) {
    if (!read_int32(file, &colorFormat[c])) {
      std::fprintf(stderr,
                   "Err: raw volume file (%s): invalid colour format code of channel %d\n",
                   fileName, c);
      return false;
    }
  }
  std::string word;
  if (!read_int(file, byteCount) || !read_token(file, &word)) {
    std::fprintf(stderr, "Err: raw volume file (%s): the byte count line is unreadable\n",
                 fileName);
    return false;
  }
  return word == "uncompressed";
}

}  // namespace

int64_t PCD_GetRawVolumeBodySize(const PcdRawVolumeData* volume) {
  if (volume == nullptr || volume->matrixSize == nullptr || volume->dataType == nullptr ||
      volume->matrixSize->channels < 0)
    return -1;
  return body_bytes(*volume->matrixSize, volume->dataType);
}

int64_t ReadRawVolumeFileHeader(const char* fileName, PcdIntSize4D* size, int32_t* dataType,
                                int32_t* colorFormat) {
  if (fileName == nullptr || size == nullptr || dataType == nullptr || colorFormat == nullptr)
    return -1;
  const int64_t fileSize = pcd_regular_file_size(fileName);
  FilePtr file(fileSize >= 0 ? std::fopen(fileName, "rb") : nullptr);
  if (!file) return -1;

  char line[101] = {};
  if (std::fgets(line, 100, file.get()) == nullptr) return -1;
  pcd_cut_line_end(line);
  if (std::strncmp(line, kPcdRawVolumeFileMagic, sizeof kPcdRawVolumeFileMagic - 2) != 0 ||
      std::strlen(line) != sizeof kPcdRawVolumeFileMagic - 2)
    return -1;

  int64_t byteCount = 0;
  if (!read_header_items(file.get(), fileName, size, dataType, colorFormat, &byteCount))
    return -1;
  const int64_t headerEnd = std::ftell(file.get());

  // The body is taken from the end of the file: it must lie wholly after the header and
  // hold every channel's block.
  const int64_t needed = body_bytes(*size, dataType);
  if (needed < 0) {
    std::fprintf(stderr, "Err: raw volume file (%s): matrix size %d x %d x %d x %d is too large\n",
                 fileName, size->x, size->y, size->z, size->channels);
    return -1;
  }
  if (byteCount < needed) {
    std::fprintf(stderr,
                 "Err: raw volume file (%s): byte count %lld is smaller than the %lld bytes "
                 "of its channels\n",
                 fileName, static_cast<long long>(byteCount), static_cast<long long>(needed));
    return -1;
  }
  if (headerEnd < 0 || byteCount > fileSize - headerEnd) {
    std::fprintf(stderr,
                 "Err: raw volume file (%s) is truncated: %lld voxel bytes announced, "
                 "%lld after the header\n",
                 fileName, static_cast<long long>(byteCount),
                 static_cast<long long>(headerEnd < 0 ? 0 : fileSize - headerEnd));
    return -1;
  }
  return fileSize - byteCount;
}

namespace {

// The body mapped straight from the file (no copy, and memory only for the pages that are
// read), when every channel's block starts on a boundary of its element size; otherwise,
// or when the system refuses, null and the caller reads the body into memory. The mapping
// is private: writes to the volume never reach the file.
PcdRawVolumeData* MapBody(const char* fileName, int64_t offset, const PcdIntSize4D& size,
                          const int32_t* dataType, const int32_t* colorFormat) {
  const auto voxels = static_cast<size_t>(size.x) * static_cast<size_t>(size.y) * static_cast<size_t>(size.z);
  std::vector<size_t> start(static_cast<size_t>(size.channels));
  const auto page = static_cast<int64_t>(sysconf(_SC_PAGESIZE));
  const int64_t pageStart = offset / page * page;
  size_t at = static_cast<size_t>(offset - pageStart);
  for (int32_t c = 0; c < size.channels; ++c) {
    const auto elem = static_cast<size_t>(PCD_SizeOfDataType(dataType[c]));
    if ((static_cast<size_t>(pageStart) + at) % elem != 0) return nullptr;
    start[static_cast<size_t>(c)] = at;
    at += voxels * elem;  // the header check has made sure the blocks fit in the file
  }
  const int fd = open(fileName, O_RDONLY | O_CLOEXEC);
  if (fd < 0) return nullptr;
  struct stat st{};
  void* base = MAP_FAILED;
  // the file must still be the size the header was checked against
  if (fstat(fd, &st) == 0 && static_cast<int64_t>(st.st_size) - offset >= static_cast<int64_t>(at - start[0]))
    base = mmap(nullptr, at, PROT_READ | PROT_WRITE, MAP_PRIVATE, fd, static_cast<off_t>(pageStart));
  close(fd);
  if (base == MAP_FAILED) return nullptr;
  PcdRawVolumeData* volume =
      PCD_NewRawVolumeDataOnMapping(&size, dataType, colorFormat, base, at, start.data());
  if (volume == nullptr) munmap(base, at);
  return volume;
}

PcdRawVolumeData* ReadRawVolume(const char* fileName, std::string* information, bool mapBody) {
  if (fileName == nullptr) return nullptr;
  auto set_information = [&]() {
    if (information != nullptr) *information = pcd_format(kDataSourceFormat, fileName);
  };
  if (pcd_regular_file_size(fileName) <= 0) {
    set_information();
    return nullptr;
  }

  PcdIntSize4D size{};
  std::vector<int32_t> dataType(kPcdRawVolumeFileMaxChannels);
  std::vector<int32_t> colorFormat(kPcdRawVolumeFileMaxChannels);
  const int64_t offset = ReadRawVolumeFileHeader(fileName, &size, dataType.data(),
                                                 colorFormat.data());
  if (offset < 0) {
    PCD_Notice(PCD_NOTICE_WARNING, "Warning", "This is NOT a PELLUCID file.", 240, 100);
    return nullptr;
  }
  if (mapBody) {
    if (PcdRawVolumeData* mapped = MapBody(fileName, offset, size, dataType.data(), colorFormat.data())) {
      set_information();
      return mapped;
    }
  }

  PcdRawVolumeData* volume = PCD_NewRawVolumeData(&size, dataType.data(), colorFormat.data());
  if (volume == nullptr) {
    std::fprintf(stderr, "Err: not enough memory for the volume of %s\n", fileName);
    return nullptr;
  }
  FilePtr file(std::fopen(fileName, "rb"));
  bool complete = file && std::fseek(file.get(), static_cast<long>(offset), SEEK_SET) == 0;
  const size_t voxels = static_cast<size_t>(PCD_GetNumberOfVoxels(volume));
  for (int32_t c = 0; complete && c < size.channels; ++c) {
    const size_t bytes = voxels * static_cast<size_t>(PCD_SizeOfDataType(dataType[c]));
    complete = std::fread(volume->data[c], 1, bytes, file.get()) == bytes;
  }
  if (!complete) {
    // The file changed between the header check and the read.
    std::fprintf(stderr, "Err: raw volume file (%s) could not be read to its end\n", fileName);
    PCD_DeleteRawVolumeData(volume);
    return nullptr;
  }
  set_information();
  return volume;
}

}  // namespace

PcdRawVolumeData* ReadRawVolumeFile(const char* fileName, std::string* information) {
  return ReadRawVolume(fileName, information, false);
}

PcdRawVolumeData* ReadRawVolumeFileMapped(const char* fileName, std::string* information) {
  return ReadRawVolume(fileName, information, true);
}

int PCD_IsSameFile(const char* a, const char* b) {
  struct stat sa{}, sb{};
  if (a == nullptr || b == nullptr || stat(a, &sa) != 0 || stat(b, &sb) != 0) return 0;
  return sa.st_dev == sb.st_dev && sa.st_ino == sb.st_ino ? 1 : 0;
}

int WriteRawVolumeFile(const PcdRawVolumeData* volume, const char* fileName) {
  const int64_t bodySize = PCD_GetRawVolumeBodySize(volume);
  if (fileName == nullptr || bodySize < 0 || volume->colorFormat == nullptr) return -1;
  if (bodySize > INT32_MAX) {
    std::fprintf(stderr, "Err: volume too large for a raw volume file (%lld bytes)\n",
                 static_cast<long long>(bodySize));
    return -1;
  }
  FilePtr file(std::fopen(fileName, "wb"));
  if (!file) return -1;

  const PcdIntSize4D& size = *volume->matrixSize;
  std::string header = kPcdRawVolumeFileMagic;
  header += pcd_format("%d %d %d %d\n", size.x, size.y, size.z, size.channels);
  for (int32_t c = 0; c < size.channels; ++c) header += pcd_format("%d ", volume->dataType[c]);
  header += "\n";
  for (int32_t c = 0; c < size.channels; ++c)
    header += pcd_format("%d ", volume->colorFormat[c]);
  header += "\n";
  header += pcd_format("%d uncompressed\n", static_cast<int>(bodySize));

  bool ok = std::fwrite(header.data(), 1, header.size(), file.get()) == header.size();
  const int64_t written = ok ? pcd_write_blocks(file.get(), volume) : -1;
  ok = written == bodySize;
  return std::fclose(file.release()) == 0 && ok ? 0 : -1;
}

int64_t PCD_ExportRawVolumeData(const char* fileName, const PcdRawVolumeData* volume) {
  if (fileName == nullptr || PCD_GetRawVolumeBodySize(volume) < 0) return 0;
  FilePtr file(std::fopen(fileName, "wb"));
  if (!file) return 0;
  const int64_t written = pcd_write_blocks(file.get(), volume);
  return written < 0 ? 0 : written;
}

int64_t ReadRawVolumeSlab(const char* fileName, PcdRawVolumeData* volume, int32_t channel,
                          int32_t z, int64_t offset) {
  if (fileName == nullptr) return 0;
  FilePtr file(std::fopen(fileName, "rb"));
  if (!file) {
    std::fprintf(stderr, "File (%s) not found\n", fileName);
    return 0;
  }
  if (PCD_GetRawVolumeBodySize(volume) < 0 || channel < 0 ||
      channel >= volume->matrixSize->channels || z < 0 || z >= volume->matrixSize->z ||
      offset < 0 || offset > LONG_MAX)
    return 0;
  const PcdIntSize4D& size = *volume->matrixSize;
  const size_t plane = static_cast<size_t>(size.x) * static_cast<size_t>(size.y) *
                       static_cast<size_t>(PCD_SizeOfDataType(volume->dataType[channel]));
  // Read into a scratch plane first so that a short file leaves the volume as it was.
  std::vector<uint8_t> scratch(plane);
  if (std::fseek(file.get(), static_cast<long>(offset), SEEK_SET) != 0) return 0;
  const size_t got = std::fread(scratch.data(), 1, plane, file.get());
  if (got == plane) {
    std::memcpy(static_cast<uint8_t*>(volume->data[channel]) + plane * static_cast<size_t>(z),
                scratch.data(), plane);
  }
  return static_cast<int64_t>(got);
}
