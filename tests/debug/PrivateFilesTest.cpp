// Everything the library creates is private to the user, whatever the umask:
// the data directory with the beacon store and the consent file, the shared
// user defaults, and the debug audio and signature files. The test runs the
// library with umask 0 (so any file made with the usual 0644/0755 would show
// it), then walks every folder and file it created.
#include <gtest/gtest.h>

#include <sys/stat.h>

#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

#include "collector/BeaconCollector.h"
#include <korvel/Korvel.h>
#include <korvel/debug/KVRDebugDataPersister.h>
#include <korvel/platform/Files.h>
#include <korvel/platform/KVNUserDefaults.h>
#include "support/HostTest.h"
#include "support/TestEnv.h"

namespace korvel {
namespace {

namespace fs = std::filesystem;
using namespace std::chrono_literals;

mode_t modeOf(const fs::path& path) {
  struct stat st {};
  if (::lstat(path.c_str(), &st) != 0) return 0;
  return st.st_mode & 07777;
}

// "path: 0644" for every entry under (and including) root whose mode is not
// 0700 for a folder or 0600 for a file; and how many entries were looked at.
std::vector<std::string> notPrivate(const fs::path& root, size_t& walked) {
  std::vector<std::string> out;
  auto check = [&](const fs::path& p) {
    ++walked;
    const mode_t want = fs::is_directory(fs::symlink_status(p)) ? 0700 : 0600;
    if (const mode_t got = modeOf(p); got != want) {
      char text[16];
      std::snprintf(text, sizeof text, "%04o", static_cast<unsigned>(got));
      out.push_back(p.string() + ": " + text);
    }
  };
  check(root);
  for (const auto& entry : fs::recursive_directory_iterator(root)) check(entry.path());
  return out;
}

class PrivateFilesTest : public testing::HostTest {
 protected:
  PrivateFilesTest() : HostTest("private", 10s) {}

  void SetUp() override {
    HostTest::SetUp();
    if (HasFatalFailure()) return;
    previousUmask_ = ::umask(0);
  }

  void afterShutdown() override {
    KVNUserDefaults::setSharedUserDefaults(nullptr);
    ::umask(previousUmask_);
  }

  mode_t previousUmask_ = 022;
};

TEST_F(PrivateFilesTest, EverythingTheLibraryCreatesIsPrivate) {
  tools::BeaconCollector collector;
  ASSERT_TRUE(collector.start());
  const fs::path data = root_ / "share" / "korvel" / "com.korvel.tests";
  Reporting::StartOptions options;
  options.bundleIdentifier = "com.korvel.tests";
  options.dataDirectory = data;
  options.startUserSession = false;
  options.configure = [&](KVNConfiguration::Snapshot& c) {
    c.beacons.beaconEndpoint = collector.baseURL() + "/b/{inid}/{appversion}/{devicemodel}";
  };
  ASSERT_TRUE(Reporting::start(options));

  // The beacon store: written, delivered, compacted.
  for (int i = 0; i < 3; ++i) {
    ASSERT_TRUE(KVRBeacon::sendBeaconOfType(KVRBeaconTypeUserEvent, KVRParameters{{"seq", i}}));
  }
  ASSERT_TRUE(Reporting::flush(20s));
  ASSERT_EQ(collector.beaconCount(), 3u);
  // The consent file.
  ASSERT_TRUE(Reporting::setOptedOut(true));
  ASSERT_TRUE(fs::exists(data / "consent"));

  // The shared user defaults, in folders that do not exist yet.
  const fs::path config = root_ / "config" / "korvel" / "com.korvel.tests";
  KVNUserDefaults defaults((config / "defaults.json").string());
  ASSERT_TRUE(defaults.setObject(KVRValue(std::string("beta")), "configurationURL"));

  // The debug audio and signature files under the documents directory.
  const KVRDebugDataPersister persister;
  KVNPCMBuffer pcm;
  pcm.format = {16000, 1, 16, false};
  pcm.frameLength = 4;
  pcm.frames.assign(8, 1);
  ASSERT_TRUE(persister.persistAudioFile(pcm, "TAG-1"));
  ASSERT_TRUE(persister.persistSignatureData({9, 8, 7}, "TAG-1", "sig"));
  const auto debug = KVRDebugDataPersister::debugDirectory();
  ASSERT_TRUE(debug);

  for (const fs::path& created : {root_ / "share", root_ / "config", *debug}) {
    size_t walked = 0;
    const auto wrong = notPrivate(created, walked);
    EXPECT_TRUE(wrong.empty()) << ::testing::PrintToString(wrong);
    // Not vacuous: the walk saw the folders and files made above.
    EXPECT_GE(walked, 3u) << created;
  }
}

TEST_F(PrivateFilesTest, ReplacingAFileMakesItPrivate) {
  const fs::path file = root_ / "existing";
  std::ofstream(file) << "old";
  fs::permissions(file, fs::perms(0644));
  const uint8_t bytes[] = {1, 2, 3};
  std::error_code error;
  ASSERT_TRUE(platform::writeFileReplacing(file, bytes, error)) << error.message();
  EXPECT_EQ(modeOf(file), 0600u);
  EXPECT_EQ(fs::file_size(file), 3u);
}

TEST_F(PrivateFilesTest, CreatingFoldersLeavesExistingOnesAlone) {
  const fs::path existing = root_ / "shared";
  fs::create_directory(existing);
  fs::permissions(existing, fs::perms(0755));
  std::error_code error;
  ASSERT_TRUE(platform::createPrivateDirectories(existing / "a" / "b", error)) << error.message();
  EXPECT_EQ(modeOf(existing), 0755u) << "not ours to change";
  EXPECT_EQ(modeOf(existing / "a"), 0700u);
  EXPECT_EQ(modeOf(existing / "a" / "b"), 0700u);
  EXPECT_TRUE(platform::createPrivateDirectories(existing / "a", error)) << "already there";

  std::ofstream(root_ / "file") << "x";
  EXPECT_FALSE(platform::createPrivateDirectories(root_ / "file", error));
  EXPECT_EQ(error, std::make_error_code(std::errc::not_a_directory));
  EXPECT_FALSE(platform::createPrivateDirectories(root_ / "file" / "below", error));
  EXPECT_FALSE(platform::createPrivateDirectories({}, error));
}

}  // namespace
}  // namespace korvel
