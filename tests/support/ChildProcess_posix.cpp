#include "support/ChildProcess.h"

#include <spawn.h>
#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <sstream>

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
  // A cross build's tests run under an emulator (qemu-user, named by CTest
  // in KORVEL_TEST_EMULATOR): the kernel cannot start this program by
  // itself, so the child runs under the emulator too.
  std::vector<std::string> words;
  if (const char* emulator = std::getenv("KORVEL_TEST_EMULATOR")) {
    std::istringstream in(emulator);
    for (std::string word; in >> word;) words.push_back(word);
  }
  words.push_back(self);
  std::vector<char*> argv;
  for (auto& word : words) argv.push_back(word.data());
  argv.push_back(nullptr);
  pid_t pid = -1;
  const int error = posix_spawn(&pid, argv[0], &actions, nullptr, argv.data(), envp.data());
  posix_spawn_file_actions_destroy(&actions);
  return error == 0 ? pid : -1;
}

}  // namespace korvel::testing
