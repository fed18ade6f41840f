// Tells an agent that the hardware writer published versions, so that the
// agent never polls: the agent creates a FIFO in its instance directory and
// watches it; the writer puts one byte in it after each publication.
//
//   MicaMplsHw::notifyAgent("mpls-agent");   //
//   <root>/mpls-agent.0/.hw-progress
//
// The byte carries no data: the agent reads the versions from the writer's
// table-version collection. Nothing blocks and no failure is an error: no
// FIFO or no reader (the agent is not running) and a full FIFO (the agent
// has bytes to read already) all mean there is nothing more to do. A path
// that is not a FIFO is left alone.
//
// REQUIRES: the process ignores SIGPIPE (a reader may close the FIFO between
// our open and write).
#pragma once

#include <cstdint>
#include <string>

namespace MicaMplsHw {

// The FIFO of an agent instance: <root>/<agent>.<instance>/.hw-progress.
std::string progressFifoPath(const std::string &agentName,
                             std::uint32_t instanceId = 0);

// Writes one byte into the agent's FIFO if someone reads it. True when the
// byte went in or the agent had unread bytes already (it will look).
bool notifyAgent(const std::string &agentName, std::uint32_t instanceId = 0);

} // namespace MicaMplsHw
