#include "MicaMpls/MplsIsem2Interface.h"

#include "OrderedTable/OrderedSwTableAccessor.h"
#include "OrderedTable/SwTableInterfaceImpl.h"

namespace Asic {
template class SwTableInterface<MicaMpls::MplsIsem2Binding>;
} // namespace Asic

namespace MicaMpls {

MplsIsem2Interface::~MplsIsem2Interface() = default;

} // namespace MicaMpls
