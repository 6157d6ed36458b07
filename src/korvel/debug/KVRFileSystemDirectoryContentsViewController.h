// The debug files page: everything under <documents>/DEBUG (the recordings
// and signatures KVRDebugDataPersister keeps), one row per file or folder,
// folders before their contents, indented by depth.
//
// Rows can be selected several at a time. Share offers the selected audio
// and signature files (URL text ending in "caf", "sig" or "sff"; folders
// end in "/" and never match) in the share sheet, as copies in a fresh
// <temporary directory>/DEBUG-SHARING whose names turn a trailing "-caf",
// "-sig" or "-sff" into an extension (take-caf is shared as take.caf).
// Clear asks, then deletes the selected entries, or every listed entry when
// none is selected (folders with their contents). Pulling the table down
// reloads it. Share and clear are enabled exactly when there is an entry.
//
// Main thread only.
#pragma once

#include <korvel/export.h>

#include <filesystem>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include <korvel/foundation/KVRParameters.h>
#include <korvel/debug/KVRDebugTableViewController.h>
#include <korvel/ui/Widgets.h>

namespace korvel {

class KORVEL_EXPORT KVRFileSystemDirectoryContentsViewController : public KVRDebugTableViewController {
 public:
  static constexpr const char* kTitle = "Debug Files";
  static constexpr const char* kShareButtonTitle = "Share";
  static constexpr const char* kClearButtonTitle = "Clear";
  static constexpr const char* kSharingDirectoryName = "DEBUG-SHARING";

  static constexpr const char* kNothingToShareTitle = "Error";
  static constexpr const char* kNothingToShareMessage =
      "You need to select at least one audio or sig file";
  static constexpr const char* kOKTitle = "OK";
  static constexpr const char* kDeleteSelectedTitle = "Delete";
  static constexpr const char* kDeleteSelectedMessage =
      "Would you like to delete the selected files/directories? This action can not be undone. "
      "Files within selected directories will also be deleted";
  static constexpr const char* kDeleteAllTitle = "Delete All";
  static constexpr const char* kDeleteAllMessage =
      "Would you like to delete all files? This action can not be undone.";
  static constexpr const char* kCancelTitle = "Cancel";
  static constexpr const char* kDeleteActionTitle = "Delete";

  // Keys of an entry's record.
  static constexpr const char* kPathKey = "path";
  static constexpr const char* kLevelKey = "level";
  static constexpr const char* kIsDirectoryKey = "isDirectory";

  struct Entry {
    // The entry's URL relative to the root, as text: "T1/", "T1/T1-caf"
    // (folders end in "/").
    std::string path;
    // Where it is on disk.
    std::filesystem::path url;
    // 1 for the root's own entries, 2 below them, ...
    int level = 1;
    bool isDirectory = false;
    // {"path", "level", "isDirectory"}.
    KVRParameters record() const;
  };

  KVRFileSystemDirectoryContentsViewController();

  void viewDidLoad() override;
  void viewWillAppear(bool animated) override;

  // <documents>/DEBUG; nothing without a documents directory.
  static std::optional<std::filesystem::path> rootDirectory();
  // The system's temporary directory unless set (tests use their own).
  std::filesystem::path temporaryDirectory() const;
  void setTemporaryDirectory(std::optional<std::filesystem::path> directory) {
    temporaryDirectory_ = std::move(directory);
  }
  std::filesystem::path sharingDirectory() const {
    return temporaryDirectory() / kSharingDirectoryName;
  }

  // Enumerates the root again, reloads the table, sets the buttons and ends
  // the pull-to-refresh spinner.
  void reloadContents();
  const std::vector<Entry>& entries() const { return entries_; }

  ui::Button& shareButton() { return shareButton_; }
  ui::Button& clearButton() { return clearButton_; }
  std::vector<ui::Button*> toolbarButtons() override { return {&shareButton_, &clearButton_}; }
  void shareButtonTapped();
  void clearButtonTapped();

  // Whether a file with this URL text may be shared.
  static bool isShareable(std::string_view urlText);
  // The name a shared copy gets: "take-caf" -> "take.caf"; others as they are.
  static std::string sharedFileName(std::string_view lastPathComponent);

  size_t numberOfRowsInSection(size_t section) const override;
  ui::TableCell cellForRow(ui::IndexPath indexPath) const override;
  void copyRow(ui::IndexPath indexPath) override;

 private:
  std::vector<const Entry*> selectedEntries() const;
  void deleteEntries(const std::vector<std::filesystem::path>& urls);

  std::vector<Entry> entries_;
  std::optional<std::filesystem::path> temporaryDirectory_;
  ui::Button shareButton_{kShareButtonTitle};
  ui::Button clearButton_{kClearButtonTitle};
};

}  // namespace korvel
