#include <korvel/network/internal/FlatIndex.h>

#include <gtest/gtest.h>

#include <algorithm>
#include <functional>
#include <map>
#include <random>
#include <type_traits>
#include <vector>

namespace korvel::network::internal {
namespace {

using Index = FlatIndex<uint64_t, int>;
// Chunks of the smallest size, so that a few hundred entries cross many
// chunk boundaries (splits, chunks emptied in the middle and at the ends).
using SmallChunks = FlatIndex<uint64_t, int, 64>;

// The index's entries in order; also a std::map's, to compare.
template <class AnyIndex>
std::vector<std::pair<uint64_t, int>> contents(AnyIndex& index) {
  std::vector<std::pair<uint64_t, int>> out;
  for (const auto& slot : index) out.emplace_back(slot.first, slot.second);
  return out;
}


// Random inserts (mostly at the end, as the engine's ids arrive), erases by
// key and by iterator, re-inserts of erased keys and whole-queue moves,
// checked after every step against std::map.
template <class AnyIndex>
void checkAgainstAMap() {
  for (uint32_t seed : {1u, 2u, 3u, 4u, 5u}) {
    std::mt19937 random(seed);
    AnyIndex index;
    std::map<uint64_t, int> model;
    uint64_t nextKey = 1000;
    for (int step = 0; step < 4000; ++step) {
      const int op = std::uniform_int_distribution<int>(0, 9)(random);
      if (op < 4) {  // a new key, usually the largest
        const uint64_t key = op == 0 ? std::uniform_int_distribution<uint64_t>(0, nextKey)(random)
                                     : nextKey++;
        const int value = step;
        auto [it, inserted] = index.insert(key, value);
        auto [mit, minserted] = model.try_emplace(key, value);
        ASSERT_EQ(inserted, minserted) << "seed " << seed << " step " << step;
        ASSERT_EQ(it->second, mit->second);
      } else if (op < 6 && !model.empty()) {  // erase a random present key
        auto mit = model.begin();
        std::advance(mit, std::uniform_int_distribution<size_t>(0, model.size() - 1)(random));
        ASSERT_EQ(index.erase(mit->first), 1u);
        model.erase(mit);
      } else if (op == 6 && !model.empty()) {  // erase the first, as a queue does
        ASSERT_EQ(index.begin()->first, model.begin()->first);
        index.erase(index.begin());
        model.erase(model.begin());
      } else if (op == 7) {  // erase a key that is not there
        const uint64_t absent = model.empty() ? 7 : model.rbegin()->first + 1;
        ASSERT_EQ(index.erase(absent), 0u);
      } else if (op == 8 && !model.empty()) {  // find
        const uint64_t key = std::uniform_int_distribution<uint64_t>(0, nextKey)(random);
        auto found = index.find(key);
        ASSERT_EQ(found != index.end(), model.contains(key)) << "key " << key;
        if (found != index.end()) {
          ASSERT_EQ(found->second, model.at(key));
        }
      } else {  // many at once, somewhere in the range
        std::vector<std::pair<uint64_t, int>> more;
        uint64_t key = std::uniform_int_distribution<uint64_t>(0, nextKey)(random);
        for (int i = 0; i < 20; ++i, key += 3) {
          if (!model.contains(key)) more.emplace_back(key, -step);
        }
        for (const auto& [k, v] : more) model.emplace(k, v);
        index.insertSorted(more);
      }
      ASSERT_EQ(index.size(), model.size()) << "seed " << seed << " step " << step;
      if (step % 200 == 0) {
        ASSERT_EQ(contents(index), contents(model)) << "seed " << seed << " step " << step;
      }
    }
    EXPECT_EQ(contents(index), contents(model)) << "seed " << seed;
  }
}

TEST(FlatIndexTest, BehavesLikeAnOrderedMapUnderRandomOperations) {
  checkAgainstAMap<Index>();
  checkAgainstAMap<SmallChunks>();
}

// Erasing while walking (the engine drops expired and over-cap entries this
// way) visits every entry once and leaves the rest in order.
TEST(FlatIndexTest, EraseReturnsTheNextEntryAndKeepsOthersReachable) {
  Index index;
  for (uint64_t k = 1; k <= 100; ++k) index.insert(k, static_cast<int>(k));
  std::vector<uint64_t> visited;
  for (auto it = index.begin(); it != index.end();) {
    visited.push_back(it->first);
    it = it->first % 3 == 0 || it->first == 100 ? index.erase(it) : std::next(it);
  }
  EXPECT_EQ(visited.size(), 100u);
  EXPECT_EQ(index.size(), 100u - 33u - 1u);
  EXPECT_FALSE(index.contains(99));
  EXPECT_FALSE(index.contains(100));
  EXPECT_TRUE(index.contains(98));
  // A reference to an entry survives erasing its neighbours.
  int& kept = index.at(50);
  index.erase(49);
  index.erase(52);
  index.erase(1);
  EXPECT_EQ(kept, 50);
}

// Tombstones do not pile up: after a long run of queue-like use the slots
// held stay near the live count.
template <class AnyIndex>
void checkErasedSlotsAreReclaimed() {
  AnyIndex index;
  uint64_t next = 0;
  std::vector<std::pair<uint64_t, int>> kept;
  for (int round = 0; round < 1000; ++round) {
    for (int i = 0; i < 50; ++i) index.insert(next++, round);
    // Erase from the middle, where tombstones stay until swept.
    for (int i = 0; i < 49; ++i) index.erase(next - 50 + static_cast<uint64_t>(i));
    kept.emplace_back(next - 1, round);
  }
  EXPECT_EQ(index.size(), 1000u);
  EXPECT_LE(index.capacitySlots(), 2 * index.size() + 128);
  EXPECT_THROW(index.at(next + 1), std::out_of_range);
  // The sweeps moved the live entries together and lost none.
  EXPECT_EQ(contents(index), kept);
}

TEST(FlatIndexTest, ErasedSlotsAreReclaimed) {
  checkErasedSlotsAreReclaimed<Index>();
  checkErasedSlotsAreReclaimed<SmallChunks>();
}

// Each placement the engine relies on: after every key, before every key,
// and interleaved.
TEST(FlatIndexTest, InsertSortedPlacesKeysInOrder) {
  struct Case {
    const char* name;
    std::vector<uint64_t> present;
    std::vector<uint64_t> added;
  };
  const Case cases[] = {
      {"into an empty index", {}, {3, 4, 9}},
      {"after every key", {1, 2}, {3, 4}},
      {"before every key", {10, 11}, {3, 4}},
      {"interleaved", {2, 4, 6}, {1, 3, 5, 7}},
  };
  for (const Case& c : cases) {
    Index index;
    std::map<uint64_t, int> model;
    for (uint64_t k : c.present) {
      index.insert(k, 1);
      model.emplace(k, 1);
    }
    std::vector<std::pair<uint64_t, int>> more;
    for (uint64_t k : c.added) {
      more.emplace_back(k, 2);
      model.emplace(k, 2);
    }
    index.insertSorted(more);
    EXPECT_EQ(contents(index), contents(model)) << c.name;
    EXPECT_EQ(index.size(), model.size()) << c.name;
  }
}

// Ids as the engine makes them (an epoch in the high half, a counter in the
// low half) sort by their whole value, in the queue's (-priority, id) keys
// too, where the low halves alone would put them in another order.
TEST(FlatIndexTest, PackedIdsAndQueueKeysSortByTheWholeId) {
  const uint64_t ids[] = {(2ull << 32) | 1, (1ull << 32) | 0xFFFFFFFF, 0xFFFFFFFF, (1ull << 32) | 5,
                          7, (3ull << 32)};
  FlatIndex<PackedId, int, 64> byId;
  FlatIndex<std::pair<int32_t, PackedId>, NoValue, 64> queue;
  for (uint64_t id : ids) {
    byId.insert(id, 0);
    queue.insert({-1, id});
  }
  queue.insert({-2, uint64_t{9}});  // a higher priority goes first
  std::vector<uint64_t> sorted(std::begin(ids), std::end(ids));
  std::sort(sorted.begin(), sorted.end());
  std::vector<uint64_t> seen;
  for (const auto& slot : byId) seen.push_back(slot.first);
  EXPECT_EQ(seen, sorted);
  seen.clear();
  for (const auto& slot : queue) seen.push_back(slot.first.second);
  sorted.insert(sorted.begin(), 9);
  EXPECT_EQ(seen, sorted);
  EXPECT_TRUE(byId.contains((1ull << 32) | 5));
  EXPECT_FALSE(byId.contains(5));
}

// What a backlog costs: its keys and values and nearly nothing else, and a
// queue drained from the front gives its memory back as it goes.
template <class AnyIndex>
void checkBytesPerEntry(const char* name, size_t slotBytes) {
  constexpr size_t kEntries = 100'000;
  AnyIndex index;
  for (uint64_t k = 0; k < kEntries; ++k) {
    if constexpr (std::is_same_v<typename AnyIndex::key_type, std::pair<int32_t, PackedId>>) {
      index.insert({-1, k});
    } else {
      index.insert(k);
    }
  }
  EXPECT_EQ(sizeof(typename AnyIndex::Slot), slotBytes) << name;
  EXPECT_LE(index.bytesHeld(), kEntries * slotBytes * 21 / 20) << name;
  for (uint64_t k = 0; k < kEntries / 2; ++k) index.erase(index.begin());
  EXPECT_LE(index.bytesHeld(), kEntries / 2 * slotBytes * 21 / 20 + 8192) << name;
  index.clear();
  EXPECT_EQ(index.bytesHeld(), 0u) << name;
}

struct ThreeFields {
  uint32_t a = 0, b = 0, c = 0;
};
struct FourWords {
  uint64_t a = 0, b = 0, c = 0, d = 0;
};

TEST(FlatIndexTest, AnEntryCostsItsKeyAndValue) {
  checkBytesPerEntry<FlatIndex<std::pair<int32_t, PackedId>, NoValue>>("queue key", 12);
  checkBytesPerEntry<FlatIndex<PackedId, ThreeFields>>("store place", 20);
  checkBytesPerEntry<FlatIndex<uint64_t, FourWords>>("index entry", 40);
}

// Keys that come out of order, one at a time, keep the chunks nearly full
// instead of splitting full ones into half-empty halves: a queue's first
// request put back after each failed try, older requests queued behind
// newer ones, requests queued by several threads at once.
TEST(FlatIndexTest, KeysOutOfOrderKeepTheChunksFull) {
  struct Case {
    const char* name;
    std::function<void(Index&)> insertBefore;
  };
  constexpr uint64_t kFirst = 100'000;
  constexpr uint64_t kCount = 20'000;
  const Case cases[] = {
      {"the first put back after each try",
       [](Index& index) {
         for (int i = 0; i < 5000; ++i) {
           const uint64_t first = index.begin()->first;
           index.erase(index.begin());
           index.insert(first, 0);
         }
       }},
      {"older keys one by one, newest first",
       [](Index& index) {
         for (uint64_t k = kFirst; k-- > kFirst - kCount;) index.insert(k, 0);
       }},
      {"the newest keys in pairs, the second a little older (several threads queueing)",
       [](Index& index) {
         // One alone first, so that pairs come in as a chunk fills up.
         index.insert(kFirst + 2 * kCount, 0);
         for (uint64_t k = kFirst + 2 * kCount + 1; k < kFirst + 4 * kCount; k += 2) {
           index.insert(k + 1, 0);
           index.insert(k, 0);
         }
       }},
      {"older keys one by one between the chunks",
       [](Index& index) {
         // Every other key was left out; now they come, oldest first.
         for (uint64_t k = kFirst + 1; k < kFirst + 2 * kCount; k += 2) index.insert(k, 0);
       }},
  };
  for (const Case& c : cases) {
    Index index;
    for (uint64_t k = kFirst; k < kFirst + 2 * kCount; k += 2) index.insert(k, 0);
    c.insertBefore(index);
    std::vector<uint64_t> keys;
    for (const auto& slot : index) keys.push_back(slot.first);
    EXPECT_TRUE(std::is_sorted(keys.begin(), keys.end())) << c.name;
    EXPECT_EQ(keys.size(), index.size()) << c.name;
    // Full chunks, but for a few at the places keys came in.
    EXPECT_LE(index.bytesHeld(), index.size() * sizeof(Index::Slot) * 11 / 10 + 16 * 4096) << c.name;
  }
}

}  // namespace
}  // namespace korvel::network::internal
