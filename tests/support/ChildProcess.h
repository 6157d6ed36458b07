// Kill tests run the test program itself again as the host they kill.
#pragma once

#include <sys/types.h>

#include <string>
#include <string_view>
#include <vector>

namespace korvel::testing {

// Starts this program again as a child process. Its environment is
// `variables`, then this process's own variables except those that start
// with `dropPrefix` (so that the child's settings are the ones given).
// When pipeWrite is not negative it becomes the child's descriptor
// childFd. The child's pid, or -1 when it could not be started.
pid_t spawnSelf(const std::vector<std::string>& variables, std::string_view dropPrefix,
                int pipeWrite, int childFd);

}  // namespace korvel::testing
