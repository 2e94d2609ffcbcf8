// Object groups as the viewer link writes them. No reader exists (the payload layouts are
// the viewer's), so the input is read as a group whose list counts lead their payloads,
// any of them possibly negative or not matching the bytes that follow; the writer must
// refuse what it cannot write and stay inside the size it announced, and a group read
// exactly must come out as the very bytes it was read from.
#include <cstdlib>
#include <cstring>
#include <memory>
#include <vector>

#include "fuzz/fuzz_support.h"
#include "vol/serialize.h"

namespace {

struct Reader {
  const uint8_t* data;
  size_t size;
  size_t at = 0;
  bool exact = true;  // every field was there in full

  int32_t Word() {
    if (at + 4 > size) {
      exact = false;
      at = size;
      return 0;
    }
    const int32_t w = PCD_GetInt32LE(data + at);
    at += 4;
    return w;
  }
};

bool UsesK(int32_t type) { return type == 21 || type == 31 || type == 61 || type == 62; }

std::unique_ptr<PcdObjectGroup> ReadGroup(Reader* r, int depth) {
  auto group = std::make_unique<PcdObjectGroup>();
  group->hasColors = true;
  const int32_t m = r->Word();
  if (m < 0 || m > 16) {
    r->exact = false;
    return group;
  }
  group->objects.resize(static_cast<size_t>(m));
  for (PcdDisplayObject& o : group->objects) o.type = r->Word();
  for (PcdDisplayObject& o : group->objects) {
    o.value = r->Word();
    o.extras = o.value < 0;
  }
  for (PcdDisplayObject& o : group->objects)
    for (float& c : o.color) {
      const int32_t bits = r->Word();
      std::memcpy(&c, &bits, 4);
    }
  for (PcdDisplayObject& o : group->objects) {
    if (o.type == 99) {
      if (depth < 4) o.nested = ReadGroup(r, depth + 1);
      continue;
    }
    // the counts lead the payload: peek at them
    if (UsesK(o.type) && r->at + 4 <= r->size) o.k = PCD_GetInt32LE(r->data + r->at);
    if (o.type == 71 && r->at + 8 <= r->size) {
      o.a = PCD_GetInt32LE(r->data + r->at);
      o.b = PCD_GetInt32LE(r->data + r->at + 4);
    }
    const size_t bytes = PCD_GetPayloadSizeOfObject(o);
    const size_t take = std::min(bytes, std::min<size_t>(r->size - r->at, 1 << 16));
    if (take < bytes) r->exact = false;
    o.payload.assign(r->data + r->at, r->data + r->at + take);
    r->at += take;
  }
  return group;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  Reader r{data, size};
  const std::unique_ptr<PcdObjectGroup> group = ReadGroup(&r, 0);
  const size_t n = PCD_GetSerializedSizeOfObjectGroup(group.get());
  if (n > (size_t{1} << 20)) return 0;  // a count read as millions of points: not allocated here
  // exactly the announced size: anything written beyond it is caught by the address checker
  std::vector<uint8_t> out(n);
  if (n > 0 && n <= size) std::memcpy(out.data(), data, n);  // what type 15 leaves alone
  const int written = n == 0 ? -1 : PCD_SerializeObjectGroup(group.get(), out.data());
  if (written == 0 && r.exact && (n != r.at || std::memcmp(out.data(), data, n) != 0)) std::abort();
  return 0;
}

void PCDfuzz_WriteSeeds(const char* dir) {
  PcdObjectGroup g;
  g.hasColors = true;
  auto add = [&g](int32_t type, int32_t value, int32_t k, int32_t a, int32_t b) {
    PcdDisplayObject o;
    o.type = type;
    o.value = value;
    o.extras = value < 0;
    o.k = k, o.a = a, o.b = b;
    o.color[0] = 0.5f;
    o.payload.assign(PCD_GetPayloadSizeOfObject(o), 3);
    if (o.payload.size() >= 4) PCD_PutInt32LE(o.payload.data(), type == 71 ? a : k);
    if (type == 71) PCD_PutInt32LE(o.payload.data() + 4, b);
    g.objects.push_back(std::move(o));
  };
  add(11, 1, 0, 0, 0);
  add(21, 2, 3, 0, 0);
  add(61, -3, 2, 0, 0);
  add(71, -4, 0, 1, 2);
  add(22, 5, 0, 0, 0);
  std::vector<uint8_t> bytes(PCD_GetSerializedSizeOfObjectGroup(&g));
  if (PCD_SerializeObjectGroup(&g, bytes.data()) == 0) PCDfuzz_WriteFile(dir, "lists.bin", bytes);
  PcdObjectGroup outer;
  outer.hasColors = true;
  PcdDisplayObject nest;
  nest.type = 99;
  nest.nested = std::make_unique<PcdObjectGroup>(std::move(g));
  outer.objects.push_back(std::move(nest));
  bytes.assign(PCD_GetSerializedSizeOfObjectGroup(&outer), 0);
  if (PCD_SerializeObjectGroup(&outer, bytes.data()) == 0) PCDfuzz_WriteFile(dir, "nested.bin", bytes);
}
