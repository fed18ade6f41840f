#include "MicaMpls/Version.h"

namespace MicaMpls {

std::string_view libraryVersion() noexcept { return MICA_MPLS_VERSION; }

} // namespace MicaMpls
