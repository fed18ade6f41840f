// The two table families as the entry-log suites, the fuzz target and its
// seed maker use them: the entry log's types, its factory, and entries made
// from small numbers.
#pragma once

#include <cstdint>

#include "MicaMpls/MplsIsem2EntryLog.h"
#include "MicaMpls/MplsLemEntryLog.h"

namespace EntryLogFamilies {

struct Isem2 {
  using B = MicaMpls::MplsIsem2Binding;
  using Log = MicaMpls::MplsIsem2EntryLog;
  using Key = MicaMpls::MplsIsem2EntryKey;
  using LogEntry = MicaMpls::MplsIsem2LogEntry;
  using RsrcKeys = MicaMpls::MplsIsem2ResourceKeys;
  using LogSlate = MicaMpls::MplsIsem2EntryLogSlate;
  using ConfigSlate = MicaMpls::MplsIsem2ConfigSlate;
  static constexpr std::uint32_t kTypeId = B::Constants::swTableTypeId;
  static constexpr const char *kItem = B::Constants::tableName;
  static Fwk::Ptr<Log> make(const Fwk::Ptr<StateDb::EntityManager> &em,
                            const Fwk::Ptr<Asic::GroupInterface> &g) {
    return MicaMpls::mplsIsem2EntryLogFactory(Asic::SwTableId(kTypeId), em, g,
                                              em->name());
  }
  static LogEntry logEntry(std::uint32_t label, std::uint32_t result) {
    return LogEntry{Key(label), result, result + 1};
  }
  static RsrcKeys rsrcKeys(std::uint32_t v) {
    RsrcKeys r;
    r.inLifKey.label = v;
    r.inLifClientData.opaque[0] = static_cast<std::uint8_t>(v);
    return r;
  }
};

struct Lem {
  using B = MicaMpls::MplsLemBinding;
  using Log = MicaMpls::MplsLemEntryLog;
  using Key = MicaMpls::MplsLemEntryKey;
  using LogEntry = MicaMpls::MplsLemLogEntry;
  using RsrcKeys = MicaMpls::MplsLemResourceKeys;
  using LogSlate = MicaMpls::MplsLemEntryLogSlate;
  using ConfigSlate = MicaMpls::MplsLemConfigSlate;
  static constexpr std::uint32_t kTypeId = B::Constants::swTableTypeId;
  static constexpr const char *kItem = B::Constants::tableName;
  static Fwk::Ptr<Log> make(const Fwk::Ptr<StateDb::EntityManager> &em,
                            const Fwk::Ptr<Asic::GroupInterface> &g) {
    return MicaMpls::mplsLemEntryLogFactory(Asic::SwTableId(kTypeId), em, g,
                                            em->name());
  }
  static LogEntry logEntry(std::uint32_t label, std::uint32_t result) {
    LogEntry e;
    e.key = Key(label);
    e.fecId = result;
    e.errorCode = 0;
    return e;
  }
  static RsrcKeys rsrcKeys(std::uint32_t v) { return RsrcKeys{v}; }
};

} // namespace EntryLogFamilies
