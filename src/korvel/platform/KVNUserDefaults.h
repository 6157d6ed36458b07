// The foundation library's persistent key-value store: values of any
// KVRValue kind (text, numbers, booleans, dates, URLs, nested dictionaries and
// lists) under text keys, kept in one JSON file.
//
// Every change is written at once and atomically: the whole store goes to a
// temporary file beside the real one, which is flushed to disk and then
// renamed over it, so a crash leaves either the old or the new file, never a
// partial one. A file that cannot be read or parsed is moved aside as
// "<file>.corrupt-<seconds since 1970>" with an error log line, and the store
// starts empty.
//
// File format: one JSON object, keys in the order they were first set.
// Texts, booleans, integers, floating-point numbers, dictionaries (objects)
// and lists (arrays) are stored as themselves; dates are {"$date": seconds
// since 1970} and URLs {"$url": "text"}; a dictionary whose only key starts
// with "$" is wrapped as {"$dictionary": {...}} so it cannot be mistaken
// for one of those. Integers are read back as signed when they fit a signed
// 64-bit integer, as unsigned otherwise.
//
// Values nest at most kMaxDepth levels (dictionaries and lists inside one
// another): a file nested deeper is unusable (moved aside as above), and a
// value nested deeper is kept in memory but not written, with an error log
// line. Reading and writing so never run out of stack, whatever the file.
//
// Thread-safe: any thread may read and write.
#pragma once

#include <korvel/export.h>

#include <memory>
#include <optional>
#include <string>
#include <string_view>

#include <korvel/foundation/KVRParameters.h>

namespace korvel {

class KORVEL_EXPORT KVNUserDefaults {
 public:
  // Opens the store kept in filePath (loading it, or starting empty when the
  // file does not exist yet). The file and its directory are created on the
  // first write.
  explicit KVNUserDefaults(std::string filePath);
  ~KVNUserDefaults();
  static constexpr int kMaxDepth = 64;
  KVNUserDefaults(const KVNUserDefaults&) = delete;
  KVNUserDefaults& operator=(const KVNUserDefaults&) = delete;

  // The host's shared store: the one installed with setSharedUserDefaults(),
  // else one opened on defaultFilePath() on first use.
  static std::shared_ptr<KVNUserDefaults> sharedUserDefaults();
  // Installs the shared store (a host's own, or a test's); null drops it so
  // the next sharedUserDefaults() opens the default file again.
  static void setSharedUserDefaults(std::shared_ptr<KVNUserDefaults> defaults);
  // $XDG_CONFIG_HOME (else ~/.config) / korvel / <bundle identifier, or
  // "Unknown bundle"> / defaults.json.
  static std::string defaultFilePath();

  std::optional<KVRValue> objectForKey(std::string_view key) const;
  // The value when it is text.
  std::optional<std::string> stringForKey(std::string_view key) const;
  // The value when it is a date.
  std::optional<KVRDate> dateForKey(std::string_view key) const;

  // Stores value under key and writes the file. Returns whether the write
  // reached the disk (the value is kept in memory either way).
  bool setObject(KVRValue value, std::string_view key);
  // Removes key (writing the file only when it was present).
  bool removeObjectForKey(std::string_view key);
  // Every entry, in the order the keys were first set.
  KVRParameters dictionaryRepresentation() const;

  const std::string& filePath() const { return filePath_; }

 private:
  struct Impl;
  const std::string filePath_;
  const std::unique_ptr<Impl> impl_;
};

}  // namespace korvel
