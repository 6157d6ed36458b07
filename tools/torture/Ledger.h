// The torture's books: every uuid a host's report call returned, what the
// collector received and refused, what a census found stored after each
// round, and the faults that may legitimately destroy beacons. At the end
// each returned beacon that neither arrived nor is stored is put in exactly
// one class:
//
//   destroyed   the round it went missing in removed or replaced the data
//               folder (deleted, renamed away, replaced by a file), and it
//               was returned before that fault plus a grace period: it was
//               in the files the user took away
//   unstorable  it was returned in its own round while nothing could be
//               written (folder replaced by a file or read-only, file size
//               limit), plus a grace period, and that round's host was
//               killed or stopped before delivering it
//   givenUp     the collector refused it as often as a beacon is tried
//   lost        anything else: a promise broken
//
// Every figure is kept per fault kind of the round the beacon went missing
// in (the census after that round was the first not to find it).
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <unordered_map>
#include <unordered_set>
#include <vector>

namespace korvel::tools::torture {

enum class Fault : uint8_t {
  KillOnly,
  CollectorDown,
  CollectorFlaky,
  CollectorSlow,
  FolderRecreated,
  FolderRenamed,
  FolderReplacedByFile,
  FewDescriptors,
  FileSizeLimit,
  ReadOnlyFolder,
  SecondHost,
  FinalDrain,
};
constexpr size_t kFaultKinds = 12;
const char* faultName(Fault fault);

// Attempts after which a refused beacon is given up (the first and three
// retries).
constexpr int kAttemptsOfABeacon = 4;

struct FaultFigures {
  size_t rounds = 0;
  size_t returned = 0;  // in rounds of this kind
  size_t destroyed = 0;
  size_t unstorable = 0;
  size_t givenUp = 0;
  size_t lost = 0;
  size_t deaths = 0;  // hosts ended by a signal other than our SIGKILL
  std::vector<std::string> lostSamples;  // a few uuids with when and where, for the log
};

struct Summary {
  size_t returned = 0;
  size_t received = 0;  // returned and received
  size_t stored = 0;    // returned, not received, found by the last census
  size_t destroyed = 0;
  size_t unstorable = 0;
  size_t givenUp = 0;
  size_t lost = 0;
  size_t deaths = 0;
  std::array<FaultFigures, kFaultKinds> perFault{};
};

class Ledger {
 public:
  explicit Ledger(double graceSeconds) : grace_(graceSeconds) {}

  // A round begins; rounds are numbered from 0 in the order begun.
  int beginRound(Fault fault);
  // at: seconds on the torture's clock.
  void returned(const std::string& uuid, int round, double at);
  // The data folder was taken away (deleted, renamed, replaced) at this time.
  void folderTaken(int round, double at);
  // Nothing could be written to the data folder in [from, to].
  void unwritable(int round, double from, double to);
  void hostDied(int round);

  // After a round: what the collector has received so far, how often it
  // refused each uuid, and what the census found stored.
  void settle(int round, const std::unordered_set<std::string>& received,
              const std::unordered_map<std::string, int>& refusals,
              const std::unordered_set<std::string>& stored);

  // Not received and not stored at the last settle.
  size_t missing() const;
  // Returned, not yet received and not known to be gone: what waits.
  size_t backlog(const std::unordered_set<std::string>& received) const;

  Summary summary() const;

 private:
  struct Beacon {
    int round = 0;
    double returnedAt = 0;
    bool received = false;
    bool stored = false;
    int missingSince = -1;  // the round after which a census first missed it
    int refusals = 0;
  };
  struct Round {
    Fault fault = Fault::KillOnly;
    std::optional<double> folderTakenAt;
    std::optional<std::pair<double, double>> unwritable;
    size_t deaths = 0;
  };

  enum class Verdict { Received, Stored, Destroyed, Unstorable, GivenUp, Lost };
  Verdict verdict(const Beacon& beacon) const;

  double grace_;
  std::vector<Round> rounds_;
  std::unordered_map<std::string, Beacon> beacons_;
};

}  // namespace korvel::tools::torture
