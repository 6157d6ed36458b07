#include <korvel/foundation/KVNError.h>

namespace korvel {

KVNError::KVNError(std::string domain, int64_t code, std::optional<std::string> localized,
                   UserInfo userInfo)
    : domain_(std::move(domain)),
      code_(code),
      localized_(std::move(localized)),
      userInfo_(std::move(userInfo)) {}

KVNError KVNError::withUnderlying(std::string domain, int64_t code,
                                  std::optional<std::string> localizedDescription,
                                  std::shared_ptr<const KVNError> underlying) {
  UserInfo info;
  info.emplace_back(std::string(KVNUnderlyingErrorKey), std::move(underlying));
  return KVNError(std::move(domain), code, std::move(localizedDescription), std::move(info));
}

bool KVNError::hasUserInfoValue(std::string_view key) const {
  for (const auto& [k, v] : userInfo_) {
    if (k == key) return true;
  }
  return false;
}

const KVNError* KVNError::underlyingError() const {
  for (const auto& [key, value] : userInfo_) {
    if (key != KVNUnderlyingErrorKey) continue;
    auto error = std::get_if<std::shared_ptr<const KVNError>>(&value);
    return error != nullptr ? error->get() : nullptr;
  }
  return nullptr;
}

std::string KVNError::description() const {
  std::string text = "Error Domain=" + domain_ + " Code=" + std::to_string(code_);
  if (localized_) text += " \"" + *localized_ + "\"";
  if (userInfo_.empty()) return text;
  text += " UserInfo={";
  bool first = true;
  for (const auto& [key, value] : userInfo_) {
    if (!first) text += ", ";
    first = false;
    text += key + "=";
    if (auto error = std::get_if<std::shared_ptr<const KVNError>>(&value)) {
      text += *error ? (*error)->description() : std::string("(null)");
    } else {
      text += std::get<KVRValue>(value).description();
    }
  }
  text += "}";
  return text;
}

}  // namespace korvel
