// The journal's file-system seam on the system it runs on (POSIX calls, or
// the Windows API): the answers the journal's fault handling relies on
// (errno values, a lock another handle cannot take, links refused), open
// segments renamed and removed, mapped bytes reaching the file, names in
// UTF-8. The same cases run on Linux and on Windows.
#include <gtest/gtest.h>

#include <errno.h>
#ifdef _WIN32
#include <windows.h>
#endif

#include <algorithm>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

#include <korvel/network/internal/FileSystem.h>
#include <korvel/network/internal/JournalSegmentFiles.h>
#include "support/FolderTest.h"

namespace korvel::network::internal {
namespace {

namespace fs = std::filesystem;

// A symbolic link at link to target; false with the reason when this
// system (or this user) cannot make one.
bool makeLink(const fs::path& target, const fs::path& link, bool folder, std::string& error) {
#ifdef _WIN32
  const DWORD flags =
      (folder ? SYMBOLIC_LINK_FLAG_DIRECTORY : 0) | SYMBOLIC_LINK_FLAG_ALLOW_UNPRIVILEGED_CREATE;
  if (!CreateSymbolicLinkW(link.c_str(), target.c_str(), flags)) {
    error = "CreateSymbolicLinkW failed with error " + std::to_string(GetLastError());
    return false;
  }
  // Wine makes a link it then follows as a plain file: not a reparse point
  // this system could refuse.
  const DWORD attributes = GetFileAttributesW(link.c_str());
  if (attributes == INVALID_FILE_ATTRIBUTES || (attributes & FILE_ATTRIBUTE_REPARSE_POINT) == 0) {
    error = "the link made is not a reparse point";
    return false;
  }
  return true;
#else
  std::error_code ec;
  if (folder) {
    fs::create_directory_symlink(target, link, ec);
  } else {
    fs::create_symlink(target, link, ec);
  }
  error = ec.message();
  return !ec;
#endif
}

class FileSystemTest : public testing::FolderTest {
 protected:
  void SetUp() override {
    FolderTest::SetUp();
    folder_ = files_.openFolder(journal::utf8Text(dir_).c_str());
    ASSERT_GE(folder_, 0) << errno;
  }
  void TearDown() override {
    for (FileHandle file : opened_) files_.close(file);
    if (folder_ >= 0) files_.close(folder_);
    FolderTest::TearDown();
  }

  // Opened, and closed when the test ends.
  FileHandle open(const char* name, OpenFlags flags) {
    const FileHandle file = files_.openAt(folder_, name, flags);
    if (file >= 0) opened_.push_back(file);
    return file;
  }
  void close(FileHandle file) {
    opened_.erase(std::remove(opened_.begin(), opened_.end(), file), opened_.end());
    EXPECT_EQ(files_.close(file), 0);
  }
  void writeFile(const char* name, const std::string& text) {
    std::ofstream out(dir_ / journal::pathOfUTF8(name), std::ios::binary);
    out << text;
  }
  std::string contents(FileHandle file, size_t size) {
    std::string out(size, '\0');
    const int64_t n = files_.readAt(file, out.data(), size, 0);
    out.resize(n < 0 ? 0 : static_cast<size_t>(n));
    return out;
  }

  FileSystem& files_ = systemFileSystem();
  FileHandle folder_ = kNoFile;
  std::vector<FileHandle> opened_;
};

TEST_F(FileSystemTest, OpeningAnswersWithTheErrnoTheJournalHandles) {
  const OpenFlags kRead = OpenFlags::Read;
  const OpenFlags kCreate = OpenFlags::ReadWrite | OpenFlags::Create;
  const OpenFlags kNew = kCreate | OpenFlags::Exclusive;
  struct Case {
    const char* name;
    const char* file;  // what is there first: a file, a folder, nothing
    OpenFlags flags;
    int error;  // 0: opens
  };
  const Case cases[] = {
      {"reading a missing file", nullptr, kRead, ENOENT},
      {"reading a file", "file", kRead, 0},
      {"making a missing file", nullptr, kCreate, 0},
      {"opening to make an existing file", "file", kCreate, 0},
      {"making a new file", nullptr, kNew, 0},
      {"making a new file where one is", "file", kNew, EEXIST},
      {"a file as a folder", "file", OpenFlags::Folder, ENOTDIR},
      {"a folder as a folder", "folder", OpenFlags::Folder, 0},
      {"a missing folder", nullptr, OpenFlags::Folder, ENOENT},
  };
  int n = 0;
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    const std::string name = "case-" + std::to_string(++n);
    if (c.file != nullptr && std::string(c.file) == "file") writeFile(name.c_str(), "x");
    if (c.file != nullptr && std::string(c.file) == "folder") fs::create_directory(dir_ / name);
    errno = 0;
    const FileHandle file = open(name.c_str(), c.flags);
    if (c.error == 0) {
      EXPECT_GE(file, 0) << "errno " << errno;
      FileInfo info;
      EXPECT_EQ(files_.infoAt(folder_, name.c_str(), info), 0);
    } else {
      EXPECT_EQ(file, kNoFile);
      EXPECT_EQ(errno, c.error);
    }
  }
}

TEST_F(FileSystemTest, BytesWrittenAtOffsetsThroughRunsAndAMappingReachTheFile) {
  const FileHandle file = open("seg-1.log", OpenFlags::ReadWrite | OpenFlags::Create | OpenFlags::Exclusive);
  ASSERT_GE(file, 0);
  ASSERT_EQ(files_.writeAt(file, "head", 4, 0), 4);
  const WriteRun runs[] = {{"ab", 2}, {"", 0}, {"cde", 3}};
  ASSERT_EQ(files_.writeRunsAt(file, runs, 3, 4), 5);
  EXPECT_EQ(files_.endOf(file), 9);
  EXPECT_EQ(contents(file, 64), "headabcde");
  char byte = 0;
  EXPECT_EQ(files_.readAt(file, &byte, 1, 100), 0);  // past the end

  // Extended with zeros, mapped, written through the mapping, unmapped and
  // cut back: the handle reads what the mapping wrote.
  const uint64_t page = memoryPageBytes();
  ASSERT_GT(page, 0u);
  ASSERT_EQ(files_.truncate(file, page), 0);
  EXPECT_EQ(files_.endOf(file), static_cast<int64_t>(page));
  EXPECT_EQ(contents(file, 12), std::string("headabcde\0\0\0", 12));
  void* map = files_.mapShared(file, page);
  ASSERT_NE(map, nullptr);
  std::memcpy(static_cast<char*>(map) + 9, "mapped", 6);
  EXPECT_EQ(files_.syncMapped(file, map, page), 0);
  EXPECT_EQ(files_.unmap(map, page), 0);
  ASSERT_EQ(files_.truncate(file, 15), 0);
  EXPECT_EQ(files_.syncData(file), 0);
  EXPECT_EQ(contents(file, 64), "headabcdemapped");
  EXPECT_EQ(files_.syncFolder(folder_), 0);
}

TEST_F(FileSystemTest, AnOpenSegmentCanBeRenamedWhileMappedAndRemovedWhileOpen) {
  const FileHandle file = open("seg-1.log", OpenFlags::ReadWrite | OpenFlags::Create);
  ASSERT_GE(file, 0);
  ASSERT_EQ(files_.truncate(file, memoryPageBytes()), 0);
  void* map = files_.mapShared(file, memoryPageBytes());
  ASSERT_NE(map, nullptr);
  std::memcpy(map, "kept", 4);
  const FileHandle reader = open("seg-1.log", OpenFlags::Read);
  ASSERT_GE(reader, 0);

  // Set aside while open and mapped, into a folder of its own.
  ASSERT_EQ(files_.makeFolderAt(folder_, "aside"), 0);
  const FileHandle aside = open("aside", OpenFlags::Folder);
  ASSERT_GE(aside, 0);
  ASSERT_EQ(files_.renameAt(folder_, "seg-1.log", aside, "seg-1.log.old"), 0) << errno;
  FileInfo info;
  EXPECT_NE(files_.infoAt(folder_, "seg-1.log", info), 0);
  EXPECT_EQ(errno, ENOENT);
  EXPECT_EQ(contents(reader, 4), "kept");

  // Removed once unmapped (Windows removes no mapped file) while still
  // open; the open handles keep working.
  std::memcpy(map, "gone", 4);
  EXPECT_EQ(files_.unmap(map, memoryPageBytes()), 0);
  EXPECT_EQ(files_.removeAt(aside, "seg-1.log.old"), 0) << errno;
  EXPECT_EQ(contents(reader, 4), "gone");
  EXPECT_EQ(files_.writeAt(file, "more", 4, 4), 4);
  close(reader);
  close(file);
  std::vector<std::string> names;
  ASSERT_TRUE(files_.listFolder(aside, names));
  EXPECT_TRUE(names.empty());
  close(aside);
  EXPECT_EQ(files_.removeFolderAt(folder_, "aside"), 0) << errno;
}

TEST_F(FileSystemTest, RenameReplacesTheTargetAndRemovingAFolderNeedsItEmpty) {
  writeFile("epoch", "old");
  writeFile("epoch.tmp", "new");
  ASSERT_EQ(files_.renameAt(folder_, "epoch.tmp", folder_, "epoch"), 0) << errno;
  const FileHandle file = open("epoch", OpenFlags::Read);
  ASSERT_GE(file, 0);
  EXPECT_EQ(contents(file, 16), "new");
  EXPECT_NE(files_.renameAt(folder_, "missing", folder_, "epoch"), 0);
  EXPECT_EQ(errno, ENOENT);

  ASSERT_EQ(files_.makeFolderAt(folder_, "run-1"), 0);
  EXPECT_NE(files_.makeFolderAt(folder_, "run-1"), 0);
  EXPECT_EQ(errno, EEXIST);
  writeFile("run-1/lock", "");
  EXPECT_NE(files_.removeFolderAt(folder_, "run-1"), 0);
  EXPECT_TRUE(errno == ENOTEMPTY || errno == EEXIST) << errno;
  fs::remove(dir_ / "run-1" / "lock");
  EXPECT_EQ(files_.removeFolderAt(folder_, "run-1"), 0);
  EXPECT_NE(files_.removeAt(folder_, "run-1"), 0);
  EXPECT_EQ(errno, ENOENT);
}

TEST_F(FileSystemTest, ALockIsRefusedToAnotherHandleUntilItsHolderCloses) {
  const OpenFlags flags = OpenFlags::ReadWrite | OpenFlags::Create;
  const FileHandle holder = open("lock", flags);
  const FileHandle other = open("lock", flags);
  ASSERT_GE(holder, 0);
  ASSERT_GE(other, 0);
  ASSERT_EQ(files_.lock(holder, false), 0);
  errno = 0;
  EXPECT_EQ(files_.lock(other, false), -1);
  EXPECT_EQ(errno, EWOULDBLOCK);
  close(holder);
  EXPECT_EQ(files_.lock(other, false), 0);
}

TEST_F(FileSystemTest, InformationTellsFilesApartAndFoldersAreMadePrivate) {
  writeFile("a", "12345");
  writeFile("b", "");
  const FileHandle a1 = open("a", OpenFlags::Read);
  const FileHandle a2 = open("a", OpenFlags::Write);
  const FileHandle b = open("b", OpenFlags::Read);
  ASSERT_GE(a1, 0);
  ASSERT_GE(a2, 0);
  ASSERT_GE(b, 0);
  FileInfo infoA1, infoA2, infoB, byName, folder, byPath;
  ASSERT_EQ(files_.info(a1, infoA1), 0);
  ASSERT_EQ(files_.info(a2, infoA2), 0);
  ASSERT_EQ(files_.info(b, infoB), 0);
  ASSERT_EQ(files_.infoAt(folder_, "a", byName), 0);
  EXPECT_EQ(infoA1.type, FileType::Regular);
  EXPECT_EQ(infoA1.size, 5u);
  EXPECT_EQ(infoA1.links, 1u);
  EXPECT_EQ(infoA1.fileNumber, infoA2.fileNumber);
  EXPECT_EQ(infoA1.fileNumber, byName.fileNumber);
  EXPECT_EQ(infoA1.device, byName.device);
  EXPECT_NE(infoA1.fileNumber, infoB.fileNumber);
  EXPECT_GT(byName.modifiedNanos, 1'500'000'000LL * 1'000'000'000);  // after 2017
  EXPECT_NE(files_.infoAt(folder_, "missing", byName), 0);
  EXPECT_EQ(errno, ENOENT);

  ASSERT_EQ(files_.info(folder_, folder), 0);
  ASSERT_EQ(files_.infoOfPath(journal::utf8Text(dir_).c_str(), byPath), 0);
  EXPECT_EQ(folder.type, FileType::Folder);
  EXPECT_EQ(folder.fileNumber, byPath.fileNumber);
  EXPECT_EQ(folder.device, byPath.device);
  EXPECT_FALSE(files_.user().empty());
  EXPECT_EQ(folder.owner, files_.user());
  ASSERT_EQ(files_.makePrivate(folder_), 0);
  ASSERT_EQ(files_.info(folder_, folder), 0);
  EXPECT_FALSE(folder.openToOthers) << folder.access;

  // A new folder is private from the start.
  ASSERT_EQ(files_.makeFolderAt(folder_, "aside"), 0);
  FileInfo aside;
  ASSERT_EQ(files_.infoAt(folder_, "aside", aside), 0);
  EXPECT_EQ(aside.type, FileType::Folder);
  EXPECT_FALSE(aside.openToOthers) << aside.access;
}

TEST_F(FileSystemTest, NamesAreListedInUTF8WithoutDotEntries) {
  const std::vector<std::string> made = {"seg-1.log", "se\xC3\xB1" "al-\xE2\x82\xAC.log", "\xE6\x97\xA5\xE8\xAA\x8C"};
  for (const auto& name : made) {
    const FileHandle file = open(name.c_str(), OpenFlags::Write | OpenFlags::Create | OpenFlags::Exclusive);
    ASSERT_GE(file, 0) << name;
  }
  ASSERT_EQ(files_.makeFolderAt(folder_, "aside"), 0);
  std::vector<std::string> names;
  ASSERT_TRUE(files_.listFolder(folder_, names));
  std::sort(names.begin(), names.end());
  std::vector<std::string> expected = made;
  expected.push_back("aside");
  std::sort(expected.begin(), expected.end());
  EXPECT_EQ(names, expected);
  EXPECT_TRUE(fs::exists(dir_ / journal::pathOfUTF8(made[1])));
}

TEST_F(FileSystemTest, ALinkInTheFolderIsRefusedAndRemovedAsItself) {
  const fs::path outside = dir_ / "outside";
  fs::create_directory(outside);
  std::ofstream(outside / "victim") << "precious";
  std::string error;
  if (!makeLink(outside / "victim", dir_ / "epoch", false, error) ||
      !makeLink(outside, dir_ / "aside", true, error)) {
    GTEST_SKIP() << "this system does not let the test make links: " << error;
  }

  for (const char* name : {"epoch", "aside"}) {
    SCOPED_TRACE(name);
    errno = 0;
    EXPECT_EQ(open(name, OpenFlags::ReadWrite | OpenFlags::Create), kNoFile);
    EXPECT_EQ(errno, ELOOP);
    EXPECT_EQ(open(name, OpenFlags::Folder), kNoFile);
    FileInfo info;
    ASSERT_EQ(files_.infoAt(folder_, name, info), 0);
    EXPECT_EQ(info.type, FileType::Link);
  }
  EXPECT_EQ(files_.removeAt(folder_, "epoch"), 0);
  FileInfo info;
  EXPECT_NE(files_.infoAt(folder_, "epoch", info), 0);
  std::ifstream in(outside / "victim");
  EXPECT_EQ(std::string(std::istreambuf_iterator<char>(in), {}), "precious");
}

}  // namespace
}  // namespace korvel::network::internal
