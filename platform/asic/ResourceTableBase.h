// What the ordered-table base library knows of a resource table (an in-LIF
// table, an L2-adjacency-to-FEC table), whatever its key and data: its name,
// its size, how it wakes the group resolvers whose changes wait for its
// resources, and how it lets go of allocations nobody claimed after a
// restart. The resource tables themselves are in platform/resource.
//
//   group->namedTableIs(inLifTable);     // registered with its group, which
//                                        // makes its resolver a waiter
//   group->releaseUnclaimedResources();  // after the first replay
#pragma once

#include <cstddef>
#include <vector>

#include "platform/Export.h"
#include "platform/asic/OrderedSwTable.h"
#include "platform/framework/Notifier.h"

namespace Asic {

class GroupResolver;

class MICA_PLATFORM_API ResourceTableBase : public Fwk::Notifier {
public:
  virtual const Fwk::Ptr<const CanonicalTableName> &name() const noexcept = 0;
  // The number of resources the table holds (allocated or pending).
  virtual std::size_t entries() const noexcept = 0;
  // Wakes `resolver` (updateGenId) after every pass of allocations that
  // resolved or failed anything. A resolver registered twice is woken once.
  virtual void resolverWakeIs(GroupResolver *resolver) = 0;
  // Frees the allocations restored from the store that no client has
  // requested since; returns how many. Called once the agent has replayed
  // what it still wants after a restart.
  virtual std::size_t releaseUnclaimed() = 0;
  // The same, once the hardware has confirmed every table type's changes up
  // to the versions of `fence` (those logged so far: the hardware may still
  // use an unclaimed allocation through a change not yet confirmed, a
  // deletion before the restart, a clear of a unit no longer driven).
  // Returns how many are unclaimed now.
  virtual std::size_t releaseUnclaimedAfter(std::vector<TableVersion> fence) = 0;

protected:
  ResourceTableBase() = default;
  ~ResourceTableBase() override;
};

} // namespace Asic
