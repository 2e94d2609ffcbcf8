// Little-endian cursors over the serialized forms of ROI and study objects. The reader
// never reads past its end: a field that does not fit turns the cursor bad and yields
// zeros, so a parser checks ok() once at the points where it decides something.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstring>

#include "vol/serialize.h"

struct PcdByteReader {
  const uint8_t* data = nullptr;
  size_t size = 0;
  size_t at = 0;
  bool bad = false;

  bool ok() const { return !bad; }
  size_t left() const { return bad ? 0 : size - at; }
  // The next n bytes, or null (and the cursor bad) when fewer are left.
  const uint8_t* Take(size_t n) {
    if (bad || n > size - at) {
      bad = true;
      return nullptr;
    }
    const uint8_t* p = data + at;
    at += n;
    return p;
  }
  int32_t Int32() {
    const uint8_t* p = Take(4);
    return p ? PCD_GetInt32LE(p) : 0;
  }
  uint32_t Word() { return static_cast<uint32_t>(Int32()); }
  float Float32() {
    const uint8_t* p = Take(4);
    return p ? PCD_GetFloat32LE(p) : 0.0f;
  }
  uint16_t UInt16() {
    const uint8_t* p = Take(2);
    return p ? static_cast<uint16_t>(p[0] | (p[1] << 8)) : 0;
  }
  void Bytes(void* out, size_t n) {
    if (n == 0) return;  // an empty record may hand over no buffer at all
    const uint8_t* p = Take(n);
    if (p) std::memcpy(out, p, n);
    else std::memset(out, 0, n);
  }
};

struct PcdByteWriter {
  uint8_t* at;
  void Int32(int32_t v) {
    PCD_PutInt32LE(at, v);
    at += 4;
  }
  void Word(uint32_t v) { Int32(static_cast<int32_t>(v)); }
  void Float32(float v) {
    PCD_PutFloat32LE(at, v);
    at += 4;
  }
  void UInt16(uint16_t v) {
    at[0] = static_cast<uint8_t>(v & 0xff);
    at[1] = static_cast<uint8_t>(v >> 8);
    at += 2;
  }
  void Bytes(const void* p, size_t n) {
    if (n == 0) return;  // an empty record may have no buffer to copy from
    std::memcpy(at, p, n);
    at += n;
  }
};
