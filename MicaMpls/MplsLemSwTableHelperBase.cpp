#include "MicaMpls/MplsLemSwTableHelperBase.h"

#include "MicaMpls/MplsLemSwTable.h"

namespace MicaMpls {

MplsLemSwTableHelperBase::~MplsLemSwTableHelperBase() = default;

} // namespace MicaMpls
