// The machine's identity on Linux and other POSIX systems: the firmware's
// product name where the kernel shows it, and uname's release and version.
#include <korvel/foundation/internal/Machine.h>

#include <sys/utsname.h>

#include <fstream>

namespace korvel::foundation::internal {

namespace {

std::optional<std::string> firstLineOf(const char* path) {
  std::ifstream in(path);
  std::string line;
  if (!in || !std::getline(in, line)) return std::nullopt;
  while (!line.empty() && (line.back() == ' ' || line.back() == '\r')) line.pop_back();
  if (line.empty()) return std::nullopt;
  return line;
}

}  // namespace

MachineIdentity readMachineIdentity() {
  MachineIdentity identity;
  identity.model = firstLineOf("/sys/devices/virtual/dmi/id/product_name").value_or("Linux");
  struct utsname names {};
  if (uname(&names) == 0) {
    identity.systemVersion = names.release;
    identity.osBuild = names.version;
  }
  return identity;
}

}  // namespace korvel::foundation::internal
