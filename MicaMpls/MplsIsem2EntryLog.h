// The entry log of the ISEM2 table type: the generic entry log
// (OrderedTable/EntryLog.h) over the ISEM2 records, and the names of its
// shared-memory entities and records.
#pragma once

#include <string>

#include "MicaMpls/Export.h"
#include "MicaMpls/MplsIsem2Binding.h"
#include "OrderedTable/EntryLog.h"

namespace MicaMpls {

using MplsIsem2ConfigSlateEntry = Asic::ConfigSlateEntry<MplsIsem2Binding>;
using MplsIsem2LogSlateEntry = Asic::LogSlateEntry<MplsIsem2Binding>;
using MplsIsem2ConfigSlate = Asic::ConfigSlate<MplsIsem2Binding>;
using MplsIsem2EntryLogSlate = Asic::EntryLogSlate<MplsIsem2Binding>;

class MICA_MPLS_API MplsIsem2EntryLog : public Asic::OrderedEntryLog<MplsIsem2Binding> {
public:
  MplsIsem2EntryLog(Asic::SwTableId tableId,
                   const Fwk::Ptr<StateDb::EntityManager> &entityManager,
                   const Fwk::Ptr<Asic::GroupInterface> &groupInterface,
                   std::string agentName);
  template <typename... Args>
  static Fwk::Ptr<MplsIsem2EntryLog> MplsIsem2EntryLogIs(Args &&...args) {
    return Fwk::make<MplsIsem2EntryLog>(std::forward<Args>(args)...);
  }

protected:
  ~MplsIsem2EntryLog() override;
};

// The same as MplsIsem2EntryLog::MplsIsem2EntryLogIs.
template <typename... Args> Fwk::Ptr<MplsIsem2EntryLog> mplsIsem2EntryLogFactory(Args &&...args) {
  return MplsIsem2EntryLog::MplsIsem2EntryLogIs(std::forward<Args>(args)...);
}

} // namespace MicaMpls
