#include <gtest/gtest.h>
#include <sys/stat.h>

#include <filesystem>
#include <fstream>

#include "support/temp_dir.h"
#include "vorn/presets/preset.h"

namespace vorn {
namespace {

PresetMaskStep stepOf(PresetMaskStep::Kind kind) {
  PresetMaskStep step;
  step.kind = kind;
  return step;
}

Preset layeredPreset() {
  Preset preset;
  preset.name = "Évening \"glow\"";
  PresetLayer base;
  base.name = "tone";
  base.effects.push_back({"VORNExposureEffect", {{"Exposure", 0.3f}}, {}});
  base.effects.push_back({"VORNLUTMappingEffect", {{"Amount", 80.0f}}, {{"Amount", "film.cube"}}});
  PresetLayer sky;
  sky.enabled = false;
  sky.opacity = 0.65f;
  sky.blend = "SoftLight";
  sky.effectAmount = 0.8f;
  sky.level = 1;
  sky.effects.push_back({"VORNSaturationEffect", {}, {}});
  PresetMaskStep linear = stepOf(PresetMaskStep::Kind::LinearGradient);
  linear.centre = {0.5f, 0.3f};
  linear.angle = 90.0f;
  linear.width = 0.2f;
  PresetMaskStep radial = stepOf(PresetMaskStep::Kind::RadialGradient);
  radial.radiusX = 0.3f;
  radial.radiusY = 0.1f;
  radial.feather = 0.5f;
  radial.add = false;
  radial.invert = true;
  PresetMaskStep stroke = stepOf(PresetMaskStep::Kind::Stroke);
  stroke.erase = true;
  stroke.points = {{0.1f, 0.2f}, {0.3f, 0.4f}};
  sky.mask.steps = {stepOf(PresetMaskStep::Kind::Fill), linear, radial, stroke,
                    stepOf(PresetMaskStep::Kind::Invert)};
  sky.mask.feather = 0.25f;
  sky.mask.density = 0.9f;
  preset.layers = {base, sky};
  return preset;
}

TEST(PresetFile, PresetsAndDocumentsSurviveARoundTripExactly) {
  const Preset preset = layeredPreset();
  const std::string text = presetText(preset);
  EXPECT_NE(text.find("\"opacity\": 0.65"), std::string::npos) << text;  // shortest form
  const Preset read = parsePreset(text, "p.json");
  EXPECT_EQ(read, preset);
  EXPECT_EQ(presetText(read), text);

  test::TempDir dir;
  const std::string presetPath = (dir.path() / "look.json").string();
  writeTextFileAtomically(presetPath, text);
  EXPECT_EQ(readPresetFile(presetPath), preset);

  PresetDocument document;
  document.source = "photo.jpg";
  document.preset = preset;
  document.crop = _Rect<int>(10, 20, 300, 200);
  document.cropAngle = -3.5f;
  document.orientation = 6;
  EXPECT_EQ(parseDocument(documentText(document), "d.json"), document);

  // A document may name its preset file, relative to the document's folder.
  const std::string docPath = (dir.path() / "edit.json").string();
  writeTextFileAtomically(docPath, R"({"format": "vorn document", "version": 1,
    "source": "photo.jpg", "presetFile": "look.json"})");
  EXPECT_EQ(readDocumentFile(docPath).preset, preset);
}

std::string errorOf(const std::string& text) {
  try {
    parsePreset(text, "look.json");
  } catch (const PresetError& e) {
    return e.what();
  }
  return "(no error)";
}

TEST(PresetFile, FaultsNameTheFileLineAndField) {
  const std::string head = "{\"format\": \"vorn preset\", \"version\": 1,\n\"layers\": [\n";
  const struct {
    std::string body;
    std::string expected;
  } cases[] = {
      {"{\"effects\": [{\"id\": \"VORNNoSuchEffect\"}]}]}",
       "look.json:3: layers[0].effects[0].id: unknown effect \"VORNNoSuchEffect\""},
      {"{\"effects\": [\n{\"id\": \"VORNExposureEffect\",\n \"values\": {\"Brightness\": 1}}]}]}",
       "look.json:5: layers[0].effects[0].values.Brightness: effect \"VORNExposureEffect\" has "
       "no parameter \"Brightness\""},
      {"{\"effects\": [{\"id\": \"VORNExposureEffect\", \"values\": {\"Exposure\": \"1\"}}]}]}",
       "layers[0].effects[0].values.Exposure: expected a number"},
      {"{\"effects\": [{\"id\": \"VORNExposureEffect\", \"values\": {\"Exposure\": 1e30}}]}]}",
       "layers[0].effects[0].values.Exposure: value 1e+30 is outside"},
      {"{\"effects\": [], \"opacity\": 2}]}", "look.json:3: layers[0].opacity: value 2 is outside"},
      {"{\"effects\": [], \"blend\": \"Glow\"}]}", "layers[0].blend: unknown blend mode \"Glow\""},
      {"{\"effects\": [], \"opacty\": 0.5}]}", "layers[0].opacty: unknown field"},
      {"{\"effects\": [], \"mask\": {\"steps\": [{\"type\": \"stroke\", \"points\": []}]}}]}",
       "layers[0].mask.steps[0].points: a stroke needs at least one point"},
      {"{\"effects\": []},\n{\"effects\": [],\n\"effects\": []}]}",
       "look.json:5: duplicate key \"effects\""},
      {"{\"effects\": [}]}", "look.json:3: not valid JSON"},
      {"{\"effects\": [1e999]}]}", "not valid JSON"},
      {"{\"effects\": {}}]}", "look.json:3: layers[0].effects: expected a list"},
  };
  for (const auto& c : cases) {
    const std::string error = errorOf(head + c.body);
    EXPECT_NE(error.find(c.expected), std::string::npos) << "got: " << error;
  }
  EXPECT_NE(errorOf(R"({"format": "vorn preset", "version": 2, "layers": []})")
                .find("version: version 2 is newer than this program reads (1)"),
            std::string::npos);
  EXPECT_NE(errorOf(R"({"version": 1, "layers": []})").find("missing \"format\""),
            std::string::npos);
  EXPECT_NE(errorOf(std::string(100000, '[')).find("look.json:1: nested deeper than"),
            std::string::npos);
  EXPECT_NE(errorOf("").find("not valid JSON"), std::string::npos);
}

TEST(PresetFile, FilesThatCannotBeReadOrWrittenFailCleanly) {
  test::TempDir dir;
  EXPECT_THROW(readPresetFile((dir.path() / "missing.json").string()), PresetError);

  // A sparse gigabyte is refused from its size, before a byte of it is read.
  const auto huge = dir.path() / "huge.json";
  std::ofstream(huge).put('{');
  std::filesystem::resize_file(huge, std::uintmax_t(1) << 30);
  try {
    readPresetFile(huge.string());
    ADD_FAILURE() << "a 1 GB preset was read";
  } catch (const PresetError& e) {
    EXPECT_NE(std::string(e.what()).find("too large"), std::string::npos) << e.what();
  }

  // A folder that refuses writing keeps neither the file nor a temporary (root ignores modes).
  const auto locked = dir.path() / "locked";
  std::filesystem::create_directory(locked);
  ::chmod(locked.c_str(), 0555);
  if (::geteuid() != 0) {
    EXPECT_THROW(writeTextFileAtomically((locked / "p.json").string(), "{}"), PresetError);
    EXPECT_TRUE(std::filesystem::is_empty(locked));
  }
  ::chmod(locked.c_str(), 0755);
  EXPECT_THROW(writeTextFileAtomically((dir.path() / "no/such/folder/p.json").string(), "{}"),
               PresetError);
}

TEST(PresetFile, ShippedPresetsRead) {
  int read = 0;
  for (const auto& entry : std::filesystem::directory_iterator(VORN_SOURCE_DIR "/presets")) {
    const std::string name = entry.path().filename().string();
    if (!name.ends_with(".json") || name.ends_with(".schema.json")) continue;
    const Preset preset = readPresetFile(entry.path().string());
    EXPECT_FALSE(preset.name.empty()) << name;
    EXPECT_FALSE(preset.layers.empty()) << name;
    ++read;
  }
  EXPECT_GE(read, 3);
}

}  // namespace
}  // namespace vorn
