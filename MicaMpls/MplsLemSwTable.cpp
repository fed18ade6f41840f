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

Fwk::Ptr<MplsLemSwTable> MplsLemSwTable::MplsLemSwTableIs(
    Fwk::Ptr<const Asic::CanonicalTableName> name, Asic::SwTableId swTableId,
    Asic::UnitId unitId, Asic::OrderedSwTableSet *swTableSet,
    Fwk::Ptr<MplsLemEntryLog> entryLog, Fwk::Ptr<Asic::GroupResolver> groupResolver) {
  return Fwk::make<MplsLemSwTable>(std::move(name), swTableId, unitId, swTableSet,
                                  std::move(entryLog), std::move(groupResolver));
}

Fwk::Ptr<MplsLemSwTable> mplsLemSwTableFactory(
    Fwk::Ptr<const Asic::CanonicalTableName> name, Asic::SwTableId swTableId,
    Asic::UnitId unitId, Asic::OrderedSwTableSet *swTableSet,
    Fwk::Ptr<MplsLemEntryLog> entryLog, Fwk::Ptr<Asic::GroupResolver> groupResolver) {
  return MplsLemSwTable::MplsLemSwTableIs(std::move(name), swTableId, unitId,
                                          swTableSet, std::move(entryLog),
                                          std::move(groupResolver));
}

} // namespace MicaMpls
