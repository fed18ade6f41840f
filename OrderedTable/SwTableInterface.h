// The interface of a table type, written once for every table family: the
// one object per agent through which the ordered-table framework reaches the
// table type. It creates the type's group interface, entry log and table
// status, cleans the entry log up to what the hardware has confirmed, makes
// the per-unit software tables, and after a restart clears the persisted
// state of the units the agent no longer drives.
//
//   auto isem2 = MicaMpls::MplsIsem2Interface::getIntf(orderedTableIntf);
//   auto table = isem2->makeSwTable(1, helper, false);  // restored, marking
//   isem2->reconcile();                                 // clears other units
//   ...
//   isem2->onDelete();                                  // unregisters it
//
// A family's interface class (MplsIsem2Interface, MplsLemInterface) derives
// from SwTableInterface<Binding> and adds nothing but its name. The binding
// names the interface (kInterfaceClass, kInterfaceSourceUnit, kInterfaceKey)
// and the resource table its tables take resources from (kResourceNamespace,
// kResourceName, which is also the client name) with the texts of the traces
// that name them.
//
// Lifetime: registered with the ordered-table interface and the agent-wide
// registry from its construction until onDelete(); it owns the entry log,
// the table status and the software-table set, which its destruction
// releases. Loop thread only.
#pragma once

#include <cstdlib>
#include <string>

#include "OrderedTable/TableBinding.h"
#include "platform/asic/Constants.h"
#include "platform/asic/OrderedTableInterface.h"
#include "platform/framework/Assert.h"
#include "platform/framework/Errors.h"
#include "platform/trace/Trace.h"

namespace Asic {

template <typename B>
class __attribute__((visibility("default"))) SwTableInterface
    : public TableInterfaceBase {
public:
  using Interface = typename B::Interface;
  using SwTable = typename B::SwTable;
  using EntryLog = typename B::EntryLog;
  using Helper = typename B::Helper;
  using Linkage = typename B::Linkage;
  using ResourceTable = typename B::ResourceTable;

  // The table type's interface: the registered one, or a new one.
  static Fwk::Ptr<Interface>
  getIntf(const Fwk::Ptr<OrderedTableInterface> &orderedTableIntf);

  // Sets the names and runs handleInitialized(); registers the interface.
  explicit SwTableInterface(Fwk::Ptr<OrderedTableInterface> orderedTableIntf);

  // Makes the group interface, the entry log and the status, cleans the log
  // up to the version the hardware has confirmed and registers the
  // interface. A second interface of the type stops the process.
  void handleInitialized();

  SwTableId swTableId() const noexcept {
    return SwTableId(B::Constants::swTableTypeId);
  }

  const Fwk::Ptr<EntryLog> &entryLog() const noexcept { return entryLog_; }
  Fwk::Ptr<EntryLog>
  entryLogIs(SwTableId tableId,
             const Fwk::Ptr<StateDb::EntityManager> &entityManager,
             const Fwk::Ptr<GroupInterface> &groupInterface,
             const std::string &agentName);
  void entryLogDel() { entryLog_ = nullptr; }

  const Fwk::Ptr<OrderedSwTableStatus> &swTableStatus() const noexcept {
    return status_;
  }
  Fwk::Ptr<OrderedSwTableStatus> swTableStatusIs(SwTableId tableId);
  void swTableStatusDel() { status_ = nullptr; }

  const Fwk::Ptr<OrderedSwTableSet> &swTableSet() const noexcept {
    return swTableSet_;
  }
  void swTableSetIs(SwTableId tableId,
                    const Fwk::Ptr<OrderedSwTableStatus> &status);
  void swTableSetDel() { swTableSet_ = nullptr; }

  // The software table of a unit: the one the group's set holds (given the
  // helper, and cleared when asked), or a new one, mounted, linked to its
  // resource table, then cleared or restored, added to the group's set, and
  // marking until the agent has finished its first replay. The group's set
  // is this interface's own until onDelete(); afterwards the group has none
  // (making a table stops the process) or a later interface's. The unit's
  // table takes a client slot of the resource table (at most
  // ResourceTable::kMaxClients units are driven at once): when none is left
  // it throws Fwk::Exception, with nothing mounted, made or changed.
  Fwk::Ptr<SwTable> makeSwTable(UnitId unitId,
                                const Fwk::Ptr<Helper> &swTableHelper,
                                bool clearEntries);
  // Clears, through the entry log, the persisted state of every unit that
  // has a configuration table in the store but no software table in the
  // group's set. The tables it makes take no client slot (until they hold
  // a resource, if ever).
  void reconcile();

  // Unregisters the interface (and takes its tables off the group).
  void onDelete() override;

protected:
  ~SwTableInterface() override;

private:
  template <typename... Args>
  static void trace(Trace::Level level, const char *function, int line,
                    fmt::format_string<Args...> f, Args &&...args) {
    Trace::Handle &h = Trace::handleOf<Interface>();
    if (h.enabled(level)) [[unlikely]] {
      Trace::emitf(h, level, B::kInterfaceSourceUnit, function, line,
                   B::kInterfaceClass, f, std::forward<Args>(args)...);
    }
  }

  // makeSwTable; `driven` false for a unit only reconciled.
  Fwk::Ptr<SwTable> makeTable(UnitId unitId,
                              const Fwk::Ptr<Helper> &swTableHelper,
                              bool clearEntries, bool driven);
  [[noreturn]] void refuseUnit(UnitId unitId) const;

  std::string canonicalGroup() const {
    return Constants::canonicalizeGroupName(groupName());
  }
  Fwk::Ptr<GroupInterface> group() const {
    return orderedTableIntf() ? orderedTableIntf()->groupIntf(canonicalGroup())
                              : nullptr;
  }

  Fwk::Ptr<EntryLog> entryLog_;
  Fwk::Ptr<OrderedSwTableStatus> status_;
  Fwk::Ptr<OrderedSwTableSet> swTableSet_;
};

} // namespace Asic
