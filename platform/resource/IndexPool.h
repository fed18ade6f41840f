// A pool of consecutive hardware indexes, handed out lowest-freed-last
// (LIFO) so that a freed index is reused first.
#pragma once

#include <cstdint>
#include <optional>
#include <vector>

#include "platform/Export.h"

namespace Asic {

class MICA_PLATFORM_API IndexPool {
public:
  IndexPool(std::uint32_t first, std::uint32_t capacity)
      : first_(first), capacity_(capacity) {}

  std::optional<std::uint32_t> take() {
    if (!freed_.empty()) {
      const std::uint32_t i = freed_.back();
      freed_.pop_back();
      ++inUse_;
      return i;
    }
    if (next_ == capacity_) {
      return std::nullopt;
    }
    ++inUse_;
    return first_ + next_++;
  }
  void give(std::uint32_t index) {
    freed_.push_back(index);
    --inUse_;
  }
  std::uint32_t inUse() const noexcept { return inUse_; }
  std::uint32_t capacity() const noexcept { return capacity_; }

private:
  std::uint32_t first_;
  std::uint32_t capacity_;
  std::uint32_t next_ = 0;
  std::uint32_t inUse_ = 0;
  std::vector<std::uint32_t> freed_;
};

} // namespace Asic
