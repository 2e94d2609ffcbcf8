#include "dti/dti_data.h"

#include <cstdio>
#include <cstdlib>

#include "dti/gradient_vectors.h"
#include "vol/serialize.h"

namespace {

constexpr char kRule[] = "---------------------------------------------------\n";

int32_t VolumeChannels(const PcdDtiData* dti) {
  return dti->volume != nullptr && dti->volume->matrixSize != nullptr
             ? dti->volume->matrixSize->channels
             : 0;
}

// Fills channels soCount .. channelCount-1 with b = 1000 and the default directions of
// their count, the leading ones with b = 0 and no direction.
void FillDefault(PcdDtiData* dti, int32_t channelCount, int32_t soCount) {
  dti->channelCount = channelCount;
  dti->soCount = soCount;
  const auto& row = gradient_vectors[channelCount - soCount - kPcdDtiMinDwi];
  for (int32_t i = 0; i < soCount; ++i) {
    dti->bValues[i] = 0.0f;
    dti->mpgVectors[i] = {0.0f, 0.0f, 0.0f};
  }
  for (int32_t i = soCount; i < channelCount; ++i) {
    dti->bValues[i] = 1000.0f;
    const float* g = row[i - soCount];
    dti->mpgVectors[i] = {g[0], g[1], g[2]};
  }
  dti->isReady = 1;
}

}  // namespace

PcdDtiData* PCDdti_NewDiffusionTensorImageData(PcdRawVolumeData* volume, int32_t channelCount) {
  if (volume == nullptr) {
    std::fputs("Warning: volume is NULL for DTI\n", stderr);
  } else if (volume->matrixSize == nullptr || volume->matrixSize->channels < channelCount) {
    std::fputs("Warning: channels are not ready for target DTI\n", stderr);
  }
  if (channelCount < 7) std::fputs("Warning: number of channels is not valid for general DTI\n", stderr);
  if (channelCount > 130) std::fputs("Warning: channels are too much for default MPG\n", stderr);
  auto* dti = static_cast<PcdDtiData*>(std::calloc(1, sizeof(PcdDtiData)));
  if (dti == nullptr) return nullptr;
  dti->volume = volume;
  dti->channelCount = channelCount;
  dti->reserved = 0.0f;
  dti->isReady = 0;
  return dti;
}

void PCDdti_SetPropertiesOfDiffusionTensorImageData(PcdDtiData* dti, int32_t channelCount,
                                                    int32_t soCount, const float* bValues,
                                                    const PcdVector3D* mpgVectors) {
  const int32_t dwi = channelCount - soCount;
  // the arrays have room for 256 channels; counts beyond them are refused as well
  if (dti == nullptr) return;
  if (bValues == nullptr || mpgVectors == nullptr || dwi < kPcdDtiMinDwi ||
      dwi > kPcdDtiMaxDwi || soCount < 0 || channelCount > kPcdDtiMaxChannels) {
    dti->isReady = 0;
    return;
  }
  dti->channelCount = channelCount;
  dti->soCount = soCount;
  for (int32_t i = 0; i < channelCount; ++i) {
    dti->bValues[i] = bValues[i];
    dti->mpgVectors[i] = mpgVectors[i];
  }
  dti->isReady = 1;
}

void PCDdti_SetPropertiesOfDiffusionTensorImageDataAsMultiSoDefault(PcdDtiData* dti,
                                                                    int32_t channelCount,
                                                                    int32_t soCount) {
  const int32_t dwi = channelCount - soCount;
  if (soCount < 1 || dwi < kPcdDtiMinDwi || dwi > kPcdDtiMaxDwi ||
      channelCount > VolumeChannels(dti) || channelCount > kPcdDtiMaxChannels) {
    dti->isReady = 0;
    return;
  }
  FillDefault(dti, channelCount, soCount);
}

void PCDdti_SetPropertiesOfDiffusionTensorImageDataAsSingleSoDefault(PcdDtiData* dti,
                                                                     int32_t channelCount) {
  const int32_t dwi = channelCount - 1;
  if (dwi < kPcdDtiMinDwi || dwi > kPcdDtiMaxDwi || channelCount > VolumeChannels(dti)) {
    dti->isReady = 0;
    return;
  }
  FillDefault(dti, channelCount, 1);
}

void PCDdti_DumpMPGvectorSetting(const PcdDtiData* dti) {
  if (dti->isReady != 1) {
    std::fputs(kRule, stderr);
    std::fputs("  MPG setting NOT ready. Analysis NOT executable.\n", stderr);
    std::fputs(kRule, stderr);
    return;
  }
  std::fputs(kRule, stderr);
  std::fputs("  MPG setting seems to be ready for analysis\n", stderr);
  std::fputs(kRule, stderr);
  std::fprintf(stderr, " Total channels: %d\n", VolumeChannels(dti));
  std::fprintf(stderr, " DTI channels: %d\n", dti->channelCount);
  std::fprintf(stderr, " b=0 channels: %d\n", dti->soCount);
  std::fprintf(stderr, " b>0 channels: %d\n", dti->channelCount - dti->soCount);
  std::fputs(kRule, stderr);
  for (int32_t i = 0; i < dti->channelCount && i < kPcdDtiMaxChannels; ++i) {
    const PcdVector3D& g = dti->mpgVectors[i];
    std::fprintf(stderr, " %3d   b=%3.1f, g=(%3.3f, %3.3f, %3.3f)\n", i + 1,
                 static_cast<double>(dti->bValues[i]), static_cast<double>(g.x),
                 static_cast<double>(g.y), static_cast<double>(g.z));
  }
  std::fputs(kRule, stderr);
}

float PCDdti_GetUniformBvalueOfDTI(const PcdDtiData* dti) {
  const int32_t so = dti->soCount;
  return so >= 0 && so < kPcdDtiMaxChannels ? dti->bValues[so] : 0.0f;
}

// ---- serialized form ---------------------------------------------------------------------

size_t PCDdti_GetSerializedSizeOfDiffusionTensorImageData(const PcdDtiData* dti) {
  if (dti == nullptr || dti->channelCount < 0 || dti->channelCount > kPcdDtiMaxChannels) return 0;
  return PCD_GetSerializedSizeOfRawVolumeData(dti->volume) +
         16 * static_cast<size_t>(dti->channelCount) + 16;
}

int PCDdti_SerializeDiffusionTensorImageData(const PcdDtiData* dti, uint8_t* buffer) {
  if (PCDdti_GetSerializedSizeOfDiffusionTensorImageData(dti) == 0 || buffer == nullptr) return -1;
  const size_t v = PCD_GetSerializedSizeOfRawVolumeData(dti->volume);
  if (v > 0 && PCD_SerializeRawVolumeData(dti->volume, buffer) != 0) return -1;
  const auto n = static_cast<size_t>(dti->channelCount);
  uint8_t* at = buffer + v;
  PCD_PutInt32LE(at, dti->channelCount);
  PCD_PutInt32LE(at + 4, dti->soCount);
  for (size_t i = 0; i < n; ++i) {
    PCD_PutFloat32LE(at + 8 + 4 * i, dti->bValues[i]);
    PCD_PutFloat32LE(at + 8 + 4 * n + 12 * i, dti->mpgVectors[i].x);
    PCD_PutFloat32LE(at + 12 + 4 * n + 12 * i, dti->mpgVectors[i].y);
    PCD_PutFloat32LE(at + 16 + 4 * n + 12 * i, dti->mpgVectors[i].z);
  }
  PCD_PutFloat32LE(at + 8 + 16 * n, dti->reserved);
  PCD_PutInt32LE(at + 12 + 16 * n, dti->isReady);
  return 0;
}

namespace {

// The fields after the volume section; length is what remains of the buffer (ignored
// when unchecked). False when the counts are impossible or the buffer too short.
bool ReadSettings(PcdDtiData* dti, const uint8_t* at, size_t length, bool checked) {
  if (checked && length < 8) return false;
  const int32_t n = PCD_GetInt32LE(at), so = PCD_GetInt32LE(at + 4);
  if (n < 0 || n > kPcdDtiMaxChannels) return false;
  const auto un = static_cast<size_t>(n);
  if (checked && (so < 0 || so > n || length < 16 * un + 16)) return false;
  dti->channelCount = n;
  dti->soCount = so;
  for (size_t i = 0; i < un; ++i) {
    dti->bValues[i] = PCD_GetFloat32LE(at + 8 + 4 * i);
    dti->mpgVectors[i] = {PCD_GetFloat32LE(at + 8 + 4 * un + 12 * i),
                          PCD_GetFloat32LE(at + 12 + 4 * un + 12 * i),
                          PCD_GetFloat32LE(at + 16 + 4 * un + 12 * i)};
  }
  dti->reserved = PCD_GetFloat32LE(at + 8 + 16 * un);
  dti->isReady = PCD_GetInt32LE(at + 12 + 16 * un);
  return true;
}

int ReadSerialized(PcdDtiData* dti, const uint8_t* buffer, size_t length, bool checked) {
  PcdRawVolumeData* volume = checked ? PCD_GetRawVolumeDataFromSerializedDataChecked(buffer, length)
                                     : PCD_GetRawVolumeDataFromSerializedData(buffer);
  if (volume == nullptr) {
    std::fputs("Warning: volume=NULL? (PCDdti_GetDiffusionTensorImageDataFromSerializedData)\n",
               stderr);
    dti->volume = nullptr;
    return -1;
  }
  const PcdIntSize4D& s = *volume->matrixSize;
  std::fprintf(stderr, "volume: %dx%dx%dx%d\n", s.x, s.y, s.z, s.channels);
  const size_t v = PCD_GetSerializedSizeOfRawVolumeData(volume);
  PcdDtiData read = *dti;
  if (!ReadSettings(&read, buffer + v, checked ? length - v : 0, checked)) {
    std::fputs("Err: the DTI settings after the volume are damaged or truncated\n", stderr);
    PCD_DeleteRawVolumeData(volume);
    dti->volume = nullptr;
    return -1;
  }
  const int32_t dwi = read.channelCount - read.soCount;
  if (checked && read.isReady != 0 &&
      (dwi < kPcdDtiMinDwi || dwi > kPcdDtiMaxDwi || read.channelCount > s.channels)) {
    std::fputs("Warning: the stored MPG setting does not fit the volume; marked NOT ready\n",
               stderr);
    read.isReady = 0;
  }
  *dti = read;
  dti->volume = volume;
  return 0;
}

}  // namespace

int PCDdti_GetDiffusionTensorImageDataFromSerializedData(PcdDtiData* dti,
                                                         const uint8_t* buffer) {
  return ReadSerialized(dti, buffer, 0, false);
}

int PCDdti_GetDiffusionTensorImageDataFromSerializedDataChecked(PcdDtiData* dti,
                                                                const uint8_t* buffer,
                                                                size_t length) {
  return ReadSerialized(dti, buffer, length, true);
}
