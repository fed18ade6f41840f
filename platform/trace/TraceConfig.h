// What Trace.cpp tells the ring about the configuration.
//
// Internal to libMicaPlatform.
#pragma once

#include <string>

namespace Trace::detail {

// The ring file to write from now on (<MICA_TRACE_FILE>.ring), or empty when
// no trace file is configured and the ring is not written. Called under the
// configuration lock, by every configureFromEnvironment() and by the first
// configuration of the process.
void ringPathIs(const std::string &path);

} // namespace Trace::detail

namespace Trace::detail {

// Reads the environment the first time anything asks (a handle, the ring);
// later calls cost one load.
void ensureConfigured() noexcept;

} // namespace Trace::detail
