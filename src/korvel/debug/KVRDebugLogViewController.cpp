#include <korvel/debug/KVRDebugLogViewController.h>

#include <korvel/debug/KVRDebugLogEntry.h>
#include <korvel/debug/KVRDebugLogsDataProvider.h>
#include <korvel/debug/MailComposer.h>
#include <korvel/ui/Pasteboard.h>
#include <korvel/ui/RichText.h>

namespace korvel {

// The log and the mail composer hold their delegates weakly, so they hold
// this small object rather than the screen; the screen cuts it loose when it
// goes.
class KVRDebugLogViewController::Forwarder final : public KVRDebugLogsDataProviderDelegate,
                                                   public MailComposeDelegate {
 public:
  explicit Forwarder(KVRDebugLogViewController* screen) : screen_(screen) {}
  void detach() { screen_ = nullptr; }

  void entryAddedToLog() override {
    if (screen_) screen_->entryAddedToLog();
  }
  void mailComposeControllerDidFinish(MailComposer&, MailComposeResult,
                                      const std::optional<std::string>&) override {
    if (!screen_) return;
    if (auto presenter = screen_->presenter()) presenter->dismissViewController(true, nullptr);
  }

 private:
  KVRDebugLogViewController* screen_;
};

KVRDebugLogViewController::KVRDebugLogViewController(
    std::shared_ptr<KVRDebugLogsDataProvider> dataProvider)
    : KVRDebugTableViewController(ui::TableViewStyle::Plain),
      dataProvider_(dataProvider ? std::move(dataProvider) : KVRDebugLogsDataProvider::make()),
      forwarder_(std::make_shared<Forwarder>(this)) {
  setTitle(kTitle);
  dataProvider_->setDelegate(forwarder_);
  emailButton_.setImageSystemName("envelope");
  clearButton_.setImageSystemName("trash");
  emailButton_.action = [this] { emailButtonTapped(); };
  clearButton_.action = [this] { clearButtonTapped(); };
}

KVRDebugLogViewController::~KVRDebugLogViewController() { forwarder_->detach(); }

void KVRDebugLogViewController::viewDidLoad() {
  KVRDebugTableViewController::viewDidLoad();
  tableView_.reloadData();
}

std::shared_ptr<const KVRDebugLogEntry> KVRDebugLogViewController::entryAtRow(size_t row) const {
  const auto& entries = dataProvider_->logEntries();
  if (row >= entries.size()) return nullptr;
  return entries[entries.size() - 1 - row];
}

void KVRDebugLogViewController::setOverlayIsVisible(bool visible) {
  overlayIsVisible_ = visible;
  if (!visible) return;
  // Entries logged while hidden were not inserted: catch up in one go.
  loadViewIfNeeded();
  tableView_.reloadData();
}

void KVRDebugLogViewController::entryAddedToLog() {
  if (!overlayIsVisible_ || !isViewLoaded()) return;
  tableView_.insertRows({ui::IndexPath{0, 0}}, ui::TableRowAnimation::Automatic);
}

std::string KVRDebugLogViewController::emailBody() const {
  std::string body;
  for (const auto& entry : dataProvider_->logEntries()) body += entry->emailString();
  return body;
}

void KVRDebugLogViewController::emailButtonTapped() {
  auto factory = mailComposerFactory();
  if (!factory->canSendMail()) return;
  auto presenter = presenterFor("log e-mail");
  if (!presenter) return;
  auto composer = factory->makeComposer();
  if (!composer) return;
  composer->setSubject(kEmailSubject);
  composer->setMessageBody(emailBody(), false);
  composer->setMailComposeDelegate(forwarder_);
  if (presenter->userInterfaceIdiom() == ui::UserInterfaceIdiom::Pad) {
    composer->setModalPresentationStyle(ui::ModalPresentationStyle::FormSheet);
  }
  presenter->presentViewController(composer, composer->modalPresentationStyle(), true, nullptr);
}

void KVRDebugLogViewController::clearButtonTapped() {
  dataProvider_->clearLogEntries();
  tableView_.reloadData();
}

size_t KVRDebugLogViewController::numberOfRowsInSection(size_t section) const {
  return section == 0 ? dataProvider_->logEntries().size() : 0;
}

ui::TableCell KVRDebugLogViewController::cellForRow(ui::IndexPath indexPath) const {
  ui::TableCell cell;
  if (auto entry = entryAtRow(indexPath.row); entry && indexPath.section == 0) {
    cell.attributedText = entry->attributedString();
    cell.text = cell.attributedText->plainText();
  }
  cell.numberOfLines = 0;
  return cell;
}

void KVRDebugLogViewController::copyRow(ui::IndexPath indexPath) {
  auto entry = entryAtRow(indexPath.row);
  if (!entry || indexPath.section != 0) return;
  const ui::StyledText text = entry->attributedString();
  ui::Pasteboard::Item item;
  item.emplace(std::string(ui::kPasteboardTypeRTF),
               dataFromString(ui::rtfFromStyledText(text)));
  // Plain text beside it, for places that cannot paste rich text.
  item.emplace(std::string(ui::kPasteboardTypePlainText),
               dataFromString(text.plainText()));
  ui::Pasteboard::general().setItem(std::move(item));
}

}  // namespace korvel
