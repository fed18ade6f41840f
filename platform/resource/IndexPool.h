// A pool of consecutive hardware indexes, handed out lowest-freed-last
// (LIFO) so that a freed index is reused first. Indexes restored from a
// previous run are claimed before anything is taken.
//
//   Asic::IndexPool pool(0x1000, 65536);
//   pool.claim(0x1005);              // restored: in use again
//   auto i = pool.take();            // 0x1000
//   pool.give(*i);
#pragma once

#include <cstdint>
#include <optional>
#include <vector>

#include "platform/Export.h"

namespace Asic {

class MICA_PLATFORM_API IndexPool {
public:
  IndexPool(std::uint32_t first, std::uint32_t capacity)
      : first_(first), capacity_(capacity), used_(capacity, false) {}

  std::optional<std::uint32_t> take() {
    if (holes_) {
      collectHoles();
    }
    std::uint32_t n;
    if (!freed_.empty()) {
      n = freed_.back();
      freed_.pop_back();
    } else if (next_ < capacity_) {
      n = next_++;
    } else {
      return std::nullopt;
    }
    used_[n] = true;
    ++inUse_;
    return first_ + n;
  }
  void give(std::uint32_t index) {
    const std::uint32_t n = index - first_;
    if (n >= capacity_ || !used_[n]) {
      return; // not one of ours, or not in use
    }
    used_[n] = false;
    freed_.push_back(n);
    --inUse_;
  }
  // Marks an index in use that was handed out before (restored from the
  // store). False when it is outside the pool or already in use.
  bool claim(std::uint32_t index) {
    const std::uint32_t n = index - first_;
    if (n >= capacity_ || used_[n]) {
      return false;
    }
    used_[n] = true;
    ++inUse_;
    if (n >= next_) {
      next_ = n + 1;
      holes_ = true; // the indexes skipped over are free
    }
    return true;
  }
  std::uint32_t inUse() const noexcept { return inUse_; }
  std::uint32_t capacity() const noexcept { return capacity_; }

private:
  // Every unused index below the high-water mark goes on the free stack,
  // the lowest on top.
  void collectHoles() {
    freed_.clear();
    for (std::uint32_t n = next_; n-- > 0;) {
      if (!used_[n]) {
        freed_.push_back(n);
      }
    }
    holes_ = false;
  }

  std::uint32_t first_;
  std::uint32_t capacity_;
  std::uint32_t next_ = 0;
  std::uint32_t inUse_ = 0;
  bool holes_ = false;
  std::vector<bool> used_;
  std::vector<std::uint32_t> freed_;
};

} // namespace Asic
