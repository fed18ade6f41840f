// What the hardware holds that the agent no longer has: resource indexes
// (in-LIF indexes, FEC ids) in the hardware tables that no allocation in the
// agent's store accounts for.
//
//   for (const auto &line : MplsSoak::unallocatedInHardware(store,
//   "mpls-agent"))
//     std::printf("%s\n", line.c_str());
//
// A resource is freed only once no hardware entry uses it any more: its
// last user's change (a remove, a rewrite onto another resource) must be in
// the hardware first, or the chip points at an index that may already be
// handed to someone else. So at any instant, with the agent and the writer
// stopped anywhere, every index in the hardware tables is allocated in the
// agent's store.
//
// REQUIRES: neither the agent nor the hardware writer runs (the two
// instances are read as one still picture). Sets MICA_SHM_ROOT to `store`.
#pragma once

#include <string>
#include <vector>

namespace MplsSoak {

// The hardware entries whose indexes are not allocated (at most `limit`
// described, then a count of the rest).
std::vector<std::string> unallocatedInHardware(const std::string &store,
                                               const std::string &agent,
                                               std::size_t limit = 10);

} // namespace MplsSoak
