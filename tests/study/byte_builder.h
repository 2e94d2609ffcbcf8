// Builds expected byte images field by field, little-endian, independently of the
// serializers under test.
#pragma once

#include <cstdint>
#include <cstring>
#include <string>
#include <vector>

namespace quorix_test {

struct ByteBuilder {
  std::vector<uint8_t> bytes;
  ByteBuilder& i32(int32_t v) {
    const uint32_t u = static_cast<uint32_t>(v);
    for (int k = 0; k < 4; ++k) bytes.push_back(static_cast<uint8_t>(u >> (8 * k)));
    return *this;
  }
  ByteBuilder& f32(float f) {
    uint32_t u;
    std::memcpy(&u, &f, 4);
    return i32(static_cast<int32_t>(u));
  }
  ByteBuilder& u16(uint16_t v) {
    bytes.push_back(static_cast<uint8_t>(v & 0xff));
    bytes.push_back(static_cast<uint8_t>(v >> 8));
    return *this;
  }
  ByteBuilder& u8(uint8_t v) {
    bytes.push_back(v);
    return *this;
  }
  ByteBuilder& zeros(size_t n) {
    bytes.insert(bytes.end(), n, 0);
    return *this;
  }
  // text, then NUL bytes up to width
  ByteBuilder& text(const std::string& s, size_t width) {
    bytes.insert(bytes.end(), s.begin(), s.end());
    return zeros(width - s.size());
  }
  ByteBuilder& raw(const std::string& s) {
    bytes.insert(bytes.end(), s.begin(), s.end());
    return *this;
  }
  ByteBuilder& append(const std::vector<uint8_t>& more) {
    bytes.insert(bytes.end(), more.begin(), more.end());
    return *this;
  }
  // The shape record as a ROI or study region gets it when created and fitted to a
  // volume whose centre is (cx, cy, cz), with the given points (x, y, z).
  ByteBuilder& createdShape(float cx, float cy, float cz,
                            const std::vector<std::vector<int>>& points = {}) {
    f32(cx).f32(cy).f32(cz);
    const float geometry[5][3] = {{1, 0, 0}, {1, 0, 0}, {0, 0, 0}, {-1, 0, 0}, {1, 0, 0}};
    for (const auto& v : geometry) f32(v[0]).f32(v[1]).f32(v[2]);
    f32(1.0f).i32(123).f32(0.4f).i32(246).f32(3.0f);
    f32(cx).f32(cy).f32(cz).f32(1.0f);
    i32(static_cast<int32_t>(points.size()));
    for (const auto& p : points) u8(static_cast<uint8_t>(p[0])).u8(static_cast<uint8_t>(p[1])).u16(static_cast<uint16_t>(p[2]));
    return *this;
  }
  // The 80-byte growing core of a new ROI.
  ByteBuilder& defaultGrowingCore() {
    i32(654).i32(0).f32(0.2f).zeros(11 * 4).f32(5.0f).i32(0);
    return i32(10).i32(0).f32(1.0f).f32(10000.0f);
  }
};

}  // namespace quorix_test
