// An index from names to the positions of a table that holds them, for
// lookups on every exchange: one flat array of (hash, position) slots with
// open addressing, so that a lookup touches the slot array and the table
// entry it finds, and allocates nothing. The names stay in the table; the
// index is rebuilt whenever the table or a name changes.
#pragma once

#include <cstdint>
#include <cstring>
#include <string_view>
#include <vector>

namespace tavrix {

class NameIndex {
 public:
  // Forgets everything and makes room for `count` entries.
  void clear(size_t count) {
    size_t size = 16;
    while (size < count * 2) size *= 2;
    slots_.assign(size, Slot{});
    mask_ = size - 1;
  }

  // Adds `position` under `name`, with `tag` (0-3: which of an entry's names
  // this is). Entries of one name are found in the order they were added.
  void add(std::string_view name, size_t position, unsigned tag = 0) {
    const uint64_t h = hash(name);
    size_t i = static_cast<size_t>(h) & mask_;
    while (slots_[i].entry != 0) i = (i + 1) & mask_;
    slots_[i] =
        Slot{static_cast<uint32_t>(h >> 32), static_cast<uint32_t>((position << 2 | tag) + 1)};
  }

  // Calls `visit(position, tag)` for each entry added under a name whose
  // hash matches `name`'s, in the order added, until it returns true; the
  // visitor compares the name itself. Returns whether one did.
  template <class Visit>
  bool find(std::string_view name, Visit&& visit) const {
    if (slots_.empty()) return false;
    const uint64_t h = hash(name);
    const uint32_t high = static_cast<uint32_t>(h >> 32);
    for (size_t i = static_cast<size_t>(h) & mask_; slots_[i].entry != 0; i = (i + 1) & mask_) {
      if (slots_[i].high != high) continue;
      const uint32_t entry = slots_[i].entry - 1;
      if (visit(static_cast<size_t>(entry >> 2), entry & 3u)) return true;
    }
    return false;
  }

 private:
  struct Slot {
    uint32_t high = 0;   // the upper half of the name's hash
    uint32_t entry = 0;  // (position << 2 | tag) + 1; 0: free
  };
  // Names are short (a channel's is at most 13 characters): eight bytes at a
  // time, then the last few, then one final mixing, all inline.
  static uint64_t hash(std::string_view name) {
    constexpr uint64_t kMultiplier = 0xbf58476d1ce4e5b9ULL;
    uint64_t h = 0x9e3779b97f4a7c15ULL ^ name.size();
    size_t i = 0;
    for (; i + 8 <= name.size(); i += 8) {
      uint64_t word;
      std::memcpy(&word, name.data() + i, 8);
      h = (h ^ word) * kMultiplier;
      h ^= h >> 31;
    }
    uint64_t tail = 0;
    for (; i < name.size(); ++i) tail = tail << 8 | static_cast<unsigned char>(name[i]);
    h = (h ^ tail) * kMultiplier;
    h ^= h >> 27;
    h *= 0x94d049bb133111ebULL;
    return h ^ (h >> 31);
  }

  std::vector<Slot> slots_;
  size_t mask_ = 0;
};

}  // namespace tavrix
