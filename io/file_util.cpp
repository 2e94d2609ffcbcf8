#include "io/file_util.h"

#include <sys/stat.h>

#include <cerrno>
#include <charconv>
#include <cstdarg>
#include <cstdlib>
#include <memory>
#include <vector>

#include "io/c_locale.h"

bool pcd_parse_int64(const std::string& token, int64_t* value) {
  const char* first = token.data();
  const char* last = first + token.size();
  if (first != last && *first == '+') ++first;
  const auto [end, error] = std::from_chars(first, last, *value);
  return error == std::errc{} && end == last && first != last;
}

bool pcd_parse_double(const std::string& token, double* value) {
  const char* first = token.data();
  const char* last = first + token.size();
  if (first != last && *first == '+') ++first;
  const auto [end, error] = std::from_chars(first, last, *value);
  return error == std::errc{} && end == last && first != last;
}

bool pcd_checked_mul(int64_t a, int64_t b, int64_t* result) {
  if (a < 0 || b < 0) return false;
  return !__builtin_mul_overflow(a, b, result);
}

int64_t pcd_regular_file_size(const char* fileName) {
  struct stat info {};
  if (fileName == nullptr || stat(fileName, &info) != 0 || !S_ISREG(info.st_mode)) return -1;
  return static_cast<int64_t>(info.st_size);
}

std::string pcd_format(const char* format, ...) {
  PcdScopedCLocale cLocale;
  va_list args;
  va_start(args, format);
  va_list copy;
  va_copy(copy, args);
  const int length = std::vsnprintf(nullptr, 0, format, copy);
  va_end(copy);
  std::string text;
  if (length > 0) {
    std::vector<char> buffer(static_cast<size_t>(length) + 1);
    std::vsnprintf(buffer.data(), buffer.size(), format, args);
    text.assign(buffer.data(), static_cast<size_t>(length));
  }
  va_end(args);
  return text;
}

int64_t pcd_write_blocks(FILE* file, const PcdRawVolumeData* volume) {
  const size_t voxels = static_cast<size_t>(PCD_GetNumberOfVoxels(volume));
  int64_t written = 0;
  for (int32_t c = 0; c < volume->matrixSize->channels; ++c) {
    const size_t bytes = voxels * static_cast<size_t>(PCD_SizeOfDataType(volume->dataType[c]));
    if (std::fwrite(volume->data[c], 1, bytes, file) != bytes) return -1;
    written += static_cast<int64_t>(bytes);
  }
  return written;
}

bool pcd_read_whole_file(const char* fileName, int64_t maxBytes, std::string* contents) {
  const int64_t size = pcd_regular_file_size(fileName);
  if (size < 0 || size > maxBytes) return false;
  std::unique_ptr<FILE, int (*)(FILE*)> file(std::fopen(fileName, "rb"), &std::fclose);
  if (!file) return false;
  contents->assign(static_cast<size_t>(size), '\0');
  if (std::fread(contents->data(), 1, contents->size(), file.get()) != contents->size())
    return false;
  return std::fgetc(file.get()) == EOF;  // the file must not have grown meanwhile
}
