// The "Tag Result" page: the tag result the application shows (or the last
// no-match), rebuilt whenever updateTagResult() gives a new one.
//
//   "Tag Metadata"   "No Match" alone when the track id (or its unknown
//                    marker) is "NO_MATCH"; otherwise "Tag ID" (when there
//                    is one), "Track ID", "Album Art URL", then "Tag Date"
//                    (long date and long time in the user's locale and time
//                    zone) when the result has a date
//   "Sync Metadata"  "Provider ID", "Provider Name"; only with a sync
//                    provider id
//
// Each row shows its title and, as detail, its value. When the debug data
// persister holds the attempt's audio or signature file, a player is
// prepared for the recording and the play button shows: play starts from
// the beginning and turns it into a stop button; stop (or the end of the
// recording) turns it back. The e-mail button hands the result to a
// KVRDebugEmailManager. "Copy" puts a row's value (its title when it has
// none) on the general pasteboard.
//
// The page follows the debug notifications itself: a displayed tag result,
// a no-match (a KVRNoMatchTagInfo of the posted date, or now) and a closed
// result (none). They may be posted on any thread; the page updates on the
// main queue.
//
// Main thread only.
#pragma once

#include <korvel/export.h>

#include <memory>
#include <optional>
#include <string>
#include <vector>

#include <korvel/debug/KVRDebugTableViewController.h>
#include <korvel/ui/AudioPlayer.h>
#include <korvel/platform/NotificationCenter.h>
#include <korvel/ui/Widgets.h>

namespace korvel {

class KVRDebugEmailManager;
class KVRTagResultInfo;

class KORVEL_EXPORT KVRDebugTagInfoTableViewController : public KVRDebugTableViewController {
 public:
  static constexpr const char* kTitle = "Tag Result";
  static constexpr const char* kTagMetadataSectionTitle = "Tag Metadata";
  static constexpr const char* kSyncMetadataSectionTitle = "Sync Metadata";
  static constexpr const char* kNoMatchRowTitle = "No Match";
  static constexpr const char* kTagIDRowTitle = "Tag ID";
  static constexpr const char* kTrackIDRowTitle = "Track ID";
  static constexpr const char* kAlbumArtURLRowTitle = "Album Art URL";
  static constexpr const char* kTagDateRowTitle = "Tag Date";
  static constexpr const char* kProviderIDRowTitle = "Provider ID";
  static constexpr const char* kProviderNameRowTitle = "Provider Name";
  static constexpr const char* kNoMatchTrackID = "NO_MATCH";

  static constexpr const char* kPlayTitle = "Play";
  static constexpr const char* kPlayImage = "play.fill";
  static constexpr const char* kStopTitle = "Stop";
  static constexpr const char* kStopImage = "stop.fill";
  static constexpr const char* kEmailButtonTitle = "E-mail";
  static constexpr const char* kEmailButtonImage = "envelope";

  struct Row {
    std::string title;
    std::optional<std::string> value;
    friend bool operator==(const Row&, const Row&) = default;
  };
  struct Section {
    std::string title;
    std::vector<Row> rows;
    friend bool operator==(const Section&, const Section&) = default;
  };

  // Starts with the result the debug message center shows now, if any.
  KVRDebugTagInfoTableViewController();
  ~KVRDebugTagInfoTableViewController() override;

  void viewDidLoad() override;

  void updateTagResult(std::shared_ptr<const KVRTagResultInfo> tagResult);
  const std::shared_ptr<const KVRTagResultInfo>& tagResult() const { return tagResult_; }
  const std::vector<Section>& sections() const { return sections_; }
  // The sections for a result (none without one).
  static std::vector<Section> sectionsForTagResult(const KVRTagResultInfo* tagResult);

  // Shown when the attempt has an audio or a signature file; enabled when a
  // player could be prepared.
  ui::Button& playButton() { return playButton_; }
  ui::Button& emailButton() { return emailButton_; }
  std::vector<ui::Button*> toolbarButtons() override { return {&playButton_, &emailButton_}; }
  void playButtonTapped();
  void emailButtonTapped();
  ui::AudioPlayer* audioPlayer() const { return audioPlayer_.get(); }
  bool isPlaying() const { return playing_; }
  // The manager of the last e-mail, kept while the composer is up.
  const std::shared_ptr<KVRDebugEmailManager>& emailManager() const { return emailManager_; }

  size_t numberOfSections() const override { return sections_.size(); }
  size_t numberOfRowsInSection(size_t section) const override;
  ui::TableCell cellForRow(ui::IndexPath indexPath) const override;
  std::optional<std::string> titleForHeaderInSection(size_t section) const override;
  void copyRow(ui::IndexPath indexPath) override;

 private:
  class Forwarder;

  void prepareAudioPlayer();
  void showPlayButton(bool playing);
  void observe(std::string_view name);

  std::shared_ptr<const KVRTagResultInfo> tagResult_;
  std::vector<Section> sections_;
  std::unique_ptr<ui::AudioPlayer> audioPlayer_;
  bool playing_ = false;
  std::shared_ptr<KVRDebugEmailManager> emailManager_;
  ui::Button playButton_{kPlayTitle};
  ui::Button emailButton_{kEmailButtonTitle};
  std::shared_ptr<Forwarder> forwarder_;
  std::vector<platform::ObserverRegistration> observers_;
};

}  // namespace korvel
