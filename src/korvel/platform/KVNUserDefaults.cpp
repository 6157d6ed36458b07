#include <korvel/platform/KVNUserDefaults.h>

#include <atomic>
#include <cerrno>
#include <cmath>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <sstream>

#include <nlohmann/json.hpp>

#include <korvel/foundation/internal/Mutex.h>
#include <korvel/foundation/internal/SharedSlot.h>
#include <korvel/platform/Env.h>
#include <korvel/platform/Files.h>
#include <korvel/platform/Logging.h>
#include <korvel/platform/internal/FilesInternal.h>
#include <korvel/platform/internal/System.h>

using korvel::foundation::internal::Mutex;
using korvel::foundation::internal::MutexLock;

namespace korvel {

namespace fs = std::filesystem;
using Json = nlohmann::ordered_json;

namespace {

constexpr const char* kDateTag = "$date";
constexpr const char* kURLTag = "$url";
constexpr const char* kDoubleTag = "$double";
constexpr const char* kDictionaryTag = "$dictionary";

void logLine(platform::LogLevel level, std::string message) {
  const platform::Logger logger(
      platform::env().mainBundleIdentifier().value_or("Unknown bundle"), "UserDefaults");
  logger.log(level, std::move(message));
}

// --- Encoding ---------------------------------------------------------------

struct FormatError : std::runtime_error {
  using std::runtime_error::runtime_error;
};

const std::string kTooDeep =
    "nested deeper than " + std::to_string(KVNUserDefaults::kMaxDepth) + " levels";

Json encode(const KVRValue& value, int depth);

Json encodeDictionary(const KVRParameters& dictionary, int depth = 1) {
  if (depth > KVNUserDefaults::kMaxDepth) throw FormatError(kTooDeep);
  Json object = Json::object();
  for (const auto& [key, value] : dictionary) object[key] = encode(value, depth + 1);
  if (dictionary.size() == 1 && dictionary.begin()->first.starts_with('$')) {
    return Json{{kDictionaryTag, std::move(object)}};
  }
  return object;
}

Json encode(const KVRValue& value, int depth) {
  switch (value.kind()) {
    case KVRValue::Kind::String:
      return *value.asString();
    case KVRValue::Kind::Int:
      return *value.asInt();
    case KVRValue::Kind::UInt:
      // The decimal text is exact for the whole unsigned range.
      return static_cast<uint64_t>(std::stoull(value.description()));
    case KVRValue::Kind::Double: {
      const double d = *value.asDouble();
      if (std::isnan(d)) return Json{{kDoubleTag, "nan"}};
      if (std::isinf(d)) return Json{{kDoubleTag, d > 0 ? "inf" : "-inf"}};
      return d;
    }
    case KVRValue::Kind::Bool:
      return *value.asBool();
    case KVRValue::Kind::Date:
      return Json{{kDateTag, value.asDate()->secondsSince1970}};
    case KVRValue::Kind::URL:
      return Json{{kURLTag, value.asURL()->absoluteString}};
    case KVRValue::Kind::Dictionary:
      return encodeDictionary(*value.asDictionary(), depth);
    case KVRValue::Kind::List: {
      if (depth > KVNUserDefaults::kMaxDepth) throw FormatError(kTooDeep);
      Json array = Json::array();
      for (const auto& item : *value.asList()) array.push_back(encode(item, depth + 1));
      return array;
    }
  }
  return nullptr;
}

// --- Decoding ---------------------------------------------------------------
//
// Each decoder answers nothing when the file does not hold what this store
// writes, and says why in `problem`.

std::optional<KVRValue> decode(const Json& json, std::string& problem);

std::optional<KVRParameters> decodeDictionary(const Json& object, std::string& problem) {
  KVRParameters dictionary;
  dictionary.reserve(object.size());
  for (auto it = object.begin(); it != object.end(); ++it) {
    auto value = decode(it.value(), problem);
    if (!value) return std::nullopt;
    dictionary.set(it.key(), std::move(*value));
  }
  return dictionary;
}

std::optional<KVRValue> malformed(std::string& problem, const char* what) {
  problem = what;
  return std::nullopt;
}

std::optional<KVRValue> decode(const Json& json, std::string& problem) {
  switch (json.type()) {
    case Json::value_t::string:
      return KVRValue(json.get<std::string>());
    case Json::value_t::boolean:
      return KVRValue(json.get<bool>());
    case Json::value_t::number_integer:
      return KVRValue(json.get<int64_t>());
    case Json::value_t::number_unsigned: {
      const auto u = json.get<uint64_t>();
      if (u <= static_cast<uint64_t>(INT64_MAX)) return KVRValue(static_cast<int64_t>(u));
      return KVRValue(u);
    }
    case Json::value_t::number_float:
      return KVRValue(json.get<double>());
    case Json::value_t::array: {
      KVRList list;
      list.reserve(json.size());
      for (const auto& item : json) {
        auto value = decode(item, problem);
        if (!value) return std::nullopt;
        list.push_back(std::move(*value));
      }
      return KVRValue(std::move(list));
    }
    case Json::value_t::object: {
      if (json.size() == 1) {
        const auto first = json.begin();
        const std::string& tag = first.key();
        const Json& inner = first.value();
        if (tag == kDateTag) {
          if (!inner.is_number()) return malformed(problem, "a date that is not a number");
          return KVRValue(KVRDate{inner.get<double>()});
        }
        if (tag == kURLTag) {
          if (!inner.is_string()) return malformed(problem, "a URL that is not text");
          return KVRValue(KVRURL{inner.get<std::string>()});
        }
        if (tag == kDoubleTag) {
          const std::string text = inner.is_string() ? inner.get<std::string>() : "";
          if (text == "nan") return KVRValue(std::nan(""));
          if (text == "inf") return KVRValue(HUGE_VAL);
          if (text == "-inf") return KVRValue(-HUGE_VAL);
          return malformed(problem, "an unknown special number");
        }
        if (tag == kDictionaryTag) {
          if (!inner.is_object()) {
            return malformed(problem, "a wrapped dictionary that is not an object");
          }
          auto dictionary = decodeDictionary(inner, problem);
          if (!dictionary) return std::nullopt;
          return KVRValue(std::move(*dictionary));
        }
      }
      auto dictionary = decodeDictionary(json, problem);
      if (!dictionary) return std::nullopt;
      return KVRValue(std::move(*dictionary));
    }
    default:
      return malformed(problem, "a null or binary value");
  }
}

// --- Files ------------------------------------------------------------------

// Moves an unusable store out of the way; returns the new name, or empty.
std::string moveAside(const std::string& path) {
  const auto seconds = static_cast<long long>(std::floor(platform::env().now()));
  std::string aside = path + ".corrupt-" + std::to_string(seconds);
  std::error_code ec;
  for (int n = 1; fs::exists(platform::internal::pathFromUTF8(aside), ec) && n < 1000; ++n) {
    aside = path + ".corrupt-" + std::to_string(seconds) + "-" + std::to_string(n);
  }
  fs::rename(platform::internal::pathFromUTF8(path), platform::internal::pathFromUTF8(aside), ec);
  if (ec) return {};
  return aside;
}

// The process-wide instance, made on first use.
foundation::internal::SharedSlot<KVNUserDefaults>& shared() {
  static auto* instance = new foundation::internal::SharedSlot<KVNUserDefaults>;
  return *instance;
}

}  // namespace

// Hidden like the rest of the private state: only the class is API.
struct KORVEL_NO_EXPORT KVNUserDefaults::Impl {
  // Reads the file into values; an unusable file is moved aside.
  void load(const std::string& filePath) KORVEL_REQUIRES(mutex);
  // Writes values to the file; whether the write reached the disk.
  bool persist(const std::string& filePath) KORVEL_REQUIRES(mutex);

  mutable Mutex mutex;
  KVRParameters values KORVEL_GUARDED_BY(mutex);
};

KVNUserDefaults::KVNUserDefaults(std::string filePath)
    : filePath_(std::move(filePath)), impl_(std::make_unique<Impl>()) {
  MutexLock lock(impl_->mutex);
  impl_->load(filePath_);
}

KVNUserDefaults::~KVNUserDefaults() = default;

void KVNUserDefaults::Impl::load(const std::string& filePath) {
  std::error_code ec;
  const fs::path path = platform::internal::pathFromUTF8(filePath);
  const auto status = fs::status(path, ec);
  if (!fs::exists(status)) return;

  std::string problem;
  if (fs::is_directory(status)) {
    problem = "it is a directory";
  } else {
    std::ifstream in(path, std::ios::binary);
    std::stringstream content;
    if (!in || !(content << in.rdbuf())) {
      // An empty file reads as nothing, which is as unusable as garbage.
      problem = in ? "it is empty" : std::string("cannot open it: ") + std::strerror(errno);
    } else {
      // The parser keeps its own stack; the depth cap keeps decode() and
      // dump(), which recurse, within the thread's. The top-level object
      // starts at depth 0 here, 1 when saving.
      bool tooDeep = false;
      const Json json = Json::parse(
          content.str(),
          [&tooDeep](int depth, Json::parse_event_t event, Json&) {
            const bool opens = event == Json::parse_event_t::object_start ||
                               event == Json::parse_event_t::array_start;
            if (opens && depth >= kMaxDepth) {
              tooDeep = true;
              return false;
            }
            return true;
          },
          /*allow_exceptions=*/false);
      if (tooDeep) {
        problem = kTooDeep;
      } else if (json.is_discarded()) {
        problem = "it is not JSON";
      } else if (!json.is_object()) {
        problem = "the top level is not an object";
      } else if (auto decoded = decodeDictionary(json, problem)) {
        values = std::move(*decoded);
        return;
      }
    }
  }

  const std::string aside = moveAside(filePath);
  if (aside.empty()) {
    logLine(platform::LogLevel::Error, "User defaults file " + filePath +
                                           " is unusable (" + problem +
                                           ") and could not be moved aside; starting empty");
  } else {
    logLine(platform::LogLevel::Error, "User defaults file " + filePath + " is unusable (" +
                                           problem + "); moved aside to " + aside +
                                           ", starting empty");
  }
}

bool KVNUserDefaults::Impl::persist(const std::string& filePath) {
  std::string data;
  try {
    data = encodeDictionary(values).dump(2, ' ', false, Json::error_handler_t::replace) + "\n";
  } catch (const FormatError& e) {
    logLine(platform::LogLevel::Error, std::string("Could not save user defaults: a value is ") +
                                           e.what());
    return false;
  }
  std::string error;
  if (platform::internal::replaceFileDurably(platform::internal::pathFromUTF8(filePath), data, error)) return true;
  logLine(platform::LogLevel::Error, "Could not save user defaults: " + error);
  return false;
}

std::shared_ptr<KVNUserDefaults> KVNUserDefaults::sharedUserDefaults() {
  return shared().loadOrMake([] { return std::make_shared<KVNUserDefaults>(defaultFilePath()); });
}

void KVNUserDefaults::setSharedUserDefaults(std::shared_ptr<KVNUserDefaults> defaults) {
  shared().store(std::move(defaults));
}

std::string KVNUserDefaults::defaultFilePath() {
  const fs::path base = platform::internal::userConfigFolder();
  std::string bundle = platform::env().mainBundleIdentifier().value_or("Unknown bundle");
  // A bundle identifier is one path component, whatever it contains.
  for (char& c : bundle) {
    if (c == '/') c = '_';
  }
  if (bundle.empty() || bundle == "." || bundle == "..") bundle = "Unknown bundle";
  return platform::internal::utf8FromPath(base / "korvel" / platform::internal::pathFromUTF8(bundle) / "defaults.json");
}

std::optional<KVRValue> KVNUserDefaults::objectForKey(std::string_view key) const {
  MutexLock lock(impl_->mutex);
  if (const KVRValue* value = impl_->values.find(key)) return *value;
  return std::nullopt;
}

std::optional<std::string> KVNUserDefaults::stringForKey(std::string_view key) const {
  MutexLock lock(impl_->mutex);
  return impl_->values.stringForKey(key);
}

std::optional<KVRDate> KVNUserDefaults::dateForKey(std::string_view key) const {
  MutexLock lock(impl_->mutex);
  if (const KVRValue* value = impl_->values.find(key)) return value->asDate();
  return std::nullopt;
}

bool KVNUserDefaults::setObject(KVRValue value, std::string_view key) {
  MutexLock lock(impl_->mutex);
  impl_->values.set(key, std::move(value));
  return impl_->persist(filePath_);
}

bool KVNUserDefaults::removeObjectForKey(std::string_view key) {
  MutexLock lock(impl_->mutex);
  if (!impl_->values.remove(key)) return true;
  return impl_->persist(filePath_);
}

KVRParameters KVNUserDefaults::dictionaryRepresentation() const {
  MutexLock lock(impl_->mutex);
  return impl_->values;
}

}  // namespace korvel
