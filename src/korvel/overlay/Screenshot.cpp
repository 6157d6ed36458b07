#include <korvel/overlay/Screenshot.h>

#include <GL/gl.h>
#include <png.h>

#include <algorithm>

namespace korvel::overlay {

Image readBackBuffer(int width, int height) {
  Image image;
  image.width = std::max(width, 0);
  image.height = std::max(height, 0);
  const size_t stride = static_cast<size_t>(image.width) * 3;
  std::vector<uint8_t> bottomUp(stride * static_cast<size_t>(image.height));
  if (bottomUp.empty()) return image;
  glReadBuffer(GL_BACK);
  glPixelStorei(GL_PACK_ALIGNMENT, 1);
  glReadPixels(0, 0, image.width, image.height, GL_RGB, GL_UNSIGNED_BYTE, bottomUp.data());
  // OpenGL's rows start at the bottom; images start at the top.
  image.rgb.resize(bottomUp.size());
  for (int row = 0; row < image.height; ++row) {
    std::copy_n(bottomUp.data() + stride * static_cast<size_t>(image.height - 1 - row), stride,
                image.rgb.data() + stride * static_cast<size_t>(row));
  }
  return image;
}

bool writePng(const std::string& path, const Image& image, std::string& error) {
  if (image.width <= 0 || image.height <= 0 ||
      image.rgb.size() != static_cast<size_t>(image.width) * image.height * 3) {
    error = "no pixels to write";
    return false;
  }
  png_image png{};
  png.version = PNG_IMAGE_VERSION;
  png.width = static_cast<png_uint_32>(image.width);
  png.height = static_cast<png_uint_32>(image.height);
  png.format = PNG_FORMAT_RGB;
  if (png_image_write_to_file(&png, path.c_str(), 0, image.rgb.data(), 0, nullptr) == 0) {
    error = png.message;
    png_image_free(&png);
    return false;
  }
  return true;
}

}  // namespace korvel::overlay
