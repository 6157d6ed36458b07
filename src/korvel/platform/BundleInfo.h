// The host application's version texts, as its bundle's information
// dictionary would hold them. A Linux process has no bundle, so the host
// sets them when it starts.
#pragma once

#include <korvel/export.h>

#include <optional>
#include <string>

namespace korvel::platform {

// "CFBundleShortVersionString": the marketing version, the same text as
// KVNConfiguration::appShortVersion().
KORVEL_EXPORT std::string mainBundleShortVersionString();

// "CFBundleVersion": the build number; nothing until the host sets it.
KORVEL_EXPORT std::optional<std::string> mainBundleVersion();
KORVEL_EXPORT void setMainBundleVersion(std::optional<std::string> version);

}  // namespace korvel::platform
