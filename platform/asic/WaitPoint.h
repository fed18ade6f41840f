// Something a queued change can wait on: a dependency's handle, a
// resource's handle, room in an entry log. A group resolver parks a change
// that is not ready on what it waits for, and the wait point hands its
// parked changes back to their resolvers when it changes, so that a pass
// looks only at changes that can progress (GroupResolver.h).
//
//   // a table's readiness check that finds its resource still pending:
//   resolverEntry.waitOn(*resourceHandle);
//   return false;
//   // the resource table, when the resource resolves or fails:
//   resourceHandle->wake();        // every parked change: offered again
//   entryLog->wake(room);          // at most `room` of the oldest
//
// A change is parked on at most one wait point, through links in the change
// itself: parking, unparking and handing back cost O(1) each and allocate
// nothing. wake() hands the changes back in the order they were parked.
// Parked changes belong to their resolver (they are still queued): a
// resolver that drops one unparks it, and a wait point that goes away first
// hands back whatever is still parked on it.
//
// Not thread-safe: the agent's event thread owns every wait point.
#pragma once

#include <cstddef>
#include <cstdint>
#include <limits>

#include "platform/Export.h"

namespace Asic {

class ResolverEntry;
class GroupResolver;

// What kind of thing a wait point is, so that inspection tools can say why a
// change waits without knowing the classes behind it.
enum class WaitKind : std::uint8_t {
  other = 0,
  dependency = 1, // another change's handle: it waits for that change
  resource = 2,   // a resource's handle: it waits for the allocation
  logRoom = 3,    // an entry log: it waits for room in the change log
};
inline constexpr std::size_t kWaitKinds = 4;

// "dependency", "resource", ...
MICA_PLATFORM_API const char *waitKindName(WaitKind k) noexcept;

class MICA_PLATFORM_API WaitPoint {
public:
  WaitPoint(const WaitPoint &) = delete;
  WaitPoint &operator=(const WaitPoint &) = delete;

  // The number of changes parked here.
  std::size_t parked() const noexcept { return parked_; }
  WaitKind waitKind() const noexcept { return kind_; }

  // Hands the `n` oldest parked changes (all by default) back to their
  // resolvers, each of which then schedules a pass. Changes parked while it
  // runs stay parked.
  void wake(std::size_t n = std::numeric_limits<std::size_t>::max());

protected:
  explicit WaitPoint(WaitKind kind = WaitKind::other) noexcept : kind_(kind) {}
  ~WaitPoint();

private:
  friend class GroupResolver;
  friend class ResolverEntry;

  // Appends a change (REQUIRES: parked nowhere); const because waiting on
  // something does not change it.
  void park(ResolverEntry &e) const noexcept;
  void unpark(ResolverEntry &e) const noexcept;

  mutable ResolverEntry *head_ = nullptr; // parked first
  mutable ResolverEntry *tail_ = nullptr;
  mutable std::size_t parked_ = 0;
  WaitKind kind_;
};

} // namespace Asic
