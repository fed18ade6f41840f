// The software copy of the LEM MPLS table of one unit.
//
//   auto table = mplsLemSwTableFactory(name, Asic::SwTableId(MplsLemConstants::swTableTypeId),
//                                       unit, swTableSet, entryLog, groupResolver);
//   table->l2AdjToFecLinkageIs(linkage);
//
// Its state and algorithms are the generic ones (OrderedTable/); this class
// adds the LEM names: the linkage attribute `l2AdjToFecLinkage`.
#pragma once

#include "MicaMpls/Export.h"
#include "MicaMpls/MplsLemBinding.h"
#include "MicaMpls/MplsLemEntryLog.h"
#include "MicaMpls/MplsLemInfraTypes.h"
#include "MicaMpls/MplsLemResourceTableLinkage.h"
#include "MicaMpls/MplsLemSwTableHelperBase.h"
#include "OrderedTable/SwTableState.h"

namespace Asic {
// Instantiated once, in the library.
extern template class OrderedSwTableState<MicaMpls::MplsLemBinding>;
extern template class TableIterState<MicaMpls::MplsLemBinding>;
} // namespace Asic

namespace MicaMpls {

// The state of an iteration over the table (OrderedTable/SwTableIterator.h).
using MplsLemSwTableIteratorState = Asic::TableIterState<MplsLemBinding>;
MICA_MPLS_API Fwk::Ptr<MplsLemSwTableIteratorState> mplsLemSwTableIteratorStateFactory();

class MICA_MPLS_API MplsLemSwTable
    : public Asic::OrderedSwTableState<MplsLemBinding> {
public:
  using OrderedSwTableState::OrderedSwTableState;
  // Made with the constructor's arguments (OrderedTable/SwTableState.h).
  template <typename... Args>
  static Fwk::Ptr<MplsLemSwTable> MplsLemSwTableIs(Args &&...args) {
    return Fwk::make<MplsLemSwTable>(std::forward<Args>(args)...);
  }

  const Fwk::Ptr<MplsLemL2AdjToFecLinkage> &l2AdjToFecLinkage() const noexcept { return linkage(); }
  void l2AdjToFecLinkageIs(const Fwk::Ptr<MplsLemL2AdjToFecLinkage> &l) { linkageIs(l); }

protected:
  ~MplsLemSwTable() override;
};

// The same as MplsLemSwTable::MplsLemSwTableIs.
template <typename... Args> Fwk::Ptr<MplsLemSwTable> mplsLemSwTableFactory(Args &&...args) {
  return MplsLemSwTable::MplsLemSwTableIs(std::forward<Args>(args)...);
}

} // namespace MicaMpls
