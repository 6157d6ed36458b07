// What 0600 and 0700 are on Linux, on Windows: an access list naming the
// current user alone, protected from the parent folder's.
#include <korvel/platform/Files.h>
#include <korvel/platform/internal/FilesInternal.h>

#include <gtest/gtest.h>

#include <windows.h>
#include <aclapi.h>

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

#include "support/TestEnv.h"

using korvel::platform::internal::pathFromUTF8;
using korvel::platform::internal::replaceFileDurably;
using korvel::platform::internal::utf8FromPath;

namespace korvel::platform {
namespace {

namespace fs = std::filesystem;

struct AccessList {
  bool read = false;
  bool isProtected = false;
  std::vector<bool> entriesForUser;  // one per entry: whether it names the user
};

std::vector<unsigned char> currentUserSid() {
  HANDLE token = nullptr;
  OpenProcessToken(GetCurrentProcess(), TOKEN_QUERY, &token);
  DWORD size = 0;
  GetTokenInformation(token, TokenUser, nullptr, 0, &size);
  std::vector<unsigned char> buffer(size);
  GetTokenInformation(token, TokenUser, buffer.data(), size, &size);
  CloseHandle(token);
  return buffer;
}

AccessList accessListOf(const fs::path& path) {
  AccessList out;
  PACL dacl = nullptr;
  PSECURITY_DESCRIPTOR descriptor = nullptr;
  if (GetNamedSecurityInfoW(path.c_str(), SE_FILE_OBJECT, DACL_SECURITY_INFORMATION, nullptr,
                            nullptr, &dacl, nullptr, &descriptor) != ERROR_SUCCESS) {
    return out;
  }
  const auto user = currentUserSid();
  PSID userSid = reinterpret_cast<const TOKEN_USER*>(user.data())->User.Sid;
  SECURITY_DESCRIPTOR_CONTROL control = 0;
  DWORD revision = 0;
  GetSecurityDescriptorControl(descriptor, &control, &revision);
  out.isProtected = (control & SE_DACL_PROTECTED) != 0;
  out.read = dacl != nullptr;
  for (DWORD i = 0; dacl != nullptr && i < dacl->AceCount; ++i) {
    void* ace = nullptr;
    GetAce(dacl, i, &ace);
    auto* allowed = static_cast<ACCESS_ALLOWED_ACE*>(ace);
    out.entriesForUser.push_back(allowed->Header.AceType == ACCESS_ALLOWED_ACE_TYPE &&
                                 EqualSid(&allowed->SidStart, userSid));
  }
  LocalFree(descriptor);
  return out;
}

// Wine answers the security calls but shows, for most files, a list made
// from the Unix mode bits rather than the one set.
bool runningUnderWine() {
  return GetProcAddress(GetModuleHandleW(L"ntdll.dll"), "wine_get_version") != nullptr;
}

class FilesTest : public ::testing::Test {
 protected:
  void SetUp() override {
    root_ = testing::makeTemporaryFolder("korvel-files");
    ASSERT_FALSE(root_.empty());
  }
  // For the cases that read the lists back.
  void skipUnlessListsAreKept() {
    if (runningUnderWine()) {
      GTEST_SKIP() << "Wine does not show the access lists set on files and folders";
    }
  }
  void TearDown() override {
    std::error_code ec;
    fs::remove_all(root_, ec);
  }
  fs::path root_;
};

TEST_F(FilesTest, FoldersAndFilesTheLibraryMakesAreTheUsersAlone) {
  skipUnlessListsAreKept();
  if (IsSkipped()) return;
  const fs::path folder = root_ / pathFromUTF8("caf\xC3\xA9") / "journal";
  std::error_code ec;
  ASSERT_TRUE(createPrivateDirectories(folder, ec)) << ec.message();
  const std::string text = "content";
  const std::span<const uint8_t> bytes(reinterpret_cast<const uint8_t*>(text.data()), text.size());
  ASSERT_TRUE(writeFileReplacing(folder / "written", bytes, ec)) << ec.message();
  std::string error;
  ASSERT_TRUE(replaceFileDurably(folder / "replaced", "content", error)) << error;
  // An existing file with the inherited list is made private by a rewrite.
  { std::ofstream(root_ / "existing") << "old"; }
  ASSERT_TRUE(writeFileReplacing(root_ / "existing", bytes, ec)) << ec.message();

  for (const fs::path& made : {root_ / pathFromUTF8("caf\xC3\xA9"), folder, folder / "written",
                               folder / "replaced", root_ / "existing"}) {
    SCOPED_TRACE(utf8FromPath(made));
    const AccessList list = accessListOf(made);
    ASSERT_TRUE(list.read);
    EXPECT_TRUE(list.isProtected) << "the parent's entries must not apply";
    EXPECT_EQ(list.entriesForUser, std::vector<bool>{true});
  }
  EXPECT_EQ(readFileContents(folder / "replaced").value_or(Data{}).size(), text.size());
  EXPECT_EQ(readFileContents(root_ / "existing").value_or(Data{}).size(), text.size());
}

TEST_F(FilesTest, AFileOrNothingIsNoPrivateFolder) {
  { std::ofstream(root_ / "plain") << "x"; }
  EXPECT_EQ(unsafePrivateDirectory(root_ / "plain"), "not a folder");
  EXPECT_TRUE(unsafePrivateDirectory(root_ / "missing").has_value());
  fs::create_directories(root_ / "mine");
  EXPECT_EQ(unsafePrivateDirectory(root_ / "mine"), std::nullopt);
}

TEST_F(FilesTest, AnOpenFolderOfTheUsersIsMadePrivate) {
  skipUnlessListsAreKept();
  if (IsSkipped()) return;
  fs::create_directories(root_ / "open");
  EXPECT_EQ(unsafePrivateDirectory(root_ / "open"), std::nullopt);
  const AccessList list = accessListOf(root_ / "open");
  EXPECT_TRUE(list.isProtected);
  EXPECT_EQ(list.entriesForUser, std::vector<bool>{true});
}

TEST_F(FilesTest, AFailedReplacementLeavesTheOldFileAndNoTemporary) {
  std::string error;
  ASSERT_TRUE(replaceFileDurably(root_ / "store.json", "old", error)) << error;
  fs::create_directories(root_ / "blocked.json" / "inside");
  EXPECT_FALSE(replaceFileDurably(root_ / "blocked.json", "new", error));
  EXPECT_NE(error.find("cannot rename"), std::string::npos) << error;
  std::vector<std::string> names;
  for (const auto& e : fs::directory_iterator(root_)) names.push_back(e.path().filename().string());
  std::sort(names.begin(), names.end());
  EXPECT_EQ(names, (std::vector<std::string>{"blocked.json", "store.json"}));
}

}  // namespace
}  // namespace korvel::platform
