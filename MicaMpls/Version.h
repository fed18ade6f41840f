// The version of libMicaMplsSwBundleSwTable, for tools and for the agent's
// inspection commands.
#pragma once

#include <string_view>

#include "MicaMpls/Export.h"

namespace MicaMpls {

// "<major>.<minor>.<patch>" of the library that is loaded (not of the headers
// the caller was built with).
MICA_MPLS_API std::string_view libraryVersion() noexcept;

} // namespace MicaMpls
