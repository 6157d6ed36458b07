// What the beacons say about the machine: its model and its operating
// system's version and build, read once from the system.
#pragma once

#include <optional>
#include <string>

namespace korvel::foundation::internal {

struct MachineIdentity {
  // The maker's product name of the machine (its firmware's system product
  // name), or the system's name where the firmware does not say.
  std::string model;
  // The kernel's release ("6.1.0-13-amd64"; "10.0.19045" on Windows).
  std::optional<std::string> systemVersion;
  // The system's build ("#1 SMP PREEMPT_DYNAMIC Debian ..."; "19045.3803"
  // on Windows: the build number and its update revision).
  std::optional<std::string> osBuild;
};

MachineIdentity readMachineIdentity();

}  // namespace korvel::foundation::internal
