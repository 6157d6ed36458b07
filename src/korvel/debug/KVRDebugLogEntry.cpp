#include <korvel/debug/KVRDebugLogEntry.h>

#include <unicode/stringoptions.h>
#include <unicode/unistr.h>

#include <algorithm>

#include <korvel/beacon/KVRConstants.h>
#include <korvel/beacon/KVRReliableNetworkingTask.h>

namespace korvel {

namespace {

using ui::FontWeight;
using ui::StyledText;

constexpr double kTitleSize = 14;
constexpr double kParameterSize = 13;
constexpr double kCommonParameterSize = 10;
constexpr const char* kMissingText = "(null)";

void appendLines(StyledText& text, const KVRParameters& dictionary, double size) {
  for (const auto& key : keysSortedCaseInsensitively(dictionary)) {
    text.append(attributedStringForKey(key, *dictionary.find(key), size, true));
  }
}

}  // namespace

std::vector<std::string> keysSortedCaseInsensitively(const KVRParameters& dictionary) {
  struct Keyed {
    std::string key;
    icu::UnicodeString unicode;
  };
  std::vector<Keyed> keyed;
  keyed.reserve(dictionary.size());
  for (const auto& [key, value] : dictionary) {
    keyed.push_back({key, icu::UnicodeString::fromUTF8(key)});
  }
  std::sort(keyed.begin(), keyed.end(), [](const Keyed& a, const Keyed& b) {
    const int8_t folded = a.unicode.caseCompare(b.unicode, U_FOLD_CASE_DEFAULT);
    if (folded != 0) return folded < 0;
    return a.key < b.key;
  });
  std::vector<std::string> out;
  out.reserve(keyed.size());
  for (auto& k : keyed) out.push_back(std::move(k.key));
  return out;
}

StyledText attributedStringForKey(std::string_view key, const KVRValue& value, double fontSize,
                                  bool withTrailingNewLine) {
  StyledText text(std::string(key), FontWeight::Semibold, fontSize);
  std::string rest = " = " + describe(value);
  if (withTrailingNewLine) rest += '\n';
  text.append(std::move(rest), FontWeight::Regular, fontSize);
  return text;
}

KVRDebugLogBeaconEntry::KVRDebugLogBeaconEntry(
    std::shared_ptr<const KVRReliableNetworkingTask> task)
    : task_(std::move(task)) {}

StyledText KVRDebugLogBeaconEntry::attributedString() const {
  StyledText text;
  if (!task_) return text;
  if (auto event = task_->event()) text.append(*event + "\n", FontWeight::Heavy, kTitleSize);
  appendLines(text, task_->nonCommonParameters(), kParameterSize);
  text.append("\n", FontWeight::Regular, kParameterSize);
  appendLines(text, task_->commonParameters(), kCommonParameterSize);

  text.append(attributedStringForKey(KVRBeaconCreationTimestampKey,
                                     task_->formattedCreationTimestampString(),
                                     kCommonParameterSize, true));
  text.append(attributedStringForKey(KVRBeaconUUIDKey, task_->uuid(), kCommonParameterSize, true));
  const bool expired = task_->hasINIDExpired();
  text.append(attributedStringForKey(KVRBeaconINIDKey, task_->debugInid().value_or(kMissingText),
                                     kCommonParameterSize, expired));
  if (expired) {
    text.append(attributedStringForKey(KVRBeaconUsingExpiredINIDKey, "1", kCommonParameterSize,
                                       false));
  }
  return text;
}

std::string KVRDebugLogBeaconEntry::emailString() const {
  if (!task_) return "\n\n\n";
  return describe(task_->dictionaryRepresentation()) + "\n\n\n";
}

StyledText KVRDebugLogURLEntry::attributedString() const {
  StyledText text("Opened URL:\n", FontWeight::Heavy, kTitleSize);
  text.append(url_.absoluteString, FontWeight::Regular, kParameterSize);
  return text;
}

std::string KVRDebugLogURLEntry::emailString() const {
  return "Opened URL:\n" + url_.absoluteString + "\n\n\n";
}

StyledText KVRDebugLogInAppUpsellOptionsEntry::attributedString() const {
  StyledText text("In App Upsell Options\n", FontWeight::Heavy, kTitleSize);
  const auto keys = keysSortedCaseInsensitively(dictionary_);
  for (size_t i = 0; i < keys.size(); ++i) {
    text.append(attributedStringForKey(keys[i], *dictionary_.find(keys[i]), kParameterSize,
                                       i + 1 < keys.size()));
  }
  return text;
}

std::string KVRDebugLogInAppUpsellOptionsEntry::emailString() const {
  return "In App Upsell Options\n" + describe(dictionary_) + "\n\n\n";
}

}  // namespace korvel
