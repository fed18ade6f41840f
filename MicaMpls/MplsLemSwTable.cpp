#include "MicaMpls/MplsLemSwTable.h"

namespace MicaMpls {

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
