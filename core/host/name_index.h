// An index from a name to the record that holds it: open addressing over one
// flat array of (hash, pointer) slots. The key is not stored twice: a slot
// points at the record, and `KeyOf` reads the name from it. On graphs of a
// million tensors a node-based hash map costs a cache miss per bucket, per
// node and per key; this costs one or two.
#pragma once

#include <cstdint>
#include <cstddef>
#include <climits>
#include <functional>
#include <string>
#include <string_view>
#include <vector>

namespace tolm {

template <class T, class KeyOf>
class NameIndex {
 public:
  T* find(std::string_view key) const {
    if (slots_.empty()) return nullptr;
    const uint64_t h = hash(key);
    for (size_t i = h & mask_;; i = (i + 1) & mask_) {
      const Slot& s = slots_[i];
      if (s.ptr == nullptr) return nullptr;
      if (s.ptr != tombstone() && s.hash == h && KeyOf()(*s.ptr) == key) return s.ptr;
    }
  }

  // Adds `rec` under its own name, which must not be in the index.
  void insert(T* rec) {
    if ((used_ + 1) * 4 > slots_.size() * 3) grow();
    place(hash(KeyOf()(*rec)), rec);
    ++used_;
    ++size_;
  }

  // Adds `rec` unless a record of the same name is there; false if one is.
  bool try_insert(T* rec) {
    if ((used_ + 1) * 4 > slots_.size() * 3) grow();
    const std::string_view key = KeyOf()(*rec);
    const uint64_t h = hash(key);
    size_t free_at = SIZE_MAX;
    for (size_t i = h & mask_;; i = (i + 1) & mask_) {
      Slot& s = slots_[i];
      if (s.ptr == nullptr) {
        if (free_at == SIZE_MAX) {
          free_at = i;
          ++used_;
        }
        slots_[free_at] = {h, rec};
        ++size_;
        return true;
      }
      if (s.ptr == tombstone()) {
        if (free_at == SIZE_MAX) free_at = i;
      } else if (s.hash == h && KeyOf()(*s.ptr) == key) {
        return false;
      }
    }
  }

  // Takes `rec` out; false if it was not there.
  bool erase(const T* rec) {
    if (slots_.empty()) return false;
    const uint64_t h = hash(KeyOf()(*rec));
    for (size_t i = h & mask_;; i = (i + 1) & mask_) {
      Slot& s = slots_[i];
      if (s.ptr == nullptr) return false;
      if (s.ptr == rec) {
        s.ptr = tombstone();
        --size_;
        return true;
      }
    }
  }

  size_t size() const { return size_; }

  void reserve(size_t n) {
    size_t want = 16;
    while (want * 3 < n * 4 + 4) want <<= 1;
    if (want > slots_.size()) rehash(want);
  }

  template <class F>
  void for_each(F&& f) const {
    for (const Slot& s : slots_)
      if (s.ptr != nullptr && s.ptr != tombstone()) f(s.ptr);
  }

 private:
  struct Slot {
    uint64_t hash = 0;
    T* ptr = nullptr;
  };

  static T* tombstone() { return reinterpret_cast<T*>(uintptr_t{1}); }
  static uint64_t hash(std::string_view key) { return std::hash<std::string_view>()(key); }

  void place(uint64_t h, T* rec) {
    for (size_t i = h & mask_;; i = (i + 1) & mask_) {
      if (slots_[i].ptr == nullptr) {
        slots_[i] = {h, rec};
        return;
      }
    }
  }

  void grow() { rehash(slots_.empty() ? 16 : (size_ * 4 > slots_.size() ? slots_.size() * 2 : slots_.size())); }

  void rehash(size_t capacity) {
    std::vector<Slot> old;
    old.swap(slots_);
    slots_.assign(capacity, Slot{});
    mask_ = capacity - 1;
    used_ = size_;
    for (const Slot& s : old)
      if (s.ptr != nullptr && s.ptr != tombstone()) place(s.hash, s.ptr);
  }

  std::vector<Slot> slots_;
  size_t mask_ = 0;
  size_t used_ = 0;  // live entries and tombstones: what probing walks over
  size_t size_ = 0;  // live entries
};

}  // namespace tolm

namespace tolm {

// A map from names held elsewhere (the key views must outlive the map) to
// small values, flat like NameIndex; for the one-shot tables of load and save.
template <class V>
class FlatNameMap {
 public:
  explicit FlatNameMap(size_t expected = 0) { rehash(capacity_for(expected)); }

  // The value of `key`, or null.
  V* find(std::string_view key) {
    const uint64_t h = std::hash<std::string_view>()(key);
    for (size_t i = h & mask_;; i = (i + 1) & mask_) {
      Slot& s = slots_[i];
      if (!s.used) return nullptr;
      if (s.hash == h && s.key == key) return &s.value;
    }
  }
  const V* find(std::string_view key) const { return const_cast<FlatNameMap*>(this)->find(key); }
  bool contains(std::string_view key) const { return find(key) != nullptr; }

  // Inserts `key` with `value` unless present; returns the value held and
  // whether it was inserted.
  std::pair<V*, bool> emplace(std::string_view key, V value) {
    if ((size_ + 1) * 4 > slots_.size() * 3) rehash(slots_.size() * 2);
    const uint64_t h = std::hash<std::string_view>()(key);
    for (size_t i = h & mask_;; i = (i + 1) & mask_) {
      Slot& s = slots_[i];
      if (!s.used) {
        s = Slot{h, key, std::move(value), true};
        ++size_;
        return {&s.value, true};
      }
      if (s.hash == h && s.key == key) return {&s.value, false};
    }
  }

  size_t size() const { return size_; }

 private:
  struct Slot {
    uint64_t hash = 0;
    std::string_view key;
    V value{};
    bool used = false;
  };

  static size_t capacity_for(size_t n) {
    size_t c = 16;
    while (c * 3 < n * 4 + 4) c <<= 1;
    return c;
  }

  void rehash(size_t capacity) {
    std::vector<Slot> old;
    old.swap(slots_);
    slots_.assign(capacity, Slot{});
    mask_ = capacity - 1;
    size_ = 0;
    for (Slot& s : old)
      if (s.used) emplace_hashed(s);
  }

  void emplace_hashed(Slot& from) {
    for (size_t i = from.hash & mask_;; i = (i + 1) & mask_) {
      if (!slots_[i].used) {
        slots_[i] = std::move(from);
        ++size_;
        return;
      }
    }
  }

  std::vector<Slot> slots_;
  size_t mask_ = 0;
  size_t size_ = 0;
};

}  // namespace tolm
