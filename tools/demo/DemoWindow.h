// korvel-demo --window: the demo host as a desktop application, with the
// debug overlay above it (F1 or ` toggles it).
#pragma once

#include <optional>
#include <string>

namespace korvel::demo {

struct WindowOptions {
  bool keepStore = false;
  // Set: run the scripted session, open the overlay on the beacon log,
  // draw `frames` frames, save the last one here as PNG, list the log rows
  // drawn ("rendered log row: <event>") and exit.
  std::optional<std::string> screenshotPath;
  int frames = 5;
  // The overlay page the screenshot shows (0, the beacon log, by default).
  size_t page = 0;
  int width = 1280;
  int height = 800;
};

// The exit code: as the headless demo's (0 delivered, 1 lost), or 2 when
// no window could be opened or the screenshot could not be written.
int runWindowed(const WindowOptions& options);

}  // namespace korvel::demo
