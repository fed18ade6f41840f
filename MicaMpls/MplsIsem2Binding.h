// The ISEM2 family's binding to the generic table code: its types, its names
// and its few real differences (the in-LIF resource, whose two indexes and
// client data an entry takes). See OrderedTable/TableBinding.h.
#pragma once

#include "MicaMpls/Export.h"
#include "platform/records/MplsIsem2Records.h"
#include "platform/resource/InLifResourceTable.h"

namespace MicaMpls {

class MplsIsem2SwTable;
class MplsIsem2EntryWrapper;
class MplsIsem2ResolverEntry;
class MplsIsem2SwTableHelperBase;
class MplsIsem2EntryLog;
class MplsIsem2InLifLinkage;
class MplsIsem2Interface;

struct MICA_MPLS_API MplsIsem2Binding {
  using Key = MplsIsem2EntryKey;
  using Entry = MplsIsem2Entry;
  using LogEntry = MplsIsem2LogEntry;
  using ResourceKeys = MplsIsem2ResourceKeys;
  using Constants = MplsIsem2Constants;

  using SwTable = MplsIsem2SwTable;
  using EntryWrapper = MplsIsem2EntryWrapper;
  using ResolverEntry = MplsIsem2ResolverEntry;
  using Helper = MplsIsem2SwTableHelperBase;
  using EntryLog = MplsIsem2EntryLog;
  using Interface = MplsIsem2Interface;
  using Linkage = MplsIsem2InLifLinkage;

  using ResourceTable = MicaTunnelNiLib::InLifResourceTable;
  using ResourceHandle = ResourceTable::ResourceHandle;
  using ResourceKey = MicaTunnelNiLib::InLifEntryKey;

  static constexpr const char *kSwTableClass = "MplsIsem2SwTable";
  static constexpr const char *kWrapperClass = "MplsIsem2EntryWrapper";
  static constexpr const char *kTableSourceUnit = "MicaMpls/MplsIsem2SwTable";
  static constexpr const char *kInfraSourceUnit =
      "MicaMpls/MplsIsem2InfraTypes";
  static constexpr const char *kEntryLogClass = "MplsIsem2EntryLog";
  static constexpr const char *kEntryLogSourceUnit =
      "MicaMpls/MplsIsem2EntryLog";
  static constexpr const char *kConfigSlateType =
      "MicaMpls::MplsIsem2ConfigSlate";
  static constexpr const char *kConfigSlateEntryType =
      "MicaMpls::MplsIsem2ConfigSlateEntry";
  static constexpr const char *kEntryLogSlateType =
      "MicaMpls::MplsIsem2EntryLogSlate";
  static constexpr const char *kLogSlateEntryType =
      "MicaMpls::MplsIsem2LogSlateEntry";
  // The second word of the items reported when a collection was wiped
  // (entryLog::MplsIsem2, entryCfg::MplsIsem2).
  static constexpr const char *kWipedItem = "MplsIsem2";
  // The table type's interface, and the resource table its tables take
  // resources from (its name is also the name of their clients).
  static constexpr const char *kInterfaceClass = "MplsIsem2Interface";
  static constexpr const char *kInterfaceSourceUnit =
      "MicaMpls/MplsIsem2Interface";
  static constexpr const char *kInterfaceKey = "MicaMpls::MplsIsem2Interface";
  static constexpr const char *kInterfaceAssertion =
      "!singleton->swTableIntfHas( \"MicaMpls::MplsIsem2Interface\" )";
  static constexpr const char *kResourceNamespace = "MicaTunnelNiLib";
  static constexpr const char *kResourceName = "InLif.featureMicaMpls";
  static constexpr const char *kResourceStartedTrace =
      " ResourceTable: MicaTunnelNiLib::InLif.featureMicaMpls started or "
      "restored with {} entries";
  static constexpr const char *kClearingTrace =
      " Clearing entries for table: MplsIsem2, unitId: {}";
  static constexpr const char *kRestoredTrace =
      " Restored {} entries for table: MplsIsem2, unitId: {}";
  static constexpr const char *kLinkageAttr = "inLifLinkage";

  static ResourceKey resourceKey(const Entry &e) noexcept { return e.inLifKey; }
  static void setResolvedFields(Entry &e, const ResourceHandle *r) noexcept {
    e.inLif0Index = r ? r->data().inLif0Index : 0;
    e.inLif23Index = r ? r->data().inLif23Index : 0;
  }
  // What a request of the entry's in-LIF carries: its client data.
  static const MicaTunnelNiLib::InLifClientData &
  requestData(const Entry &e) noexcept {
    return e.inLifClientData;
  }
  static constexpr bool kCarriesClientData = true;
  static void retrieveClientData(Entry &e, const ResourceHandle &r) noexcept {
    e.inLifClientData = r.data().clientData;
  }
};

} // namespace MicaMpls
