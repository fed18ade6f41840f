#include "MicaMpls/MplsLemInterface.h"

#include "OrderedTable/OrderedSwTableAccessor.h"
#include "OrderedTable/SwTableInterfaceImpl.h"

namespace Asic {
template class SwTableInterface<MicaMpls::MplsLemBinding>;
} // namespace Asic

namespace MicaMpls {

MplsLemInterface::~MplsLemInterface() = default;

} // namespace MicaMpls
