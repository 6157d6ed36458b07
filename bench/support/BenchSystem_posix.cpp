#include "BenchSystem.h"

#include <dirent.h>
#include <stdlib.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <fstream>
#include <iterator>

namespace korvel::bench {

namespace {

std::string fileText(const std::string& path) {
  std::ifstream in(path);
  return std::string(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
}

double seconds(const timeval& t) {
  return static_cast<double>(t.tv_sec) + static_cast<double>(t.tv_usec) / 1e6;
}

// One of the calling thread's counts, as pick reads it; -1 where the
// system keeps none per thread.
long threadCount(long (*pick)(const struct rusage&)) {
#ifdef RUSAGE_THREAD
  struct rusage usage {};
  if (getrusage(RUSAGE_THREAD, &usage) != 0) return -1;
  return pick(usage);
#else
  (void)pick;
  return -1;
#endif
}

}  // namespace

std::string loadAverage() {
  double load[3] = {0, 0, 0};
  if (getloadavg(load, 3) != 3) return "unknown";
  char text[64];
  std::snprintf(text, sizeof text, "%.2f %.2f %.2f", load[0], load[1], load[2]);
  return text;
}

std::filesystem::path temporaryDirectory(std::string_view purpose) {
  std::string pattern = "/tmp/korvel-" + std::string(purpose) + "-XXXXXX";
  if (mkdtemp(pattern.data()) == nullptr) return {};
  return pattern;
}

long involuntarySwitches() {
  return threadCount([](const struct rusage& usage) { return usage.ru_nivcsw; });
}

long threadMinorFaults() {
  return threadCount([](const struct rusage& usage) { return usage.ru_minflt; });
}

ProcessCpu processCpu() {
  struct rusage usage {};
  if (getrusage(RUSAGE_SELF, &usage) != 0) return {};
  return {seconds(usage.ru_utime), seconds(usage.ru_stime)};
}

Memory memory() {
  const std::string status = fileText("/proc/self/status");
  Memory m;
  m.peakKiB = static_cast<long>(procfs::statusField(status, "VmHWM"));
  m.residentKiB = static_cast<long>(procfs::statusField(status, "VmRSS"));
  m.anonymousKiB = static_cast<long>(procfs::statusField(status, "RssAnon"));
  m.fileKiB = static_cast<long>(procfs::statusField(status, "RssFile"));
  return m;
}

std::vector<ThreadSample> threadSamples() {
  std::vector<ThreadSample> samples;
  const double tick = static_cast<double>(sysconf(_SC_CLK_TCK));
  DIR* tasks = opendir("/proc/self/task");
  if (tasks == nullptr) return samples;
  while (const dirent* entry = readdir(tasks)) {
    if (entry->d_name[0] == '.') continue;
    const std::string folder = std::string("/proc/self/task/") + entry->d_name;
    ThreadSample sample;
    sample.id = entry->d_name;
    if (const auto stat = procfs::parseTaskStat(fileText(folder + "/stat"), tick)) {
      sample.name = stat->name;
      sample.cpuSeconds = stat->cpuSeconds;
    }
    const std::string status = fileText(folder + "/status");
    for (const char* key : {"voluntary_ctxt_switches", "nonvoluntary_ctxt_switches"}) {
      const long long count = procfs::statusField(status, key);
      if (count > 0) sample.switches += count;
    }
    samples.push_back(std::move(sample));
  }
  closedir(tasks);
  return samples;
}

std::vector<double> inChildProcess(const std::function<std::vector<double>()>& body) {
  int fds[2];
  if (pipe(fds) != 0) return {};
  const pid_t pid = fork();
  if (pid < 0) {
    close(fds[0]);
    close(fds[1]);
    return {};
  }
  if (pid == 0) {
    close(fds[0]);
    const std::vector<double> figures = body();
    const auto bytes = static_cast<ssize_t>(figures.size() * sizeof(double));
    _exit(write(fds[1], figures.data(), static_cast<size_t>(bytes)) == bytes ? 0 : 1);
  }
  close(fds[1]);
  std::vector<double> figures;
  double value = 0;
  while (read(fds[0], &value, sizeof value) == sizeof value) figures.push_back(value);
  close(fds[0]);
  int status = 0;
  if (waitpid(pid, &status, 0) != pid || !WIFEXITED(status) || WEXITSTATUS(status) != 0) return {};
  return figures;
}

}  // namespace korvel::bench
