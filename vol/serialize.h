// Flat byte images of volumes and object groups: what DTI files, session files and the
// viewer link carry. Integers are 32-bit little-endian, floats IEEE single, no padding.
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <vector>

#include "vol/raw_volume.h"

// ---- little-endian fields --------------------------------------------------------------
void PCD_PutInt32LE(uint8_t* at, int32_t value);
int32_t PCD_GetInt32LE(const uint8_t* at);
void PCD_PutFloat32LE(uint8_t* at, float value);
float PCD_GetFloat32LE(const uint8_t* at);

// ---- whole volume: x, y, z, n, n type codes, n colour codes, the n blocks ----------------
size_t PCD_GetSerializedSizeOfRawVolumeData(const PcdRawVolumeData* volume);  // 0 for null
int PCD_SerializeRawVolumeData(const PcdRawVolumeData* volume, uint8_t* buffer);
// Trusts the buffer: only for buffers this process wrote. Null for more than 256
// channels or sizes the volume cannot be made of.
PcdRawVolumeData* PCD_GetRawVolumeDataFromSerializedData(const uint8_t* buffer);
// The same, reading nothing outside buffer[0 .. length-1]: a buffer too short for what
// it announces, invalid codes, or sizes that overflow are refused with an "Err: " line.
PcdRawVolumeData* PCD_GetRawVolumeDataFromSerializedDataChecked(const uint8_t* buffer,
                                                                size_t length);

// ---- single channel: x, y, z, type code, colour code, the block ----------------------------
size_t PCD_GetSerializedSizeOfSingleChannel(const PcdRawVolumeData* volume, int32_t channel);
int PCD_SerializeSingleChannel(const PcdRawVolumeData* volume, int32_t channel,
                               uint8_t* buffer);
// A new one-channel volume from a single-channel image, reading only buffer[0..length-1].
PcdRawVolumeData* PCD_GetSingleChannelFromSerializedDataChecked(const uint8_t* buffer,
                                                               size_t length);

// ---- what a header announces -------------------------------------------------------------
// The whole byte size (header and blocks) that the header of a serialized volume or channel
// announces, reading only buffer[0 .. length-1]; 0 when the header is cut short, holds an
// invalid size, count or code, or announces more than half the address space. Says nothing
// about whether the blocks are there: compare it with what the buffer holds.
size_t PCD_GetAnnouncedSizeOfSerializedRawVolumeData(const uint8_t* buffer, size_t length);
size_t PCD_GetAnnouncedSizeOfSerializedSingleChannel(const uint8_t* buffer, size_t length);

// ---- object groups -----------------------------------------------------------------------
// A display object for the viewer: its type code, its identifying value in the group, its
// colour, and the payload bytes the viewer interprets (laid out by the object's producer;
// only their count is fixed here, by the type and the counts k, a, b).
struct PcdObjectGroup;
struct PcdDisplayObject {
  int32_t type = 0;
  int32_t value = 0;
  float color[4] = {1, 1, 1, 1};
  int32_t k = 0, a = 0, b = 0;  // point counts of the list types
  bool extras = false;          // per-point extras (61, 62) or the flag of 71
  std::vector<uint8_t> payload;            // exactly the payload size of the type
  std::unique_ptr<PcdObjectGroup> nested;  // type 99
};
struct PcdObjectGroup {
  std::vector<PcdDisplayObject> objects;
  bool hasColors = false;  // without colours every object is sent as (1, 1, 1, 1)
};

// Payload bytes of an object by its type (0 for unknown types; for 99 the nested group's
// serialized size; 0 when a count the type uses is negative).
size_t PCD_GetPayloadSizeOfObject(const PcdDisplayObject& object);
// 0 for null, and for a group that holds (at any depth) an object with a negative count.
size_t PCD_GetSerializedSizeOfObjectGroup(const PcdObjectGroup* group);
// 0, or -1 with an "Err: " line for null, a negative count or an object whose payload does
// not have its size; a refused group writes nothing.
int PCD_SerializeObjectGroup(const PcdObjectGroup* group, uint8_t* buffer);
