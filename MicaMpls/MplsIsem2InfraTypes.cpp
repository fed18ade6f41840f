#include "MicaMpls/MplsIsem2InfraTypes.h"

#include "MicaMpls/MplsIsem2SwTable.h"

namespace MicaMpls {

// Out of line: the classes' vtables and type information live here.
MplsIsem2EntryWrapper::~MplsIsem2EntryWrapper() = default;
MplsIsem2ResolverEntry::~MplsIsem2ResolverEntry() = default;

} // namespace MicaMpls
