// The entries of the debug beacon log: every submitted beacon, every URL the
// host opened and every in-app upsell offer shown, each with a styled text
// for the log viewer and a plain text for e-mail.
//
// Entries are immutable; their texts are built when asked for (by the viewer
// or an e-mail), never when the entry is logged.
#pragma once

#include <korvel/export.h>

#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include <korvel/foundation/KVRParameters.h>
#include <korvel/ui/StyledText.h>

namespace korvel {

class KVRReliableNetworkingTask;

enum KVRDebugLogEntryType : int {
  KVRDebugLogEntryTypeBeacon = 0,
  KVRDebugLogEntryTypeURL = 1,
  KVRDebugLogEntryTypeInAppUpsellOptions = 2,
};

class KORVEL_EXPORT KVRDebugLogEntry {
 public:
  virtual ~KVRDebugLogEntry() = default;
  virtual int type() const = 0;
  // The entry as the log viewer shows it.
  virtual ui::StyledText attributedString() const = 0;
  // The entry as a debug e-mail carries it; ends with three line breaks.
  virtual std::string emailString() const = 0;
};

// A submitted beacon. Text:
//   <event>\n                            heavy 14 (only when there is an event)
//   <key> = <value>\n ...                the caller's parameters, 13
//   \n                                   regular 13
//   <key> = <value>\n ...                the common parameters, 10
//   clientcreationtimestamp = <t>\n      10
//   clientbeaconuuid = <uuid>\n          10
//   inid = <captured inid>               10, "\n" only when the inid expired
//   expiredinid = 1                      10, only when the inid expired
// Keys sort case-insensitively; keys are semibold, " = value" regular. The
// inid shown is the one captured at creation (debugInid), unresolved.
// E-mail: the record's dictionary representation, described, then "\n\n\n".
class KORVEL_EXPORT KVRDebugLogBeaconEntry final : public KVRDebugLogEntry {
 public:
  explicit KVRDebugLogBeaconEntry(std::shared_ptr<const KVRReliableNetworkingTask> task);
  int type() const override { return KVRDebugLogEntryTypeBeacon; }
  ui::StyledText attributedString() const override;
  std::string emailString() const override;
  const std::shared_ptr<const KVRReliableNetworkingTask>& task() const { return task_; }

 private:
  std::shared_ptr<const KVRReliableNetworkingTask> task_;
};

// A URL the host opened. Text: "Opened URL:\n" heavy 14, then the absolute
// string regular 13. E-mail: "Opened URL:\n<url>\n\n\n".
class KORVEL_EXPORT KVRDebugLogURLEntry final : public KVRDebugLogEntry {
 public:
  explicit KVRDebugLogURLEntry(KVRURL url) : url_(std::move(url)) {}
  int type() const override { return KVRDebugLogEntryTypeURL; }
  ui::StyledText attributedString() const override;
  std::string emailString() const override;
  const KVRURL& url() const { return url_; }

 private:
  KVRURL url_;
};

// The options of an in-app upsell offer. Text: "In App Upsell Options\n"
// heavy 14, then one key-value line per key at 13, sorted case-insensitively,
// with a line break after every line but the last. E-mail:
// "In App Upsell Options\n<described dictionary>\n\n\n".
class KORVEL_EXPORT KVRDebugLogInAppUpsellOptionsEntry final : public KVRDebugLogEntry {
 public:
  explicit KVRDebugLogInAppUpsellOptionsEntry(KVRParameters dictionary)
      : dictionary_(std::move(dictionary)) {}
  int type() const override { return KVRDebugLogEntryTypeInAppUpsellOptions; }
  ui::StyledText attributedString() const override;
  std::string emailString() const override;
  const KVRParameters& dictionary() const { return dictionary_; }

 private:
  KVRParameters dictionary_;
};

// One "key = value" line: the key semibold, " = " and the value's description
// (describe()) regular, both at fontSize; "\n" after it when asked.
KORVEL_EXPORT ui::StyledText attributedStringForKey(std::string_view key, const KVRValue& value,
                                            double fontSize, bool withTrailingNewLine);

// The dictionary's keys in case-insensitive order (Unicode case folding);
// keys that differ only in case keep a fixed order among themselves.
KORVEL_EXPORT std::vector<std::string> keysSortedCaseInsensitively(const KVRParameters& dictionary);

}  // namespace korvel
