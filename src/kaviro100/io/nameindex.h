// Name lookup for the readers: an open-addressing hash table over the names of a NamePool. The
// table holds indices only; keys are compared through the pool, so the pool may grow (and move
// its characters) while the table is in use, and no string is allocated per name.
#pragma once

#include <cstdint>
#include <cstring>
#include <string_view>
#include <vector>

#include "model/modeldata.h"

namespace kvr::io {

inline uint64_t hash_name(std::string_view s) {
  // 8 bytes at a time, multiply-xorshift mixing.
  uint64_t h = 0x9E3779B97F4A7C15ull ^ s.size();
  const char *p = s.data();
  size_t n = s.size();
  while (n >= 8) {
    uint64_t w;
    std::memcpy(&w, p, 8);
    h = (h ^ w) * 0xBF58476D1CE4E5B9ull;
    h ^= h >> 31;
    p += 8, n -= 8;
  }
  uint64_t w = 0;
  std::memcpy(&w, p, n);
  h ^= w;
  // Final mixing, so that the low bits (the slot) depend on every byte.
  h ^= h >> 33;
  h *= 0xFF51AFD7ED558CCDull;
  h ^= h >> 33;
  h *= 0xC4CEB9FE1A85EC53ull;
  return h ^ (h >> 33);
}

class NameIndex {
 public:
  explicit NameIndex(const NamePool &pool) : pool_(&pool) { slots_.assign(1024, 0); }

  // Index of the element with this name, or -1.
  int find(std::string_view name) const {
    size_t mask = slots_.size() - 1;
    for (size_t i = hash_name(name) & mask;; i = (i + 1) & mask) {
      uint32_t s = slots_[i];
      if (s == 0) return -1;
      if (pool_->get(s - 1) == name) return static_cast<int>(s - 1);
    }
  }

  // Records that element `index` (already in the pool) has its pool name; a name that is present
  // already keeps its first index. Returns the index the name now maps to.
  int add(int index) {
    if (2 * (count_ + 1) > slots_.size()) grow();
    std::string_view name = pool_->get(static_cast<size_t>(index));
    size_t mask = slots_.size() - 1;
    for (size_t i = hash_name(name) & mask;; i = (i + 1) & mask) {
      uint32_t s = slots_[i];
      if (s == 0) {
        slots_[i] = static_cast<uint32_t>(index) + 1;
        ++count_;
        return index;
      }
      if (pool_->get(s - 1) == name) return static_cast<int>(s - 1);
    }
  }

 private:
  void grow() {
    std::vector<uint32_t> old(slots_.size() * 2, 0);
    old.swap(slots_);
    size_t mask = slots_.size() - 1;
    for (uint32_t s : old) {
      if (!s) continue;
      size_t i = hash_name(pool_->get(s - 1)) & mask;
      while (slots_[i]) i = (i + 1) & mask;
      slots_[i] = s;
    }
  }
  const NamePool *pool_;
  std::vector<uint32_t> slots_;
  size_t count_ = 0;
};

}  // namespace kvr::io
