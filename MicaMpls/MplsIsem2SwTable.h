// The software copy of the ISEM2 MPLS table of one unit.
//
//   auto table = mplsIsem2SwTableFactory(name, Asic::SwTableId(MplsIsem2Constants::swTableTypeId),
//                                       unit, swTableSet, entryLog, groupResolver);
//   table->inLifLinkageIs(linkage);
//
// Its state and algorithms are the generic ones (OrderedTable/); this class
// adds the ISEM2 names: the linkage attribute `inLifLinkage`.
#pragma once

#include "MicaMpls/Export.h"
#include "MicaMpls/MplsIsem2Binding.h"
#include "MicaMpls/MplsIsem2EntryLog.h"
#include "MicaMpls/MplsIsem2InfraTypes.h"
#include "MicaMpls/MplsIsem2ResourceTableLinkage.h"
#include "MicaMpls/MplsIsem2SwTableHelperBase.h"
#include "OrderedTable/SwTableState.h"

namespace Asic {
// Instantiated once, in the library.
extern template class OrderedSwTableState<MicaMpls::MplsIsem2Binding>;
extern template class TableIterState<MicaMpls::MplsIsem2Binding>;
} // namespace Asic

namespace MicaMpls {

// The state of an iteration over the table (OrderedTable/SwTableIterator.h).
using MplsIsem2SwTableIteratorState = Asic::TableIterState<MplsIsem2Binding>;
MICA_MPLS_API Fwk::Ptr<MplsIsem2SwTableIteratorState> mplsIsem2SwTableIteratorStateFactory();

class MICA_MPLS_API MplsIsem2SwTable
    : public Asic::OrderedSwTableState<MplsIsem2Binding> {
public:
  using OrderedSwTableState::OrderedSwTableState;
  // Made with the constructor's arguments (OrderedTable/SwTableState.h).
  template <typename... Args>
  static Fwk::Ptr<MplsIsem2SwTable> MplsIsem2SwTableIs(Args &&...args) {
    return Fwk::make<MplsIsem2SwTable>(std::forward<Args>(args)...);
  }

  const Fwk::Ptr<MplsIsem2InLifLinkage> &inLifLinkage() const noexcept { return linkage(); }
  void inLifLinkageIs(const Fwk::Ptr<MplsIsem2InLifLinkage> &l) { linkageIs(l); }

protected:
  ~MplsIsem2SwTable() override;
};

// The same as MplsIsem2SwTable::MplsIsem2SwTableIs.
template <typename... Args> Fwk::Ptr<MplsIsem2SwTable> mplsIsem2SwTableFactory(Args &&...args) {
  return MplsIsem2SwTable::MplsIsem2SwTableIs(std::forward<Args>(args)...);
}

} // namespace MicaMpls
