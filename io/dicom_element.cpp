#include "io/dicom_element.h"

#include <cstdio>
#include <cstring>

#include "io/file_util.h"

namespace {

uint16_t u16(const uint8_t* p) { return static_cast<uint16_t>(p[0] | p[1] << 8); }

uint32_t u32(const uint8_t* p) {
  return static_cast<uint32_t>(p[0]) | static_cast<uint32_t>(p[1]) << 8 |
         static_cast<uint32_t>(p[2]) << 16 | static_cast<uint32_t>(p[3]) << 24;
}

bool has_long_length(const uint8_t* vr) {
  for (const char* name : {"OB", "OW", "SQ", "UN"})
    if (vr[0] == name[0] && vr[1] == name[1]) return true;
  return false;
}

constexpr uint16_t kItemGroup = 0xFFFE;
constexpr uint16_t kItemDelimiter = 0xE00D;
constexpr uint16_t kSequenceDelimiter = 0xE0DD;

// A single file is read whole; nothing a scanner writes per slice comes near this.
constexpr int64_t kMaxDicomFileBytes = int64_t{1} << 30;

}  // namespace

void pcd_dicom_invalid_pair() { std::fputs("Invalid pair of group ID and element ID\n", stderr); }

size_t pcd_dicom_data_set_start(const uint8_t* bytes, size_t size) {
  if (size >= 4 && std::memcmp(bytes, "DICM", 4) == 0) {
    std::fputs("DICOM identifier found at position:0\n", stderr);
    return 4;
  }
  if (size >= 132 && std::memcmp(bytes + 128, "DICM", 4) == 0) return 132;
  return 0;
}

bool pcd_read_dicom_head(const uint8_t* bytes, size_t size, size_t pos, PcdDicomElementHead* head) {
  if (pos > size || size - pos < 8) return false;
  const uint8_t* p = bytes + pos;
  head->group = u16(p);
  head->element = u16(p + 2);
  const uint8_t b0 = p[4], b1 = p[5];
  const bool isExplicit = b1 >= 'A' && !(b0 == 0xFF && b1 == 0xFF);
  if (!isExplicit) {
    head->vr[0] = '\0';
    head->length = u32(p + 4);
    head->offset = static_cast<int64_t>(pos + 8);
    return true;
  }
  head->vr[0] = static_cast<char>(b0);
  head->vr[1] = static_cast<char>(b1);
  head->vr[2] = '\0';
  if (has_long_length(p + 4)) {
    if (size - pos < 12) return false;
    head->length = u32(p + 8);
    head->offset = static_cast<int64_t>(pos + 12);
    return true;
  }
  head->length = u16(p + 6);
  if (head->length == 0 &&
      (head->group == 0x7F88 || head->group == 0x7FE0 || head->group == kItemGroup))
    head->length = u32(p + 4);
  head->offset = static_cast<int64_t>(pos + 8);
  return true;
}

size_t pcd_skip_undefined_length(const uint8_t* bytes, size_t size, size_t pos) {
  // Open values of undefined length (the sequence itself, then undefined items and nested
  // sequences); each delimiter closes one. Every step moves on by at least 8 bytes.
  int64_t open = 1;
  while (open > 0) {
    PcdDicomElementHead head;
    if (!pcd_read_dicom_head(bytes, size, pos, &head)) return 0;
    if (head.group == 0 && head.element == 0) {
      pcd_dicom_invalid_pair();
      return 0;
    }
    const size_t valueAt = static_cast<size_t>(head.offset);
    if (head.group == kItemGroup &&
        (head.element == kItemDelimiter || head.element == kSequenceDelimiter)) {
      --open;
      pos = valueAt;  // a delimiter's length is zero by definition
    } else if (head.length == kPcdDicomUndefinedLength) {
      ++open;
      pos = valueAt;
    } else {
      if (static_cast<uint64_t>(head.length) > size - valueAt) return 0;
      pos = valueAt + static_cast<size_t>(head.length);
    }
  }
  return pos;
}

int64_t FindDicomElement(const uint8_t* bytes, size_t size, uint16_t group, uint16_t element,
                         std::string* value, int64_t* length) {
  if (value != nullptr) value->clear();
  if (bytes == nullptr) return -1;
  PcdDicomElementHead found{};
  bool hit = false;
  pcd_walk_dicom_elements(bytes, size, pcd_dicom_data_set_start(bytes, size),
                          [&](const PcdDicomElementHead& head) {
                            if (head.group != group || head.element != element)
                              return PcdDicomVisit::kContinue;
                            found = head;
                            hit = true;
                            return PcdDicomVisit::kStop;
                          });
  if (!hit) return -1;
  if (length != nullptr) *length = found.length;
  if (value != nullptr && found.length != kPcdDicomUndefinedLength)
    value->assign(reinterpret_cast<const char*>(bytes) + found.offset,
                  static_cast<size_t>(found.length));
  return found.offset;
}

int64_t FindDicomElement(const char* fileName, uint16_t group, uint16_t element,
                         std::string* value, int64_t* length) {
  if (value != nullptr) value->clear();
  std::string contents;
  if (fileName == nullptr || !pcd_read_whole_file(fileName, kMaxDicomFileBytes, &contents))
    return -1;
  return FindDicomElement(reinterpret_cast<const uint8_t*>(contents.data()), contents.size(),
                          group, element, value, length);
}
