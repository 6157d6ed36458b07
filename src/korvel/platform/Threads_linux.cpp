// Thread names and scheduling classes on Linux.
#include <korvel/platform/internal/Threads.h>

#include <cerrno>

#include <pthread.h>
#include <sched.h>
#include <sys/resource.h>

namespace korvel::platform::internal {

namespace {
constexpr int kBackgroundNice = 10;
}

void nameThisThread(const char* name) noexcept {
  char shortName[16] = {};
  for (int i = 0; i < 15 && name[i] != '\0'; ++i) shortName[i] = name[i];
  pthread_setname_np(pthread_self(), shortName);
}

void batchThisThread() noexcept {
  // A batch thread never preempts a running one when it wakes: it waits for
  // a free core or the running thread's time slice, and keeps its fair share
  // of the CPU. On Linux pid 0 means the calling thread alone.
  const sched_param param{};
  sched_setscheduler(0, SCHED_BATCH, &param);
}

void lowerThisThreadPriority() noexcept {
  // Batch, so that an answer arriving does not take the core from a thread
  // that reports; and a smaller share of a busy core. PRIO_PROCESS with who
  // 0 means the calling thread alone on Linux.
  batchThisThread();
  errno = 0;
  const int current = getpriority(PRIO_PROCESS, 0);
  if (current == -1 && errno != 0) return;
  setpriority(PRIO_PROCESS, 0, current + kBackgroundNice);
}

}  // namespace korvel::platform::internal
