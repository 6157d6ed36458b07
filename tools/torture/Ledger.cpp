#include "torture/Ledger.h"

#include <cstdio>

namespace korvel::tools::torture {

const char* faultName(Fault fault) {
  switch (fault) {
    case Fault::KillOnly: return "kill only";
    case Fault::CollectorDown: return "collector down";
    case Fault::CollectorFlaky: return "collector flaky";
    case Fault::CollectorSlow: return "collector slow";
    case Fault::FolderRecreated: return "folder deleted+made again";
    case Fault::FolderRenamed: return "folder renamed away";
    case Fault::FolderReplacedByFile: return "folder replaced by a file";
    case Fault::FewDescriptors: return "RLIMIT_NOFILE 48";
    case Fault::FileSizeLimit: return "RLIMIT_FSIZE 256 KiB";
    case Fault::ReadOnlyFolder: return "folder read-only";
    case Fault::SecondHost: return "second host";
    case Fault::FinalDrain: return "final drain";
  }
  return "?";
}

int Ledger::beginRound(Fault fault) {
  rounds_.push_back(Round{fault, {}, {}, 0});
  return static_cast<int>(rounds_.size()) - 1;
}

void Ledger::returned(const std::string& uuid, int round, double at) {
  beacons_.try_emplace(uuid, Beacon{round, at, false, false, -1, 0});
}

void Ledger::folderTaken(int round, double at) {
  auto& taken = rounds_.at(static_cast<size_t>(round)).folderTakenAt;
  if (!taken) taken = at;
}

void Ledger::unwritable(int round, double from, double to) {
  auto& window = rounds_.at(static_cast<size_t>(round)).unwritable;
  window = window ? std::pair{std::min(window->first, from), std::max(window->second, to)}
                  : std::pair{from, to};
}

void Ledger::hostDied(int round) { ++rounds_.at(static_cast<size_t>(round)).deaths; }

void Ledger::settle(int round, const std::unordered_set<std::string>& received,
                    const std::unordered_map<std::string, int>& refusals,
                    const std::unordered_set<std::string>& stored) {
  for (auto& [uuid, beacon] : beacons_) {
    if (beacon.received) continue;
    beacon.received = received.contains(uuid);
    beacon.stored = !beacon.received && stored.contains(uuid);
    if (auto it = refusals.find(uuid); it != refusals.end()) beacon.refusals = it->second;
    if (beacon.received || beacon.stored) {
      // Set aside and found again later: only the last absence counts.
      beacon.missingSince = -1;
    } else if (beacon.missingSince < 0) {
      beacon.missingSince = round;
    }
  }
}

size_t Ledger::missing() const {
  size_t n = 0;
  for (const auto& [uuid, beacon] : beacons_) n += beacon.missingSince >= 0 ? 1 : 0;
  return n;
}

size_t Ledger::backlog(const std::unordered_set<std::string>& received) const {
  size_t n = 0;
  for (const auto& [uuid, beacon] : beacons_) {
    if (!beacon.received && beacon.missingSince < 0 && !received.contains(uuid)) ++n;
  }
  return n;
}

Ledger::Verdict Ledger::verdict(const Beacon& beacon) const {
  if (beacon.received) return Verdict::Received;
  if (beacon.missingSince < 0) return Verdict::Stored;
  const Round& gone = rounds_.at(static_cast<size_t>(beacon.missingSince));
  if (gone.folderTakenAt && beacon.returnedAt <= *gone.folderTakenAt + grace_) {
    return Verdict::Destroyed;
  }
  const Round& own = rounds_.at(static_cast<size_t>(beacon.round));
  if (beacon.missingSince == beacon.round && own.unwritable &&
      beacon.returnedAt >= own.unwritable->first &&
      beacon.returnedAt <= own.unwritable->second + grace_) {
    return Verdict::Unstorable;
  }
  if (beacon.refusals >= kAttemptsOfABeacon) return Verdict::GivenUp;
  return Verdict::Lost;
}

Summary Ledger::summary() const {
  Summary s;
  for (const Round& round : rounds_) {
    auto& figures = s.perFault[static_cast<size_t>(round.fault)];
    ++figures.rounds;
    figures.deaths += round.deaths;
    s.deaths += round.deaths;
  }
  for (const auto& [uuid, beacon] : beacons_) {
    ++s.returned;
    ++s.perFault[static_cast<size_t>(rounds_.at(static_cast<size_t>(beacon.round)).fault)]
          .returned;
    const Verdict v = verdict(beacon);
    if (v == Verdict::Received) {
      ++s.received;
      continue;
    }
    if (v == Verdict::Stored) {
      ++s.stored;
      continue;
    }
    auto& figures =
        s.perFault[static_cast<size_t>(rounds_.at(static_cast<size_t>(beacon.missingSince)).fault)];
    switch (v) {
      case Verdict::Destroyed: ++s.destroyed; ++figures.destroyed; break;
      case Verdict::Unstorable: ++s.unstorable; ++figures.unstorable; break;
      case Verdict::GivenUp: ++s.givenUp; ++figures.givenUp; break;
      default:
        ++s.lost;
        ++figures.lost;
        if (figures.lostSamples.size() < 3) {
          char where[96];
          std::snprintf(where, sizeof where, " (returned at %.2f s in round %d, missing after round %d)",
                        beacon.returnedAt, beacon.round, beacon.missingSince);
          figures.lostSamples.push_back(uuid + where);
        }
        break;
    }
  }
  return s;
}

}  // namespace korvel::tools::torture
