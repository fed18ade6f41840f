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
#include <limits>

#include "platform/Export.h"

namespace Asic {

class ResolverEntry;
class GroupResolver;

class MICA_PLATFORM_API WaitPoint {
public:
  WaitPoint(const WaitPoint &) = delete;
  WaitPoint &operator=(const WaitPoint &) = delete;

  // The number of changes parked here.
  std::size_t parked() const noexcept { return parked_; }

  // Hands the `n` oldest parked changes (all by default) back to their
  // resolvers, each of which then schedules a pass. Changes parked while it
  // runs stay parked.
  void wake(std::size_t n = std::numeric_limits<std::size_t>::max());

protected:
  WaitPoint() noexcept = default;
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
};

} // namespace Asic
