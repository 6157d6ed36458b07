// The host application's life cycle as the library sees it. The host posts
// the two notifications on the Env's notification centre when it moves to the
// background and back; the Env keeps the application state in step with them.
#pragma once

#include <string_view>

namespace korvel::platform {

inline constexpr std::string_view ApplicationDidEnterBackgroundNotification =
    "ApplicationDidEnterBackgroundNotification";
inline constexpr std::string_view ApplicationWillEnterForegroundNotification =
    "ApplicationWillEnterForegroundNotification";

// Numbered as the host platform numbers them.
enum class ApplicationState { Active = 0, Inactive = 1, Background = 2 };

// Device orientations, numbered as the host platform numbers them.
enum class DeviceOrientation {
  Unknown = 0,
  Portrait = 1,
  PortraitUpsideDown = 2,
  LandscapeLeft = 3,
  LandscapeRight = 4,
  FaceUp = 5,
  FaceDown = 6,
};

}  // namespace korvel::platform
