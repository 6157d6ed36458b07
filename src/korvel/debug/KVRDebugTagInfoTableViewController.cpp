#include <korvel/debug/KVRDebugTagInfoTableViewController.h>

#include <any>

#include <korvel/beacon/KVRConstants.h>
#include <korvel/beacon/KVRLogging.h>
#include <korvel/debug/KVRDebugDataPersister.h>
#include <korvel/debug/KVRDebugEmailManager.h>
#include <korvel/debug/KVRDebugMessageCenter.h>
#include <korvel/platform/Env.h>
#include <korvel/debug/Locale.h>
#include <korvel/platform/Logging.h>
#include <korvel/ui/MainQueue.h>
#include <korvel/ui/Pasteboard.h>
#include <korvel/reporters/KVRTaggingReporter.h>
#include <korvel/ui/UIEnv.h>

namespace korvel {

namespace {

template <class T>
std::shared_ptr<const T> sharedObject(const std::any& object) {
  if (auto p = std::any_cast<std::shared_ptr<const T>>(&object)) return *p;
  if (auto p = std::any_cast<std::shared_ptr<T>>(&object)) return *p;
  return nullptr;
}

// The tag result a debug notification announces; null for a closed result
// (and for a displayed result whose object is not one).
std::shared_ptr<const KVRTagResultInfo> resultOfNotification(std::string_view name,
                                                             const std::any& object) {
  if (name == KVRDebugMessageDisplayingTagResultNotification) {
    if (auto result = sharedObject<KVRTagResultInfo>(object)) return result;
    return sharedObject<KVRNoMatchTagInfo>(object);
  }
  if (name == KVRDebugMessageDisplayingNoMatchNotification) {
    if (const KVRDate* date = std::any_cast<KVRDate>(&object)) {
      return std::make_shared<const KVRNoMatchTagInfo>(*date);
    }
    return std::make_shared<const KVRNoMatchTagInfo>();
  }
  return nullptr;
}

}  // namespace

// Queued notification work and the player's end-of-playback callback hold
// this weakly, so they do nothing once the screen is gone.
class KVRDebugTagInfoTableViewController::Forwarder {
 public:
  explicit Forwarder(KVRDebugTagInfoTableViewController* screen) : screen_(screen) {}
  void detach() { screen_ = nullptr; }
  KVRDebugTagInfoTableViewController* screen() const { return screen_; }

 private:
  KVRDebugTagInfoTableViewController* screen_;
};

KVRDebugTagInfoTableViewController::KVRDebugTagInfoTableViewController()
    : KVRDebugTableViewController(ui::TableViewStyle::Grouped),
      forwarder_(std::make_shared<Forwarder>(this)) {
  setTitle(kTitle);
  playButton_.setImageSystemName(kPlayImage);
  emailButton_.setImageSystemName(kEmailButtonImage);
  playButton_.action = [this] { playButtonTapped(); };
  emailButton_.action = [this] { emailButtonTapped(); };
  observe(KVRDebugMessageDisplayingTagResultNotification);
  observe(KVRDebugMessageDisplayingNoMatchNotification);
  observe(KVRDebugMessageClosedMatchResultNotification);

  std::shared_ptr<const KVRTagResultInfo> current;
  if (auto center = KVRDebugMessageCenter::defaultCenter()) current = center->tagResult();
  updateTagResult(std::move(current));
}

KVRDebugTagInfoTableViewController::~KVRDebugTagInfoTableViewController() {
  // Observers first: once they are gone no handler runs on any thread.
  observers_.clear();
  forwarder_->detach();
  if (audioPlayer_) {
    audioPlayer_->finishedPlaying = nullptr;
    if (audioPlayer_->isPlaying()) audioPlayer_->stop();
  }
}

void KVRDebugTagInfoTableViewController::observe(std::string_view name) {
  auto& center = platform::env().notificationCenter();
  const std::weak_ptr<Forwarder> weak = forwarder_;
  auto token = center.addObserver(
      std::string(name), [weak](const platform::Notification& notification) {
        // Posted on any thread; the screen changes on the main queue only.
        auto result = resultOfNotification(notification.name, notification.object);
        ui::uiEnv().mainQueue().async([weak, result = std::move(result)]() mutable {
          auto forwarder = weak.lock();
          if (forwarder && forwarder->screen()) forwarder->screen()->updateTagResult(std::move(result));
        });
      });
  observers_.emplace_back(center, token);
}

void KVRDebugTagInfoTableViewController::viewDidLoad() {
  KVRDebugTableViewController::viewDidLoad();
  tableView_.reloadData();
}

std::vector<KVRDebugTagInfoTableViewController::Section>
KVRDebugTagInfoTableViewController::sectionsForTagResult(const KVRTagResultInfo* result) {
  if (!result) return {};
  Section metadata{kTagMetadataSectionTitle, {}};
  if (result->trackIDOrUnknown() == kNoMatchTrackID) {
    metadata.rows.push_back(Row{kNoMatchRowTitle, std::nullopt});
  } else {
    if (auto tagID = result->tagID()) metadata.rows.push_back(Row{kTagIDRowTitle, tagID});
    metadata.rows.push_back(Row{kTrackIDRowTitle, result->trackIDOrUnknown()});
    std::optional<std::string> albumArt;
    if (auto endpoint = result->albumArtEndpoint()) albumArt = endpoint->urlString();
    metadata.rows.push_back(Row{kAlbumArtURLRowTitle, albumArt});
    if (auto date = result->date()) {
      metadata.rows.push_back(Row{kTagDateRowTitle,
                                  formatDate(date->secondsSince1970,
                                                       DateFormatStyle::Long,
                                                       DateFormatStyle::Long)});
    }
  }
  std::vector<Section> sections{std::move(metadata)};
  if (auto providerID = result->syncProviderID()) {
    sections.push_back(Section{kSyncMetadataSectionTitle,
                               {Row{kProviderIDRowTitle, providerID},
                                Row{kProviderNameRowTitle, result->syncProviderName()}}});
  }
  return sections;
}

void KVRDebugTagInfoTableViewController::updateTagResult(
    std::shared_ptr<const KVRTagResultInfo> tagResult) {
  tagResult_ = std::move(tagResult);
  sections_ = sectionsForTagResult(tagResult_.get());
  emailButton_.setEnabled(tagResult_ != nullptr);
  prepareAudioPlayer();
  tableView_.reloadData();
}

void KVRDebugTagInfoTableViewController::prepareAudioPlayer() {
  if (audioPlayer_) {
    audioPlayer_->finishedPlaying = nullptr;
    if (audioPlayer_->isPlaying()) audioPlayer_->stop();
    audioPlayer_.reset();
  }
  const bool hasFiles = tagResult_ && (KVRDebugDataPersister::audioFileExistsForTagResultInfo(*tagResult_) ||
                                       KVRDebugDataPersister::signatureFileExistsForTagResultInfo(*tagResult_));
  playButton_.setHidden(!hasFiles);
  if (hasFiles) {
    const auto path = KVRDebugDataPersister::debugFilePathForUniqueId(
        tagResult_->tagID().value_or(""), KVRDebugDataPersister::kAudioExtension);
    if (path) audioPlayer_ = ui::uiEnv().makeAudioPlayer(path->string());
    if (audioPlayer_) {
      audioPlayer_->finishedPlaying = [weak = std::weak_ptr<Forwarder>(forwarder_)] {
        auto forwarder = weak.lock();
        if (forwarder && forwarder->screen()) forwarder->screen()->showPlayButton(false);
      };
    }
  }
  // Only a recording that could be prepared can play (a signature alone
  // has nothing to hear).
  playButton_.setEnabled(audioPlayer_ != nullptr);
  showPlayButton(false);
}

void KVRDebugTagInfoTableViewController::showPlayButton(bool playing) {
  playing_ = playing;
  playButton_.setTitle(playing ? kStopTitle : kPlayTitle);
  playButton_.setImageSystemName(playing ? kStopImage : kPlayImage);
}

void KVRDebugTagInfoTableViewController::playButtonTapped() {
  if (!audioPlayer_) return;
  if (audioPlayer_->isPlaying()) {
    audioPlayer_->stop();
    showPlayButton(false);
    return;
  }
  audioPlayer_->setCurrentTime(0);
  if (audioPlayer_->play()) {
    showPlayButton(true);
  } else {
    platform::Logger(KVRLogging::subsystem(), "Debug")
        .log(platform::LogLevel::Error, "Cannot play the recording of this tag");
    showPlayButton(false);
  }
}

void KVRDebugTagInfoTableViewController::emailButtonTapped() {
  if (!tagResult_) return;
  auto presenter = presenterFor("tag e-mail");
  if (!presenter) return;
  emailManager_ = KVRDebugEmailManager::make(tagResult_, presenter);
  emailManager_->emailDebugInfo();
}

size_t KVRDebugTagInfoTableViewController::numberOfRowsInSection(size_t section) const {
  return section < sections_.size() ? sections_[section].rows.size() : 0;
}

ui::TableCell KVRDebugTagInfoTableViewController::cellForRow(
    ui::IndexPath indexPath) const {
  ui::TableCell cell;
  if (indexPath.section >= sections_.size()) return cell;
  const auto& rows = sections_[indexPath.section].rows;
  if (indexPath.row >= rows.size()) return cell;
  cell.text = rows[indexPath.row].title;
  cell.detailText = rows[indexPath.row].value;
  cell.numberOfLines = 0;
  return cell;
}

std::optional<std::string> KVRDebugTagInfoTableViewController::titleForHeaderInSection(
    size_t section) const {
  if (section >= sections_.size()) return std::nullopt;
  return sections_[section].title;
}

void KVRDebugTagInfoTableViewController::copyRow(ui::IndexPath indexPath) {
  if (indexPath.section >= sections_.size()) return;
  const auto& rows = sections_[indexPath.section].rows;
  if (indexPath.row >= rows.size()) return;
  const Row& row = rows[indexPath.row];
  ui::Pasteboard::general().setString(row.value.value_or(row.title));
}

}  // namespace korvel
