// A platform error: an integer code in a domain, a localised description, a
// textual description and user information, which may hold the underlying
// error under KVNUnderlyingErrorKey (a chain of any depth).
#pragma once

#include <korvel/export.h>

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <variant>
#include <vector>

#include <korvel/foundation/KVRParameters.h>

namespace korvel {

class KVNError;

inline constexpr std::string_view KVNUnderlyingErrorKey = "NSUnderlyingError";

class KORVEL_EXPORT KVNError {
 public:
  // A user-information value: a plain value or another error.
  using UserInfoValue = std::variant<KVRValue, std::shared_ptr<const KVNError>>;
  using UserInfo = std::vector<std::pair<std::string, UserInfoValue>>;

  KVNError(std::string domain, int64_t code,
           std::optional<std::string> localizedDescription = std::nullopt,
           UserInfo userInfo = {});

  // An error whose user information holds underlying under the
  // underlying-error key.
  static KVNError withUnderlying(std::string domain, int64_t code,
                                 std::optional<std::string> localizedDescription,
                                 std::shared_ptr<const KVNError> underlying);

  int64_t code() const { return code_; }
  const std::string& domain() const { return domain_; }
  const std::optional<std::string>& localizedDescription() const { return localized_; }
  const UserInfo& userInfo() const { return userInfo_; }

  // Whether the user information has any entry under the key.
  bool hasUserInfoValue(std::string_view key) const;
  // The error under the underlying-error key, only when the value there is
  // an error.
  const KVNError* underlyingError() const;

  // Error Domain=<domain> Code=<code> "<localised description>"
  //   UserInfo={<key>=<value>, ...}   (the UserInfo part only when there is some)
  std::string description() const;

 private:
  std::string domain_;
  int64_t code_;
  std::optional<std::string> localized_;
  UserInfo userInfo_;
};

}  // namespace korvel
