#include "platform/shm/Errors.h"

#include <fmt/format.h>

#include <atomic>
#include <cstdio>

namespace Shm {

Error::~Error() = default;
PathError::~PathError() = default;
CollectionFullError::~CollectionFullError() = default;
NoSpaceError::~NoSpaceError() = default;
LayoutError::~LayoutError() = default;
NotFoundError::~NotFoundError() = default;

LockedError::LockedError(const std::string &what, int holderPid)
    : Error(what), holderPid_(holderPid) {}
LockedError::~LockedError() = default;

namespace {
std::string corruptionText(const std::string &file,
                           const std::string &collection, std::uint32_t slot,
                           const std::string &detail) {
  std::string s = "corruption in " + file;
  if (!collection.empty()) {
    s += ", collection " + collection;
  }
  if (slot != CorruptionError::kNoSlot) {
    s += fmt::format(", slot {}", slot);
  }
  return s + ": " + detail;
}
} // namespace

CorruptionError::CorruptionError(const std::string &file,
                                 const std::string &collection,
                                 std::uint32_t slot, const std::string &detail)
    : Error(corruptionText(file, collection, slot, detail)), file_(file),
      collection_(collection), slot_(slot) {}
CorruptionError::~CorruptionError() = default;

Reporter::~Reporter() = default;
void Reporter::notice(const std::string &) {}

namespace {

class StderrReporter final : public Reporter {
public:
  void corruption(const std::string &message) override {
    std::fprintf(stderr, "shm: %s\n", message.c_str());
  }
  void notice(const std::string &message) override {
    std::fprintf(stderr, "shm: %s\n", message.c_str());
  }
};

StderrReporter gStderr;
std::atomic<Reporter *> gReporter{nullptr};

} // namespace

Reporter &reporter() noexcept {
  Reporter *r = gReporter.load(std::memory_order_acquire);
  return r ? *r : gStderr;
}

void reporterIs(Reporter *r) noexcept {
  gReporter.store(r, std::memory_order_release);
}

} // namespace Shm
