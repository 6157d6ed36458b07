// A process reporting requests is killed at random instants (SIGKILL on
// POSIX, TerminateProcess on Windows), while its segments fill, switch, are
// synced and removed as deliveries succeed: every request whose report call
// had returned is then restored and delivered from its journal.
//
// The child is this same test program, started again with KORVEL_KILL_CHILD
// in its environment: it runs its part during static initialisation and
// never reaches the tests. It writes a line to its standard output for each
// report call that returned ("R <seq>") and for each request its transport
// answered as delivered ("D <seq>", written before the answer).
#include <gtest/gtest.h>

#ifdef _WIN32
#include <windows.h>
#else
#include <fcntl.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include "support/ChildProcess.h"
#endif

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <functional>
#include <mutex>
#include <random>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include <korvel/network/internal/DurableRequestExecutor.h>

namespace korvel::platform {
namespace {

namespace fs = std::filesystem;
using namespace std::chrono_literals;

constexpr const char* kKind = "test.killed";

KVNNetworkRequest makeRequest(long seq) {
  KVNNetworkRequest r;
  r.setPriority(1);
  r.setBackgroundSessionRetryCount(1000);  // a refusal never drops it
  r.setEndpointBuilderBlock([seq] { return KVNEndpoint("http://kill.test/r?seq=" + std::to_string(seq)); });
  r.setRestorationPayload(kKind, [seq](std::string& out) { out += std::to_string(seq); });
  return r;
}

void registerRestorer() {
  KVNRequestRestorers::registerRestorer(kKind, [](std::string_view payload) {
    return std::optional<KVNNetworkRequest>(makeRequest(std::stol(std::string(payload))));
  });
}

long seqOf(const std::string& url) { return std::stol(url.substr(url.rfind('=') + 1)); }

// Answers each request through a callback: delivered (204) or refused (503).
class ScriptedTransport : public DeliveryTransport {
 public:
  explicit ScriptedTransport(std::function<bool(long)> deliver) : deliver_(std::move(deliver)) {}
  DeliveryResponse get(const std::string& url) override {
    DeliveryResponse response;
    response.reachedServer = true;
    response.status = deliver_(seqOf(url)) ? 204 : 503;
    return response;
  }

 private:
  std::function<bool(long)> deliver_;
};

DurableRequestExecutor::Options options(const fs::path& dir, std::function<bool(long)> deliver) {
  DurableRequestExecutor::Options o;
  o.directory = dir;
  o.retryBaseDelay = 1ms;
  o.maxRetryDelay = 4ms;
  // Small segments and frequent syncs: many switches, syncs and removals
  // between two kills.
  o.syncInterval = 10ms;
  o.segmentBytes = 64u << 10;
  o.concurrency = 2;
  o.maxStoredRequests = 1'000'000;
  o.transport = [deliver](const std::atomic<bool>&) { return std::make_unique<ScriptedTransport>(deliver); };
  return o;
}

// MARK: - The child

std::mutex outputMutex;

void emit(char kind, long seq) {
  const std::string line = std::string(1, kind) + " " + std::to_string(seq) + "\n";
  std::lock_guard<std::mutex> lock(outputMutex);
  std::fwrite(line.data(), 1, line.size(), stdout);
  std::fflush(stdout);
}

// Reports until killed (ending by itself after 30 s), about fifty requests
// a millisecond; one answer in three is a refusal, so segments are left
// partly delivered.
[[noreturn]] void runReporter() {
  const char* dir = std::getenv("KORVEL_KILL_DIR");
  const char* first = std::getenv("KORVEL_KILL_FIRST_SEQ");
  if (dir == nullptr || first == nullptr) std::_Exit(2);
  registerRestorer();
  std::atomic<unsigned> answers{0};
  auto executor = std::make_unique<DurableRequestExecutor>(
      "kill.backgroundBeacons", options(dir, [&answers](long seq) {
        if (answers.fetch_add(1) % 3 == 0) return false;
        emit('D', seq);
        return true;
      }));
  const auto stopAt = std::chrono::steady_clock::now() + 30s;
  for (long seq = std::atol(first); std::chrono::steady_clock::now() < stopAt; ++seq) {
    executor->executeRequest(makeRequest(seq));
    emit('R', seq);
    // Paced, so that deliveries, marks and removals run between reports.
    if (seq % 50 == 0) std::this_thread::sleep_for(1ms);
  }
  std::_Exit(0);
}

const bool kIsChild = [] {
  if (std::getenv("KORVEL_KILL_CHILD") != nullptr) runReporter();
  return false;
}();

// MARK: - The parent

// This program started again as a reporting child, its standard output a
// pipe read line by line.
class Reporter {
 public:
  bool start(const fs::path& dir, long firstSeq) {
    const std::string dirText = dir.string();
    const std::string firstText = std::to_string(firstSeq);
#ifdef _WIN32
    SECURITY_ATTRIBUTES inherit{sizeof(SECURITY_ATTRIBUTES), nullptr, TRUE};
    HANDLE write = nullptr;
    if (!CreatePipe(&read_, &write, &inherit, 0)) return false;
    SetHandleInformation(read_, HANDLE_FLAG_INHERIT, 0);
    wchar_t self[MAX_PATH];
    GetModuleFileNameW(nullptr, self, MAX_PATH);
    // The child inherits this process's environment with the test's three
    // variables set.
    SetEnvironmentVariableA("KORVEL_KILL_CHILD", "report");
    SetEnvironmentVariableA("KORVEL_KILL_DIR", dirText.c_str());
    SetEnvironmentVariableA("KORVEL_KILL_FIRST_SEQ", firstText.c_str());
    STARTUPINFOW startup{};
    startup.cb = sizeof startup;
    startup.dwFlags = STARTF_USESTDHANDLES;
    startup.hStdOutput = write;
    startup.hStdError = GetStdHandle(STD_ERROR_HANDLE);
    startup.hStdInput = GetStdHandle(STD_INPUT_HANDLE);
    std::wstring commandLine = L"\"" + std::wstring(self) + L"\"";
    const bool started = CreateProcessW(self, commandLine.data(), nullptr, nullptr, TRUE, 0, nullptr,
                                        nullptr, &startup, &process_);
    SetEnvironmentVariableA("KORVEL_KILL_CHILD", nullptr);
    SetEnvironmentVariableA("KORVEL_KILL_DIR", nullptr);
    SetEnvironmentVariableA("KORVEL_KILL_FIRST_SEQ", nullptr);
    CloseHandle(write);
    if (started) CloseHandle(process_.hThread);
    return started;
#else
    int fds[2];
    if (pipe(fds) != 0) return false;
    // Only the child's standard output is the pipe's write end.
    fcntl(fds[0], F_SETFD, FD_CLOEXEC);
    fcntl(fds[1], F_SETFD, FD_CLOEXEC);
    pid_ = testing::spawnSelf({"KORVEL_KILL_CHILD=report", "KORVEL_KILL_DIR=" + dirText,
                               "KORVEL_KILL_FIRST_SEQ=" + firstText},
                              "KORVEL_KILL_", fds[1], 1);
    ::close(fds[1]);
    read_ = fds[0];
    return pid_ > 0;
#endif
  }

  // Kills it at once; true when it was killed (it had not ended by itself).
  bool kill() {
#ifdef _WIN32
    const bool killed = TerminateProcess(process_.hProcess, 9);
    WaitForSingleObject(process_.hProcess, INFINITE);
    DWORD code = 0;
    GetExitCodeProcess(process_.hProcess, &code);
    CloseHandle(process_.hProcess);
    return killed && code == 9;
#else
    ::kill(pid_, SIGKILL);
    int status = 0;
    waitpid(pid_, &status, 0);
    return WIFSIGNALED(status);
#endif
  }

  // Reads lines until at least returned report calls are known, or the
  // pipe ends.
  void readUntil(size_t returned) {
    char buffer[4096];
    while (returned_.size() < returned) {
#ifdef _WIN32
      DWORD n = 0;
      if (!ReadFile(read_, buffer, sizeof buffer, &n, nullptr) || n == 0) return;
#else
      const ssize_t n = ::read(read_, buffer, sizeof buffer);
      if (n <= 0) return;
#endif
      partial_.append(buffer, static_cast<size_t>(n));
      for (size_t end; (end = partial_.find('\n')) != std::string::npos; partial_.erase(0, end + 1)) {
        std::string line = partial_.substr(0, end);
        if (!line.empty() && line.back() == '\r') line.pop_back();
        if (line.size() < 3) continue;
        (line[0] == 'R' ? returned_ : delivered_).insert(std::stol(line.substr(2)));
      }
    }
  }
  void close() {
#ifdef _WIN32
    CloseHandle(read_);
#else
    ::close(read_);
#endif
  }

  const std::set<long>& returned() const { return returned_; }
  const std::set<long>& delivered() const { return delivered_; }

 private:
#ifdef _WIN32
  HANDLE read_ = nullptr;
  PROCESS_INFORMATION process_{};
#else
  int read_ = -1;
  pid_t pid_ = -1;
#endif
  std::string partial_;
  std::set<long> returned_;
  std::set<long> delivered_;
};

TEST(KilledReporterTest, EveryReturnedRequestIsDeliveredAfterAKillAtARandomInstant) {
  ASSERT_FALSE(kIsChild);
  registerRestorer();
  std::mt19937 random(std::random_device{}());
  const fs::path dir =
      fs::temp_directory_path() / ("korvel-kill-" + std::to_string(random() % 100'000'000));

  std::set<long> returned;
  std::set<long> arrived;  // delivered by a child before its kill, or by the restoring executor
  size_t restoredDeliveries = 0;
  size_t deliveredBeforeKills = 0;
  constexpr int kRounds = 5;
  for (int round = 0; round < kRounds; ++round) {
    SCOPED_TRACE("round " + std::to_string(round));
    Reporter reporter;
    ASSERT_TRUE(reporter.start(dir, round * 1'000'000L));
    // A random number of returned report calls, then a random few hundred
    // microseconds: anywhere inside a report call, a sync or a removal.
    reporter.readUntil(std::uniform_int_distribution<size_t>(200, 8000)(random));
    std::this_thread::sleep_for(std::chrono::microseconds(std::uniform_int_distribution<int>(0, 800)(random)));
    EXPECT_TRUE(reporter.kill()) << "the reporter ended on its own";
    reporter.readUntil(SIZE_MAX);  // what it wrote before the kill
    reporter.close();
    returned.insert(reporter.returned().begin(), reporter.returned().end());
    arrived.insert(reporter.delivered().begin(), reporter.delivered().end());
    deliveredBeforeKills += reporter.delivered().size();

    // This process restores the journal the killed one left and delivers it.
    std::mutex mutex;
    std::set<long> delivered;
    {
      DurableRequestExecutor executor("kill.backgroundBeacons", options(dir, [&](long seq) {
                                         std::lock_guard<std::mutex> lock(mutex);
                                         delivered.insert(seq);
                                         return true;
                                       }));
      ASSERT_TRUE(executor.flush(60s)) << "the restored requests could not all be delivered";
    }
    restoredDeliveries += delivered.size();
    arrived.insert(delivered.begin(), delivered.end());
  }

  size_t lost = 0;
  for (long seq : returned) {
    if (arrived.contains(seq)) continue;
    if (++lost <= 5) ADD_FAILURE() << "request " << seq << " was returned and never delivered";
  }
  EXPECT_EQ(lost, 0u) << "of " << returned.size() << " returned requests";
  EXPECT_GE(returned.size(), size_t{kRounds * 50});
  EXPECT_GT(restoredDeliveries, 0u) << "no kill left anything to restore";
  EXPECT_GT(deliveredBeforeKills, 0u) << "the reporters delivered nothing before their kills";
  std::printf("%zu requests returned by %d killed reporters: %zu delivered before the kills, %zu after "
              "restarts, %zu lost\n",
              returned.size(), kRounds, deliveredBeforeKills, restoredDeliveries, lost);
  std::error_code ec;
  fs::remove_all(dir, ec);
}

}  // namespace
}  // namespace korvel::platform
