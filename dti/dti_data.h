// The DTI interpretation of a multi-channel volume: which channels take part, how many
// b = 0 ("So") channels lead, and the b value and motion probing gradient (MPG)
// direction of every channel.
//
// The record points at its volume and does not own it. There is no delete operation:
// the owner frees the record with std::free() (it comes from std::calloc) and deletes
// the volume separately.
#pragma once

#include <cstddef>
#include <cstdint>

#include "vol/raw_volume.h"

constexpr int kPcdDtiMaxChannels = 256;  // room in the per-channel arrays
constexpr int kPcdDtiMinDwi = 6;         // six unknowns of the tensor
constexpr int kPcdDtiMaxDwi = 129;       // last row of the default direction table

struct PcdDtiData {
  PcdRawVolumeData* volume;            // not owned
  int32_t channelCount;                // channels 0 .. channelCount-1 take part
  int32_t soCount;                     // channels 0 .. soCount-1 are b = 0
  float bValues[kPcdDtiMaxChannels];   // 0 for So channels
  PcdVector3D mpgVectors[kPcdDtiMaxChannels];  // (0,0,0) for So channels
  float reserved;                      // carried through serialization, never read
  int32_t isReady;                     // 1 when the MPG setting passed its checks
};

// Never refuses bad arguments: warns on stderr and creates the record (not ready).
// Null only when memory runs out. So count, b values and directions start at zero.
PcdDtiData* PCDdti_NewDiffusionTensorImageData(PcdRawVolumeData* volume, int32_t channelCount);

// The three ways of filling in the MPG setting. Each sets isReady to 1 on success and
// to 0 when its checks fail (also when the record was ready before). They print nothing.
void PCDdti_SetPropertiesOfDiffusionTensorImageData(PcdDtiData* dti, int32_t channelCount,
                                                    int32_t soCount, const float* bValues,
                                                    const PcdVector3D* mpgVectors);
void PCDdti_SetPropertiesOfDiffusionTensorImageDataAsMultiSoDefault(PcdDtiData* dti,
                                                                    int32_t channelCount,
                                                                    int32_t soCount);
void PCDdti_SetPropertiesOfDiffusionTensorImageDataAsSingleSoDefault(PcdDtiData* dti,
                                                                     int32_t channelCount);

// Prints the setting to stderr (three lines when not ready, channelCount + 9 when ready).
void PCDdti_DumpMPGvectorSetting(const PcdDtiData* dti);

// b value of the first DWI channel (index soCount).
float PCDdti_GetUniformBvalueOfDTI(const PcdDtiData* dti);

// Serialized form: the whole volume, then channel count N, So count, N b values,
// N directions (x, y, z), the reserved float and the ready flag; little-endian, no
// padding; V + 16 N + 16 bytes. A record whose channel count lies outside 0..256 cannot
// be written: its size is 0 and serializing returns -1.
size_t PCDdti_GetSerializedSizeOfDiffusionTensorImageData(const PcdDtiData* dti);
int PCDdti_SerializeDiffusionTensorImageData(const PcdDtiData* dti, uint8_t* buffer);

// Fills a caller-provided record from a serialized form, creating its volume (which the
// caller then owns). 0 on success, -1 on failure (the record's volume is then null and
// nothing else is changed). The unchecked form trusts the buffer; use it only on
// buffers this process wrote itself.
int PCDdti_GetDiffusionTensorImageDataFromSerializedData(PcdDtiData* dti,
                                                         const uint8_t* buffer);
// The same, reading nothing outside buffer[0 .. length-1]: truncated buffers, channel
// counts outside 0..256 and So counts outside 0..N are refused with a warning on
// stderr. A ready flag that the counts cannot support (fewer than 6 or more than 129
// DWIs, or more channels than the volume has) is cleared with a warning.
int PCDdti_GetDiffusionTensorImageDataFromSerializedDataChecked(PcdDtiData* dti,
                                                                const uint8_t* buffer,
                                                                size_t length);
