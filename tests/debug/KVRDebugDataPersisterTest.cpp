#include <korvel/debug/KVRDebugDataPersister.h>

#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>

#include "debug/DebugTestSupport.h"
#include "support/TestEnv.h"

namespace korvel {
namespace {

namespace fs = std::filesystem;

class KVRDebugDataPersisterTest : public ::testing::Test {
 protected:
  fs::path documents() { return env_.documentsDirectory(); }
  fs::path debugRoot() { return documents() / "DEBUG"; }

  // Every file under the documents directory, relative to it.
  std::vector<std::string> filesUnderDocuments() {
    std::vector<std::string> out;
    for (const auto& e : fs::recursive_directory_iterator(documents())) {
      if (!e.is_directory()) out.push_back(fs::relative(e.path(), documents()).string());
    }
    std::sort(out.begin(), out.end());
    return out;
  }

  static KVNPCMBuffer pcm() {
    KVNPCMBuffer b;
    b.format = {16000, 1, 16, false};
    b.frameLength = 4;
    b.frames = {1, 0, 2, 0, 3, 0, 4, 0};
    return b;
  }

  testing::TestEnv env_;
  platform::ScopedEnv scope_{env_};
  KVRDebugDataPersister persister_;
};

TEST_F(KVRDebugDataPersisterTest, FilesLieInAFolderPerIdentifierWithHyphenatedNames) {
  EXPECT_EQ(KVRDebugDataPersister::debugFilePathForUniqueId("T1", "caf"),
            debugRoot() / "T1" / "T1-caf");

  testing::StubTagResult result;
  result.tag = "T1";
  EXPECT_FALSE(KVRDebugDataPersister::audioFileExistsForTagResultInfo(result));
  ASSERT_TRUE(persister_.persistAudioFile(pcm(), "T1"));
  ASSERT_TRUE(persister_.persistSignatureData({9, 8, 7}, "T1", "sig"));
  EXPECT_TRUE(KVRDebugDataPersister::audioFileExistsForTagResultInfo(result));
  EXPECT_TRUE(KVRDebugDataPersister::signatureFileExistsForTagResultInfo(result));
  EXPECT_EQ(filesUnderDocuments(), (std::vector<std::string>{"DEBUG/T1/T1-caf", "DEBUG/T1/T1-sig"}));

  // The "caf" file is WAVE inside.
  const auto wave = testing::parseWave(testing::readBytes(debugRoot() / "T1" / "T1-caf"));
  ASSERT_TRUE(wave.valid);
  EXPECT_EQ(wave.frameCount(), 4u);
  EXPECT_EQ(wave.sampleRate, 16000u);
  EXPECT_EQ(testing::readBytes(debugRoot() / "T1" / "T1-sig"), (std::vector<uint8_t>{9, 8, 7}));

  // Written again: replaced, not appended.
  ASSERT_TRUE(persister_.persistSignatureData({1}, "T1", "sig"));
  EXPECT_EQ(testing::readBytes(debugRoot() / "T1" / "T1-sig"), (std::vector<uint8_t>{1}));

  result.tag.reset();
  EXPECT_FALSE(KVRDebugDataPersister::audioFileExistsForTagResultInfo(result));
}

TEST_F(KVRDebugDataPersisterTest, IdentifiersNeverWriteOutsideTheDebugFolder) {
  const std::string hostile[] = {"../x", "a/b", "..", ".", "", std::string("a\0b", 3),
                                 "/etc/passwd", "..\\..\\x", "%2F", "~", std::string(300, 'l'),
                                 std::string(100, '/')};
  for (const auto& id : hostile) {
    persister_.persistSignatureData({1}, id, "sig");
    persister_.persistAudioFile(pcm(), id);
  }
  const auto files = filesUnderDocuments();
  for (const auto& f : files) {
    const fs::path p(f);
    EXPECT_EQ(std::distance(p.begin(), p.end()), 3) << f;  // DEBUG/<folder>/<file>
    EXPECT_EQ(*p.begin(), "DEBUG") << f;
  }
  // Refused: "", ".", "..", and the two whose encoded names are too long.
  std::vector<std::string> expected;
  for (const char* folder : {"..%2Fx", "a%2Fb", "a%00b", "%2Fetc%2Fpasswd", "..%5C..%5Cx", "%252F", "%7E"}) {
    for (const char* ext : {"-caf", "-sig"}) {
      expected.push_back(std::string("DEBUG/") + folder + "/" + folder + ext);
    }
  }
  std::sort(expected.begin(), expected.end());
  EXPECT_EQ(files, expected);
}

TEST_F(KVRDebugDataPersisterTest, SafeComponentsEncodeEveryOtherByteAndRefuseDotsAndEmpty) {
  const std::pair<std::string, std::optional<std::string>> cases[] = {
      {"NO_MATCH-2023-11-14-221320", "NO_MATCH-2023-11-14-221320"},
      {"../x", "..%2Fx"}, {"a/b", "a%2Fb"}, {std::string("a\0b", 3), "a%00b"}, {"é", "%C3%A9"},
      {"", std::nullopt}, {".", std::nullopt}, {"..", std::nullopt},
      {std::string(251, 'x'), std::string(251, 'x')}, {std::string(100, '/'), std::nullopt}};
  for (const auto& [id, component] : cases) {
    EXPECT_EQ(KVRDebugDataPersister::safePathComponent(id), component) << id;
  }
  // The file name "<U>-<E>" must fit in 255 bytes too.
  EXPECT_TRUE(KVRDebugDataPersister::debugFilePathForUniqueId(std::string(251, 'x'), "caf"));
  EXPECT_FALSE(KVRDebugDataPersister::debugFilePathForUniqueId(std::string(252, 'x'), "caf"));
}

TEST_F(KVRDebugDataPersisterTest, SymbolicLinksAreNotWrittenThrough) {
  const fs::path outside = documents() / "outside";
  fs::create_directories(outside);
  fs::create_directories(debugRoot());
  fs::create_directory_symlink(outside, debugRoot() / "T2");
  EXPECT_FALSE(persister_.persistSignatureData({1}, "T2", "sig"));
  EXPECT_TRUE(fs::is_empty(outside));

  fs::create_directories(debugRoot() / "T3");
  { std::ofstream(outside / "victim") << "keep"; }
  fs::create_symlink(outside / "victim", debugRoot() / "T3" / "T3-sig");
  EXPECT_FALSE(persister_.persistSignatureData({1}, "T3", "sig"));
  EXPECT_EQ(testing::readBytes(outside / "victim"), (std::vector<uint8_t>{'k', 'e', 'e', 'p'}));
}

TEST_F(KVRDebugDataPersisterTest, CreateMissingDirectories) {
  fs::create_directories(documents() / "existing");
  EXPECT_TRUE(KVRDebugDataPersister::createMissingDirectoriesForPath(documents() / "existing" / "f"));
  EXPECT_EQ(std::distance(fs::directory_iterator(documents() / "existing"), {}), 0);

  EXPECT_TRUE(KVRDebugDataPersister::createMissingDirectoriesForPath(documents() / "a" / "b" / "f"));
  EXPECT_TRUE(fs::is_directory(documents() / "a" / "b"));

  { std::ofstream(documents() / "plain") << "x"; }
  EXPECT_FALSE(
      KVRDebugDataPersister::createMissingDirectoriesForPath(documents() / "plain" / "sub" / "f"));
}

TEST_F(KVRDebugDataPersisterTest, BadAudioWritesNothing) {
  auto bad = pcm();
  bad.format.bitsPerSample = 12;
  EXPECT_FALSE(persister_.persistAudioFile(bad, "T4"));
  EXPECT_FALSE(fs::exists(debugRoot() / "T4" / "T4-caf"));
}

}  // namespace
}  // namespace korvel
