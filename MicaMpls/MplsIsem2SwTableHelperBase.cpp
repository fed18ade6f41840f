#include "MicaMpls/MplsIsem2SwTableHelperBase.h"

#include "MicaMpls/MplsIsem2SwTable.h"

namespace MicaMpls {

MplsIsem2SwTableHelperBase::~MplsIsem2SwTableHelperBase() = default;

} // namespace MicaMpls
