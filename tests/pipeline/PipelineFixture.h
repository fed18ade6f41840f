// Shared set-up of the change-pipeline and resource-linkage suites: a table
// of each family over a real entry log (its unit's configuration table
// mounted), a group resolver whose passes the test runs, and a resource table
// with this table's client and linkage. A restart closes the store instance
// and builds the agent's side again; the resource table lives on, as the
// resource agent does.
#pragma once

#include <gtest/gtest.h>

#include <algorithm>
#include <filesystem>
#include <string>
#include <vector>

#include "platform/asic/GroupInterface.h"
#include "platform/shm/Store.h"
#include "platform/statedb/EntityManager.h"
#include "support/FreshInstance.h"
#include "table/TableFixture.h"

namespace PipelineTest {

using Asic::EntryState;

struct Isem2 : TableTest::Isem2 {
  using Log = MicaMpls::MplsIsem2EntryLog;
  using ResTable = MicaTunnelNiLib::InLifResourceTable;
  static constexpr const char *kLinkageClass = "MplsIsem2InLifLinkage";
  static constexpr auto logFactory = [](auto &&...a) {
    return MicaMpls::mplsIsem2EntryLogFactory(std::forward<decltype(a)>(a)...);
  };
  static constexpr auto tableFactory = [](auto &&...a) {
    return MicaMpls::mplsIsem2SwTableFactory(std::forward<decltype(a)>(a)...);
  };
  static auto &allocator(ResTable &r) { return r.inLifAllocator(); }
  static MicaTunnelNiLib::InLifEntryKey resKey(std::uint32_t n) {
    MicaTunnelNiLib::InLifEntryKey k;
    k.label = n;
    return k;
  }
  // An entry of `label` that needs resource `res` (0: none), with a client
  // data cookie.
  static Entry entry(std::uint32_t label, std::uint32_t res,
                     std::uint32_t cookie = 0) {
    Entry e;
    e.key = Key(label);
    e.inLifKey = resKey(res);
    e.inLifClientData.counterId = cookie;
    return e;
  }
  static std::uint32_t result(const Entry &e) { return e.inLif0Index; }
  static std::uint32_t result(const MicaTunnelNiLib::InLifData &d) {
    return d.inLif0Index;
  }
  static MicaTunnelNiLib::InLifData data(std::uint32_t n) {
    return {n, n + 1, {}};
  }
};

struct Lem : TableTest::Lem {
  using Log = MicaMpls::MplsLemEntryLog;
  using ResTable = MicaAdjLib::L2AdjToFecResourceTableResourceTable;
  static constexpr const char *kLinkageClass = "MplsLemL2AdjToFecLinkage";
  static constexpr auto logFactory = [](auto &&...a) {
    return MicaMpls::mplsLemEntryLogFactory(std::forward<decltype(a)>(a)...);
  };
  static constexpr auto tableFactory = [](auto &&...a) {
    return MicaMpls::mplsLemSwTableFactory(std::forward<decltype(a)>(a)...);
  };
  static auto &allocator(ResTable &r) { return r.fecAllocator(); }
  static MicaAdjLib::L2AdjToFecResourceTableEntryKey resKey(std::uint32_t n) {
    return {n};
  }
  // LEM entries carry no client data: they differ by their resource only.
  static Entry entry(std::uint32_t label, std::uint32_t res,
                     std::uint32_t = 0) {
    Entry e;
    e.key = Key(label);
    e.l2AdjId = res;
    return e;
  }
  static std::uint32_t result(const Entry &e) { return e.fecId; }
  static std::uint32_t result(const MicaAdjLib::L2AdjToFecData &d) {
    return d.fecId;
  }
  static MicaAdjLib::L2AdjToFecData data(std::uint32_t n) { return {n, 0}; }
};

using Families = ::testing::Types<Isem2, Lem>;

// Another table's change that a change may depend on.
struct Dependency : Asic::DependencyEntryHandle {
  Asic::SwTableId tableId() const override {
    return Asic::SwTableId(0x0A080403);
  }
};
inline Fwk::Ptr<Dependency> dependency(EntryState s) {
  auto d = Fwk::make<Dependency>();
  d->entryStateIs(s);
  return d;
}

// Records every call of the response handlers it hands out.
struct Responses {
  Asic::OrderedSwTable::ResponseHandler handler() {
    return [this](const Fwk::Ptr<const Asic::OrderedSwTable::EntryHandle> &h) {
      calls.push_back(h);
    };
  }
  template <typename H> std::size_t count(const H &h) const {
    return std::count_if(calls.begin(), calls.end(),
                         [&](const auto &c) { return c.ptr() == h.ptr(); });
  }
  std::vector<Fwk::Ptr<const Asic::OrderedSwTable::EntryHandle>> calls;
};

// Turns every level of the named trace handles on while it records.
struct Traces : TableTest::RecordingSink {
  explicit Traces(std::vector<std::string> names) : names_(std::move(names)) {
    for (const auto &n : names_) {
      Trace::maskIs(n, 0xffff);
    }
  }
  ~Traces() override {
    for (const auto &n : names_) {
      Trace::maskIs(n, 0);
    }
  }
  // The first record of a message at a level, or null.
  const Line *find(Trace::Level level, std::string_view message) const {
    auto it = std::find_if(lines.begin(), lines.end(), [&](const Line &l) {
      return l.level == level && l.message == message;
    });
    return it == lines.end() ? nullptr : &*it;
  }
  bool has(Trace::Level level, std::string_view message) const {
    return find(level, message);
  }

private:
  std::vector<std::string> names_;
};

template <typename F> struct Env {
  using Key = typename F::Key;
  static constexpr Asic::UnitId kUnit = 1;

  Env()
      : stateDb(StateDb::entityManagerIs(uniqueAgent(), 0)),
        group(Fwk::make<Asic::GroupInterface>(0x0a08, "MicaMpls")),
        name(Asic::CanonicalTableName::canonicalTableNameIs(
            Asic::CanonicalTableName::softwareTable, "MicaMpls", F::kName)),
        res(Fwk::make<typename F::ResTable>(
            Asic::CanonicalTableName::canonicalTableNameIs(
                Asic::CanonicalTableName::resourceTable, F::kResourceNs,
                F::kClient))),
        client(res->clientInstanceIs(F::kClient)) {
    start();
  }
  ~Env() {
    const std::string dir = Shm::entityManager(stateDb->name(), 0)->directory();
    stop();
    std::filesystem::remove_all(dir);
  }
  static std::string uniqueAgent() {
    return TestSupport::freshInstanceName("pipeline");
  }

  void start() {
    log = F::logFactory(Asic::SwTableId(F::kTypeId), stateDb, group,
                        stateDb->name());
    log->mountSlateConfig(kUnit, 0);
    status = Fwk::make<Asic::OrderedSwTableStatus>(Asic::SwTableId(F::kTypeId));
    set =
        Fwk::make<Asic::OrderedSwTableSet>(Asic::SwTableId(F::kTypeId), status);
    resolver = Fwk::make<Asic::GroupResolver>();
    table = F::tableFactory(name, Asic::SwTableId(F::kTypeId), kUnit, set.ptr(),
                            log, resolver);
    set->swTableIs(table);
    linkage = F::linkage(table.ptr(), client);
    F::linkageIs(*table, linkage);
  }
  // The agent exits: its objects go, the store instance is closed.
  void stop() {
    set->swTableDel(kUnit);
    table = nullptr;
    linkage = nullptr;
    resolver = nullptr;
    set = nullptr;
    log = nullptr;
    Shm::entityManager(stateDb->name(), 0)->close();
  }
  // A new agent process over the same store, restoring its table.
  void restart() {
    stop();
    start();
    table->restoreEntries();
  }

  std::size_t pass() { return resolver->runPass(); }
  // Writes and commits entries of (label, resource).
  void commit(
      std::initializer_list<std::pair<std::uint32_t, std::uint32_t>> entries) {
    for (const auto &[label, r] : entries) {
      table->entryWrite(Key(label), F::entry(label, r), nullptr);
    }
    ASSERT_EQ(pass(), entries.size());
  }
  typename F::Entry committed(std::uint32_t label) const {
    return table->entryFromConfig(Key(label));
  }
  bool logged(std::uint32_t label) const {
    return log->entryHas(Key(label), kUnit);
  }
  typename F::Linkage::SmPtr sm(std::uint32_t r) const {
    return linkage->entryUsageSm(F::resKey(r));
  }

  Fwk::Ptr<StateDb::EntityManager> stateDb;
  Fwk::Ptr<Asic::GroupInterface> group;
  Fwk::Ptr<const Asic::CanonicalTableName> name;
  Fwk::Ptr<typename F::ResTable> res;
  Fwk::Ptr<typename F::Linkage::ClientInstance> client;
  Fwk::Ptr<typename F::Log> log;
  Fwk::Ptr<Asic::OrderedSwTableStatus> status;
  Fwk::Ptr<Asic::OrderedSwTableSet> set;
  Fwk::Ptr<Asic::GroupResolver> resolver;
  Fwk::Ptr<typename F::Table> table;
  Fwk::Ptr<typename F::Linkage> linkage;
};

} // namespace PipelineTest

namespace Asic {
// Readable failures.
inline void PrintTo(const EntryVersion &v, std::ostream *os) {
  *os << fmt::format("{}", v);
}
inline void PrintTo(const MajorVersion &v, std::ostream *os) {
  *os << fmt::format("{}", v);
}
} // namespace Asic
