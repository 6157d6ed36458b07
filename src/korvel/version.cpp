#include <korvel/version.h>

namespace korvel {

const char* versionString() noexcept { return KORVEL_VERSION_STRING; }

int versionNumber() noexcept { return KORVEL_VERSION; }

}  // namespace korvel
