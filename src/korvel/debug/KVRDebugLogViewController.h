// The "Beacon Log" page: every entry of the debug log, newest first (row 0
// is the entry logged last), as its styled text.
//
// It is the log's delegate. An entry added while the overlay is on screen
// is inserted at the top with animation; while the overlay is hidden
// nothing is done, and the table reloads when the overlay shows again.
//
// "Copy" puts a row's styled text on the general pasteboard as rich text
// ("public.rtf", with the plain text beside it). The e-mail button, when
// mail can be sent, composes "Beacons Log" with every entry's e-mail text
// (oldest first) as the body, as a form sheet on large screens; the clear
// button empties the log and reloads.
//
// Main thread only.
#pragma once

#include <korvel/export.h>

#include <memory>
#include <string>
#include <vector>

#include <korvel/debug/KVRDebugTableViewController.h>
#include <korvel/ui/Widgets.h>

namespace korvel {

class KVRDebugLogEntry;
class KVRDebugLogsDataProvider;

class KORVEL_EXPORT KVRDebugLogViewController : public KVRDebugTableViewController,
                                  public KVRDebugOverlayVisibilityObserver {
 public:
  static constexpr const char* kTitle = "Beacon Log";
  static constexpr const char* kEmailSubject = "Beacons Log";
  static constexpr const char* kEmailButtonTitle = "E-mail";
  static constexpr const char* kClearButtonTitle = "Clear";

  explicit KVRDebugLogViewController(std::shared_ptr<KVRDebugLogsDataProvider> dataProvider);
  ~KVRDebugLogViewController() override;

  void viewDidLoad() override;

  const std::shared_ptr<KVRDebugLogsDataProvider>& dataProvider() const { return dataProvider_; }
  // The entry a row shows (row 0: the newest); null past the end.
  std::shared_ptr<const KVRDebugLogEntry> entryAtRow(size_t row) const;

  // Told by the overlay.
  void setOverlayIsVisible(bool visible) override;
  bool overlayIsVisible() const { return overlayIsVisible_; }
  // The log's delegate call (through a small forwarder the log holds
  // weakly).
  void entryAddedToLog();

  ui::Button& emailButton() { return emailButton_; }
  ui::Button& clearButton() { return clearButton_; }
  std::vector<ui::Button*> toolbarButtons() override { return {&emailButton_, &clearButton_}; }
  void emailButtonTapped();
  void clearButtonTapped();
  // Every entry's e-mail text, oldest first.
  std::string emailBody() const;

  size_t numberOfRowsInSection(size_t section) const override;
  ui::TableCell cellForRow(ui::IndexPath indexPath) const override;
  void copyRow(ui::IndexPath indexPath) override;

 private:
  class Forwarder;

  std::shared_ptr<KVRDebugLogsDataProvider> dataProvider_;
  std::shared_ptr<Forwarder> forwarder_;
  bool overlayIsVisible_ = false;
  ui::Button emailButton_{kEmailButtonTitle};
  ui::Button clearButton_{kClearButtonTitle};
};

}  // namespace korvel
