// The LEM family's binding to the generic table code: its types, its names
// and its few real differences (the L2-adjacency-to-FEC resource, whose FEC
// id and error code an entry takes; no client data). See
// OrderedTable/TableBinding.h.
#pragma once

#include "MicaMpls/Export.h"
#include "platform/records/MplsLemRecords.h"
#include "platform/resource/L2AdjToFecResourceTable.h"

namespace MicaMpls {

class MplsLemSwTable;
class MplsLemEntryWrapper;
class MplsLemResolverEntry;
class MplsLemSwTableHelperBase;
class MplsLemEntryLog;
class MplsLemL2AdjToFecLinkage;
class MplsLemInterface;

struct MICA_MPLS_API MplsLemBinding {
  using Key = MplsLemEntryKey;
  using Entry = MplsLemEntry;
  using LogEntry = MplsLemLogEntry;
  using ResourceKeys = MplsLemResourceKeys;
  using Constants = MplsLemConstants;

  using SwTable = MplsLemSwTable;
  using EntryWrapper = MplsLemEntryWrapper;
  using ResolverEntry = MplsLemResolverEntry;
  using Helper = MplsLemSwTableHelperBase;
  using EntryLog = MplsLemEntryLog;
  using Interface = MplsLemInterface;
  using Linkage = MplsLemL2AdjToFecLinkage;

  using ResourceTable = MicaAdjLib::L2AdjToFecResourceTableResourceTable;
  using ResourceHandle = ResourceTable::ResourceHandle;
  using ResourceKey = MicaAdjLib::L2AdjToFecResourceTableEntryKey;

  static constexpr const char *kSwTableClass = "MplsLemSwTable";
  static constexpr const char *kWrapperClass = "MplsLemEntryWrapper";
  static constexpr const char *kTableSourceUnit = "MicaMpls/MplsLemSwTable";
  static constexpr const char *kInfraSourceUnit = "MicaMpls/MplsLemInfraTypes";
  static constexpr const char *kEntryLogClass = "MplsLemEntryLog";
  static constexpr const char *kEntryLogSourceUnit = "MicaMpls/MplsLemEntryLog";
  static constexpr const char *kConfigSlateType =
      "MicaMpls::MplsLemConfigSlate";
  static constexpr const char *kConfigSlateEntryType =
      "MicaMpls::MplsLemConfigSlateEntry";
  static constexpr const char *kEntryLogSlateType =
      "MicaMpls::MplsLemEntryLogSlate";
  static constexpr const char *kLogSlateEntryType =
      "MicaMpls::MplsLemLogSlateEntry";
  // The second word of the items reported when a collection was wiped
  // (entryLog::MplsLem, entryCfg::MplsLem).
  static constexpr const char *kWipedItem = "MplsLem";
  // The table type's interface, and the resource table its tables take
  // resources from (its name is also the name of their clients).
  static constexpr const char *kInterfaceClass = "MplsLemInterface";
  static constexpr const char *kInterfaceSourceUnit =
      "MicaMpls/MplsLemInterface";
  static constexpr const char *kInterfaceKey = "MicaMpls::MplsLemInterface";
  static constexpr const char *kInterfaceAssertion =
      "!singleton->swTableIntfHas( \"MicaMpls::MplsLemInterface\" )";
  static constexpr const char *kResourceNamespace = "MicaAdjLib";
  static constexpr const char *kResourceName =
      "L2AdjToFecResourceTable.micaMpls";
  static constexpr const char *kResourceStartedTrace =
      " ResourceTable: MicaAdjLib::L2AdjToFecResourceTable.micaMpls started or "
      "restored with {} entries";
  static constexpr const char *kClearingTrace =
      " Clearing entries for table: MplsLem, unitId: {}";
  static constexpr const char *kRestoredTrace =
      " Restored {} entries for table: MplsLem, unitId: {}";
  static constexpr const char *kLinkageAttr = "l2AdjToFecLinkage";

  static ResourceKey resourceKey(const Entry &e) noexcept {
    return {e.l2AdjId};
  }
  static void setResolvedFields(Entry &e, const ResourceHandle *r) noexcept {
    e.fecId = r ? r->data().fecId : 0;
    e.errorCode = r ? r->data().errorCode : 0;
  }
  // A request of the adjacency's FEC carries nothing.
  static Fwk::Unit requestData(const Entry &) noexcept { return {}; }
  static constexpr bool kCarriesClientData = false;
  static void retrieveClientData(Entry &, const ResourceHandle &) noexcept {}
};

} // namespace MicaMpls
