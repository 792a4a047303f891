// ScopedPointer<T>: sole owner of one heap object, deleted with the
// pointer. The moves (release, swap) are how ownership passes between
// parse trees and their nodes.
#pragma once

#include <utility>

template <class T>
class ScopedPointer {
 public:
  ScopedPointer() = default;
  explicit ScopedPointer(T* p) : _p(p) {}
  ~ScopedPointer() { delete _p; }
  ScopedPointer(const ScopedPointer&) = delete;
  ScopedPointer& operator=(const ScopedPointer&) = delete;
  ScopedPointer(ScopedPointer&& other) noexcept : _p(other.release()) {}
  ScopedPointer& operator=(ScopedPointer&& other) noexcept {
    reset(other.release());
    return *this;
  }

  bool valid() const { return _p != nullptr; }
  T* get() const { return _p; }
  T* operator->() const { return _p; }
  T& operator*() const { return *_p; }
  // Gives up ownership without deleting.
  T* release() { return std::exchange(_p, nullptr); }
  // Deletes what is held and takes `p`.
  void reset(T* p = nullptr) { delete std::exchange(_p, p); }
  void swap(ScopedPointer& other) { std::swap(_p, other._p); }

 private:
  T* _p = nullptr;
};
