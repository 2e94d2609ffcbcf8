// The data-set check that every analysis makes first: each way a DTI setting can fail to
// fit its volume is refused with one "Err: " line, the same text handed to the caller,
// and nothing changed; a setting that fits passes silently.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "dti/dti_check.h"

namespace {

// A volume of signed 16-bit channels (x, y, z, channels) with a distinct value in every
// voxel, and a record over its first dtiChannels channels with one So and a setting made
// ready by hand, as a DTI file or a session may carry it.
struct CheckedSet {
  PcdRawVolumeData* volume = nullptr;
  PcdDtiData* dti = nullptr;
  CheckedSet(PcdIntSize4D size, int32_t dtiChannels, std::vector<int32_t> types = {},
             std::vector<int32_t> formats = {}) {
    types.resize(static_cast<size_t>(size.channels), SINT16);
    formats.resize(static_cast<size_t>(size.channels), PCD_MONOCHROME);
    volume = PCD_NewRawVolumeData(&size, types.data(), formats.data());
    for (int32_t c = 0; c < size.channels; ++c) {
      auto* bytes = static_cast<uint8_t*>(volume->data[c]);
      const int64_t n = PCD_GetNumberOfVoxels(volume) * PCD_SizeOfDataType(types[static_cast<size_t>(c)]);
      for (int64_t i = 0; i < n; ++i) bytes[i] = static_cast<uint8_t>(13 * c + i);
    }
    testing::internal::CaptureStderr();
    dti = PCDdti_NewDiffusionTensorImageData(volume, dtiChannels);
    testing::internal::GetCapturedStderr();
    dti->channelCount = dtiChannels;
    dti->soCount = 1;
    for (int32_t c = 1; c < dtiChannels && c < kPcdDtiMaxChannels; ++c) {
      dti->bValues[c] = 1000.0f;
      dti->mpgVectors[c] = PcdVector3D{0.0f, 0.6f, 0.8f};
    }
    dti->isReady = 1;
  }
  ~CheckedSet() {
    std::free(dti);
    PCD_DeleteRawVolumeData(volume);
  }
  CheckedSet(const CheckedSet&) = delete;
  CheckedSet& operator=(const CheckedSet&) = delete;
};

// Every byte the check could touch: the record and each channel block.
std::vector<uint8_t> Snapshot(const PcdDtiData* dti) {
  std::vector<uint8_t> bytes;
  const auto append = [&bytes](const void* from, size_t n) {
    const size_t at = bytes.size();
    bytes.resize(at + n);
    if (n > 0) std::memcpy(bytes.data() + at, from, n);
  };
  append(dti, sizeof *dti);
  const PcdRawVolumeData* v = dti->volume;
  const PcdIntSize4D* s = v->matrixSize;
  append(s, sizeof *s);
  for (int32_t c = 0; c < s->channels; ++c) {
    append(v->data[c], static_cast<size_t>(PCD_GetNumberOfVoxels(v) * PCD_SizeOfDataType(v->dataType[c])));
    bytes.push_back(static_cast<uint8_t>(v->dataType[c]));
    bytes.push_back(static_cast<uint8_t>(v->colorFormat[c]));
  }
  return bytes;
}

struct Outcome {
  int result;
  std::string said;     // stderr
  std::string problem;  // the text handed back
};

Outcome Check(const PcdDtiData* dti, PcdDtiAccess access) {
  Outcome o;
  o.problem = "untouched";
  testing::internal::CaptureStderr();
  o.result = PCDdti_CheckDataSetForAnalysis(dti, access, &o.problem);
  o.said = testing::internal::GetCapturedStderr();
  return o;
}

// A refusal: 0, one "Err: " line on stderr, the same line handed back, nothing changed.
void ExpectRefused(const CheckedSet& set, PcdDtiAccess access, const std::vector<std::string>& mentions) {
  const std::vector<uint8_t> before = Snapshot(set.dti);
  const Outcome o = Check(set.dti, access);
  EXPECT_EQ(o.result, 0);
  EXPECT_EQ(o.said.rfind("Err: ", 0), 0u) << o.said;
  EXPECT_EQ(std::count(o.said.begin(), o.said.end(), '\n'), 1) << o.said;
  EXPECT_EQ(o.said.back(), '\n');
  EXPECT_EQ(o.problem, o.said);
  for (const std::string& m : mentions) EXPECT_NE(o.said.find(m), std::string::npos) << o.said << m;
  EXPECT_EQ(Snapshot(set.dti), before);
}

void ExpectAccepted(const CheckedSet& set, PcdDtiAccess access) {
  const std::vector<uint8_t> before = Snapshot(set.dti);
  const Outcome o = Check(set.dti, access);
  EXPECT_EQ(o.result, 1);
  EXPECT_EQ(o.said, "");
  EXPECT_EQ(o.problem, "");
  EXPECT_EQ(Snapshot(set.dti), before);
}

TEST(DataSetCheck, NoRecordOrNoVolumeIsRefused) {
  for (PcdDtiAccess access : {PCD_DTI_AT_VOXELS, PCD_DTI_INTERPOLATED}) {
    Outcome o = Check(nullptr, access);
    EXPECT_EQ(o.result, 0);
    EXPECT_EQ(o.said.rfind("Err: ", 0), 0u);
    EXPECT_EQ(o.problem, o.said);
    // the problem text is optional
    testing::internal::CaptureStderr();
    EXPECT_EQ(PCDdti_CheckDataSetForAnalysis(nullptr, access), 0);
    EXPECT_EQ(testing::internal::GetCapturedStderr(), o.said);

    CheckedSet set(PcdIntSize4D{2, 2, 2, 7}, 7);
    PcdRawVolumeData* volume = set.dti->volume;
    set.dti->volume = nullptr;
    o = Check(set.dti, access);
    set.dti->volume = volume;
    EXPECT_EQ(o.result, 0);
    EXPECT_EQ(o.said.rfind("Err: ", 0), 0u);
  }
}

TEST(DataSetCheck, ReadyFlagMustBeExactlyOne) {
  CheckedSet set(PcdIntSize4D{2, 2, 2, 7}, 7);
  ExpectAccepted(set, PCD_DTI_INTERPOLATED);
  for (int32_t flag : {0, 2, -1}) {
    SCOPED_TRACE(flag);
    set.dti->isReady = flag;
    ExpectRefused(set, PCD_DTI_AT_VOXELS, {"NOT ready"});
  }
}

// 6 to 129 DWI channels after the So channels, at most 256 channels, no negative So.
TEST(DataSetCheck, DwiCountBoundaries) {
  {
    CheckedSet six(PcdIntSize4D{2, 2, 2, 8}, 7);  // 1 So + 6 DWIs
    ExpectAccepted(six, PCD_DTI_AT_VOXELS);
    six.dti->soCount = 2;  // 5 DWIs
    ExpectRefused(six, PCD_DTI_AT_VOXELS, {"7 channels", "2 So"});
    six.dti->soCount = 0;  // 7 DWIs, no So: the explicit setting allows it
    ExpectAccepted(six, PCD_DTI_AT_VOXELS);
    six.dti->soCount = -1;  // 8 DWIs counted over a negative So count
    ExpectRefused(six, PCD_DTI_AT_VOXELS, {"-1 So"});
  }
  {
    CheckedSet many(PcdIntSize4D{1, 1, 1, 131}, 130);  // 1 So + 129 DWIs
    ExpectAccepted(many, PCD_DTI_AT_VOXELS);
    many.dti->channelCount = 131;  // 130 DWIs
    ExpectRefused(many, PCD_DTI_AT_VOXELS, {"131 channels"});
  }
  {
    // past the record's 256-entry arrays, even with a DWI count that looks fine
    CheckedSet huge(PcdIntSize4D{1, 1, 1, 300}, 256);
    huge.dti->soCount = 200;
    ExpectAccepted(huge, PCD_DTI_AT_VOXELS);
    huge.dti->channelCount = 257;
    huge.dti->soCount = 201;
    ExpectRefused(huge, PCD_DTI_AT_VOXELS, {"257 channels"});
  }
}

// The earlier MPG layout sets n + 1 channels when n equals the volume's channel count;
// a DTI file or an explicit setting can name any count. One channel too many is enough.
TEST(DataSetCheck, MoreChannelsThanTheVolumeHolds) {
  CheckedSet set(PcdIntSize4D{3, 2, 2, 7}, 7);
  ExpectAccepted(set, PCD_DTI_AT_VOXELS);
  set.dti->channelCount = 8;
  ExpectRefused(set, PCD_DTI_AT_VOXELS, {"8", "7"});
  set.dti->channelCount = 6;  // fewer than the volume is fine, if 6 DWIs remain
  set.dti->soCount = 0;
  ExpectAccepted(set, PCD_DTI_AT_VOXELS);
}

// DTI channels are signed 16-bit monochrome; channels after the DTI ones may be anything.
TEST(DataSetCheck, EveryDtiChannelIsSigned16BitMonochrome) {
  for (int32_t type : {UINT8, SINT8, UINT16, UINT32, SINT32, FLOAT32, FLOAT64}) {
    SCOPED_TRACE(type);
    std::vector<int32_t> types(8, SINT16);
    types[3] = type;  // the fourth channel, a DWI
    CheckedSet set(PcdIntSize4D{2, 2, 2, 8}, 8, types);
    ExpectRefused(set, PCD_DTI_AT_VOXELS, {"channel 4 "});
    std::vector<int32_t> last(8, SINT16);
    last[7] = type;  // the last channel of the volume, outside a 7-channel setting
    CheckedSet after(PcdIntSize4D{2, 2, 2, 8}, 7, last);
    ExpectAccepted(after, PCD_DTI_INTERPOLATED);
    after.dti->channelCount = 8;
    ExpectRefused(after, PCD_DTI_AT_VOXELS, {"channel 8 "});
  }
  {
    // a data set whose every channel is UINT8 and whose flag says ready
    CheckedSet bytes(PcdIntSize4D{2, 2, 2, 7}, 7, std::vector<int32_t>(7, UINT8));
    ExpectRefused(bytes, PCD_DTI_AT_VOXELS, {"channel 1 "});
  }
  {
    // the computed colour channel after the DTI channels does not matter
    std::vector<int32_t> types(8, SINT16), formats(8, PCD_MONOCHROME);
    types[7] = UINT32;
    formats[7] = PCD_RGBA_PACKED;
    CheckedSet set(PcdIntSize4D{2, 2, 2, 8}, 7, types, formats);
    ExpectAccepted(set, PCD_DTI_INTERPOLATED);
    set.dti->channelCount = 8;  // ...until it is counted among them
    ExpectRefused(set, PCD_DTI_AT_VOXELS, {"channel 8 "});
  }
  {
    // right type, wrong colour format
    std::vector<int32_t> formats(7, PCD_MONOCHROME);
    formats[0] = PCD_RGBA_PACKED;
    CheckedSet set(PcdIntSize4D{2, 2, 2, 7}, 7, {}, formats);
    ExpectRefused(set, PCD_DTI_AT_VOXELS, {"channel 1 "});
  }
}

// Reads between voxels need two samples along every axis; reads at voxels do not.
TEST(DataSetCheck, InterpolatedReadsNeedTwoSamplesPerAxis) {
  for (int axis = 0; axis < 3; ++axis) {
    SCOPED_TRACE(axis);
    PcdIntSize4D size{3, 3, 3, 7};
    (axis == 0 ? size.x : axis == 1 ? size.y : size.z) = 1;
    CheckedSet set(size, 7);
    ExpectAccepted(set, PCD_DTI_AT_VOXELS);
    ExpectRefused(set, PCD_DTI_INTERPOLATED, {});
  }
  CheckedSet two(PcdIntSize4D{2, 2, 2, 7}, 7);
  ExpectAccepted(two, PCD_DTI_INTERPOLATED);
}

}  // namespace
