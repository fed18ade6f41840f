#include "MicaMpls/MplsLemSwTable.h"

#include "OrderedTable/OrderedSwTableAccessor.h"

namespace Asic {
template class OrderedSwTableState<MicaMpls::MplsLemBinding>;
template class TableIterState<MicaMpls::MplsLemBinding>;
} // namespace Asic

namespace MicaMpls {

Fwk::Ptr<MplsLemSwTableIteratorState> mplsLemSwTableIteratorStateFactory() {
  return Fwk::make<MplsLemSwTableIteratorState>();
}

MplsLemSwTable::~MplsLemSwTable() = default;

} // namespace MicaMpls
