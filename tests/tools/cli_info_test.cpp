#include <gtest/gtest.h>

#include <algorithm>
#include <exiv2/exiv2.hpp>
#include <filesystem>
#include <fstream>
#include <initializer_list>
#include <nlohmann/json.hpp>
#include <set>

#include "cli.h"
#include "cli_test_support.h"
#include "info_format.h"
#include "io/raster_test_support.h"
#include "support/temp_dir.h"
#include "support/test_files.h"

namespace vorn::cli {
namespace {

using namespace test::raster;

bool has(const std::string& text, const std::string& part) {
  return text.find(part) != std::string::npos;
}

// A width x height JPEG of one colour (0..1 floats).
void writeSolidJpeg(const std::string& path, int width, int height, float r, float g, float b) {
  Pixels pixels{width, height, 3, {}};
  for (int i = 0; i < width * height; ++i) pixels.values.insert(pixels.values.end(), {r, g, b});
  writeWithMagick(magickImage(pixels, 8), "JPEG", path);
}

template <typename Edit>
void editExif(const std::string& path, Edit&& edit) {
  auto image = Exiv2::ImageFactory::open(path);
  image->readMetadata();
  edit(image->exifData());
  image->writeMetadata();
}

// What a camera writes: maker, model, time, exposure, a portrait orientation and a position.
void addCameraExif(const std::string& path) {
  editExif(path, [](Exiv2::ExifData& exif) {
    exif["Exif.Image.Make"] = "Maker";
    exif["Exif.Image.Model"] = "Model X";
    exif["Exif.Image.Orientation"] = std::uint16_t(6);
    exif["Exif.Photo.DateTimeOriginal"] = "2021:06:01 14:03:22";
    exif["Exif.Photo.ExposureTime"] = Exiv2::URational(1, 250);
    exif["Exif.Photo.FNumber"] = Exiv2::URational(56, 10);
    exif["Exif.Photo.ISOSpeedRatings"] = std::uint16_t(200);
    exif["Exif.Photo.FocalLength"] = Exiv2::URational(35, 1);
    exif["Exif.GPSInfo.GPSLatitudeRef"] = "S";
    exif["Exif.GPSInfo.GPSLatitude"] = "33/1 51/1 3600/100";
    exif["Exif.GPSInfo.GPSLongitudeRef"] = "E";
    exif["Exif.GPSInfo.GPSLongitude"] = "151/1 12/1 0/1";
    exif["Exif.GPSInfo.GPSAltitude"] = Exiv2::URational(35, 1);
  });
}

// `vorn info PATH` as text; the command must succeed.
std::string infoText(const std::string& path) {
  const CommandRun info = run({"info", path});
  EXPECT_EQ(info.code, kExitOk) << info.err;
  return info.out;
}

void expectLines(const std::string& text, std::initializer_list<const char*> lines) {
  for (const char* line : lines) EXPECT_TRUE(has(text, line)) << line << " missing from\n" << text;
}

nlohmann::json infoJson(const std::string& path) {
  const CommandRun info = run({"info", path, "--json"});
  EXPECT_EQ(info.code, kExitOk) << info.err;
  return nlohmann::json::parse(info.out, nullptr, false);
}

TEST(CliInfo, ACameraJpegReadsAsPlainLinesAndAsJson) {
  test::TempDir folder("vorn_info");
  const std::string photo = (folder.path() / "camera.jpg").string();
  writeSolidJpeg(photo, 300, 200, 0.2f, 0.4f, 0.6f);
  addCameraExif(photo);

  const std::string text = infoText(photo);
  expectLines(text, {"Type: JPEG\n", "Camera: Maker Model X\n", "Captured: 2021-06-01 14:03:22\n",
                     "Size: 200 x 300 pixels\n", "Exposure: 1/250 s, f/5.6, ISO 200, 35 mm\n",
                     "Colour: 8 bits per channel\n", "Orientation: rotated 90° clockwise\n",
                     "GPS: 33.86° S, 151.2° E, 35 m\n"});
  EXPECT_FALSE(has(text, "Lens")) << "the file names no lens";
  EXPECT_FALSE(has(text, "Pixels")) << "the pixels decode";

  const nlohmann::json json = infoJson(photo);
  ASSERT_TRUE(json.is_object());
  // Numbers are numbers, whole ones without a fraction (ISO 200, not 200.0).
  const nlohmann::json expected = {{"camera_make", "Maker"},
                                   {"captured", "2021-06-01T14:03:22"},
                                   {"width", 200},
                                   {"height", 300},
                                   {"exposure_time_s", 0.004},
                                   {"f_number", 5.6},
                                   {"iso", 200},
                                   {"orientation", 6},
                                   {"pixels_supported", true}};
  for (const auto& [key, value] : expected.items()) EXPECT_EQ(json[key], value) << key;
  EXPECT_NEAR(json.value("gps_latitude", 0.0), -33.86, 1e-6);
  for (const char* absent : {"lens", "focal_length_35mm", "pixels_error"})
    EXPECT_FALSE(json.contains(absent)) << absent;

  // Cut before the first quantisation table: the metadata is whole, the pixels are gone.
  std::vector<std::uint8_t> bytes = readBytes(photo);
  const std::uint8_t table[] = {0xFF, 0xDB};
  bytes.erase(std::search(bytes.begin(), bytes.end(), table, table + 2), bytes.end());
  writeBytes(photo, bytes);
  expectLines(infoText(photo), {"Camera: Maker Model X\n", "Pixels: cannot be decoded ("});
}

TEST(CliInfo, AbsentFieldsAreLeftOutNeverZero) {
  test::TempDir folder("vorn_info");
  const std::string plain = (folder.path() / "plain.jpg").string();
  writeSolidJpeg(plain, 64, 48, 0.5f, 0.5f, 0.5f);
  // A camera that writes placeholders: zero ISO, a blank time, a 0/0 position.
  editExif(plain, [](Exiv2::ExifData& exif) {
    exif["Exif.Photo.ISOSpeedRatings"] = std::uint16_t(0);
    exif["Exif.Photo.DateTimeOriginal"] = "    :  :     :  :  ";
    exif["Exif.GPSInfo.GPSLatitude"] = "0/1 0/1 0/1";
    exif["Exif.GPSInfo.GPSLongitude"] = "0/1 0/1 0/1";
  });
  EXPECT_EQ(infoText(plain), "File: " + plain + "\nType: JPEG\nSize: 64 x 48 pixels\n" +
                                 "Colour: 8 bits per channel\n");

  const nlohmann::json json = infoJson(plain);
  ASSERT_TRUE(json.is_object());
  std::set<std::string> keys;
  for (const auto& [key, value] : json.items()) keys.insert(key);
  EXPECT_EQ(keys, (std::set<std::string>{"file", "file_type", "width", "height", "bits_per_channel",
                                         "raw", "pixels_supported"}));
}

TEST(CliInfo, FormattingOfExposureCameraAndOrientation) {
  PhotoInfo info;
  info.cameraMake = "NIKON CORPORATION";
  info.cameraModel = "NIKON D850";
  info.exposureTime = 2.5;
  info.fNumber = 8.0;
  info.focalLength = 24.0;
  info.focalLength35mm = 36.0;
  info.bitsPerChannel = 14;
  info.raw = info.pixelsSupported = true;
  info.orientation = 8;
  expectLines(formatInfoText(info), {"Camera: NIKON D850\n", "Colour: 14 bits per channel, raw\n",
                                     "Exposure: 2.5 s, f/8, 24 mm (36 mm full-frame equivalent)\n",
                                     "Orientation: rotated 90° counter-clockwise\n"});
  info.lens = "Objectif \xe9";  // Latin-1, as some makers write it: the JSON still parses
  EXPECT_TRUE(nlohmann::json::parse(formatInfoJson(info), nullptr, false).contains("lens"));
  info.exposureTime = 1.0 / 3.0;  // a third of a second is a fraction; 0.3 s is not
  EXPECT_TRUE(has(formatInfoText(info), "Exposure: 1/3 s")) << formatInfoText(info);
  info.exposureTime = 0.3;
  EXPECT_TRUE(has(formatInfoText(info), "Exposure: 0.3 s")) << formatInfoText(info);
}

TEST(CliInfo, RawCameraFallsBackOnTheDecoderAndUndecodablePixelsKeepTheirMetadata) {
  const nlohmann::json cr3 = infoJson(dataFile("pruned_canon_r6_exiv2.cr3"));
  ASSERT_TRUE(cr3.is_object());
  EXPECT_EQ(cr3.value("camera_model", ""), "Canon EOS R6");
  EXPECT_EQ(cr3.value("pixels_supported", true), false);
  EXPECT_FALSE(cr3.value("pixels_error", "").empty());
  for (const char* unknown : {"raw", "width"}) EXPECT_FALSE(cr3.contains(unknown)) << unknown;

  const std::string dng = test::sharedSample("raw", "bmpcc4k_imageio.dng");
  const std::string gpr = test::sharedSample("raw", "gopro_hero6_GOPR0024.gpr");
  if (dng.empty() || gpr.empty()) GTEST_SKIP() << "the raw samples are absent";
  const std::string text = infoText(dng);
  expectLines(text, {"Camera: Blackmagic Pocket Cinema Camera 4K\n", "Size: 4128 x 2176 pixels\n",
                     "Colour: 12 bits per channel, raw\n"});
  // The decoder reports ISO 0 and a negative shutter time for this file: placeholders both.
  EXPECT_FALSE(has(text, "Exposure")) << text;
  expectLines(infoText(gpr),
              {"Camera: GoPro HERO6 Black\n", "Pixels: not supported by this build's decoder"});
}

TEST(CliInfo, MissingOrNonImageFilesAndBadArgumentsFail) {
  test::TempDir folder("vorn_info");
  const std::string fake = (folder.path() / "fake.jpg").string();
  std::ofstream(fake) << "not a jpeg at all";
  const std::string notes = (folder.path() / "notes.txt").string();
  std::ofstream(notes) << "hello";
  for (const std::string& path :
       {fake, notes, (folder.path() / "missing.jpg").string(), folder.path().string()}) {
    const CommandRun info = run({"info", path});
    EXPECT_EQ(info.code, kExitFailed) << path;
    EXPECT_TRUE(has(info.err, path)) << info.err;
    EXPECT_TRUE(info.out.empty()) << info.out;
  }
  EXPECT_EQ(run({"info"}).code, kExitUsage);
  EXPECT_EQ(run({"info", fake, "--yaml"}).code, kExitUsage);
  EXPECT_EQ(run({"info", fake, notes}).code, kExitUsage);
}

// The stored size and the mean red and blue of a written thumbnail, as another decoder sees them.
struct Written {
  int width = 0, height = 0;
  float red = 0.0f, blue = 0.0f;
};

Written readBack(const std::string& path) {
  Written w;
  const std::vector<float> values = magickReference(path, w.width, w.height);
  for (std::size_t i = 0; i < values.size(); i += 3) {
    w.red += values[i] * 3.0f / float(values.size());
    w.blue += values[i + 2] * 3.0f / float(values.size());
  }
  return w;
}

TEST(CliThumbnail, SizesAreUprightAndThePreviewServesOnlyWhenLargeEnough) {
  test::TempDir folder("vorn_thumb");
  const std::string out = (folder.path() / "thumb.jpg").string();
  const std::string leaf = dataFile("fallenleaf_canon_eos70d.jpg");  // 2560 x 1600
  ASSERT_EQ(run({"thumbnail", leaf, out}).code, kExitOk);
  Written written = readBack(out);
  EXPECT_EQ(std::pair(written.width, written.height), std::pair(256, 160));

  // A blue photo stored on its side whose EXIF preview is red: the colour tells the source.
  const std::string turned = (folder.path() / "turned.jpg").string();
  writeSolidJpeg(turned, 600, 400, 0.0f, 0.0f, 1.0f);
  const std::string preview = (folder.path() / "preview.jpg").string();
  writeSolidJpeg(preview, 150, 100, 1.0f, 0.0f, 0.0f);
  editExif(turned, [&](Exiv2::ExifData& exif) {
    exif["Exif.Image.Orientation"] = std::uint16_t(6);
    Exiv2::ExifThumb(exif).setJpegThumbnail(preview);
  });
  ASSERT_EQ(run({"thumbnail", turned, out, "--size", "90"}).code, kExitOk);
  written = readBack(out);
  EXPECT_EQ(std::pair(written.width, written.height), std::pair(60, 90));
  EXPECT_GT(written.red, 0.8f) << "the preview covers 90 pixels";

  const std::string tiff = (folder.path() / "thumb.tif").string();
  ASSERT_EQ(run({"thumbnail", turned, tiff, "--size", "300"}).code, kExitOk);
  written = readBack(tiff);
  EXPECT_EQ(std::pair(written.width, written.height), std::pair(200, 300));
  EXPECT_GT(written.blue, 0.8f) << "a 150-pixel preview must not be enlarged to 300";

  // Pixels this build cannot decode still give a thumbnail through the file's own preview.
  const CommandRun cr3 = run({"thumbnail", dataFile("pruned_canon_r6_exiv2.cr3"), out});
  ASSERT_EQ(cr3.code, kExitOk) << cr3.err;
  written = readBack(out);
  EXPECT_EQ(std::max(written.width, written.height), 256);
}

TEST(CliThumbnail, BadInputsFailClearlyAndLeaveNothingBehind) {
  test::TempDir folder("vorn_thumb");
  const std::string leaf = dataFile("fallenleaf_canon_eos70d.jpg");
  const std::string out = (folder.path() / "thumb.jpg").string();
  for (const char* size : {"0", "-3", "abc", "70000", "12px"}) {
    const CommandRun bad = run({"thumbnail", leaf, out, "--size", size});
    EXPECT_EQ(bad.code, kExitUsage) << size;
    EXPECT_TRUE(has(bad.err, "--size")) << bad.err;
  }
  EXPECT_EQ(run({"thumbnail", leaf, out, "--size"}).code, kExitUsage);
  EXPECT_EQ(run({"thumbnail", leaf}).code, kExitUsage);
  EXPECT_EQ(run({"thumbnail", leaf, (folder.path() / "thumb.png").string()}).code, kExitUsage);

  const CommandRun missing = run({"thumbnail", (folder.path() / "none.jpg").string(), out});
  EXPECT_EQ(missing.code, kExitFailed);
  EXPECT_TRUE(has(missing.err, "no such file")) << missing.err;
  const std::string fake = (folder.path() / "fake.jpg").string();
  std::ofstream(fake) << "not a jpeg at all";
  const CommandRun undecodable = run({"thumbnail", fake, out});
  EXPECT_EQ(undecodable.code, kExitFailed);
  EXPECT_TRUE(has(undecodable.err, "cannot be decoded")) << undecodable.err;
  std::filesystem::remove(fake);

  // A folder that does not exist and a "folder" that is a file: unwritable even for root.
  for (const std::filesystem::path& unwritable :
       {folder.path() / "absent" / "t.jpg", std::filesystem::path(leaf + "/t.jpg")}) {
    const CommandRun failed = run({"thumbnail", leaf, unwritable.string()});
    EXPECT_EQ(failed.code, kExitFailed) << unwritable;
    EXPECT_TRUE(has(failed.err, "could not be written")) << failed.err;
  }
  EXPECT_EQ(std::distance(std::filesystem::directory_iterator(folder.path()),
                          std::filesystem::directory_iterator()),
            0)
      << "no failed call left a file, temporary or not";
  EXPECT_FALSE(std::filesystem::exists(out)) << "no failed call wrote the output";
}

}  // namespace
}  // namespace vorn::cli
