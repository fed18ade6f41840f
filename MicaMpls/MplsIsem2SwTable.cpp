#include "MicaMpls/MplsIsem2SwTable.h"

#include "OrderedTable/OrderedSwTableAccessor.h"

namespace Asic {
template class OrderedSwTableState<MicaMpls::MplsIsem2Binding>;
template class TableIterState<MicaMpls::MplsIsem2Binding>;
} // namespace Asic

namespace MicaMpls {

Fwk::Ptr<MplsIsem2SwTableIteratorState> mplsIsem2SwTableIteratorStateFactory() {
  return Fwk::make<MplsIsem2SwTableIteratorState>();
}

MplsIsem2SwTable::~MplsIsem2SwTable() = default;

} // namespace MicaMpls
