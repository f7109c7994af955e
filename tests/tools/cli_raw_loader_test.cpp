#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <iterator>
#include <sstream>

#include "cli.h"
#include "io/ipc/loader_process.h"
#include "io/ipc_test_support.h"
#include "io/raw_test_support.h"
#include "support/temp_dir.h"

namespace vorn::cli {
namespace {

namespace fs = std::filesystem;

struct CommandRun {
  int code;
  std::string out;
  std::string err;
};

CommandRun apply(const std::vector<std::string>& args) {
  std::ostringstream out, err;
  const int code = runApply(args, out, err);
  return {code, out.str(), err.str()};
}

CommandRun batch(const std::vector<std::string>& args) {
  std::istringstream in;
  std::ostringstream out, err;
  const int code = runBatchWith(args, in, out, err, false);
  return {code, out.str(), err.str()};
}

// A file's bytes with every ICC header's creation time blanked: the writer stamps the second
// it made the profile, which is all that may differ between two runs.
std::string withoutProfileDates(const fs::path& path) {
  std::ifstream file(path, std::ios::binary);
  std::string bytes((std::istreambuf_iterator<char>(file)), std::istreambuf_iterator<char>());
  constexpr std::size_t kSignatureToDate = 12;
  for (std::size_t at = bytes.find("acsp"); at != std::string::npos;
       at = bytes.find("acsp", at + 4))
    if (at >= kSignatureToDate) bytes.replace(at - kSignatureToDate, kSignatureToDate, 12, '\0');
  return bytes;
}

// The default path decodes in the warm child (the same pid serves both renders) and writes what
// --in-process writes, at full size and at the half size a smaller output allows.
TEST(CliRawLoader, RendersThroughTheChildEqualInProcessOutput) {
  VORN_REQUIRE_SAMPLE(nef, "nikon_coolscan4_imageio.nef");
  VORN_REQUIRE_SAMPLE(dng, "bmpcc4k_imageio.dng");
  test::LoaderSettings settings;
  ipc::LoaderPool::instance().clear();
  test::TempDir dir("cli_raw_loader");
  const auto path = [&](const char* name) { return (dir.path() / name).string(); };
  ASSERT_EQ(apply({nef, path("child.tif"), "--depth", "32"}).code, kExitOk);
  const pid_t warm = ipc::LoaderPool::instance().idlePid();
  EXPECT_GT(warm, 0);
  ASSERT_EQ(apply({nef, path("local.tif"), "--depth", "32", "--in-process"}).code, kExitOk);
  EXPECT_EQ(withoutProfileDates(path("child.tif")), withoutProfileDates(path("local.tif")));

  ASSERT_EQ(apply({dng, path("child.jpg"), "--long-side", "600"}).code, kExitOk);
  EXPECT_EQ(ipc::LoaderPool::instance().idlePid(), warm);
  ASSERT_EQ(apply({dng, path("local.jpg"), "--long-side", "600", "--in-process"}).code, kExitOk);
  EXPECT_EQ(withoutProfileDates(path("child.jpg")), withoutProfileDates(path("local.jpg")));
  EXPECT_TRUE(test::leftoverIpcNames().empty());
}

// A thumbnail no embedded preview covers comes from the half-size decode, made by the child
// (a pool emptied first holds one afterwards) and equal to the one made in process.
TEST(CliRawLoader, ThumbnailsBeyondThePreviewDecodeInTheChild) {
  VORN_REQUIRE_SAMPLE(dng, "bmpcc4k_imageio.dng");
  test::LoaderSettings settings;
  ipc::LoaderPool::instance().clear();
  test::TempDir dir("cli_raw_loader");
  const auto thumbnail = [&](const char* name, bool inProcess) {
    std::ostringstream out, err;
    std::vector<std::string> args = {dng, (dir.path() / name).string(), "--size", "1500"};
    if (inProcess) args.emplace_back("--in-process");
    return runThumbnail(args, out, err);
  };
  ASSERT_EQ(thumbnail("child.jpg", false), kExitOk);
  EXPECT_GT(ipc::LoaderPool::instance().idlePid(), 0);
  ASSERT_EQ(thumbnail("local.jpg", true), kExitOk);
  EXPECT_EQ(withoutProfileDates(dir.path() / "child.jpg"),
            withoutProfileDates(dir.path() / "local.jpg"));
  EXPECT_TRUE(test::leftoverIpcNames().empty());
}

// A child killed mid-frame fails that render with code 4; the next render gets a fresh child.
TEST(CliRawLoader, AChildFaultFailsTheRenderWithCode4AndTheNextWorks) {
  VORN_REQUIRE_SAMPLE(nef, "nikon_coolscan4_imageio.nef");
  test::LoaderSettings settings;
  test::TempDir dir("cli_raw_loader");
  ASSERT_EQ(apply({nef, (dir.path() / "warm.jpg").string()}).code, kExitOk);
  const pid_t before = ipc::LoaderPool::instance().idlePid();
  for (const char* stage : {"identify", "during_full"}) {
    DataStore::instance().set("IPC.Loader.test_fault", stage);
    const CommandRun failed = apply({nef, (dir.path() / "failed.jpg").string()});
    EXPECT_EQ(failed.code, kExitFailed) << stage;
    EXPECT_NE(failed.err.find("(code 4)"), std::string::npos) << failed.err;
    EXPECT_FALSE(fs::exists(dir.path() / "failed.jpg")) << stage;
  }
  DataStore::instance().set("IPC.Loader.test_fault", "");
  EXPECT_EQ(apply({nef, (dir.path() / "next.jpg").string()}).code, kExitOk);
  const pid_t after = ipc::LoaderPool::instance().idlePid();
  EXPECT_GT(after, 0);
  EXPECT_NE(after, before);
  EXPECT_TRUE(test::leftoverIpcNames().empty());
}

// Hostile raws fail alone, with the file named, and the batch renders the good files after them
// exactly as --in-process does.
TEST(CliRawLoader, HostileRawsFailAloneInABatchAndTheRestMatchInProcess) {
  VORN_REQUIRE_SAMPLE(nef, "nikon_coolscan4_imageio.nef");
  test::LoaderSettings settings;
  test::TempDir dir("cli_raw_loader");
  const fs::path in = dir.path() / "in";
  fs::create_directories(in);
  std::size_t hostile = 0;
  for (const char* name : {"libraw_segv_64b.dng", "libraw_segv_cfa_tiled.dng",
                           "dng_mutant_black_frame.dng", "dng_4kb_declares_12mp.dng"}) {
    const std::string path = test::sharedSample("hostile", name);
    if (path.empty()) continue;
    fs::copy_file(path, in / (std::string("a_") + name));
    ++hostile;
  }
  fs::copy_file(nef, in / "z_good.nef");
  const CommandRun child = batch({in.string(), "-o", (dir.path() / "child").string(), "-j", "1"});
  const CommandRun local =
      batch({in.string(), "-o", (dir.path() / "local").string(), "-j", "1", "--in-process"});
  EXPECT_EQ(child.code, hostile > 0 ? kExitFailed : kExitOk) << child.out;
  EXPECT_EQ(local.code, child.code);
  EXPECT_NE(child.out.find("1 written, 0 skipped, " + std::to_string(hostile) + " failed"),
            std::string::npos)
      << child.out;
  EXPECT_NE(child.out.find("failed " + (in / "a_").string()), std::string::npos) << child.out;
  EXPECT_EQ(withoutProfileDates(dir.path() / "child" / "z_good.jpg"),
            withoutProfileDates(dir.path() / "local" / "z_good.jpg"));
  EXPECT_TRUE(test::leftoverIpcNames().empty());
}

}  // namespace
}  // namespace vorn::cli
