// Counted objects and Ptr<T>, the framework's counted reference.
//
// Every framework object derives from Fwk::Object and is held through Ptr<T>:
//
//   auto handle = Fwk::make<EntryHandle>(version, key, table);
//   Fwk::Ptr<const EntryHandle> view = handle;      // shares the count
//   auto typed = Fwk::ptrCast<MplsIsem2SwTable>(base); // null if not one
//
// The count lives in the object. It is a plain integer while the process runs
// single-threaded (the agent's event loop) and is updated with atomic
// read-modify-write instructions only once the framework is switched to its
// multi-threaded mode with Fwk::multiThreadedIs(true). Switch before a second
// thread can see any object; switching back is only safe once every other
// thread has stopped touching objects.
//
// An object is destroyed when its last Ptr goes away. Objects that can die
// inside a callback of their own (a response handler dropping the last
// reference of its table, say) are kept alive by the caller: loops that call
// out hold a Ptr to what they iterate over.
#pragma once

#include <fmt/format.h>

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <type_traits>
#include <utility>

#include "platform/Export.h"

namespace Fwk {

namespace detail {
MICA_PLATFORM_API extern std::atomic<bool> gMultiThreaded;
} // namespace detail

// Whether reference counts are updated atomically.
inline bool multiThreaded() noexcept {
  return detail::gMultiThreaded.load(std::memory_order_relaxed);
}
MICA_PLATFORM_API void multiThreadedIs(bool on) noexcept;

class MICA_PLATFORM_API Object {
public:
  Object(const Object &) = delete;
  Object &operator=(const Object &) = delete;

  // The number of counted references.
  std::uint32_t references() const noexcept {
    return refs_.load(std::memory_order_relaxed);
  }

  void newRef() const noexcept {
    if (multiThreaded()) {
      refs_.fetch_add(1, std::memory_order_relaxed);
    } else {
      refs_.store(refs_.load(std::memory_order_relaxed) + 1,
                  std::memory_order_relaxed);
    }
  }

  // Drops one reference; the object is destroyed with the last one.
  void deleteRef() const noexcept {
    std::uint32_t left;
    if (multiThreaded()) {
      // acq_rel: the thread that destroys the object must see every write
      // made through the other references before they were dropped.
      left = refs_.fetch_sub(1, std::memory_order_acq_rel) - 1;
    } else {
      left = refs_.load(std::memory_order_relaxed) - 1;
      refs_.store(left, std::memory_order_relaxed);
    }
    if (left == 0) {
      onLastReference();
    }
  }

  // Counted objects live in the framework's slab allocator (Slab.h): those
  // made and dropped at the rate of changes cost a free-list pop and push.
  // The size given to delete is that of the object's own class (the
  // destructor is virtual).
  static void *operator new(std::size_t size);
  static void operator delete(void *p, std::size_t size) noexcept;

protected:
  Object() noexcept = default;
  virtual ~Object();

  // Runs when the last reference is dropped. The default deletes the object.
  virtual void onLastReference() const noexcept;

private:
  mutable std::atomic<std::uint32_t> refs_{0};
};

// A counted reference to a framework object. T may be const-qualified.
template <typename T> class Ptr {
public:
  using element_type = T;

  constexpr Ptr() noexcept = default;
  constexpr Ptr(std::nullptr_t) noexcept {}
  Ptr(T *p) noexcept : p_(p) { // NOLINT(google-explicit-constructor)
    if (p_) {
      p_->newRef();
    }
  }
  Ptr(const Ptr &o) noexcept : Ptr(o.p_) {}
  Ptr(Ptr &&o) noexcept : p_(std::exchange(o.p_, nullptr)) {}
  template <typename U>
  requires std::is_convertible_v<U *, T *> Ptr(const Ptr<U> &o)
  noexcept : Ptr(o.ptr()) {} // NOLINT
  template <typename U>
  requires std::is_convertible_v<U *, T *> Ptr(Ptr<U> &&o)
  noexcept : p_(o.release()) {} // NOLINT

  ~Ptr() {
    if (p_) {
      p_->deleteRef();
    }
  }

  // Copy and swap: safe on self-assignment.
  Ptr &operator=(
      const Ptr &o) noexcept { // NOLINT(bugprone-unhandled-self-assignment)
    Ptr(o).swap(*this);
    return *this;
  }
  Ptr &operator=(Ptr &&o) noexcept {
    Ptr(std::move(o)).swap(*this);
    return *this;
  }
  Ptr &operator=(std::nullptr_t) noexcept {
    Ptr().swap(*this);
    return *this;
  }

  T *ptr() const noexcept { return p_; }
  T *get() const noexcept { return p_; }
  T *operator->() const noexcept { return p_; }
  T &operator*() const noexcept { return *p_; }
  explicit operator bool() const noexcept { return p_ != nullptr; }

  void swap(Ptr &o) noexcept { std::swap(p_, o.p_); }

  // Gives up the reference without dropping it; the caller owns it now.
  T *release() noexcept { return std::exchange(p_, nullptr); }

  template <typename U> bool operator==(const Ptr<U> &o) const noexcept {
    return p_ == o.ptr();
  }
  bool operator==(std::nullptr_t) const noexcept { return p_ == nullptr; }
  bool operator==(const T *p) const noexcept { return p_ == p; }

private:
  T *p_ = nullptr;
};

// Makes a new object and returns the first reference to it.
template <typename T, typename... Args> Ptr<T> make(Args &&...args) {
  return Ptr<T>(new T(std::forward<Args>(args)...));
}

// The object as a T, or null when it is not one.
template <typename T, typename U> Ptr<T> ptrCast(const Ptr<U> &p) noexcept {
  return Ptr<T>(dynamic_cast<T *>(p.ptr()));
}

} // namespace Fwk

template <typename T> struct std::hash<Fwk::Ptr<T>> {
  std::size_t operator()(const Fwk::Ptr<T> &p) const noexcept {
    return std::hash<const void *>()(p.ptr());
  }
};

// A Ptr prints as its pointer value, as the trace records expect.
template <typename T> struct fmt::formatter<Fwk::Ptr<T>> {
  constexpr auto parse(format_parse_context &ctx) { return ctx.begin(); }
  template <typename Ctx> auto format(const Fwk::Ptr<T> &p, Ctx &ctx) const {
    return fmt::format_to(ctx.out(), "{}", fmt::ptr(p.ptr()));
  }
};
