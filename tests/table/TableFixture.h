// Shared set-up of the software-table suites: the two table families as
// test parameters, a trace sink that records, and an observer that records
// announced changes.
#pragma once

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "MicaMpls/MplsIsem2SwTable.h"
#include "MicaMpls/MplsLemSwTable.h"
#include "platform/trace/Trace.h"

namespace TableTest {

struct Isem2 {
  using B = MicaMpls::MplsIsem2Binding;
  using Table = MicaMpls::MplsIsem2SwTable;
  using Helper = MicaMpls::MplsIsem2SwTableHelperBase;
  using Wrapper = MicaMpls::MplsIsem2EntryWrapper;
  using Resolver = MicaMpls::MplsIsem2ResolverEntry;
  using Linkage = MicaMpls::MplsIsem2InLifLinkage;
  using Key = MicaMpls::MplsIsem2EntryKey;
  using Entry = MicaMpls::MplsIsem2Entry;
  static constexpr std::uint32_t kTypeId = 0x0A080401;
  static constexpr const char *kName = "MplsIsem2";
  static constexpr const char *kResourceNs = "MicaTunnelNiLib";
  static constexpr const char *kClient = "InLif.featureMicaMpls";
  static Fwk::Ptr<Table> make(Asic::OrderedSwTableSet *set, Fwk::Ptr<Asic::GroupResolver> r,
                              Fwk::Ptr<const Asic::CanonicalTableName> n, Asic::UnitId u) {
    return MicaMpls::mplsIsem2SwTableFactory(n, Asic::SwTableId(kTypeId), u, set,
                                             nullptr, r);
  }
  static Fwk::Ptr<Linkage> linkage(Table *t, Fwk::Ptr<Linkage::ClientInstance> c) {
    return MicaMpls::mplsIsem2InLifLinkageFactory(t, std::move(c));
  }
  static void linkageIs(Table &t, const Fwk::Ptr<Linkage> &l) { t.inLifLinkageIs(l); }
  static const Fwk::Ptr<Linkage> &linkageOf(const Table &t) { return t.inLifLinkage(); }
  // A resource whose results are distinguishable.
  static typename B::ResourceHandle::DataType resourceData() {
    typename B::ResourceHandle::DataType d;
    d.inLif0Index = 100;
    d.inLif23Index = 200;
    d.clientData.qosProfile = 7;
    return d;
  }
  static std::pair<std::uint32_t, std::uint32_t> resolved(const Entry &e) {
    return {e.inLif0Index, e.inLif23Index};
  }
};

struct Lem {
  using B = MicaMpls::MplsLemBinding;
  using Table = MicaMpls::MplsLemSwTable;
  using Helper = MicaMpls::MplsLemSwTableHelperBase;
  using Wrapper = MicaMpls::MplsLemEntryWrapper;
  using Resolver = MicaMpls::MplsLemResolverEntry;
  using Linkage = MicaMpls::MplsLemL2AdjToFecLinkage;
  using Key = MicaMpls::MplsLemEntryKey;
  using Entry = MicaMpls::MplsLemEntry;
  static constexpr std::uint32_t kTypeId = 0x0A080402;
  static constexpr const char *kName = "MplsLem";
  static constexpr const char *kResourceNs = "MicaAdjLib";
  static constexpr const char *kClient = "L2AdjToFecResourceTable.micaMpls";
  static Fwk::Ptr<Table> make(Asic::OrderedSwTableSet *set, Fwk::Ptr<Asic::GroupResolver> r,
                              Fwk::Ptr<const Asic::CanonicalTableName> n, Asic::UnitId u) {
    return MicaMpls::mplsLemSwTableFactory(n, Asic::SwTableId(kTypeId), u, set,
                                           nullptr, r);
  }
  static Fwk::Ptr<Linkage> linkage(Table *t, Fwk::Ptr<Linkage::ClientInstance> c) {
    return MicaMpls::mplsLemL2AdjToFecLinkageFactory(t, std::move(c));
  }
  static void linkageIs(Table &t, const Fwk::Ptr<Linkage> &l) { t.l2AdjToFecLinkageIs(l); }
  static const Fwk::Ptr<Linkage> &linkageOf(const Table &t) { return t.l2AdjToFecLinkage(); }
  static typename B::ResourceHandle::DataType resourceData() {
    typename B::ResourceHandle::DataType d;
    d.fecId = 100;
    d.errorCode = 200;
    return d;
  }
  static std::pair<std::uint32_t, std::uint32_t> resolved(const Entry &e) {
    return {e.fecId, e.errorCode};
  }
};

using Families = ::testing::Types<Isem2, Lem>;

// Records every trace record while installed.
struct RecordingSink : Trace::Sink {
  struct Line {
    std::string handle;
    Trace::Level level;
    std::string sourceUnit, function, className, message;
    int line;
  };
  RecordingSink() { Trace::sinkIs(this); }
  ~RecordingSink() override { Trace::sinkIs(nullptr); }
  void write(const Trace::Record &r) override {
    lines.push_back({r.handle->name(), r.level, std::string(r.sourceUnit),
                     std::string(r.function), std::string(r.className),
                     std::string(r.message), r.line});
  }
  bool has(std::string_view message) const {
    for (const auto &l : lines) {
      if (l.message == message) {
        return true;
      }
    }
    return false;
  }
  std::vector<Line> lines;
};

// Records the attribute names (and integer keys) of announced changes.
struct ChangeLog : Fwk::Observer {
  void onChange(const Fwk::Notifier &, const Fwk::Change &c) override {
    attrs.push_back(c.attr.name);
  }
  std::size_t count(std::string_view attr) const {
    std::size_t n = 0;
    for (const auto &a : attrs) {
      n += a == attr;
    }
    return n;
  }
  std::vector<std::string> attrs;
};

template <typename F> struct TableEnv {
  TableEnv()
      : status(Fwk::make<Asic::OrderedSwTableStatus>(Asic::SwTableId(F::kTypeId))),
        set(Fwk::make<Asic::OrderedSwTableSet>(Asic::SwTableId(F::kTypeId), status)),
        resolver(Fwk::make<Asic::GroupResolver>()),
        name(Asic::CanonicalTableName::canonicalTableNameIs(
            Asic::CanonicalTableName::softwareTable, "MicaMpls", F::kName)),
        table(F::make(set.ptr(), resolver, name, 1)) {}
  Fwk::Ptr<Asic::OrderedSwTableStatus> status;
  Fwk::Ptr<Asic::OrderedSwTableSet> set;
  Fwk::Ptr<Asic::GroupResolver> resolver;
  Fwk::Ptr<const Asic::CanonicalTableName> name;
  Fwk::Ptr<typename F::Table> table;
};

} // namespace TableTest
