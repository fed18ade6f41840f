// Attributes (Attributes.h) of the runtime's objects: the group resolver
// and the changes it holds, entry handles, table statistics, and the
// resource tables with their handles and records.
//
//   Introspect::inspectOperation(*group->groupResolver(), visitor);
//   Introspect::genericIfIterator(*inLifTable, "entry", {}, 100, visitor);
//
// The MicaMpls records are described in Records.h, the tables' own classes
// in OrderedTable/TableAttributes.h.
#pragma once

#include <bit>

#include "platform/asic/GroupResolver.h"
#include "platform/asic/OrderedSwTable.h"
#include "platform/asic/Types.h"
#include "platform/attributes/Attributes.h"
#include "platform/resource/InLifResourceTable.h"
#include "platform/resource/L2AdjToFecResourceTable.h"
#include "platform/resource/ResourceTable.h"

namespace Introspect {

// "made", "logged", ... for an entry or resource state.
inline const char *entryStateName(std::uint8_t s) noexcept {
  switch (static_cast<Asic::EntryState>(s)) {
  case Asic::EntryState::made:
    return "made";
  case Asic::EntryState::logged:
    return "logged";
  case Asic::EntryState::inProgress:
    return "inProgress";
  case Asic::EntryState::rejected:
    return "rejected";
  case Asic::EntryState::finished:
    return "finished";
  case Asic::EntryState::failed:
    return "failed";
  case Asic::EntryState::resolveFailed:
    return "resolveFailed";
  }
  return "unknown";
}

template <> struct Describe<Asic::SwTableId> {
  static constexpr const char *kClass = "Asic::SwTableId";
  template <typename A> static void attributes(const Asic::SwTableId &t, A &a) {
    a("packed", t.packed());
    a("text", fmt::format("{}", t));
  }
};

template <> struct Describe<Asic::EntryVersion> {
  static constexpr const char *kClass = "Asic::EntryVersion";
  template <typename A>
  static void attributes(const Asic::EntryVersion &v, A &a) {
    a("valid", v.valid());
    if (v.valid()) {
      a("seq", v.seq);
      a("minor", v.minor);
    }
  }
};

template <> struct Describe<Asic::SwTableStats> {
  static constexpr const char *kClass = "Asic::SwTableStats";
  template <typename A>
  static void attributes(const Asic::SwTableStats &s, A &a) {
#define MICA_DESCRIBE_COUNTER(name, id) a(#name, s.name());
    MICA_SW_TABLE_STATS_COUNTERS(MICA_DESCRIBE_COUNTER)
#undef MICA_DESCRIBE_COUNTER
    a("lastCommitTimeNs", std::chrono::duration_cast<std::chrono::nanoseconds>(
                              s.lastCommitTime().time_since_epoch())
                              .count());
  }
};

// A change's handle, whatever its table.
template <> struct Describe<Asic::OrderedSwTable::EntryHandle> {
  static constexpr const char *kClass = "Asic::OrderedSwTable::EntryHandle";
  template <typename A>
  static void attributes(const Asic::OrderedSwTable::EntryHandle &h, A &a) {
    a("version", h.version());
    a("logVersion", h.logVersion());
    a("entryState", static_cast<std::uint8_t>(h.entryState()));
    a("entryStateName",
      entryStateName(static_cast<std::uint8_t>(h.entryState())));
    a("tableName", h.tableName());
    a("hasResponseHandler", static_cast<bool>(h.responseHandler()));
    a("waiters", h.parked());
  }
};

// A queued change, whatever its table: where it stands in the resolver.
template <> struct Describe<Asic::ResolverEntry> {
  static constexpr const char *kClass = "Asic::ResolverEntry";
  template <typename A>
  static void attributes(const Asic::ResolverEntry &e, A &a) {
    a("queueSeq", e.queueSeq());
    a("queuedAtNs", e.queuedAtNs());
    a("isEntryDeleted", e.isEntryDeleted());
    a("isTableDeleted", e.isTableDeleted());
    a("isMarked", e.isMarked());
    a("offered", e.offered());
    const Asic::WaitPoint *w = e.parkedOn();
    a("waitsOn", w ? Asic::waitKindName(w->waitKind()) : "");
    if (const auto &d = e.dependencyHandle()) {
      a("dependencyState", static_cast<std::uint8_t>(d->entryState()));
      a("dependencyTable", d->tableId());
    }
  }
};

// An element of the resolver's queue walk.
struct QueuedChange {
  const Asic::ResolverEntry &entry;
  bool laneHead; // the oldest queued change of its key: only those are offered
};

template <> struct Describe<QueuedChange> {
  static constexpr const char *kClass = "Asic::GroupResolver::QueuedChange";
  template <typename A> static void attributes(const QueuedChange &q, A &a) {
    Describe<Asic::ResolverEntry>::attributes(q.entry, a);
    a("laneHead", q.laneHead);
  }
};

template <> struct Describe<Asic::GroupResolver> {
  static constexpr const char *kClass = "Asic::GroupResolver";
  template <typename A>
  static void attributes(const Asic::GroupResolver &r, A &a) {
    a("genId", r.genId());
    a("suspended", r.suspended());
    a("passScheduled", r.passScheduled());
    a("passes", r.passes());
    a("commits", r.commits());
    a("offerable", r.offerable());
    a("lanes", r.lanes());
    a("removeAllsQueued", r.removeAllsQueued());
    a("waitingUnnamed", r.waitingUnnamed());
    a.visitor().beginRecord("parkedOn");
    for (std::size_t k = 1; k < Asic::kWaitKinds; ++k) {
      const auto kind = static_cast<Asic::WaitKind>(k);
      a(Asic::waitKindName(kind), r.parkedOn(kind));
    }
    a.visitor().endRecord();
    a.collection("resolverQueue", r.resolverQueueSize());
  }
  // resolverQueue: the queued changes, lane by lane (a page holds whole
  // lanes of keys, at most `limit` of them), remove-alls first.
  template <typename C>
  static void collections(const Asic::GroupResolver &r, C &c) {
    c.walk("resolverQueue",
           [&r](const Cursor &after, std::size_t limit, auto &emit) {
             using Q = Asic::GroupResolver::QueueCursor;
             Q at{}, next{};
             const bool resume = !after.empty();
             if (resume && !after.to(at)) {
               throw BadCursor();
             }
             const bool more = r.resolverQueueWalk(
                 resume ? &at : nullptr, limit,
                 [&](const Asic::ResolverEntry &e, bool head) {
                   emit(QueuedChange{e, head});
                 },
                 next);
             return more ? Cursor::of(next) : Cursor();
           });
  }
};

// ---- Resource tables ----

template <typename K, typename D, std::uint16_t kId>
struct Describe<Asic::ResourceHandle<K, D, kId>> {
  static constexpr const char *kClass = "Asic::ResourceHandle";
  template <typename A>
  static void attributes(const Asic::ResourceHandle<K, D, kId> &h, A &a) {
    a("key", h.key());
    a("entryState", h.entryState());
    a("entryStateName", entryStateName(h.entryState()));
    a("version", h.version());
    a("data", h.data());
    a("postRelease", h.isPostReleaseProtoState());
    a("waiters", h.parked());
  }
};

// An element of a resource table's walk: a held key's handle and how many
// clients hold it.
template <typename Handle> struct ResourceHeld {
  const Handle &handle;
  int holders;
};

template <typename Handle> struct Describe<ResourceHeld<Handle>> {
  static constexpr const char *kClass = "Asic::ResourceTable::Held";
  template <typename A>
  static void attributes(const ResourceHeld<Handle> &h, A &a) {
    Describe<Handle>::attributes(h.handle, a);
    a("holders", h.holders);
  }
};

// The description of every resource table (the concrete tables below
// derive from it).
template <typename Table> struct DescribeResourceTable {
  static constexpr const char *kClass = "Asic::ResourceTable";
  template <typename A> static void attributes(const Table &t, A &a) {
    a("name", t.name() ? t.name()->str() : std::string());
    a("capacity", t.capacity());
    a("inUse", t.allocator().inUse());
    a("pendingAllocations", t.pendingAllocations());
    a("heldAllocations", t.heldAllocations());
    a("releasesPending", t.releasesPending());
    a("restored", t.restored());
    a.collection("entry", t.entries());
  }
  // entry: every key held, with its handle and how many clients hold it.
  template <typename C> static void collections(const Table &t, C &c) {
    c.walk("entry", [&t](const Cursor &after, std::size_t limit, auto &emit) {
      using Key = typename Table::ResourceHandle::KeyType;
      Key at{}, next{};
      const bool resume = !after.empty();
      if (resume && !after.to(at)) {
        throw BadCursor();
      }
      const bool more = t.entryWalk(
          resume ? &at : nullptr, limit,
          [&](const Key &, const typename Table::ResourceHandle &h,
              int holders) {
            emit(ResourceHeld<typename Table::ResourceHandle>{h, holders});
          },
          next);
      return more ? Cursor::of(next) : Cursor();
    });
  }
};

template <>
struct Describe<MicaTunnelNiLib::InLifResourceTable>
    : DescribeResourceTable<MicaTunnelNiLib::InLifResourceTable> {
  static constexpr const char *kClass = "MicaTunnelNiLib::InLifResourceTable";
};
template <>
struct Describe<MicaAdjLib::L2AdjToFecResourceTableResourceTable>
    : DescribeResourceTable<MicaAdjLib::L2AdjToFecResourceTableResourceTable> {
  static constexpr const char *kClass =
      "MicaAdjLib::L2AdjToFecResourceTableResourceTable";
};

template <> struct Describe<MicaTunnelNiLib::InLifEntryKey> {
  static constexpr const char *kClass = "MicaTunnelNiLib::InLifEntryKey";
  template <typename A>
  static void attributes(const MicaTunnelNiLib::InLifEntryKey &k, A &a) {
    a("lifType", k.lifType);
    a("vrfId", k.vrfId);
    a("label", k.label);
    a("profile", k.profile);
    a("ownerCookie", k.ownerCookie);
    a("flags", k.flags);
  }
};

// The opaque part shows as its first four bytes, little-endian (what the
// agent's desired-state files call an in-LIF's data), and a digest.
template <> struct Describe<MicaTunnelNiLib::InLifClientData> {
  static constexpr const char *kClass = "MicaTunnelNiLib::InLifClientData";
  template <typename A>
  static void attributes(const MicaTunnelNiLib::InLifClientData &d, A &a) {
    a("qosProfile", d.qosProfile);
    a("ttlProfile", d.ttlProfile);
    a("counterId", d.counterId);
    a("flags", d.flags);
    a("data", std::uint32_t{d.opaque[0]} | std::uint32_t{d.opaque[1]} << 8 |
                  std::uint32_t{d.opaque[2]} << 16 |
                  std::uint32_t{d.opaque[3]} << 24);
    a("opaqueDigest", Fwk::hashBytes(d.opaque, sizeof d.opaque, 0));
  }
};

template <> struct Describe<MicaTunnelNiLib::InLifData> {
  static constexpr const char *kClass = "MicaTunnelNiLib::InLifData";
  template <typename A>
  static void attributes(const MicaTunnelNiLib::InLifData &d, A &a) {
    a("inLif0Index", d.inLif0Index);
    a("inLif23Index", d.inLif23Index);
    a("clientData", d.clientData);
  }
};

template <> struct Describe<MicaAdjLib::L2AdjToFecResourceTableEntryKey> {
  static constexpr const char *kClass =
      "MicaAdjLib::L2AdjToFecResourceTableEntryKey";
  template <typename A>
  static void attributes(const MicaAdjLib::L2AdjToFecResourceTableEntryKey &k,
                         A &a) {
    a("l2AdjId", k.l2AdjId);
  }
};

template <> struct Describe<MicaAdjLib::L2AdjToFecData> {
  static constexpr const char *kClass = "MicaAdjLib::L2AdjToFecData";
  template <typename A>
  static void attributes(const MicaAdjLib::L2AdjToFecData &d, A &a) {
    a("fecId", d.fecId);
    a("errorCode", d.errorCode);
  }
};

} // namespace Introspect
