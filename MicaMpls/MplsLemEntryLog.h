// The entry log of the LEM table type: the generic entry log
// (OrderedTable/EntryLog.h) over the LEM records, and the names of its
// shared-memory entities and records.
#pragma once

#include <string>

#include "MicaMpls/Export.h"
#include "MicaMpls/MplsLemBinding.h"
#include "OrderedTable/EntryLog.h"

namespace MicaMpls {

using MplsLemConfigSlateEntry = Asic::ConfigSlateEntry<MplsLemBinding>;
using MplsLemLogSlateEntry = Asic::LogSlateEntry<MplsLemBinding>;
using MplsLemConfigSlate = Asic::ConfigSlate<MplsLemBinding>;
using MplsLemEntryLogSlate = Asic::EntryLogSlate<MplsLemBinding>;

class MICA_MPLS_API MplsLemEntryLog : public Asic::OrderedEntryLog<MplsLemBinding> {
public:
  MplsLemEntryLog(Asic::SwTableId tableId,
                   const Fwk::Ptr<StateDb::EntityManager> &entityManager,
                   const Fwk::Ptr<Asic::GroupInterface> &groupInterface,
                   std::string agentName);
  template <typename... Args>
  static Fwk::Ptr<MplsLemEntryLog> MplsLemEntryLogIs(Args &&...args) {
    return Fwk::make<MplsLemEntryLog>(std::forward<Args>(args)...);
  }

protected:
  ~MplsLemEntryLog() override;
};

// The same as MplsLemEntryLog::MplsLemEntryLogIs.
template <typename... Args> Fwk::Ptr<MplsLemEntryLog> mplsLemEntryLogFactory(Args &&...args) {
  return MplsLemEntryLog::MplsLemEntryLogIs(std::forward<Args>(args)...);
}

} // namespace MicaMpls
