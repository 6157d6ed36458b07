#include "support/ChildProcess.h"

#include <spawn.h>
#include <unistd.h>

#include <filesystem>

extern char** environ;

namespace korvel::testing {

pid_t spawnSelf(const std::vector<std::string>& variables, std::string_view dropPrefix,
                int pipeWrite, int childFd) {
  std::vector<std::string> all = variables;
  for (char** e = environ; *e != nullptr; ++e) {
    if (!std::string_view(*e).starts_with(dropPrefix)) all.emplace_back(*e);
  }
  std::vector<char*> envp;
  for (auto& v : all) envp.push_back(v.data());
  envp.push_back(nullptr);
  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  if (pipeWrite >= 0) posix_spawn_file_actions_adddup2(&actions, pipeWrite, childFd);
  std::string self = std::filesystem::read_symlink("/proc/self/exe").string();
  char* argv[] = {self.data(), nullptr};
  pid_t pid = -1;
  const int error = posix_spawn(&pid, self.c_str(), &actions, nullptr, argv, envp.data());
  posix_spawn_file_actions_destroy(&actions);
  return error == 0 ? pid : -1;
}

}  // namespace korvel::testing
