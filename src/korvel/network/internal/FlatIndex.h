#pragma once

// An ordered map for a great many small entries whose keys mostly arrive in
// increasing order: the delivery engine's index of waiting requests, which
// may hold hundreds of thousands while a collector is away.
//
// The entries sit sorted in chunks of about 4 KiB: each chunk a plain array
// of key-value slots and one bit per slot saying whether it is live, so an
// entry costs its key and its value and nothing more (a std::map node costs
// some 50 bytes more, an unordered_map's about 30, a flag beside each slot
// its padding). Lookups are binary searches, over the chunks and then in
// one. Inserting a key larger than every other is amortized O(1); anywhere
// else it shifts the slots of one chunk, splitting it when it is full.
// Erasing leaves a tombstone, so it never moves other entries: iterators and
// references to them stay valid. Tombstones at either end go at once, and
// so does a chunk left without a live entry; the others are swept, in
// place, when they outnumber the live entries, at the next insert. Memory
// grows and shrinks a chunk at a time: nothing ever copies the whole index,
// so an old and a new copy of it are never held at once.
//
// Inserting invalidates every iterator and reference. Not thread-safe: the
// owner guards it.

#include <algorithm>
#include <bit>
#include <compare>
#include <cstddef>
#include <cstdint>
#include <iterator>
#include <stdexcept>
#include <utility>
#include <vector>

namespace korvel::network::internal {

// The value of a FlatIndex used as a set.
struct NoValue {};

// A 64-bit key kept as two 32-bit halves: aligned to four bytes, so that a
// slot of it and a value of three 32-bit fields takes 20 bytes, not 24.
class PackedId {
 public:
  PackedId() = default;
  PackedId(uint64_t id)  // NOLINT(google-explicit-constructor): reads as the id it is
      : low_(static_cast<uint32_t>(id)), high_(static_cast<uint32_t>(id >> 32)) {}
  operator uint64_t() const { return uint64_t{high_} << 32 | low_; }  // NOLINT
  friend bool operator==(PackedId a, PackedId b) { return a.low_ == b.low_ && a.high_ == b.high_; }
  friend std::strong_ordering operator<=>(PackedId a, PackedId b) {
    return uint64_t{a} <=> uint64_t{b};
  }

 private:
  uint32_t low_ = 0;
  uint32_t high_ = 0;
};

template <class K, class V, size_t kChunkBytes = 4096>
class FlatIndex {
 public:
  using key_type = K;
  using mapped_type = V;

  // Named like a std::map's value_type, so code reads the same.
  struct Slot {
    K first;
    [[no_unique_address]] V second;
  };

  // Slots per chunk: whole words of live bits, at least one word.
  static constexpr size_t kChunkSlots =
      std::max<size_t>(64, (kChunkBytes - 64) / sizeof(Slot) / 64 * 64);

 private:
  struct Chunk {
    // The slots in use are [begin, end); live ones have their bit set.
    uint32_t begin = 0;
    uint32_t end = 0;
    uint32_t live = 0;
    Chunk* next = nullptr;
    uint64_t bits[kChunkSlots / 64] = {};
    Slot slots[kChunkSlots];

    bool isLive(size_t i) const { return (bits[i / 64] >> (i % 64) & 1) != 0; }
    void setLive(size_t i, bool on) {
      const uint64_t bit = uint64_t{1} << (i % 64);
      bits[i / 64] = on ? bits[i / 64] | bit : bits[i / 64] & ~bit;
    }
    // The first live slot at or after i, or end.
    uint32_t nextLive(uint32_t i) const {
      while (i < end) {
        const uint64_t word = bits[i / 64] >> (i % 64);
        if (word != 0) return std::min<uint32_t>(end, i + static_cast<uint32_t>(std::countr_zero(word)));
        i = (i / 64 + 1) * 64;
      }
      return end;
    }
  };

 public:
  class Iterator {
   public:
    using iterator_category = std::forward_iterator_tag;
    using value_type = Slot;
    using difference_type = std::ptrdiff_t;
    using pointer = Slot*;
    using reference = Slot&;

    Iterator() = default;
    Slot& operator*() const { return chunk_->slots[at_]; }
    Slot* operator->() const { return &chunk_->slots[at_]; }
    Iterator& operator++() {
      settle(chunk_, at_ + 1);
      return *this;
    }
    Iterator operator++(int) {
      Iterator before = *this;
      ++*this;
      return before;
    }
    bool operator==(const Iterator& other) const {
      return chunk_ == other.chunk_ && at_ == other.at_;
    }

   private:
    friend class FlatIndex;
    // The first live slot at or after (chunk, at); end when there is none.
    Iterator(Chunk* chunk, uint32_t at) { settle(chunk, at); }
    void settle(Chunk* chunk, uint32_t at) {
      while (chunk != nullptr) {
        at = chunk->nextLive(std::max(at, chunk->begin));
        if (at < chunk->end) break;
        chunk = chunk->next;
        at = 0;
      }
      chunk_ = chunk;
      at_ = chunk != nullptr ? at : 0;
    }

    Chunk* chunk_ = nullptr;
    uint32_t at_ = 0;
  };

  using iterator = Iterator;

  FlatIndex() = default;
  FlatIndex(const FlatIndex&) = delete;
  FlatIndex& operator=(const FlatIndex&) = delete;
  FlatIndex(FlatIndex&& other) noexcept { swap(other); }
  FlatIndex& operator=(FlatIndex&& other) noexcept {
    FlatIndex moved(std::move(other));
    swap(moved);
    return *this;
  }
  ~FlatIndex() { clear(); }

  void swap(FlatIndex& other) noexcept {
    chunks_.swap(other.chunks_);
    std::swap(live_, other.live_);
    std::swap(slots_, other.slots_);
  }

  Iterator begin() { return chunks_.empty() ? end() : Iterator(chunks_.front(), 0); }
  Iterator end() { return Iterator(); }
  size_t size() const { return live_; }
  bool empty() const { return live_ == 0; }
  // Slots held, tombstones included (measurements, tests).
  size_t capacitySlots() const { return slots_; }
  // Bytes the index holds in memory beside the object itself.
  size_t bytesHeld() const {
    return chunks_.size() * sizeof(Chunk) + chunks_.capacity() * sizeof(Chunk*);
  }

  void clear() {
    for (Chunk* chunk : chunks_) delete chunk;
    std::vector<Chunk*>().swap(chunks_);
    live_ = 0;
    slots_ = 0;
  }

  Iterator find(const K& key) {
    const auto [chunk, at, place] = lowerBound(key);
    if (chunk == nullptr || !chunk->isLive(at) || chunk->slots[at].first != key) return end();
    return Iterator(chunk, at);
  }
  bool contains(const K& key) { return find(key) != end(); }

  V& at(const K& key) {
    auto found = find(key);
    if (found == end()) throw std::out_of_range("FlatIndex::at: no such key");
    return found->second;
  }

  // Like std::map::try_emplace: a present key keeps its value.
  std::pair<Iterator, bool> insert(const K& key, V value = V{}) {
    if (slots_ - live_ > live_ + kSweepSlack) sweep();
    if (chunks_.empty() || lastKey() < key) {
      Chunk* chunk = pushBack(Slot{key, std::move(value)});
      return {Iterator(chunk, chunk->end - 1), true};
    }
    auto [chunk, at, place] = lowerBound(key);
    Slot& found = chunk->slots[at];
    if (found.first == key) {
      if (chunk->isLive(at)) return {Iterator(chunk, at), false};
      found.second = std::move(value);
      markLive(chunk, at);
      return {Iterator(chunk, at), true};
    }
    Chunk* before = place > 0 ? chunks_[place - 1] : nullptr;
    if (at == chunk->begin && chunk->end - chunk->begin == kChunkSlots &&
        (before == nullptr || before->end < kChunkSlots)) {
      // Before a full chunk: at the end of the chunk before it when that
      // has room, or, before the first key of all (older keys coming one by
      // one, newest first), in a chunk of its own that takes the next ones
      // in front of it, rather than splitting a full chunk in two half-empty
      // ones.
      if (before == nullptr) {
        Chunk* fresh = new Chunk;
        fresh->begin = fresh->end = kChunkSlots;
        fresh->next = chunk;
        if (before != nullptr) before->next = fresh;
        chunks_.insert(chunks_.begin() + static_cast<std::ptrdiff_t>(place), fresh);
        before = fresh;
      }
      const uint32_t to = before->end == kChunkSlots ? --before->begin : before->end++;
      before->slots[to] = Slot{key, std::move(value)};
      markLive(before, to);
      ++slots_;
      return {Iterator(before, to), true};
    }
    if (chunk->end - chunk->begin == kChunkSlots) {
      Chunk* upper = split(chunk, at);
      if (at > chunk->end) {
        at = at - chunk->end + upper->begin;
        chunk = upper;
      }
    }
    at = insertBefore(chunk, at, Slot{key, std::move(value)});
    return {Iterator(chunk, at), true};
  }

  // Inserts many keys at once (keys ascending, none present; items are
  // pairs of what a key and a value are made from): O(m) when they all sort
  // before or after every present key, else one merge, O(n + m), which
  // frees each chunk it has read, so the index is never held twice. Where
  // single inserts near the front would shift slots each time, this moves
  // them once.
  template <class Item>
  void insertSorted(std::vector<Item> more) {
    if (more.empty()) return;
    if (chunks_.empty() || lastKey() < K(more.front().first)) {
      for (auto& item : more) pushBack(Slot{K(item.first), V(std::move(item.second))});
    } else if (K(more.back().first) < firstKey()) {
      for (auto it = more.rbegin(); it != more.rend(); ++it) {
        pushFront(Slot{K(it->first), V(std::move(it->second))});
      }
    } else {
      std::vector<Chunk*> old;
      old.swap(chunks_);
      live_ = 0;
      slots_ = 0;
      auto next = more.begin();
      for (Chunk* chunk : old) {
        for (uint32_t i = chunk->begin; i < chunk->end; ++i) {
          if (!chunk->isLive(i)) continue;
          for (; next != more.end() && K(next->first) < chunk->slots[i].first; ++next) {
            pushBack(Slot{K(next->first), V(std::move(next->second))});
          }
          pushBack(std::move(chunk->slots[i]));
        }
        delete chunk;
      }
      for (; next != more.end(); ++next) pushBack(Slot{K(next->first), V(std::move(next->second))});
    }
  }

  // The entry after the erased one.
  Iterator erase(Iterator position) {
    Chunk* chunk = position.chunk_;
    const uint32_t at = position.at_;
    chunk->slots[at].second = V{};  // lets go of what the value holds
    chunk->setLive(at, false);
    --chunk->live;
    --live_;
    Iterator next(chunk, at + 1);
    // Neither moves a live slot: iterators to the others stay valid.
    if (chunk->live == 0) removeChunk(chunk);
    trimEnds();
    return next;
  }

  size_t erase(const K& key) {
    auto found = find(key);
    if (found == end()) return 0;
    erase(found);
    return 1;
  }

 private:
  static constexpr size_t kSweepSlack = 64;

  const K& firstKey() const { return chunks_.front()->slots[chunks_.front()->begin].first; }
  const K& lastKey() const { return chunks_.back()->slots[chunks_.back()->end - 1].first; }

  // The first slot, live or not, whose key is not less than key: its
  // chunk, its place in the chunk and the chunk's place in chunks_; a null
  // chunk when every key is less.
  struct Position {
    Chunk* chunk;
    uint32_t at;
    size_t place;
  };
  Position lowerBound(const K& key) const {
    auto chunk = std::partition_point(chunks_.begin(), chunks_.end(), [&](const Chunk* c) {
      return c->slots[c->end - 1].first < key;
    });
    if (chunk == chunks_.end()) return {nullptr, 0, chunks_.size()};
    Chunk* c = *chunk;
    const Slot* at = std::partition_point(c->slots + c->begin, c->slots + c->end,
                                          [&](const Slot& slot) { return slot.first < key; });
    return {c, static_cast<uint32_t>(at - c->slots), static_cast<size_t>(chunk - chunks_.begin())};
  }

  void markLive(Chunk* chunk, uint32_t at) {
    chunk->setLive(at, true);
    ++chunk->live;
    ++live_;
  }

  Chunk* pushBack(Slot slot) {
    Chunk* chunk = chunks_.empty() ? nullptr : chunks_.back();
    if (chunk == nullptr || chunk->end == kChunkSlots) {
      Chunk* fresh = new Chunk;
      if (chunk != nullptr) chunk->next = fresh;
      chunks_.push_back(fresh);
      chunk = fresh;
    }
    chunk->slots[chunk->end] = std::move(slot);
    markLive(chunk, chunk->end++);
    ++slots_;
    return chunk;
  }

  void pushFront(Slot slot) {
    Chunk* chunk = chunks_.empty() ? nullptr : chunks_.front();
    if (chunk == nullptr || chunk->begin == 0) {
      Chunk* fresh = new Chunk;
      fresh->begin = fresh->end = kChunkSlots;
      fresh->next = chunk;
      chunks_.insert(chunks_.begin(), fresh);
      chunk = fresh;
    }
    chunk->slots[--chunk->begin] = std::move(slot);
    markLive(chunk, chunk->begin);
    ++slots_;
  }

  // Moves the upper half of a full chunk into a new one after it; only the
  // slots from at on when at is near the end (a key a little older than
  // the newest, as when several threads queue at once), where the next keys
  // go after it and a half-empty lower chunk would stay so.
  Chunk* split(Chunk* chunk, uint32_t at) {
    Chunk* upper = new Chunk;
    const uint32_t middle = at - chunk->begin >= kChunkSlots * 3 / 4
                                ? at
                                : chunk->begin + (chunk->end - chunk->begin) / 2;
    for (uint32_t i = middle; i < chunk->end; ++i) {
      upper->slots[upper->end] = std::move(chunk->slots[i]);
      if (chunk->isLive(i)) {
        upper->setLive(upper->end, true);
        ++upper->live;
        --chunk->live;
        chunk->setLive(i, false);
      }
      ++upper->end;
    }
    chunk->end = middle;
    upper->next = chunk->next;
    chunk->next = upper;
    chunks_.insert(std::find(chunks_.begin(), chunks_.end(), chunk) + 1, upper);
    return upper;
  }

  // Puts slot before position at of a chunk with room, shifting the slots
  // on the side that has it; where it went.
  uint32_t insertBefore(Chunk* chunk, uint32_t at, Slot slot) {
    if (chunk->end < kChunkSlots) {
      for (uint32_t i = chunk->end; i > at; --i) {
        chunk->slots[i] = std::move(chunk->slots[i - 1]);
        chunk->setLive(i, chunk->isLive(i - 1));
      }
      ++chunk->end;
    } else {
      --at;
      for (uint32_t i = chunk->begin - 1; i < at; ++i) {
        chunk->slots[i] = std::move(chunk->slots[i + 1]);
        chunk->setLive(i, chunk->isLive(i + 1));
      }
      --chunk->begin;
    }
    chunk->slots[at] = std::move(slot);
    markLive(chunk, at);
    ++slots_;
    return at;
  }

  void removeChunk(Chunk* chunk) {
    auto it = std::find(chunks_.begin(), chunks_.end(), chunk);
    if (it != chunks_.begin()) (*std::prev(it))->next = chunk->next;
    slots_ -= chunk->end - chunk->begin;
    chunks_.erase(it);
    delete chunk;
  }

  // Tombstones at either end go at once.
  void trimEnds() {
    while (!chunks_.empty()) {
      Chunk* first = chunks_.front();
      while (first->begin < first->end && !first->isLive(first->begin)) {
        ++first->begin;
        --slots_;
      }
      if (first->begin < first->end) break;
      removeChunk(first);
    }
    while (!chunks_.empty()) {
      Chunk* last = chunks_.back();
      while (last->end > last->begin && !last->isLive(last->end - 1)) {
        --last->end;
        --slots_;
      }
      if (last->end > last->begin) break;
      removeChunk(last);
    }
  }

  // Moves the live slots together, in place, and frees the chunks left over.
  void sweep() {
    size_t to = 0;       // chunk written
    uint32_t toAt = 0;   // its next slot
    for (size_t from = 0; from < chunks_.size(); ++from) {
      Chunk* source = chunks_[from];
      for (uint32_t i = source->begin; i < source->end; ++i) {
        if (!source->isLive(i)) continue;
        if (toAt == kChunkSlots) {
          ++to;
          toAt = 0;
        }
        Chunk* target = chunks_[to];
        if (target != source || toAt != i) target->slots[toAt] = std::move(source->slots[i]);
        ++toAt;
      }
    }
    const size_t used = live_ == 0 ? 0 : to + 1;
    for (size_t i = used; i < chunks_.size(); ++i) delete chunks_[i];
    chunks_.resize(used);
    for (size_t i = 0; i < used; ++i) {
      Chunk* chunk = chunks_[i];
      chunk->begin = 0;
      chunk->end = i + 1 < used ? static_cast<uint32_t>(kChunkSlots) : toAt;
      chunk->live = chunk->end;
      for (size_t w = 0; w < kChunkSlots / 64; ++w) {
        const size_t from = w * 64;
        chunk->bits[w] = chunk->end >= from + 64 ? ~uint64_t{0}
                         : chunk->end > from     ? (uint64_t{1} << (chunk->end - from)) - 1
                                                 : 0;
      }
      chunk->next = i + 1 < used ? chunks_[i + 1] : nullptr;
    }
    slots_ = live_;
  }

  // In key order; each holds at least one slot.
  std::vector<Chunk*> chunks_;
  size_t live_ = 0;
  size_t slots_ = 0;  // in use, tombstones included
};

}  // namespace korvel::network::internal
