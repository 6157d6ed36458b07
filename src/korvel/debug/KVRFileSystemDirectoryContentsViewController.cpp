#include <korvel/debug/KVRFileSystemDirectoryContentsViewController.h>

#include <algorithm>
#include <system_error>

#include <korvel/beacon/KVRLogging.h>
#include <korvel/debug/KVRDebugDataPersister.h>
#include <korvel/ui/ActivityViewController.h>
#include <korvel/platform/Env.h>
#include <korvel/platform/Files.h>
#include <korvel/platform/Logging.h>
#include <korvel/ui/Pasteboard.h>

namespace korvel {

namespace fs = std::filesystem;

namespace {

constexpr std::string_view kShareableSuffixes[] = {"caf", "sig", "sff"};

platform::Logger debugLogger() { return platform::Logger(KVRLogging::subsystem(), "Debug"); }

// Pre-order, names sorted within each folder so the listing is stable.
// Symbolic links are listed but never followed.
void enumerate(const fs::path& directory, const std::string& prefix, int level,
               std::vector<KVRFileSystemDirectoryContentsViewController::Entry>& out) {
  std::error_code error;
  std::vector<fs::directory_entry> children;
  for (fs::directory_iterator it(directory, error), end; !error && it != end; it.increment(error)) {
    children.push_back(*it);
  }
  std::sort(children.begin(), children.end(),
            [](const auto& a, const auto& b) { return a.path().filename() < b.path().filename(); });
  for (const auto& child : children) {
    const bool isDirectory = child.is_directory(error) && !child.is_symlink(error);
    const std::string name = child.path().filename().string();
    KVRFileSystemDirectoryContentsViewController::Entry entry;
    entry.path = prefix + name + (isDirectory ? "/" : "");
    entry.url = child.path();
    entry.level = level;
    entry.isDirectory = isDirectory;
    out.push_back(entry);
    if (isDirectory) enumerate(child.path(), entry.path, level + 1, out);
  }
}

}  // namespace

KVRParameters KVRFileSystemDirectoryContentsViewController::Entry::record() const {
  KVRParameters record;
  record.set(kPathKey, path);
  record.set(kLevelKey, level);
  record.set(kIsDirectoryKey, isDirectory);
  return record;
}

KVRFileSystemDirectoryContentsViewController::KVRFileSystemDirectoryContentsViewController()
    : KVRDebugTableViewController(ui::TableViewStyle::Plain) {
  setTitle(kTitle);
  tableView_.setAllowsMultipleSelection(true);
  shareButton_.setImageSystemName("square.and.arrow.up");
  clearButton_.setImageSystemName("trash");
  shareButton_.action = [this] { shareButtonTapped(); };
  clearButton_.action = [this] { clearButtonTapped(); };
  shareButton_.setEnabled(false);
  clearButton_.setEnabled(false);
}

void KVRFileSystemDirectoryContentsViewController::viewDidLoad() {
  KVRDebugTableViewController::viewDidLoad();
  tableView_.refreshControl().valueChanged = [this] { reloadContents(); };
  reloadContents();
}

void KVRFileSystemDirectoryContentsViewController::viewWillAppear(bool animated) {
  const bool firstLoad = !isViewLoaded();
  KVRDebugTableViewController::viewWillAppear(animated);
  // Recordings come and go while the overlay is closed.
  if (!firstLoad) reloadContents();
}

std::optional<fs::path> KVRFileSystemDirectoryContentsViewController::rootDirectory() {
  return KVRDebugDataPersister::debugDirectory();
}

fs::path KVRFileSystemDirectoryContentsViewController::temporaryDirectory() const {
  if (temporaryDirectory_) return *temporaryDirectory_;
  std::error_code error;
  fs::path temporary = fs::temp_directory_path(error);
  return error ? fs::path("/tmp") : temporary;
}

void KVRFileSystemDirectoryContentsViewController::reloadContents() {
  entries_.clear();
  if (auto root = rootDirectory()) enumerate(*root, "", 1, entries_);
  tableView_.reloadData();
  const bool any = !entries_.empty();
  shareButton_.setEnabled(any);
  clearButton_.setEnabled(any);
  tableView_.refreshControl().endRefreshing();
}

std::vector<const KVRFileSystemDirectoryContentsViewController::Entry*>
KVRFileSystemDirectoryContentsViewController::selectedEntries() const {
  std::vector<const Entry*> selected;
  for (const auto& indexPath : tableView_.indexPathsForSelectedRows()) {
    if (indexPath.section == 0 && indexPath.row < entries_.size()) {
      selected.push_back(&entries_[indexPath.row]);
    }
  }
  return selected;
}

bool KVRFileSystemDirectoryContentsViewController::isShareable(std::string_view urlText) {
  return std::any_of(std::begin(kShareableSuffixes), std::end(kShareableSuffixes),
                     [urlText](std::string_view suffix) { return urlText.ends_with(suffix); });
}

std::string KVRFileSystemDirectoryContentsViewController::sharedFileName(
    std::string_view lastPathComponent) {
  std::string name(lastPathComponent);
  for (std::string_view suffix : kShareableSuffixes) {
    if (name.size() > suffix.size() && name.ends_with(suffix) &&
        name[name.size() - suffix.size() - 1] == '-') {
      name[name.size() - suffix.size() - 1] = '.';
      break;
    }
  }
  return name;
}

void KVRFileSystemDirectoryContentsViewController::shareButtonTapped() {
  std::vector<const Entry*> chosen;
  for (const Entry* entry : selectedEntries()) {
    if (isShareable(entry->path)) chosen.push_back(entry);
  }
  auto presenter = presenterFor("share sheet");
  if (!presenter) return;
  if (chosen.empty()) {
    ui::Alert alert{kNothingToShareTitle, kNothingToShareMessage,
                          ui::AlertStyle::Alert,
                          {ui::AlertAction{kOKTitle, ui::AlertActionStyle::Default, {}}}};
    presenter->presentAlert(std::move(alert), true, nullptr);
    return;
  }

  // A fresh folder each time, so nothing of an earlier share goes along.
  const fs::path sharing = sharingDirectory();
  std::error_code error;
  fs::remove_all(sharing, error);
  platform::createPrivateDirectories(sharing, error);
  if (error) {
    debugLogger().log(platform::LogLevel::Error,
                      "Cannot make " + sharing.string() + ": " + error.message());
    return;
  }
  std::vector<fs::path> copies;
  for (const Entry* entry : chosen) {
    const fs::path copy = sharing / sharedFileName(entry->url.filename().string());
    std::error_code copyError;
    fs::copy_file(entry->url, copy, fs::copy_options::overwrite_existing, copyError);
    if (copyError) {
      debugLogger().log(platform::LogLevel::Error,
                        "Cannot copy " + entry->url.string() + ": " + copyError.message());
      continue;
    }
    copies.push_back(copy);
  }
  if (copies.empty()) return;
  auto sheet = std::make_shared<ui::ActivityViewController>(std::move(copies));
  sheet->setSourceButton(&shareButton_);
  presenter->presentViewController(std::move(sheet), ui::ModalPresentationStyle::Automatic,
                                   true, nullptr);
}

void KVRFileSystemDirectoryContentsViewController::clearButtonTapped() {
  auto presenter = presenterFor("delete alert");
  if (!presenter) return;
  std::vector<fs::path> targets;
  for (const Entry* entry : selectedEntries()) targets.push_back(entry->url);
  const bool all = targets.empty();
  if (all) {
    for (const auto& entry : entries_) targets.push_back(entry.url);
  }
  // The list is taken now: what the user saw when asked is what goes.
  ui::Alert alert{all ? kDeleteAllTitle : kDeleteSelectedTitle,
                        all ? kDeleteAllMessage : kDeleteSelectedMessage,
                        ui::AlertStyle::Alert,
                        {ui::AlertAction{kCancelTitle, ui::AlertActionStyle::Cancel, {}},
                         ui::AlertAction{kDeleteActionTitle,
                                               ui::AlertActionStyle::Destructive,
                                               [this, targets] { deleteEntries(targets); }}}};
  presenter->presentAlert(std::move(alert), true, nullptr);
}

void KVRFileSystemDirectoryContentsViewController::deleteEntries(const std::vector<fs::path>& urls) {
  for (const auto& url : urls) {
    std::error_code error;
    // Folders go with their contents; entries inside a folder removed just
    // before are simply gone already.
    fs::remove_all(url, error);
    if (error) {
      debugLogger().log(platform::LogLevel::Error,
                        "Cannot delete " + url.string() + ": " + error.message());
    }
  }
  reloadContents();
}

size_t KVRFileSystemDirectoryContentsViewController::numberOfRowsInSection(size_t section) const {
  return section == 0 ? entries_.size() : 0;
}

ui::TableCell KVRFileSystemDirectoryContentsViewController::cellForRow(
    ui::IndexPath indexPath) const {
  ui::TableCell cell;
  if (indexPath.section != 0 || indexPath.row >= entries_.size()) return cell;
  const Entry& entry = entries_[indexPath.row];
  cell.text = entry.url.filename().string();
  cell.detailText = entry.path;
  cell.indentationLevel = entry.level - 1;
  cell.imageSystemName = entry.isDirectory ? "folder" : "doc";
  return cell;
}

void KVRFileSystemDirectoryContentsViewController::copyRow(ui::IndexPath indexPath) {
  if (indexPath.section != 0 || indexPath.row >= entries_.size()) return;
  ui::Pasteboard::general().setString(entries_[indexPath.row].url.string());
}

}  // namespace korvel
