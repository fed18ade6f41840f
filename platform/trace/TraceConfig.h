// What the configuration (Trace.cpp) and the ring (Ring.cpp) tell each other.
//
// Internal to libMicaPlatform.
#pragma once

#include <string>

namespace Trace::detail {

// The ring file to write from now on (<MICA_TRACE_FILE>.ring), or empty when
// no trace file is configured and the ring is not written. Called under the
// configuration lock, by every configureFromEnvironment() and by the first
// configuration of the process. The ring file itself is opened when the
// first message is written.
void ringPathIs(const std::string &path);

// Reads the environment the first time anything asks (a handle, the ring);
// later calls cost one load.
void ensureConfigured() noexcept;

} // namespace Trace::detail
