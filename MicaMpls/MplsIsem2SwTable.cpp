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

Fwk::Ptr<MplsIsem2SwTable> MplsIsem2SwTable::MplsIsem2SwTableIs(
    Fwk::Ptr<const Asic::CanonicalTableName> name, Asic::SwTableId swTableId,
    Asic::UnitId unitId, Asic::OrderedSwTableSet *swTableSet,
    Fwk::Ptr<MplsIsem2EntryLog> entryLog, Fwk::Ptr<Asic::GroupResolver> groupResolver) {
  return Fwk::make<MplsIsem2SwTable>(std::move(name), swTableId, unitId, swTableSet,
                                  std::move(entryLog), std::move(groupResolver));
}

Fwk::Ptr<MplsIsem2SwTable> mplsIsem2SwTableFactory(
    Fwk::Ptr<const Asic::CanonicalTableName> name, Asic::SwTableId swTableId,
    Asic::UnitId unitId, Asic::OrderedSwTableSet *swTableSet,
    Fwk::Ptr<MplsIsem2EntryLog> entryLog, Fwk::Ptr<Asic::GroupResolver> groupResolver) {
  return MplsIsem2SwTable::MplsIsem2SwTableIs(std::move(name), swTableId, unitId,
                                          swTableSet, std::move(entryLog),
                                          std::move(groupResolver));
}

} // namespace MicaMpls
