// The QC report of one phantom subject: a volume made bad on purpose stands out in the
// residuals and only it; the colour mosaic and the tract picture show the x bundle red and
// the y bundle green where the phantom put them; every figure the page names is a PNG
// beside it; the QC columns carry the numbers.
#include <gtest/gtest.h>

#include <cairo.h>

#include <cstdlib>
#include <filesystem>
#include <string>

#include "report/figures.h"
#include "report/subject_report.h"
#include "support/test_support.h"
#include "tools/phantom/phantom.h"

// fontconfig keeps what cairo's text loads until the process ends: not a leak of ours
extern "C" const char* __lsan_default_suppressions() { return "leak:libfontconfig.so\n"; }

namespace {

using quorix_test::TempDir;

struct Phantom {
  PcdDtiData* dti = nullptr;
  PcdPhantomOptions options;
  Phantom() {
    options.sizeX = 40, options.sizeY = 40, options.sizeZ = 16;
    options.oblique = true;
    dti = PCD_MakeDwiPhantom(options, nullptr);
  }
  ~Phantom() {
    PCD_DeleteRawVolumeData(dti->volume);
    std::free(dti);
  }
  Phantom(const Phantom&) = delete;
  Phantom& operator=(const Phantom&) = delete;
};

// Red, green and blue of a pixel of a PNG.
struct Rgb {
  int r, g, b;
};
Rgb PixelOf(const std::string& png, int x, int y) {
  PcdSurface image(cairo_image_surface_create_from_png(png.c_str()));
  EXPECT_EQ(cairo_surface_status(image.get()), CAIRO_STATUS_SUCCESS);
  if (cairo_surface_status(image.get()) != CAIRO_STATUS_SUCCESS) return {0, 0, 0};
  const unsigned char* data = cairo_image_surface_get_data(image.get());
  const uint32_t p = reinterpret_cast<const uint32_t*>(data + y * cairo_image_surface_get_stride(image.get()))[x];
  return {static_cast<int>((p >> 16) & 0xff), static_cast<int>((p >> 8) & 0xff), static_cast<int>(p & 0xff)};
}

TEST(SubjectReport, BadVolumeStandsOutBundlesInTheirColoursEveryFigureThere) {
  Phantom phantom;
  ASSERT_NE(phantom.dti, nullptr);
  // volume 9 loses 40% of its signal, as after a motion spike
  auto* bad = static_cast<int16_t*>(phantom.dti->volume->data[9]);
  for (int64_t i = 0; i < PCD_GetNumberOfVoxels(phantom.dti->volume); ++i) bad[i] = static_cast<int16_t>(bad[i] * 6 / 10);
  TempDir dir;
  PcdSubjectReportOptions options;
  options.title = "phantom <one>";
  options.threads = 2;
  PcdSubjectReport report;
  testing::internal::CaptureStderr();
  const bool written = PCDreport_WriteSubjectReport(phantom.dti, options, dir.file("r"), &report);
  testing::internal::GetCapturedStderr();
  ASSERT_TRUE(written);
  EXPECT_EQ(report.residualOutliers, std::vector<int32_t>{9});
  ASSERT_FALSE(report.warnings.empty());
  EXPECT_EQ(report.warnings[0].rfind("volume 9 stands out in the fit's residual", 0), 0u) << report.warnings[0];
  EXPECT_EQ(report.matrix.x, 40);
  EXPECT_EQ(report.soCount, 1);
  EXPECT_EQ(report.dwiCount, 30);
  EXPECT_FLOAT_EQ(report.voxelMm.x, 2.0f);  // the phantom's voxel size
  EXPECT_TRUE(report.gradientChecked);
  EXPECT_TRUE(report.gradientCheck.tableIsBest);
  EXPECT_GT(report.fibers, 0);

  // every image the page names lies beside it as a PNG, and the sections are there
  const std::string html = quorix_test::ReadFileText(dir.file("r/index.html"));
  const std::string img = "<img src=\"";
  int images = 0;
  for (size_t at = html.find(img); at != std::string::npos; at = html.find(img, at + 1), ++images) {
    const size_t start = at + img.size();
    const std::string name = html.substr(start, html.find('"', start) - start);
    const auto bytes = quorix_test::ReadFileBytes(dir.file("r/" + name));
    ASSERT_GE(bytes.size(), 8u) << name;
    EXPECT_EQ(std::string(bytes.begin() + 1, bytes.begin() + 4), "PNG") << name;
  }
  EXPECT_EQ(images, 14);
  for (const char* id : {"numbers", "mosaics", "gradients", "fit", "gradcheck", "tracts"})
    EXPECT_NE(html.find(std::string("<section id=\"") + id + "\">"), std::string::npos) << id;
  EXPECT_NE(html.find("<title>phantom &lt;one&gt;</title>"), std::string::npos);
  EXPECT_NE(html.find("<tr><th>Matrix</th><td>40 x 40 x 16</td></tr>"), std::string::npos);
  EXPECT_NE(html.find("The table as given is best."), std::string::npos);

  // the axial colour mosaic: the phantom's x bundle runs along y = 19.5 and the y bundle
  // along x = 19.5 in slices 6 .. 9 (its crossing band); a tile is 160 pixels for 40
  // voxels (4 a voxel), below a 16-pixel label, 2 pixels apart. Whichever slices the
  // tiles show, some show voxel (8, 20) red and (20, 8) green, none the other way round.
  int shown = 0;
  for (int tile = 0; tile < 8; ++tile) {
    const int left = tile * 162;
    const Rgb alongX = PixelOf(dir.file("r/colour_axial.png"), left + 8 * 4 + 2, 16 + 20 * 4 + 2);
    const Rgb alongY = PixelOf(dir.file("r/colour_axial.png"), left + 20 * 4 + 2, 16 + 8 * 4 + 2);
    if (alongX.r > 150 && alongX.g + alongX.b < 40 && alongY.g > 150 && alongY.r + alongY.b < 40) ++shown;
    EXPECT_FALSE(alongX.g > 100 || alongY.r > 100) << "tile " << tile;
  }
  EXPECT_GE(shown, 1);
  // the tract picture's axial panel (320 pixels for 40 voxels, 8 a voxel): the fibers
  // coloured by direction lie over both bundles, red on the x bundle, green on the y one
  const Rgb tractX = PixelOf(dir.file("r/tracts.png"), 8 * 8 + 4, 16 + 20 * 8 + 4);
  const Rgb tractY = PixelOf(dir.file("r/tracts.png"), 20 * 8 + 4, 16 + 8 * 8 + 4);
  EXPECT_GT(tractX.r, 120);
  EXPECT_GT(tractX.r, 2 * tractX.g);
  EXPECT_GT(tractY.g, 120);
  EXPECT_GT(tractY.g, 2 * tractY.r);

  const auto columns = PCDreport_QcColumns(report);
  ASSERT_EQ(columns.size(), 7u);
  EXPECT_EQ(columns[0], (std::pair<std::string, std::string>{"valid_fraction", "1.0000"}));
  EXPECT_EQ(columns[4], (std::pair<std::string, std::string>{"residual_outliers", "1"}));
  EXPECT_EQ(columns[6], (std::pair<std::string, std::string>{"gradcheck", "as given"}));
}

}  // namespace
