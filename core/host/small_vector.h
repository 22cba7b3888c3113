// A vector that holds its first N elements in place. A tensor has one
// producer and one or two readers nearly always: a heap block for each of
// those lists, per tensor, is most of what a million-node graph allocates.
#pragma once

#include <cstddef>
#include <cstring>
#include <new>
#include <utility>
#include <type_traits>

namespace tolm {

template <class T, size_t N>
class SmallVector {
  static_assert(std::is_trivially_copyable<T>::value, "SmallVector holds plain records");

 public:
  SmallVector() = default;
  SmallVector(const SmallVector& o) { assign_from(o); }
  SmallVector& operator=(const SmallVector& o) {
    if (this != &o) {
      clear();
      assign_from(o);
    }
    return *this;
  }
  ~SmallVector() { release(); }

  size_t size() const { return size_; }
  bool empty() const { return size_ == 0; }
  T* data() { return heap_ ? heap_ : inline_; }
  const T* data() const { return heap_ ? heap_ : inline_; }
  T* begin() { return data(); }
  T* end() { return data() + size_; }
  const T* begin() const { return data(); }
  const T* end() const { return data() + size_; }
  T& operator[](size_t i) { return data()[i]; }
  const T& operator[](size_t i) const { return data()[i]; }
  T& back() { return data()[size_ - 1]; }
  const T& back() const { return data()[size_ - 1]; }

  void push_back(const T& v) {
    if (size_ == capacity()) grow();
    data()[size_++] = v;
  }
  template <class... Args>
  void emplace_back(Args&&... args) {
    push_back(T{std::forward<Args>(args)...});
  }
  void pop_back() { --size_; }
  // Removes the element at `pos`, keeping the order of the rest.
  void erase(T* pos) {
    T* e = end();
    std::memmove(static_cast<void*>(pos), pos + 1, static_cast<size_t>(e - pos - 1) * sizeof(T));
    --size_;
  }
  void clear() { size_ = 0; }

 private:
  size_t capacity() const { return heap_ ? heap_cap_ : N; }

  void grow() {
    const size_t cap = capacity() * 2;
    T* fresh = static_cast<T*>(::operator new(cap * sizeof(T)));
    std::memcpy(static_cast<void*>(fresh), data(), size_ * sizeof(T));
    release();
    heap_ = fresh;
    heap_cap_ = cap;
  }

  void release() {
    if (heap_) ::operator delete(heap_);
    heap_ = nullptr;
    heap_cap_ = 0;
  }

  void assign_from(const SmallVector& o) {
    for (const T& v : o) push_back(v);
  }

  T inline_[N];
  T* heap_ = nullptr;
  size_t heap_cap_ = 0;
  size_t size_ = 0;
};

}  // namespace tolm
