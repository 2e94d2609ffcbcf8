#include "io/dicom_structure.h"

#include <cstring>
#include <string>

namespace {

constexpr uint32_t kUndefined = 0xFFFFFFFF;
constexpr uint16_t kItemGroup = 0xFFFE;
constexpr uint16_t kItem = 0xE000, kItemEnd = 0xE00D, kSequenceEnd = 0xE0DD;
constexpr int kMaxDepth = 12;

uint16_t u16(const uint8_t* p) { return static_cast<uint16_t>(p[0] | p[1] << 8); }
uint32_t u32(const uint8_t* p) {
  return static_cast<uint32_t>(p[0]) | static_cast<uint32_t>(p[1]) << 8 | static_cast<uint32_t>(p[2]) << 16 |
         static_cast<uint32_t>(p[3]) << 24;
}

// Only the value representations of the standard: a reader meeting any other pair reads
// the head as implicit, and would then take a different length than this check.
bool is_vr(const uint8_t* p) {
  static const char* const kAll[] = {"AE", "AS", "AT", "CS", "DA", "DS", "DT", "FL", "FD", "IS", "LO", "LT",
                                     "OB", "OD", "OF", "OL", "OV", "OW", "PN", "SH", "SL", "SQ", "SS", "ST",
                                     "SV", "TM", "UC", "UI", "UL", "UN", "UR", "US", "UT", "UV"};
  for (const char* v : kAll)
    if (p[0] == v[0] && p[1] == v[1]) return true;
  return false;
}

bool has_long_length(const uint8_t* vr) {
  static const char* const kLong[] = {"OB", "OD", "OF", "OL", "OV", "OW", "SQ", "SV", "UC", "UN", "UR", "UT", "UV"};
  for (const char* v : kLong)
    if (vr[0] == v[0] && vr[1] == v[1]) return true;
  return false;
}

struct Head {
  uint16_t group = 0, element = 0;
  bool sequence = false;  // VR "SQ" (explicit only)
  size_t value = 0;       // offset of the value
  uint32_t length = 0;
};

class Checker {
 public:
  Checker(const uint8_t* bytes) : b_(bytes) {}

  // Elements of a data set from pos; with an end: exactly up to it; with untilItemEnd:
  // up to an item delimiter, *after just past it.
  bool data_set(size_t pos, size_t end, bool untilItemEnd, int depth, size_t* after, bool* explicitVr) {
    if (depth > kMaxDepth) return false;
    while (pos != end) {
      Head h;
      const size_t headAt = pos;
      if (!head(pos, end, *explicitVr, &h)) return false;
      if (h.group == kItemGroup) {
        if (untilItemEnd && h.element == kItemEnd && h.length == 0) {
          *after = h.value;
          return true;
        }
        return false;
      }
      if (h.group == 0 && h.element == 0) return false;
      const bool pixels = depth == 0 && h.group == 0x7FE0 && h.element == 0x0010;
      if (h.length == kUndefined) {
        if (!items(h.value, end, true, h.group == 0x7FE0, depth + 1, &pos, explicitVr)) return false;
        if (pixels) {
          pixelBytes_ = static_cast<int64_t>(pos - h.value);
          pixelOffset_ = static_cast<int64_t>(h.value);
          pixelHead_ = static_cast<int64_t>(headAt);
          encapsulated_ = true;
        }
        continue;
      }
      if (pixels) {
        pixelBytes_ = h.length;
        pixelOffset_ = static_cast<int64_t>(h.value);
        pixelHead_ = static_cast<int64_t>(headAt);
        encapsulated_ = false;
      }
      if (h.length > end - h.value) return false;
      const size_t valueEnd = h.value + h.length;
      // an implicit sequence of defined length shows itself by its first item head
      const bool nested = h.sequence || (!*explicitVr && h.length >= 8 && u16(b_ + h.value) == kItemGroup &&
                                         u16(b_ + h.value + 2) == kItem);
      if (nested) {
        size_t ignored;
        if (!items(h.value, valueEnd, false, false, depth + 1, &ignored, explicitVr)) return false;
      }
      // the meta group says how the rest is encoded
      if (h.group == 0x0002 && h.element == 0x0010) syntax_ = std::string(reinterpret_cast<const char*>(b_ + h.value), h.length);
      pos = valueEnd;
    }
    if (untilItemEnd) return false;
    *after = end;
    return true;
  }

  // The items of a sequence (or the fragments of encapsulated pixel data) from pos.
  bool items(size_t pos, size_t end, bool undefined, bool fragments, int depth, size_t* after, bool* explicitVr) {
    if (depth > kMaxDepth) return false;
    while (true) {
      if (!undefined && pos == end) {
        *after = end;
        return true;
      }
      if (pos > end || end - pos < 8) return false;
      const uint16_t group = u16(b_ + pos), element = u16(b_ + pos + 2);
      const uint32_t length = u32(b_ + pos + 4);
      pos += 8;
      if (group != kItemGroup) return false;
      if (element == kSequenceEnd) {
        if (!undefined || length != 0) return false;
        *after = pos;
        return true;
      }
      if (element != kItem) return false;
      if (length == kUndefined) {
        if (fragments) return false;
        if (!data_set(pos, end, true, depth + 1, &pos, explicitVr)) return false;
        continue;
      }
      if (length > end - pos) return false;
      if (!fragments) {
        size_t ignored;
        if (!data_set(pos, pos + length, false, depth + 1, &ignored, explicitVr)) return false;
      }
      pos += length;
    }
  }

  bool head(size_t pos, size_t end, bool explicitVr, Head* h) {
    if (pos > end || end - pos < 8) return false;
    const uint8_t* p = b_ + pos;
    h->group = u16(p);
    h->element = u16(p + 2);
    // the meta group is always explicit; items and delimiters never are
    const bool isExplicit = h->group != kItemGroup && (h->group == 0x0002 || explicitVr);
    if (!isExplicit) {
      h->length = u32(p + 4);
      h->value = pos + 8;
      return true;
    }
    if (!is_vr(p + 4)) return false;
    h->sequence = p[4] == 'S' && p[5] == 'Q';
    if (has_long_length(p + 4)) {
      if (end - pos < 12) return false;
      h->length = u32(p + 8);
      h->value = pos + 12;
      return true;
    }
    h->length = u16(p + 6);
    h->value = pos + 8;
    return true;
  }

  const std::string& syntax() const { return syntax_; }
  int64_t pixel_bytes() const { return pixelBytes_; }
  int64_t pixel_offset() const { return pixelOffset_; }
  int64_t pixel_head() const { return pixelHead_; }
  bool encapsulated() const { return encapsulated_; }

 private:
  const uint8_t* b_;
  std::string syntax_;
  int64_t pixelBytes_ = 0;
  int64_t pixelOffset_ = -1;
  int64_t pixelHead_ = -1;
  bool encapsulated_ = false;
};

std::string trimmed(std::string s) {
  while (!s.empty() && (s.back() == '\0' || s.back() == ' ')) s.pop_back();
  return s;
}

}  // namespace

namespace {

// Where the data set starts and how it is encoded, when the whole file is sound.
struct Layout {
  size_t dataSet = 0;
  bool explicitVr = true;
  std::string syntax;  // as the meta group names it, or empty
  int64_t pixelBytes = 0;
  int64_t pixelOffset = -1;  // in the file's bytes
  int64_t pixelHead = -1;    // where the pixel element's head starts
  bool encapsulated = false;
};

// Little-endian syntaxes: the two uncompressed ones, JPEG (baseline, extended, lossless),
// JPEG-LS, JPEG 2000 and RLE.
bool is_known_syntax(const std::string& uid) {
  static const char* const kKnown[] = {"1.2.840.10008.1.2",      "1.2.840.10008.1.2.1",    "1.2.840.10008.1.2.4.50",
                                       "1.2.840.10008.1.2.4.51", "1.2.840.10008.1.2.4.57", "1.2.840.10008.1.2.4.70",
                                       "1.2.840.10008.1.2.4.80", "1.2.840.10008.1.2.4.81", "1.2.840.10008.1.2.4.90",
                                       "1.2.840.10008.1.2.4.91", "1.2.840.10008.1.2.5"};
  for (const char* k : kKnown)
    if (uid == k) return true;
  return false;
}

bool check_file(const uint8_t* bytes, size_t size, Layout* out) {
  if (bytes == nullptr) return false;
  size_t start = 0;
  if (size >= 132 && std::memcmp(bytes + 128, "DICM", 4) == 0) start = 132;
  if (size - start < 8) return false;
  Checker meta(bytes);
  // the meta group: explicit elements of group 0002
  size_t pos = start;
  bool explicitVr = true;
  while (size - pos >= 8 && u16(bytes + pos) == 0x0002) {
    Head h;
    if (!meta.head(pos, size, true, &h) || h.length == kUndefined || h.length > size - h.value) return false;
    pos = h.value + h.length;
  }
  std::string syntax;
  if (pos > start) {
    size_t ignored;
    bool metaExplicit = true;
    if (!meta.data_set(start, pos, false, 0, &ignored, &metaExplicit)) return false;
    syntax = trimmed(meta.syntax());
    if (syntax.empty()) return false;  // a meta group that does not say how the rest is encoded
    if (!is_known_syntax(syntax)) return false;  // big endian, deflate, or what no codec here decodes
    if (syntax == "1.2.840.10008.1.2") explicitVr = false;
  }
  if (size - pos < 8) return false;  // no data set at all
  if (pos == start) explicitVr = is_vr(bytes + pos + 4);
  Checker body(bytes);
  size_t after;
  if (!body.data_set(pos, size, false, 0, &after, &explicitVr)) return false;
  out->dataSet = pos;
  out->explicitVr = explicitVr;
  out->syntax = syntax;
  out->pixelBytes = body.pixel_bytes();
  out->pixelOffset = body.pixel_offset();
  out->pixelHead = body.pixel_head();
  out->encapsulated = body.encapsulated();
  return true;
}

void put_element(std::string* out, uint16_t element, const char* vr, const std::string& value) {
  const char head[8] = {0x02, 0x00, static_cast<char>(element & 0xFF), static_cast<char>(element >> 8), vr[0], vr[1],
                        static_cast<char>(value.size() & 0xFF), static_cast<char>(value.size() >> 8)};
  out->append(head, 8);
  out->append(value);
}

}  // namespace

bool pcd_dicom_structure_is_sound(const uint8_t* bytes, size_t size, int64_t* pixelBytes) {
  if (pixelBytes != nullptr) *pixelBytes = 0;
  Layout layout;
  if (!check_file(bytes, size, &layout)) return false;
  if (pixelBytes != nullptr) *pixelBytes = layout.pixelBytes;
  return true;
}

bool pcd_dicom_canonical_bytes(const uint8_t* bytes, size_t size, std::string* out, PcdDicomPixelSpan* pixels,
                               bool headerOnly) {
  Layout layout;
  if (!check_file(bytes, size, &layout)) return false;
  std::string syntax = !layout.syntax.empty() ? layout.syntax
                       : layout.explicitVr   ? "1.2.840.10008.1.2.1"
                                             : "1.2.840.10008.1.2";
  if (syntax.size() % 2 != 0) syntax.push_back('\0');
  std::string meta;
  put_element(&meta, 0x0010, "UI", syntax);
  std::string length(4, '\0');
  for (int i = 0; i < 4; ++i) length[static_cast<size_t>(i)] = static_cast<char>(meta.size() >> (8 * i));
  out->assign(128, '\0');
  out->append("DICM");
  put_element(out, 0x0000, "UL", length);
  out->append(meta);
  const size_t head = out->size();
  if (headerOnly) {
    // the elements before the pixel data, then an empty pixel element where a reader
    // looking for it stops (instead of meeting the end of its stream)
    const size_t end = layout.pixelHead >= 0 ? static_cast<size_t>(layout.pixelHead) : size;
    out->append(reinterpret_cast<const char*>(bytes) + layout.dataSet, end - layout.dataSet);
    const char empty[12] = {'\xE0', '\x7F', 0x10, 0x00, 'O', 'W', 0, 0, 0, 0, 0, 0};
    const char emptyImplicit[8] = {'\xE0', '\x7F', 0x10, 0x00, 0, 0, 0, 0};
    if (layout.explicitVr) out->append(empty, 12);
    else out->append(emptyImplicit, 8);
  } else {
    out->append(reinterpret_cast<const char*>(bytes) + layout.dataSet, size - layout.dataSet);
  }
  if (pixels != nullptr) {
    *pixels = PcdDicomPixelSpan{};
    if (layout.pixelOffset >= 0) {
      pixels->offset = layout.pixelOffset - static_cast<int64_t>(layout.dataSet) + static_cast<int64_t>(head);
      pixels->fileOffset = layout.pixelOffset;
      pixels->length = layout.pixelBytes;
      pixels->encapsulated = layout.encapsulated;
    }
  }
  return true;
}

PcdMemoryStreamBuf::PcdMemoryStreamBuf(const char* data, size_t size) {
  char* p = const_cast<char*>(data);  // only ever read
  setg(p, p, p + size);
}

PcdMemoryStreamBuf::pos_type PcdMemoryStreamBuf::seekoff(off_type off, std::ios_base::seekdir dir,
                                                         std::ios_base::openmode which) {
  if (!(which & std::ios_base::in)) return pos_type(off_type(-1));
  const off_type base = dir == std::ios_base::beg ? 0 : dir == std::ios_base::cur ? gptr() - eback() : egptr() - eback();
  const off_type to = base + off;
  if (to < 0 || to > egptr() - eback()) return pos_type(off_type(-1));
  setg(eback(), eback() + to, egptr());
  return pos_type(to);
}

PcdMemoryStreamBuf::pos_type PcdMemoryStreamBuf::seekpos(pos_type pos, std::ios_base::openmode which) {
  return seekoff(off_type(pos), std::ios_base::beg, which);
}
