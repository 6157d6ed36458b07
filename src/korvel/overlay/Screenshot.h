// Reading back what the overlay window drew, and saving it as PNG.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace korvel::overlay {

// 8-bit RGB pixels, top row first.
struct Image {
  int width = 0;
  int height = 0;
  std::vector<uint8_t> rgb;
};

// The current OpenGL context's back buffer (what the next swap will show).
Image readBackBuffer(int width, int height);

// Writes image to path as PNG; false with the reason in error when it could
// not be written.
bool writePng(const std::string& path, const Image& image, std::string& error);

}  // namespace korvel::overlay
