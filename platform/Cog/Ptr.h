// Intrusive reference counting. Every entity derives from PtrInterface and is
// held through Cog::Ptr<T> (Cog::Ptr<const T> for read-only use); objects are
// made with Cog::allocate<T>(args...).
//
// Counts are updated with atomic read-modify-write operations when the
// process-wide thread-safe-pointer switch is on, and with plain increments
// otherwise (the default: entities live on their owner's reactor thread).
// Turn the switch on before a second thread touches any pointer.
//
// When the reference bits of the count reach zero the object's zero-reference
// handler, onZeroReferences(), runs; by default it deletes the object.
#pragma once

#include <atomic>
#include <cstdint>
#include <functional>
#include <type_traits>
#include <utility>

#include "Cog/Hash.h"

namespace Cog {

void threadSafePtrIs(bool on);
bool threadSafePtr();

namespace detail {
extern bool gThreadSafePtr;
}

class PtrInterface {
 public:
  // The low 28 bits count references; the high bits are flags for the
  // framework (the zero-reference handler looks at the reference bits only).
  static constexpr std::uint32_t kRefMask = 0x0FFFFFFFu;

  PtrInterface() = default;
  PtrInterface(const PtrInterface&) : count_(0) {}
  PtrInterface& operator=(const PtrInterface&) { return *this; }

  void newRef() const {
    if (detail::gThreadSafePtr) {
      count_.fetch_add(1, std::memory_order_relaxed);
    } else {
      count_.store(count_.load(std::memory_order_relaxed) + 1, std::memory_order_relaxed);
    }
  }
  void deleteRef() const {
    std::uint32_t after;
    if (detail::gThreadSafePtr) {
      after = count_.fetch_sub(1, std::memory_order_acq_rel) - 1;
    } else {
      after = count_.load(std::memory_order_relaxed) - 1;
      count_.store(after, std::memory_order_relaxed);
    }
    if ((after & kRefMask) == 0) const_cast<PtrInterface*>(this)->onZeroReferences();
  }
  std::uint32_t references() const { return count_.load(std::memory_order_relaxed) & kRefMask; }

 protected:
  virtual ~PtrInterface() = default;
  // Runs when the last reference goes. Overriders that keep the object alive
  // must take a new reference or arrange their own deletion.
  virtual void onZeroReferences() { delete this; }

  std::uint32_t flags() const { return count_.load(std::memory_order_relaxed) & ~kRefMask; }
  void flagsIs(std::uint32_t set, std::uint32_t clear) {
    std::uint32_t v = count_.load(std::memory_order_relaxed);
    count_.store((v | set) & ~clear, std::memory_order_relaxed);
  }

 private:
  mutable std::atomic<std::uint32_t> count_{0};
};

template <typename T>
class Ptr {
 public:
  Ptr() = default;
  Ptr(std::nullptr_t) {}  // NOLINT
  Ptr(T* p) : p_(p) { ref(); }  // NOLINT: raw pointers from allocate convert
  Ptr(const Ptr& o) : p_(o.p_) { ref(); }
  Ptr(Ptr&& o) noexcept : p_(std::exchange(o.p_, nullptr)) {}
  template <typename U>
    requires std::is_convertible_v<U*, T*>
  Ptr(const Ptr<U>& o) : p_(o.ptr()) {  // NOLINT
    ref();
  }
  template <typename U>
    requires std::is_convertible_v<U*, T*>
  Ptr(Ptr<U>&& o) noexcept : p_(o.release()) {}  // NOLINT
  ~Ptr() { unref(); }

  Ptr& operator=(const Ptr& o) {
    Ptr(o).swap(*this);
    return *this;
  }
  Ptr& operator=(Ptr&& o) noexcept {
    Ptr(std::move(o)).swap(*this);
    return *this;
  }
  Ptr& operator=(std::nullptr_t) {
    Ptr().swap(*this);
    return *this;
  }

  T* ptr() const { return p_; }
  T* operator->() const { return p_; }
  T& operator*() const { return *p_; }
  explicit operator bool() const { return p_ != nullptr; }
  bool operator!() const { return p_ == nullptr; }

  // Gives up ownership of the reference without dropping it.
  T* release() { return std::exchange(p_, nullptr); }
  void swap(Ptr& o) noexcept { std::swap(p_, o.p_); }

  template <typename U>
  friend bool operator==(const Ptr& a, const Ptr<U>& b) {
    return a.ptr() == b.ptr();
  }
  friend bool operator==(const Ptr& a, std::nullptr_t) { return a.p_ == nullptr; }

 private:
  void ref() const {
    if (p_) p_->newRef();
  }
  void unref() const {
    if (p_) p_->deleteRef();
  }
  T* p_ = nullptr;
};

template <typename T, typename... Args>
Ptr<T> allocate(Args&&... args) {
  return Ptr<T>(new T(std::forward<Args>(args)...));
}

template <typename T, typename U>
Ptr<T> ptr_cast(const Ptr<U>& p) {
  return Ptr<T>(dynamic_cast<T*>(p.ptr()));
}
template <typename T, typename U>
Ptr<T> ptr_const_cast(const Ptr<U>& p) {
  return Ptr<T>(const_cast<T*>(p.ptr()));
}

}  // namespace Cog

template <typename T>
struct std::hash<Cog::Ptr<T>> {
  std::size_t operator()(const Cog::Ptr<T>& p) const noexcept {
    return std::hash<const void*>()(p.ptr());
  }
};
