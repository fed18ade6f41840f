// The version of libMicaMplsSwBundleSwTable, for tools and for the agent's
// inspection commands.
#pragma once

#include <string_view>

namespace MicaMpls {

// "<major>.<minor>.<patch>" of the library that is loaded (not of the headers
// the caller was built with).
__attribute__((visibility("default"))) std::string_view libraryVersion() noexcept;

} // namespace MicaMpls
