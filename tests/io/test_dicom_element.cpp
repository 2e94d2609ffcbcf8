// The DICOM element reader on byte layouts built by hand: the three starts, explicit and
// implicit heads, the 32-bit lengths, undefined lengths, and files that lie.
#include <gtest/gtest.h>

#include <cstdint>
#include <string>
#include <vector>

#include "io/dicom_directory.h"
#include "io/dicom_element.h"
#include "support/test_support.h"

namespace {

using Bytes = std::vector<uint8_t>;

void Put16(Bytes* b, uint16_t v) {
  b->push_back(static_cast<uint8_t>(v));
  b->push_back(static_cast<uint8_t>(v >> 8));
}
void Put32(Bytes* b, uint32_t v) {
  Put16(b, static_cast<uint16_t>(v));
  Put16(b, static_cast<uint16_t>(v >> 16));
}
void PutText(Bytes* b, const std::string& s) { b->insert(b->end(), s.begin(), s.end()); }

// Explicit head with a 16-bit length: group element VR len16 value.
void Explicit(Bytes* b, uint16_t g, uint16_t e, const char* vr, const std::string& value) {
  Put16(b, g), Put16(b, e), PutText(b, vr), Put16(b, static_cast<uint16_t>(value.size()));
  PutText(b, value);
}
// Explicit head with the 32-bit length: group element VR 00 00 len32 value.
void ExplicitLong(Bytes* b, uint16_t g, uint16_t e, const char* vr, const Bytes& value) {
  Put16(b, g), Put16(b, e), PutText(b, vr), Put16(b, 0), Put32(b, static_cast<uint32_t>(value.size()));
  b->insert(b->end(), value.begin(), value.end());
}
void Implicit(Bytes* b, uint16_t g, uint16_t e, const std::string& value) {
  Put16(b, g), Put16(b, e), Put32(b, static_cast<uint32_t>(value.size()));
  PutText(b, value);
}

int64_t Find(const Bytes& b, uint16_t g, uint16_t e, std::string* value = nullptr, int64_t* length = nullptr) {
  return FindDicomElement(b.data(), b.size(), g, e, value, length);
}

TEST(DicomElement, StartsAfterThePreambleAfterALeadingDicmOrAtZero) {
  // 128-byte preamble, "DICM", explicit heads: the first value lies at 132 + 8
  Bytes withPreamble(128, 0);
  PutText(&withPreamble, "DICM");
  Explicit(&withPreamble, 0x0008, 0x0070, "LO", "ACME");
  Explicit(&withPreamble, 0x0020, 0x0013, "IS", "7 ");
  std::string value;
  int64_t length = 0;
  testing::internal::CaptureStderr();
  EXPECT_EQ(Find(withPreamble, 0x0008, 0x0070, &value, &length), 140);
  EXPECT_EQ(value, "ACME");
  EXPECT_EQ(length, 4);
  EXPECT_EQ(Find(withPreamble, 0x0020, 0x0013, &value), 152);
  EXPECT_EQ(value, "7 ");
  EXPECT_EQ(testing::internal::GetCapturedStderr(), "");

  // "DICM" at 0: said on the console, heads from 4
  Bytes leading;
  PutText(&leading, "DICM");
  Explicit(&leading, 0x0020, 0x0013, "IS", "12");
  testing::internal::CaptureStderr();
  EXPECT_EQ(Find(leading, 0x0020, 0x0013, &value), 12);
  EXPECT_EQ(testing::internal::GetCapturedStderr(), "DICOM identifier found at position:0\n");
  EXPECT_EQ(value, "12");

  // implicit heads from 0, no marker at all; a value that is not the one asked for is skipped
  Bytes bare;
  Implicit(&bare, 0x0008, 0x0080, "Clinic");
  Implicit(&bare, 0x0020, 0x0013, "3 ");
  EXPECT_EQ(Find(bare, 0x0020, 0x0013, &value, &length), 14 + 8);
  EXPECT_EQ(value, "3 ");
  EXPECT_EQ(Find(bare, 0x0020, 0x0032), -1);  // missing: the walk reaches the end

  // a file of 131 bytes has no room for the marker at 128: read from 0
  Bytes shortFile;
  Implicit(&shortFile, 0x0020, 0x0013, std::string(115, '1'));
  ASSERT_EQ(shortFile.size(), 123u);
  PutText(&shortFile, "xxxxxDIC");
  EXPECT_EQ(Find(shortFile, 0x0020, 0x0013), 8);
}

TEST(DicomElement, LongLengthsOfObOwSqUnAndTheZeroLengthRuleOfPixelGroups) {
  // OB, OW and UN take the 32-bit word after two reserved bytes: 20 bytes are skipped
  // whole (a 16-bit reading would see length 0 and land inside the value)
  Bytes b(128, 0);
  PutText(&b, "DICM");
  ExplicitLong(&b, 0x0029, 0x1010, "OB", Bytes(20, 0x41));
  ExplicitLong(&b, 0x0029, 0x1020, "UN", Bytes(6, 0x20));
  ExplicitLong(&b, 0x0029, 0x1030, "OW", Bytes(4, 0x13));
  Explicit(&b, 0x0020, 0x0013, "IS", "5 ");
  int64_t length = 0;
  EXPECT_EQ(Find(b, 0x0029, 0x1010, nullptr, &length), 144);
  EXPECT_EQ(length, 20);
  EXPECT_EQ(Find(b, 0x0020, 0x0013), 132 + 32 + 18 + 16 + 8);

  // implicit pixel data whose length bytes look like a VR ("\0A"), with b2 b3 zero: the
  // four bytes are read as one length, 0x4100, and the element after them is found
  Bytes p;
  Implicit(&p, 0x0020, 0x0013, "1 ");
  Put16(&p, 0x7FE0), Put16(&p, 0x0010), Put32(&p, 0x4100);
  p.resize(p.size() + 0x4100, 0x7F);
  Implicit(&p, 0x7FE1, 0x0001, "ab");
  EXPECT_EQ(Find(p, 0x7FE0, 0x0010, nullptr, &length), 18);
  EXPECT_EQ(length, 0x4100);
  EXPECT_EQ(Find(p, 0x7FE1, 0x0001), 18 + 0x4100 + 8);
  // outside the pixel groups the same bytes mean an empty value with VR "\0A"
  Bytes q;
  Put16(&q, 0x0009), Put16(&q, 0x0010), Put32(&q, 0x4100);
  Implicit(&q, 0x0020, 0x0013, "9 ");
  EXPECT_EQ(Find(q, 0x0020, 0x0013), 16);
}

TEST(DicomElement, SequencesOfUndefinedLengthAreSteppedOverNotSearched) {
  // SQ (undefined) > item (undefined) > [instance number 999, SQ (undefined) > item of
  // known length > delimiters], then the real instance number
  Bytes b;
  Put16(&b, 0x0008), Put16(&b, 0x1140), PutText(&b, "SQ"), Put16(&b, 0), Put32(&b, 0xFFFFFFFF);
  Put16(&b, 0xFFFE), Put16(&b, 0xE000), Put32(&b, 0xFFFFFFFF);
  Explicit(&b, 0x0020, 0x0013, "IS", "999 ");
  Put16(&b, 0x0008), Put16(&b, 0x1150), PutText(&b, "SQ"), Put16(&b, 0), Put32(&b, 0xFFFFFFFF);
  Put16(&b, 0xFFFE), Put16(&b, 0xE000), Put32(&b, 12);
  Explicit(&b, 0x0020, 0x0013, "IS", "998 ");
  Put16(&b, 0xFFFE), Put16(&b, 0xE0DD), Put32(&b, 0);  // ends the inner sequence
  Put16(&b, 0xFFFE), Put16(&b, 0xE00D), Put32(&b, 0);  // ends the item
  Put16(&b, 0xFFFE), Put16(&b, 0xE0DD), Put32(&b, 0);  // ends the outer sequence
  const int64_t after = static_cast<int64_t>(b.size());
  Explicit(&b, 0x0020, 0x0013, "IS", "4 ");
  std::string value;
  int64_t length = 0;
  EXPECT_EQ(Find(b, 0x0020, 0x0013, &value), after + 8);
  EXPECT_EQ(value, "4 ");
  // the sequence itself is found, with its undefined length and no value copied
  EXPECT_EQ(Find(b, 0x0008, 0x1140, &value, &length), 12);
  EXPECT_EQ(length, kPcdDicomUndefinedLength);
  EXPECT_EQ(value, "");
  // a sequence that never ends is the end of the file
  Bytes open(b.begin(), b.begin() + after - 16);
  EXPECT_EQ(Find(open, 0x0020, 0x0013), -1);
}

TEST(DicomElement, CorruptFilesAreRefusedWithoutReadingPastTheirEnd) {
  std::string value = "stale";
  // a length past the end: -1 before anything is copied, even for the wanted element
  Bytes b;
  Implicit(&b, 0x0020, 0x0013, "1 ");
  b.resize(b.size() - 1);
  EXPECT_EQ(Find(b, 0x0020, 0x0013, &value), -1);
  EXPECT_EQ(value, "");
  Bytes c;
  Put16(&c, 0x0008), Put16(&c, 0x0080), Put32(&c, 0xFFFFFFF0);  // a skip far beyond the end
  Implicit(&c, 0x0020, 0x0013, "1 ");
  EXPECT_EQ(Find(c, 0x0020, 0x0013), -1);
  Bytes ob;  // an OB head cut after its VR
  Put16(&ob, 0x0029), Put16(&ob, 0x1010), PutText(&ob, "OB"), Put16(&ob, 0);
  EXPECT_EQ(Find(ob, 0x0020, 0x0013), -1);
  // heads cut short, empty input, no input
  for (size_t n = 0; n < 8; ++n) {
    Bytes cut(b.begin(), b.begin() + static_cast<std::ptrdiff_t>(n));
    EXPECT_EQ(Find(cut, 0x0020, 0x0013), -1) << n;
  }
  EXPECT_EQ(FindDicomElement(nullptr, 0, 0x0020, 0x0013), -1);

  // (0000,0000) ends the search with its message, even when the element follows
  Bytes z;
  Implicit(&z, 0x0008, 0x0080, "X ");
  z.resize(z.size() + 8, 0);
  Implicit(&z, 0x0020, 0x0013, "2 ");
  testing::internal::CaptureStderr();
  EXPECT_EQ(Find(z, 0x0020, 0x0013), -1);
  EXPECT_EQ(testing::internal::GetCapturedStderr(), "Invalid pair of group ID and element ID\n");
  EXPECT_EQ(Find(z, 0x0008, 0x0080), 8);  // what comes before it is still found

  // the file overload reads the same bytes; a missing file is -1
  quorix_test::TempDir dir;
  quorix_test::WriteFileBytes(dir.file("f.dcm"), z);
  EXPECT_EQ(FindDicomElement(dir.file("f.dcm").c_str(), 0x0008, 0x0080, &value), 8);
  EXPECT_EQ(value, "X ");
  EXPECT_EQ(FindDicomElement(dir.file("none.dcm").c_str(), 0x0008, 0x0080, &value), -1);
}

TEST(DicomElement, OneWalkGathersTheElementsOfAFile) {
  Bytes b(128, 0);
  PutText(&b, "DICM");
  Explicit(&b, 0x0002, 0x0010, "UI", std::string("1.2.840.10008.1.2.1\0", 20));
  Explicit(&b, 0x0008, 0x0080, "LO", "Clinic");
  Explicit(&b, 0x0010, 0x0010, "PN", "Doe^Jo\0\0");  // NUL and blank padding both go
  Put16(&b, 0x0018), Put16(&b, 0x9087), PutText(&b, "FD"), Put16(&b, 8);
  const double bValue = 700.5;
  const auto* bb = reinterpret_cast<const uint8_t*>(&bValue);
  b.insert(b.end(), bb, bb + 8);
  Explicit(&b, 0x0020, 0x0013, "IS", " 17 ");
  Explicit(&b, 0x0020, 0x0013, "IS", "18");  // a second one does not count
  Explicit(&b, 0x0020, 0x0032, "DS", "-1.5\\2\\3.25");
  Explicit(&b, 0x0020, 0x0037, "DS", "0\\1\\0\\0\\0\\-1 ");
  Explicit(&b, 0x0028, 0x0010, "US", std::string("\x03\x01", 2));
  Explicit(&b, 0x0028, 0x0011, "US", std::string("\x02\x00", 2));
  const size_t pixelAt = b.size() + 12;
  ExplicitLong(&b, 0x7FE0, 0x0010, "OW", Bytes(6, 1));
  Put16(&b, 0xFFFE), Put16(&b, 0xE000), Put32(&b, 0);  // a stray item after the pixels
  const PcdDicomFileInfo f = pcd_scan_dicom_bytes(b.data(), b.size());
  EXPECT_EQ(f.transferSyntax, "1.2.840.10008.1.2.1");
  EXPECT_EQ(f.institution, "Clinic");
  EXPECT_EQ(f.patientName, "Doe^Jo");
  EXPECT_TRUE(f.hasBValue);
  EXPECT_EQ(f.bValue, 700.5);
  EXPECT_FALSE(f.hasDirection);
  EXPECT_TRUE(f.hasInstance);
  EXPECT_EQ(f.instance, 17);
  ASSERT_TRUE(f.hasPosition);
  EXPECT_EQ(f.position[0], -1.5);
  EXPECT_EQ(f.position[2], 3.25);
  ASSERT_TRUE(f.hasOrientation);
  EXPECT_EQ(f.orientation[5], -1.0);
  EXPECT_EQ(f.rows, 0x0103);
  EXPECT_EQ(f.columns, 2);
  EXPECT_EQ(f.pixelOffset, static_cast<int64_t>(pixelAt));  // 7FE0 before the later FFFE item
  EXPECT_EQ(f.pixelLength, 6);
  EXPECT_FALSE(f.corrupt);

  // without 7F88 and 7FE0 an item's value stands for the pixels; 7F88 goes before 7FE0
  Bytes items;
  Implicit(&items, 0x0020, 0x0013, "1");
  Put16(&items, 0xFFFE), Put16(&items, 0xE000), Put32(&items, 4), Put32(&items, 0);
  EXPECT_EQ(pcd_scan_dicom_bytes(items.data(), items.size()).pixelOffset, 17);
  Bytes both;
  Implicit(&both, 0x7F88, 0x0010, "ab");
  Implicit(&both, 0x7FE0, 0x0010, "cd");
  EXPECT_EQ(pcd_scan_dicom_bytes(both.data(), both.size()).pixelOffset, 8);
}

}  // namespace
