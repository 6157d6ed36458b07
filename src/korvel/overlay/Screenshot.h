// Reading back what the overlay window drew, and saving it as PNG.
#pragma once

#include <korvel/export.h>

#include <cstdint>
#include <string>
#include <vector>

namespace korvel::overlay {

// 8-bit RGB pixels, top row first.
struct KORVEL_EXPORT Image {
  int width = 0;
  int height = 0;
  std::vector<uint8_t> rgb;
};

// The current OpenGL context's back buffer (what the next swap will show).
KORVEL_EXPORT Image readBackBuffer(int width, int height);

// Writes image to path as PNG; false with the reason in error when it could
// not be written.
KORVEL_EXPORT bool writePng(const std::string& path, const Image& image, std::string& error);

}  // namespace korvel::overlay
