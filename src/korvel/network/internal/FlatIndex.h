#pragma once

// An ordered map for a great many small entries whose keys mostly arrive in
// increasing order: the delivery engine's index of waiting requests, which
// may hold hundreds of thousands while a collector is away.
//
// The entries sit sorted in a std::deque, each slot about the size of its
// key and value (a std::map node costs some 50 bytes more, an
// unordered_map's about 30). Lookups are binary searches. Inserting a key
// larger than every other is amortized O(1); anywhere else it moves the
// entries to the nearer end. Erasing leaves a tombstone, so it never moves
// other entries: iterators and references to them stay valid. Tombstones at
// either end go at once; the others are swept when they outnumber the live
// entries, at the next insert.
//
// Inserting invalidates every iterator and reference, as a deque's insert
// does. Not thread-safe: the owner guards it.

#include <algorithm>
#include <cstddef>
#include <deque>
#include <iterator>
#include <stdexcept>
#include <utility>
#include <vector>

namespace korvel::network::internal {

// The value of a FlatIndex used as a set.
struct NoValue {};

template <class K, class V>
class FlatIndex {
 public:
  // Named like a std::map's value_type, so code reads the same.
  struct Slot {
    K first;
    V second;
    bool live = true;
  };

  class Iterator {
   public:
    using iterator_category = std::forward_iterator_tag;
    using value_type = Slot;
    using difference_type = std::ptrdiff_t;
    using pointer = Slot*;
    using reference = Slot&;

    Iterator() = default;
    Slot& operator*() const { return *at_; }
    Slot* operator->() const { return &*at_; }
    Iterator& operator++() {
      ++at_;
      skipDead();
      return *this;
    }
    Iterator operator++(int) {
      Iterator before = *this;
      ++*this;
      return before;
    }
    // End is read from the index each time: popping a tombstone off the
    // back moves it.
    bool operator==(const Iterator& other) const {
      return atEnd() ? other.atEnd() : !other.atEnd() && at_ == other.at_;
    }

   private:
    friend class FlatIndex;
    using Base = typename std::deque<Slot>::iterator;
    Iterator(FlatIndex* index, Base at) : index_(index), at_(at) { skipDead(); }
    bool atEnd() const { return index_ == nullptr || at_ == index_->slots_.end(); }
    void skipDead() {
      while (at_ != index_->slots_.end() && !at_->live) ++at_;
    }

    FlatIndex* index_ = nullptr;
    Base at_{};
  };

  using iterator = Iterator;

  Iterator begin() { return Iterator(this, slots_.begin()); }
  Iterator end() { return Iterator(this, slots_.end()); }
  size_t size() const { return live_; }
  bool empty() const { return live_ == 0; }
  // Slots held, tombstones included (measurements, tests).
  size_t capacitySlots() const { return slots_.size(); }

  void clear() {
    slots_.clear();
    live_ = 0;
  }

  Iterator find(const K& key) {
    auto at = lowerBound(key);
    if (at == slots_.end() || !at->live || at->first != key) return end();
    return Iterator(this, at);
  }
  bool contains(const K& key) { return find(key) != end(); }

  V& at(const K& key) {
    auto found = find(key);
    if (found == end()) throw std::out_of_range("FlatIndex::at: no such key");
    return found->second;
  }

  // Like std::map::try_emplace: a present key keeps its value.
  std::pair<Iterator, bool> insert(const K& key, V value = V{}) {
    if (slots_.size() - live_ > live_ + kSweepSlack) sweep();
    if (slots_.empty() || slots_.back().first < key) {
      slots_.push_back(Slot{key, std::move(value), true});
      ++live_;
      return {Iterator(this, std::prev(slots_.end())), true};
    }
    auto at = lowerBound(key);
    if (at != slots_.end() && at->first == key) {
      if (at->live) return {Iterator(this, at), false};
      at->second = std::move(value);
      at->live = true;
      ++live_;
      return {Iterator(this, at), true};
    }
    at = slots_.insert(at, Slot{key, std::move(value), true});
    ++live_;
    return {Iterator(this, at), true};
  }

  // Inserts many keys at once (keys ascending, none present): O(m) when
  // they all sort before or after every present key, else one merge,
  // O(n + m). Where single inserts near the front would move the entries
  // before them each time, this moves them once.
  void insertSorted(std::vector<std::pair<K, V>> more) {
    if (more.empty()) return;
    if (slots_.empty() || slots_.back().first < more.front().first) {
      for (auto& [key, value] : more) slots_.push_back(Slot{key, std::move(value), true});
    } else if (more.back().first < slots_.front().first) {
      for (auto it = more.rbegin(); it != more.rend(); ++it) {
        slots_.push_front(Slot{it->first, std::move(it->second), true});
      }
    } else {
      std::deque<Slot> merged;
      auto next = more.begin();
      for (Slot& slot : slots_) {
        if (!slot.live) continue;
        for (; next != more.end() && next->first < slot.first; ++next) {
          merged.push_back(Slot{next->first, std::move(next->second), true});
        }
        merged.push_back(std::move(slot));
      }
      for (; next != more.end(); ++next) {
        merged.push_back(Slot{next->first, std::move(next->second), true});
      }
      slots_.swap(merged);
    }
    live_ += more.size();
  }

  // The entry after the erased one.
  Iterator erase(Iterator position) {
    auto at = position.at_;
    at->live = false;
    at->second = V{};  // lets go of what the value holds
    --live_;
    auto next = at;
    while (next != slots_.end() && !next->live) ++next;
    const bool nothingAfter = next == slots_.end();
    // Popping at the ends leaves iterators to the other slots valid.
    while (!slots_.empty() && !slots_.front().live) slots_.pop_front();
    while (!slots_.empty() && !slots_.back().live) slots_.pop_back();
    return nothingAfter ? end() : Iterator(this, next);
  }

  size_t erase(const K& key) {
    auto found = find(key);
    if (found == end()) return 0;
    erase(found);
    return 1;
  }

 private:
  static constexpr size_t kSweepSlack = 64;

  typename std::deque<Slot>::iterator lowerBound(const K& key) {
    return std::lower_bound(slots_.begin(), slots_.end(), key,
                            [](const Slot& slot, const K& k) { return slot.first < k; });
  }

  void sweep() {
    slots_.erase(std::remove_if(slots_.begin(), slots_.end(),
                                [](const Slot& slot) { return !slot.live; }),
                 slots_.end());
    slots_.shrink_to_fit();
  }

  std::deque<Slot> slots_;
  size_t live_ = 0;
};

}  // namespace korvel::network::internal
