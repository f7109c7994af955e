#include <gtest/gtest.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <nlohmann/json.hpp>
#include <set>
#include <sstream>

#include "batch_plan.h"
#include "cli.h"
#include "io/raster_test_support.h"
#include "progress_line.h"
#include "support/temp_dir.h"

namespace vorn::cli {
namespace {

namespace fs = std::filesystem;

struct BatchRun {
  int code;
  std::string out;
  std::string err;
};

BatchRun batch(std::vector<std::string> args, const std::string& stdinText = {}) {
  std::istringstream in(stdinText);
  std::ostringstream out, err;
  const int code = runBatchWith(args, in, out, err, false);
  return {code, out.str(), err.str()};
}

void writeJpeg(const fs::path& path, int width = 48, int height = 32) {
  test::raster::writeWithMagick(
      test::raster::magickImage(test::raster::uniquePattern(width, height), 8), "JPEG",
      path.string());
}

std::set<std::string> namesIn(const fs::path& folder) {
  std::set<std::string> names;
  for (const auto& entry : fs::directory_iterator(folder)) names.insert(entry.path().filename());
  return names;
}

bool isWholeJpeg(const fs::path& path) {
  const std::vector<std::uint8_t> bytes = test::raster::readBytes(path.string());
  return bytes.size() > 4 && bytes[0] == 0xFF && bytes[1] == 0xD8 &&
         bytes[bytes.size() - 2] == 0xFF && bytes.back() == 0xD9;
}

// Three small photos a, b, c in `folder`; b is damaged when asked.
void writeThree(const fs::path& folder, bool damagedMiddle = false) {
  fs::create_directories(folder);
  writeJpeg(folder / "a.jpg");
  writeJpeg(folder / "c.jpg");
  if (damagedMiddle)
    test::raster::writeBytes((folder / "b.jpg").string(), {0xFF, 0xD8, 0xFF, 0xE0, 1, 2, 3});
  else
    writeJpeg(folder / "b.jpg");
}

TEST(CliBatch, ADamagedFileInTheMiddleFailsAloneAndIsNamed) {
  test::TempDir dir("vorn_batch");
  writeThree(dir.path() / "in", true);
  std::ofstream(dir.path() / "in" / "notes.txt") << "not a photo";
  const BatchRun result =
      batch({(dir.path() / "in").string(), "-o", (dir.path() / "out").string()});
  EXPECT_EQ(result.code, kExitFailed) << result.err;
  EXPECT_EQ(namesIn(dir.path() / "out"), (std::set<std::string>{"a.jpg", "c.jpg"}));
  EXPECT_TRUE(isWholeJpeg(dir.path() / "out" / "a.jpg"));
  EXPECT_NE(result.out.find("failed " + (dir.path() / "in" / "b.jpg").string() + ": "),
            std::string::npos)
      << result.out;
  EXPECT_NE(result.out.find("ok " + (dir.path() / "in" / "c.jpg").string() + " -> "),
            std::string::npos);
  EXPECT_NE(result.out.find("2 written, 0 skipped, 1 failed of 3"), std::string::npos);
}

TEST(CliBatch, ExistingOutputsAreKeptUnlessOverwriteIsGiven) {
  test::TempDir dir("vorn_batch");
  writeThree(dir.path() / "in");
  const fs::path out = dir.path() / "out";
  fs::create_directories(out);
  const std::vector<std::uint8_t> kept = {'k', 'e', 'e', 'p'};
  test::raster::writeBytes((out / "b.jpg").string(), kept);
  const std::vector<std::string> args = {(dir.path() / "in").string(), "-o", out.string()};

  const BatchRun plain = batch(args);
  EXPECT_EQ(plain.code, kExitFailed);
  EXPECT_NE(plain.out.find("b.jpg: exists"), std::string::npos) << plain.out;
  EXPECT_EQ(test::raster::readBytes((out / "b.jpg").string()), kept);
  EXPECT_TRUE(isWholeJpeg(out / "a.jpg"));

  fs::remove(out / "a.jpg");
  std::vector<std::string> skipping = args;
  skipping.push_back("--skip-existing");
  const BatchRun skipped = batch(skipping);
  EXPECT_EQ(skipped.code, kExitOk) << skipped.out;
  EXPECT_NE(skipped.out.find("skipped " + (dir.path() / "in" / "b.jpg").string() + ": exists"),
            std::string::npos);
  EXPECT_NE(skipped.out.find("1 written, 2 skipped, 0 failed"), std::string::npos);
  EXPECT_EQ(test::raster::readBytes((out / "b.jpg").string()), kept);

  std::vector<std::string> replacing = args;
  replacing.push_back("--overwrite");
  EXPECT_EQ(batch(replacing).code, kExitOk);
  EXPECT_TRUE(isWholeJpeg(out / "b.jpg"));

  skipping.push_back("--overwrite");
  EXPECT_EQ(batch(skipping).code, kExitUsage) << "the two choices exclude each other";
}

TEST(CliBatch, NameTemplatesNumberRenameAndRefuseCollisionsBeforeAnyWork) {
  test::TempDir dir("vorn_batch");
  writeThree(dir.path() / "one");
  fs::create_directories(dir.path() / "two");
  writeJpeg(dir.path() / "two" / "a.jpg");
  const fs::path out = dir.path() / "out";
  const BatchRun numbered = batch({(dir.path() / "one").string(), "-o", out.string(), "--name",
                                   "{index}-{stem}_{ext}", "--format", "tif"});
  ASSERT_EQ(numbered.code, kExitOk) << numbered.err << numbered.out;
  EXPECT_EQ(namesIn(out), (std::set<std::string>{"1-a_jpg.tif", "2-b_jpg.tif", "3-c_jpg.tif"}));

  const BatchRun collision = batch({(dir.path() / "one").string(), (dir.path() / "two").string(),
                                    "-o", (dir.path() / "out2").string()});
  EXPECT_EQ(collision.code, kExitUsage);
  EXPECT_NE(collision.err.find((dir.path() / "one" / "a.jpg").string() + " and " +
                               (dir.path() / "two" / "a.jpg").string() +
                               " would both be written to a.jpg"),
            std::string::npos)
      << collision.err;
  EXPECT_FALSE(fs::exists(dir.path() / "out2")) << "nothing is made before the plan holds";

  for (const char* bad : {"{stem", "{size}", "x/{stem}", "a}"}) {
    const BatchRun refused =
        batch({(dir.path() / "one").string(), "-o", out.string(), "--name", bad});
    EXPECT_EQ(refused.code, kExitUsage) << bad;
  }
  // The index is padded to the list's width and the date is a day.
  EXPECT_EQ(outputNameFor("{index}", "x/a.JPG", 6, 120, "jpg"), "007.jpg");
  EXPECT_EQ(outputNameFor("{stem}.{ext}", "x/a.JPG", 0, 1, "jpg"), "a.JPG");
  const std::string day = captureDateOf((dir.path() / "one" / "a.jpg").string());
  ASSERT_EQ(day.size(), 10u);
  EXPECT_EQ(day[4], '-');
  EXPECT_EQ(captureDateOf((dir.path() / "missing.jpg").string()), "");
}

TEST(CliBatch, ShardsCoverTheListExactlyOnce) {
  test::TempDir dir("vorn_batch");
  const fs::path in = dir.path() / "in";
  fs::create_directories(in / "sub");
  for (const char* name :
       {"p1.jpg", "p2.jpg", "p3.jpg", "p4.jpg", "sub/p5.jpg", "sub/p6.jpg", "sub/p7.jpg"})
    writeJpeg(in / name);
  const fs::path out = dir.path() / "out";
  // One folder for all shards: a file given to two shards would be refused the second time.
  for (const char* shard : {"1/3", "2/3", "3/3"}) {
    const BatchRun part = batch({in.string(), "--recursive", "-o", out.string(), "--shard", shard});
    EXPECT_EQ(part.code, kExitOk) << shard << part.out;
  }
  EXPECT_EQ(namesIn(out).size(), 7u);
  std::size_t covered = 0;
  for (int k = 1; k <= 4; ++k) covered += shardPositions(10, k, 4).size();
  EXPECT_EQ(covered, 10u);
  for (const char* bad : {"0/3", "4/3", "1/0", "x", "2"})
    EXPECT_EQ(batch({in.string(), "-o", out.string(), "--shard", bad}).code, kExitUsage) << bad;
}

TEST(CliBatch, InputsComeFromStandardInputSortedAndOnce) {
  test::TempDir dir("vorn_batch");
  writeThree(dir.path() / "in");
  const std::string a = (dir.path() / "in" / "a.jpg").string();
  const std::string c = (dir.path() / "in" / "c.jpg").string();
  const std::string dotted = (dir.path() / "in" / "." / "c.jpg").string();
  const BatchRun result = batch({"-", "-o", (dir.path() / "out").string(), "-j", "1"},
                                c + "\n\n" + a + "\r\n" + dotted + "\n");
  ASSERT_EQ(result.code, kExitOk) << result.err;
  EXPECT_EQ(namesIn(dir.path() / "out"), (std::set<std::string>{"a.jpg", "c.jpg"}));
  EXPECT_LT(result.out.find("ok " + a), result.out.find("ok " + c)) << "one worker, sorted order";
  EXPECT_NE(result.out.find("2 written"), std::string::npos);

  std::vector<std::string> files;
  std::string error;
  std::istringstream none;
  // A missing named file is kept, to fail on its own; a hidden one in a folder is not listed.
  ASSERT_TRUE(
      collectBatchInputs({(dir.path() / "in" / "x.jpg").string()}, false, none, files, error));
  EXPECT_EQ(files.size(), 1u);
  writeJpeg(dir.path() / "in" / ".hidden.jpg");
  ASSERT_TRUE(collectBatchInputs({(dir.path() / "in").string()}, false, none, files, error));
  EXPECT_EQ(files.size(), 3u);
}

TEST(CliBatch, JsonLinesGiveOneObjectPerFileAndASummary) {
  test::TempDir dir("vorn_batch");
  writeThree(dir.path() / "in", true);
  const BatchRun result =
      batch({(dir.path() / "in").string(), "-o", (dir.path() / "out").string(), "--json"});
  EXPECT_EQ(result.code, kExitFailed);
  std::istringstream lines(result.out);
  std::vector<nlohmann::json> objects;
  for (std::string line; std::getline(lines, line);)
    objects.push_back(nlohmann::json::parse(line));  // throws, failing the test, on a bad line
  ASSERT_EQ(objects.size(), 4u) << result.out;
  std::map<std::string, nlohmann::json> byName;
  for (std::size_t i = 0; i < 3; ++i)
    byName[fs::path(objects[i]["input"].get<std::string>()).filename()] = objects[i];
  EXPECT_EQ(byName["a.jpg"]["status"], "ok");
  EXPECT_TRUE(byName["a.jpg"]["error"].is_null());
  EXPECT_GT(byName["a.jpg"]["seconds"].get<double>(), 0.0);
  EXPECT_EQ(byName["b.jpg"]["status"], "failed");
  EXPECT_TRUE(byName["b.jpg"]["error"].is_string());
  EXPECT_EQ(byName["c.jpg"]["output"], (dir.path() / "out" / "c.jpg").string());
  const nlohmann::json& summary = objects.back();
  EXPECT_EQ(summary["summary"], true);
  EXPECT_EQ(summary["ok"], 2);
  EXPECT_EQ(summary["failed"], 1);
  EXPECT_EQ(summary["not_started"], 0);
}

TEST(CliBatch, TheProgressLineShowsRateAndTimeLeft) {
  EXPECT_EQ(ProgressLine::text(0, 200, 0.0), "[  0/200] starting");
  EXPECT_EQ(ProgressLine::text(50, 200, 25.0), "[ 50/200] 2.00 files/s, 1:15 left");
  EXPECT_EQ(ProgressLine::text(10, 10, 4000.0), "[10/10] 0.00 files/s, 1:06:40 in all");
}

// The real binary in a child process: Ctrl-C must stop it cleanly.
TEST(CliBatch, AnInterruptStopsRendersAndLeavesNoPartialFiles) {
  test::TempDir dir("vorn_batch");
  const fs::path in = dir.path() / "in", out = dir.path() / "out";
  fs::create_directories(in);
  for (char i = '0'; i < '8'; ++i) writeJpeg(in / (std::string("p") + i + ".jpg"), 1600, 1200);
  int pipeEnds[2];
  ASSERT_EQ(::pipe(pipeEnds), 0);
  const pid_t child = ::fork();
  ASSERT_GE(child, 0);
  if (child == 0) {
    ::dup2(pipeEnds[1], STDOUT_FILENO);
    ::close(pipeEnds[0]);
    ::execl(VORN_CLI_BINARY, "vorn", "batch", in.c_str(), "-o", out.c_str(), "-j", "2",
            static_cast<char*>(nullptr));
    ::_exit(127);
  }
  ::close(pipeEnds[1]);
  // The first finished file proves the batch is under way; the other worker is mid-render.
  std::string text;
  char buffer[256];
  while (text.find('\n') == std::string::npos) {
    const ssize_t got = ::read(pipeEnds[0], buffer, sizeof buffer);
    if (got <= 0) break;
    text.append(buffer, static_cast<std::size_t>(got));
  }
  ::kill(child, SIGINT);
  for (ssize_t got; (got = ::read(pipeEnds[0], buffer, sizeof buffer)) > 0;)
    text.append(buffer, static_cast<std::size_t>(got));
  ::close(pipeEnds[0]);
  int status = 0;
  ASSERT_EQ(::waitpid(child, &status, 0), child);
  ASSERT_TRUE(WIFEXITED(status)) << text;
  EXPECT_EQ(WEXITSTATUS(status), kExitInterrupted) << text;
  EXPECT_NE(text.find(" not started of 8"), std::string::npos) << text;
  const std::set<std::string> written = namesIn(out);
  EXPECT_LT(written.size(), 8u);
  for (const std::string& name : written) {
    EXPECT_NE(name.front(), '.') << "a temporary file was left: " << name;
    EXPECT_TRUE(isWholeJpeg(out / name)) << name << " is incomplete";
  }
}

}  // namespace
}  // namespace vorn::cli
