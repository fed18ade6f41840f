// The checker mode of mpls-agent (--verify): do the hardware writer's tables
// hold exactly the desired set, entry for entry? Read-only: it takes no lock
// and writes nothing, so it can run beside a live agent and hardware writer.
//
//   int rc = MplsAgent::verify("mpls-agent", set, units, stdout);
//
// Every table and unit that the desired set names or the hardware writer
// has is compared. An entry matches when its key is in the hardware table of
// its table and unit and the resolved fields there are those of its
// resource, as the agent's store allocated it: the in-LIF's two indexes
// (ISEM2), the adjacency's FEC and error code (LEM). Keys in the hardware
// that the set does not name are differences too.
//
// Returns 0 when everything matches, 1 when something differs (the first
// differences are listed), 4 when the hardware writer's store is missing.
#pragma once

#include <cstdio>
#include <string>
#include <vector>

#include "platform/asic/Types.h"
#include "tools/mpls-agent/DesiredSet.h"

namespace MplsAgent {

int verify(const std::string &agent, const DesiredSet &desired,
           const std::vector<Asic::UnitId> &units, std::FILE *out);

} // namespace MplsAgent
