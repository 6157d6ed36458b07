// The torture's books: each returned beacon that neither arrived nor is
// stored lands in exactly one class, pinned to the round it went missing in.
#include <gtest/gtest.h>

#include <tuple>

#include "torture/Ledger.h"

namespace korvel::tools::torture {
namespace {

constexpr double kGrace = 1.0;

struct Case {
  const char* name;
  Fault fault;             // of the round the beacon is returned and goes missing in
  double returnedAt;
  double folderTakenAt;    // < 0: not taken
  double unwritableFrom, unwritableTo;  // from > to: none
  int refusals;
  // One of the classes is 1, the others 0.
  size_t destroyed, unstorable, givenUp, lost;
};

class LedgerVerdictTest : public ::testing::TestWithParam<Case> {};

TEST_P(LedgerVerdictTest, AMissingBeaconIsClassedByTheFaultOfItsRound) {
  const Case& c = GetParam();
  Ledger ledger(kGrace);
  const int round = ledger.beginRound(c.fault);
  ledger.returned("U", round, c.returnedAt);
  if (c.folderTakenAt >= 0) ledger.folderTaken(round, c.folderTakenAt);
  if (c.unwritableFrom <= c.unwritableTo) ledger.unwritable(round, c.unwritableFrom, c.unwritableTo);
  std::unordered_map<std::string, int> refusals;
  if (c.refusals > 0) refusals["U"] = c.refusals;
  ledger.settle(round, {}, refusals, {});

  const Summary s = ledger.summary();
  EXPECT_EQ(std::tuple(s.returned, s.destroyed, s.unstorable, s.givenUp, s.lost),
            std::tuple(1u, c.destroyed, c.unstorable, c.givenUp, c.lost));
  const FaultFigures& figures = s.perFault[static_cast<size_t>(c.fault)];
  EXPECT_EQ(figures.rounds, 1u);
  EXPECT_EQ(figures.destroyed + figures.unstorable + figures.givenUp + figures.lost, 1u);
  EXPECT_EQ(figures.lostSamples.size(), c.lost);
}

INSTANTIATE_TEST_SUITE_P(
    Classes, LedgerVerdictTest,
    ::testing::Values(
        Case{"PlainKillLoses", Fault::KillOnly, 5, -1, 1, 0, 0, 0, 0, 0, 1},
        Case{"ReturnedBeforeTheFolderWentIsDestroyed", Fault::FolderRecreated, 5, 6, 1, 0, 0, 1, 0, 0, 0},
        Case{"ReturnedWithinTheGraceIsDestroyed", Fault::FolderRenamed, 6.9, 6, 1, 0, 0, 1, 0, 0, 0},
        Case{"ReturnedWellAfterTheFolderWentIsLost", Fault::FolderRenamed, 7.1, 6, 1, 0, 0, 0, 0, 0, 1},
        Case{"ReturnedWhileUnwritableIsUnstorable", Fault::ReadOnlyFolder, 5, -1, 4, 6, 0, 0, 1, 0, 0},
        Case{"ReturnedJustAfterWritableAgainIsUnstorable", Fault::ReadOnlyFolder, 6.5, -1, 4, 6, 0, 0, 1, 0, 0},
        Case{"ReturnedBeforeTheFolderWasUnwritableIsLost", Fault::ReadOnlyFolder, 3.9, -1, 4, 6, 0, 0, 0, 0, 1},
        Case{"ReturnedLongAfterIsLost", Fault::FileSizeLimit, 7.5, -1, 4, 6, 0, 0, 0, 0, 1},
        Case{"RefusedAsOftenAsItIsTriedIsGivenUp", Fault::CollectorFlaky, 5, -1, 1, 0, kAttemptsOfABeacon, 0, 0, 1, 0},
        Case{"RefusedLessOftenIsLost", Fault::CollectorFlaky, 5, -1, 1, 0, kAttemptsOfABeacon - 1, 0, 0, 0, 1}),
    [](const auto& info) { return std::string(info.param.name); });

// Stored ones wait, received ones are done; a beacon the census missed once
// and found again later is not counted missing; a beacon kept through a
// destructive round and lost in a later plain one is lost, not destroyed.
TEST(LedgerTest, ABeaconIsPinnedToTheLastRoundItWentMissingIn) {
  Ledger ledger(kGrace);
  const int first = ledger.beginRound(Fault::FolderRecreated);
  for (const char* uuid : {"kept", "arrived", "setAside", "lostLater"}) ledger.returned(uuid, first, 1);
  ledger.folderTaken(first, 2);
  ledger.settle(first, {"arrived"}, {}, {"kept", "lostLater"});
  EXPECT_EQ(ledger.missing(), 1u);  // setAside
  EXPECT_EQ(ledger.backlog({"arrived"}), 2u);

  const int second = ledger.beginRound(Fault::KillOnly);
  ledger.settle(second, {"arrived"}, {}, {"kept", "setAside"});
  EXPECT_EQ(ledger.missing(), 1u);  // lostLater

  const Summary s = ledger.summary();
  // setAside came back; lostLater outlived the fault.
  EXPECT_EQ(std::tuple(s.returned, s.received, s.stored, s.destroyed, s.lost),
            std::tuple(4u, 1u, 2u, 0u, 1u));
  EXPECT_EQ(s.perFault[static_cast<size_t>(Fault::KillOnly)].lost, 1u);
  EXPECT_EQ(s.perFault[static_cast<size_t>(Fault::FolderRecreated)].returned, 4u);
}

TEST(LedgerTest, DeathsAreCountedPerFaultKind) {
  Ledger ledger(kGrace);
  ledger.beginRound(Fault::KillOnly);
  const int limited = ledger.beginRound(Fault::FileSizeLimit);
  ledger.hostDied(limited);
  ledger.hostDied(limited);
  const Summary s = ledger.summary();
  EXPECT_EQ(s.deaths, 2u);
  EXPECT_EQ(s.perFault[static_cast<size_t>(Fault::FileSizeLimit)].deaths, 2u);
  EXPECT_EQ(s.perFault[static_cast<size_t>(Fault::KillOnly)].deaths, 0u);
}

}  // namespace
}  // namespace korvel::tools::torture
