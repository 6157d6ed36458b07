#include <korvel/debug/KVRFileSystemDirectoryContentsViewController.h>

#include <gtest/gtest.h>

#include <filesystem>
#include <set>
#include <tuple>
#include <string>
#include <vector>

#include "debug/ScreenTestSupport.h"
#include <korvel/ui/ActivityViewController.h>

namespace korvel {
namespace {

namespace fs = std::filesystem;
using ui::IndexPath;
using Screen = KVRFileSystemDirectoryContentsViewController;

TEST(FileSharingNamesTest, OnlyATrailingHyphenatedExtensionBecomesADot) {
  struct Case {
    const char* name;
    const char* shared;
  };
  const Case cases[] = {
      {"take-caf", "take.caf"}, {"T1-sig", "T1.sig"},        {"x-sff", "x.sff"},
      {"take.caf", "take.caf"}, {"takecaf", "takecaf"},      {"-caf", ".caf"},
      {"a-b-caf", "a-b.caf"},   {"take-caf.txt", "take-caf.txt"}, {"take-wav", "take-wav"},
      {"", ""},
  };
  for (const auto& c : cases) EXPECT_EQ(Screen::sharedFileName(c.name), c.shared) << c.name;

  const std::pair<const char*, bool> shareable[] = {
      {"T1/T1-caf", true}, {"T1/T1-sig", true}, {"a.sff", true}, {"take.caf", true},
      {"T1/", false},      {"notes.txt", false}, {"cafe", false}, {"", false},
  };
  for (const auto& [text, expected] : shareable) {
    EXPECT_EQ(Screen::isShareable(text), expected) << text;
  }
}

class FileBrowserTest : public testing::ScreenTest {
 protected:
  void SetUp() override {
    ScreenTest::SetUp();
    temporary_ = fs::path(env_.documentsDirectory()) / "tmp";
    fs::create_directories(temporary_);
  }
  void TearDown() override {
    screen_.reset();
    ScreenTest::TearDown();
  }

  Screen& open() {
    screen_ = std::make_unique<Screen>();
    screen_->setTemporaryDirectory(temporary_);
    screen_->setPresenter(presenter_);
    screen_->viewWillAppear(false);
    return *screen_;
  }

  // Selects the rows whose relative path is one of paths.
  void select(const std::set<std::string>& paths) {
    const auto& entries = screen_->entries();
    for (size_t row = 0; row < entries.size(); ++row) {
      if (paths.count(entries[row].path)) screen_->tableView().userTapRow({0, row});
    }
  }

  std::vector<std::string> listedPaths() const {
    std::vector<std::string> out;
    for (const auto& e : screen_->entries()) out.push_back(e.path);
    return out;
  }

  fs::path temporary_;
  std::unique_ptr<Screen> screen_;
};

TEST_F(FileBrowserTest, ListsTheDebugFolderDepthFirstWithLevelsAndRecords) {
  writeDebugFile("T1/T1-caf");
  writeDebugFile("T1/T1-sig");
  writeDebugFile("NO_MATCH-x/NO_MATCH-x-caf");
  fs::create_directories(debugRoot() / "T2" / "inner");
  auto& screen = open();

  EXPECT_EQ(listedPaths(),
            (std::vector<std::string>{"NO_MATCH-x/", "NO_MATCH-x/NO_MATCH-x-caf", "T1/",
                                      "T1/T1-caf", "T1/T1-sig", "T2/", "T2/inner/"}));
  const auto& entries = screen.entries();
  EXPECT_EQ(std::tuple(entries[0].level, entries[1].level, entries[6].level), std::tuple(1, 2, 2));
  EXPECT_EQ(std::pair(entries[0].isDirectory, entries[1].isDirectory), std::pair(true, false));
  EXPECT_EQ(entries[3].url, debugRoot() / "T1" / "T1-caf");

  const KVRParameters record = entries[3].record();
  EXPECT_EQ(record.keys(), (std::vector<std::string>{"path", "level", "isDirectory"}));
  EXPECT_EQ(describe(record),
            "{\n    path = T1/T1-caf;\n    level = 2;\n    isDirectory = 0;\n}");

  ASSERT_EQ(screen.tableView().numberOfRowsInSection(0), 7u);
  const auto cell = screen.tableView().cellForRow({0, 3});
  EXPECT_EQ(std::tuple(cell.text, cell.detailText, cell.indentationLevel, cell.imageSystemName),
            std::tuple("T1-caf", "T1/T1-caf", 1, "doc"));
}

TEST_F(FileBrowserTest, ButtonsAreEnabledExactlyWhenSomethingIsListed) {
  auto& screen = open();
  EXPECT_TRUE(screen.entries().empty()) << "no DEBUG folder at all";
  EXPECT_FALSE(screen.shareButton().isEnabled() || screen.clearButton().isEnabled());

  writeDebugFile("T1/T1-caf");
  screen.tableView().refreshControl().userPull();
  EXPECT_FALSE(screen.tableView().refreshControl().isRefreshing()) << "reloading ends the spinner";
  EXPECT_EQ(screen.entries().size(), 2u);
  EXPECT_TRUE(screen.shareButton().isEnabled() && screen.clearButton().isEnabled());
}

TEST_F(FileBrowserTest, SharesSelectedRecordingsAsDottedCopiesAnchoredAtTheButton) {
  writeDebugFile("take/take-caf", "audio");
  writeDebugFile("take/take.caf", "other audio");
  writeDebugFile("take/notes.txt");
  auto& screen = open();
  fs::create_directories(screen.sharingDirectory());
  std::ofstream(screen.sharingDirectory() / "stale-from-before") << "old";
  select({"take/", "take/take-caf", "take/take.caf", "take/notes.txt"});

  screen.shareButton().userTap();
  EXPECT_TRUE(presenter_->alerts.empty());
  ASSERT_EQ(presenter_->presented.size(), 1u);
  auto sheet =
      std::dynamic_pointer_cast<ui::ActivityViewController>(presenter_->presented[0].screen);
  ASSERT_NE(sheet, nullptr);
  EXPECT_EQ(sheet->sourceButton(), &screen.shareButton());
  const fs::path sharing = temporary_ / "DEBUG-SHARING";
  EXPECT_EQ(sheet->activityItems(),
            (std::vector<fs::path>{sharing / "take.caf", sharing / "take.caf"}))
      << "both recordings, in listing order, under their shared names";
  EXPECT_EQ(testing::readBytes(sharing / "take.caf"),
            std::vector<uint8_t>({'o', 't', 'h', 'e', 'r', ' ', 'a', 'u', 'd', 'i', 'o'}))
      << "the later copy of the same name wins";
  EXPECT_FALSE(fs::exists(sharing / "stale-from-before")) << "the folder is made afresh";
  EXPECT_TRUE(fs::exists(debugRoot() / "take" / "take-caf")) << "the original stays";
}

TEST_F(FileBrowserTest, SharingWithoutAnyRecordingSelectedShowsAnErrorAndCopiesNothing) {
  writeDebugFile("T1/notes.txt");
  auto& screen = open();
  for (const std::set<std::string>& selection :
       {std::set<std::string>{}, {"T1/"}, {"T1/", "T1/notes.txt"}}) {
    presenter_->alerts.clear();
    screen.tableView().reloadData();  // clears the selection
    select(selection);
    screen.shareButton().userTap();
    ASSERT_EQ(presenter_->alerts.size(), 1u);
    EXPECT_EQ(testing::alertText(presenter_->alerts[0]),
              "alert: Error: You need to select at least one audio or sig file [OK:default]");
  }
  EXPECT_TRUE(presenter_->presented.empty());
  EXPECT_FALSE(fs::exists(screen.sharingDirectory()));
}

TEST_F(FileBrowserTest, ClearWithNothingSelectedAsksThenDeletesEverythingListed) {
  writeDebugFile("T1/T1-caf");
  writeDebugFile("T2/T2-sig");
  auto& screen = open();
  screen.clearButton().userTap();
  ASSERT_EQ(presenter_->alerts.size(), 1u);
  auto alert = presenter_->alerts[0];
  EXPECT_EQ(testing::alertText(alert),
            "alert: Delete All: Would you like to delete all files? This action can not be "
            "undone. [Cancel:cancel] [Delete:destructive]");
  EXPECT_EQ(screen.entries().size(), 4u) << "nothing goes before the user agrees";

  alert.actions[1].handler();
  EXPECT_TRUE(fs::exists(debugRoot())) << "the root itself stays";
  EXPECT_TRUE(fs::is_empty(debugRoot()));
  EXPECT_TRUE(screen.entries().empty());
  EXPECT_FALSE(screen.clearButton().isEnabled());
}

TEST_F(FileBrowserTest, ClearWithASelectionDeletesOnlyThatWithFolderContents) {
  writeDebugFile("T1/T1-caf");
  writeDebugFile("T1/T1-sig");
  writeDebugFile("T2/T2-caf");
  writeDebugFile("T3/T3-caf");
  auto& screen = open();
  select({"T1/", "T1/T1-sig", "T2/T2-caf"});
  screen.clearButton().userTap();
  ASSERT_EQ(presenter_->alerts.size(), 1u);
  const auto alert = presenter_->alerts[0];
  EXPECT_EQ(testing::alertText(alert),
            "alert: Delete: Would you like to delete the selected files/directories? This action "
            "can not be undone. Files within selected directories will also be deleted "
            "[Cancel:cancel] [Delete:destructive]");
  alert.actions[1].handler();
  EXPECT_EQ(listedPaths(), (std::vector<std::string>{"T2/", "T3/", "T3/T3-caf"}));
}

TEST_F(FileBrowserTest, CancellingTheDeleteKeepsEverything) {
  writeDebugFile("T1/T1-caf");
  auto& screen = open();
  screen.clearButton().userTap();
  ASSERT_EQ(presenter_->alerts.size(), 1u);
  EXPECT_FALSE(presenter_->alerts[0].actions[0].handler) << "Cancel only closes the alert";
  EXPECT_EQ(screen.entries().size(), 2u);
  EXPECT_TRUE(fs::exists(debugRoot() / "T1" / "T1-caf"));
}

TEST_F(FileBrowserTest, WithoutAPresenterNothingIsCopiedOrDeleted) {
  writeDebugFile("T1/T1-caf");
  auto& screen = open();
  screen.setPresenter({});
  select({"T1/T1-caf"});
  screen.shareButton().userTap();
  screen.clearButton().userTap();
  EXPECT_FALSE(fs::exists(screen.sharingDirectory()));
  EXPECT_TRUE(fs::exists(debugRoot() / "T1" / "T1-caf"));
  EXPECT_FALSE(env_.logs().messages().empty()) << "the lost alert is logged";
}

}  // namespace
}  // namespace korvel
