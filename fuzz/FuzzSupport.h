// Shared by the fuzz targets: a private scratch directory per process and a
// quiet log (the targets log on every bad input by design).
#pragma once

#include <stdlib.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <string_view>

#include <korvel/platform/Env.h>

namespace korvel::fuzz {

inline const std::filesystem::path& scratch() {
  static const std::filesystem::path dir = [] {
    char pattern[] = "/tmp/korvel-fuzz-XXXXXX";
    const char* made = mkdtemp(pattern);
    return std::filesystem::path(made != nullptr ? made : "/tmp/korvel-fuzz");
  }();
  return dir;
}

inline void writeFile(const std::filesystem::path& path, std::string_view data) {
  std::ofstream(path, std::ios::binary | std::ios::trunc).write(data.data(),
                                                                static_cast<std::streamsize>(data.size()));
}

}  // namespace korvel::fuzz
