#include <korvel/platform/Files.h>

#include <atomic>
#include <fstream>

#include <korvel/platform/internal/FilesInternal.h>
#include <korvel/platform/internal/System.h>

namespace korvel::platform {

namespace {
std::atomic<uint64_t> temporaryCounter{0};
}  // namespace

std::filesystem::path internal::pathFromUTF8(std::string_view text) {
  return std::filesystem::path(std::u8string(text.begin(), text.end()));
}

std::string internal::utf8FromPath(const std::filesystem::path& path) {
  const std::u8string text = path.u8string();
  return std::string(text.begin(), text.end());
}

std::filesystem::path internal::temporarySibling(const std::filesystem::path& path) {
  std::filesystem::path temporary = path;
  temporary += ".tmp-" + std::to_string(currentProcessId()) + "-" +
               std::to_string(temporaryCounter.fetch_add(1));
  return temporary;
}

bool writeFileReplacing(const std::filesystem::path& path, std::span<const uint8_t> content,
                        std::error_code& error) {
  const std::span<const uint8_t> pieces[] = {content};
  return writeFileReplacing(path, pieces, error);
}

std::optional<Data> readFileContents(const std::filesystem::path& path) {
  std::error_code ec;
  if (!std::filesystem::is_regular_file(path, ec)) return std::nullopt;
  std::ifstream in(path, std::ios::binary);
  if (!in) return std::nullopt;
  Data out;
  const auto size = std::filesystem::file_size(path, ec);
  if (!ec) out.reserve(static_cast<size_t>(size));
  char buffer[64 * 1024];
  while (in.read(buffer, sizeof buffer) || in.gcount() > 0) {
    out.insert(out.end(), buffer, buffer + in.gcount());
  }
  if (in.bad()) return std::nullopt;
  return out;
}

}  // namespace korvel::platform
