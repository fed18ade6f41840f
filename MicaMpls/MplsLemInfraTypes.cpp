#include "MicaMpls/MplsLemInfraTypes.h"

#include "MicaMpls/MplsLemSwTable.h"

namespace MicaMpls {

// Out of line: the classes' vtables and type information live here.
MplsLemEntryWrapper::~MplsLemEntryWrapper() = default;
MplsLemResolverEntry::~MplsLemResolverEntry() = default;

} // namespace MicaMpls
