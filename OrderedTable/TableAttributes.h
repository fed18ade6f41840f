// Attributes (platform/attributes/Attributes.h) of the tables' own
// classes, written once for every table family: the software table, its
// entry wrappers and entry handles, the entry log, and the resource linkage.
//
//   Introspect::inspectOperation(*table, visitor);   // attributes by name
//   Introspect::genericIfIterator(*table, "transientAddEntry", {}, 50, v);
//   Introspect::forEachElement(*table, "entries", [](const auto &entry) {});
//
// Collections of a software table:
//   entries                 what clients read: pending writes, then the
//                           committed entries neither shadowed nor being
//                           removed (the table's own iteration)
//   transientAddEntry       key -> wrapper of the newest uncommitted write
//   transientRemoveEntry    key -> wrapper of the newest uncommitted remove
//   transientVersionForKey  key -> version of the newest uncommitted change
//   markedKey               keys written during the marking pass
//   entryHandleInLog        handles of committed changes waiting for the
//                           hardware, oldest first
// of a linkage: entryUsageSm (resource key -> handle and users), and of an
// entry log: tableConfigSlate (unit -> entries and entries in deletion).
//
// A walk resumes from its cursor however the table changed in between, as
// the table's iteration does (SwTableIterator.h). A cursor that was not made
// by a walk of the same collection is refused (BadCursor).
#pragma once

#include <concepts>

#include "OrderedTable/SwTableState.h"
#include "platform/attributes/Records.h"
#include "platform/attributes/Runtime.h"

namespace Introspect {

template <typename T, typename Role>
concept FamilyClass = requires {
  typename T::Binding;
}
&&std::same_as<T, typename Role::template Of<typename T::Binding>>;

struct SwTableRole {
  template <typename B> using Of = typename B::SwTable;
};
struct WrapperRole {
  template <typename B> using Of = typename B::EntryWrapper;
};
struct EntryLogRole {
  template <typename B> using Of = typename B::EntryLog;
};
struct LinkageRole {
  template <typename B> using Of = typename B::Linkage;
};

// A resource in use by a linkage: its handle and the keys that use it.
template <typename Sm> struct ResourceUsage { const Sm &sm; };

template <typename Sm> struct Describe<ResourceUsage<Sm>> {
  static constexpr const char *kClass = "LocalUsageUpdateSm";
  // The users shown with a resource; the rest are only counted.
  static constexpr std::size_t kUsersShown = 16;
  template <typename A>
  static void attributes(const ResourceUsage<Sm> &u, A &a) {
    a("resource", u.sm.resPtr());
    a("users", u.sm.entryUsages());
    a.visitor().beginList("entryUsage");
    std::size_t n = 0;
    u.sm.forEachEntryUsage([&](const auto &key) {
      if (n++ < kUsersShown) {
        put(a.visitor(), "", key);
      }
    });
    a.visitor().endList();
  }
};

template <typename B> struct Describe<Asic::SwTableEntryHandle<B>> {
  static constexpr const char *kClass = "EntryHandle";
  template <typename A>
  static void attributes(const Asic::SwTableEntryHandle<B> &h, A &a) {
    a("key", h.key());
    Describe<Asic::OrderedSwTable::EntryHandle>::attributes(h, a);
  }
};

template <typename T>
requires FamilyClass<T, WrapperRole>
struct Describe<T> {
  static constexpr const char *kClass = T::Binding::kWrapperClass;
  template <typename A> static void attributes(const T &w, A &a) {
    a("key", w.key());
    a("entry", w.entry());
    const auto &h = w.entryHandle();
    if (h) {
      put(a.visitor(), "entryHandle",
          static_cast<const Asic::OrderedSwTable::EntryHandle &>(*h));
    } else {
      a.visitor().null("entryHandle");
    }
    a("resource", w.resourcePtr());
  }
};

template <typename T>
requires FamilyClass<T, LinkageRole>
struct Describe<T> {
  static constexpr const char *kClass = "ResourceLinkage";
  template <typename A> static void attributes(const T &l, A &a) {
    const auto &c = l.resTblClient();
    a("resourceTable", c && c->table() && c->table()->name()
                           ? c->table()->name()->str()
                           : std::string());
    a("client", c ? c->name() : std::string());
    a("requests", c ? c->requests() : 0);
    a("releases", c ? c->releases() : 0);
    a.collection("entryUsageSm", l.entryUsageSms());
  }
  template <typename C> static void collections(const T &l, C &c) {
    c.walk("entryUsageSm", [&l](const Cursor &after, std::size_t limit,
                                auto &emit) {
      // The machines by resource slot, then those set aside; the cursor is
      // the position after the last one emitted (slots first, then the
      // ones set aside, counted from the number of slots).
      using Sm = typename T::LocalUsageUpdateSm;
      std::uint64_t at = 0;
      if (!after.empty() && !after.to(at)) {
        throw BadCursor();
      }
      const std::uint64_t slots = l.entryUsageSmSlots();
      const auto &aside = l.entryUsageSmAside();
      const std::uint64_t end = slots + aside.size();
      std::size_t n = 0;
      for (; at < end && n < limit; ++at) {
        const Sm *sm = at < slots
                           ? l.entryUsageSmAt(static_cast<std::uint32_t>(at))
                           : aside[at - slots].ptr();
        if (sm) {
          emit(ResourceUsage<Sm>{*sm});
          ++n;
        }
      }
      while (at < slots && !l.entryUsageSmAt(static_cast<std::uint32_t>(at))) {
        ++at;
      }
      return at < end ? Cursor::of(at) : Cursor();
    });
  }
};

// Per unit, what the entry log keeps of it.
struct UnitConfig {
  std::uint16_t unit;
  std::uint32_t entries;
  std::uint32_t inDeletion;
};

template <> struct Describe<UnitConfig> {
  static constexpr const char *kClass = "ConfigSlate";
  template <typename A> static void attributes(const UnitConfig &u, A &a) {
    a("unit", u.unit);
    a("entries", u.entries);
    a("inDeletion", u.inDeletion);
  }
};

template <typename T>
requires FamilyClass<T, EntryLogRole>
struct Describe<T> {
  static constexpr const char *kClass = T::Binding::kEntryLogClass;
  template <typename A> static void attributes(const T &l, A &a) {
    a("tableId", l.tableId());
    a("tableVersion", l.tableVersion());
    a("cleanupVersion", l.cleanupVersion());
    a("entryLogRecords", l.entryLogRecords());
    a("waitingForRoom", l.parked());
    a("hwResyncVersion", l.hwResyncVersion());
    a.collection("tableConfigSlate", l.tableConfigSlates());
  }
  template <typename C> static void collections(const T &l, C &c) {
    c.walk("tableConfigSlate", [&l](const Cursor &after, std::size_t limit,
                                    auto &emit) {
      auto sink = [&](const auto &e) {
        emit(UnitConfig{e.key, l.entrys(e.key), l.entrysInDeletion(e.key)});
      };
      return walkMap(l.tableConfigSlateColl(), after, limit, sink);
    });
  }
};

template <typename T>
requires FamilyClass<T, SwTableRole>
struct Describe<T> {
  using B = typename T::Binding;
  using Key = typename B::Key;
  static constexpr const char *kClass = B::kSwTableClass;

  template <typename A> static void attributes(const T &t, A &a) {
    a("name", t.name() ? t.name()->str() : std::string());
    a("swTableId", t.swTableId());
    a("unitId", t.unitId());
    a("inMarkingState", t.inMarkingState());
    const auto rav = t.transientRemoveAllVersion();
    if (rav.valid()) {
      a("transientRemoveAllVersion", rav.value);
    } else {
      a.visitor().null("transientRemoveAllVersion");
    }
    a("loggedVersion", t.loggedVersion());
    a("hasPendingHwWrites", t.hasPendingHwWrites());
    a("stats", t.stats());
    a(B::kLinkageAttr, t.linkage());
    a.collection("entries", t.entrys());
    a.collection("transientAddEntry", t.transientAddEntrys());
    a.collection("transientRemoveEntry", t.transientRemoveEntrys());
    a.collection("transientVersionForKey", t.transientVersionForKeys());
    a.collection("markedKey", t.markedKeys());
    a.collection("entryHandleInLog", t.entryHandleInLogSize());
  }

  template <typename C> static void collections(const T &t, C &c) {
    c.walk("entries", [&t](const Cursor &after, std::size_t limit, auto &emit) {
      return walkEntries(t, after, limit, emit);
    });
    c.map("transientAddEntry", t.transientAddEntryColl());
    c.map("transientRemoveEntry", t.transientRemoveEntryColl());
    c.map("transientVersionForKey", t.transientVersionForKeyColl());
    c.map("markedKey", t.markedKeyColl());
    c.walk("entryHandleInLog",
           [&t](const Cursor &after, std::size_t limit, auto &emit) {
             const auto &q = t.entryHandleInLogQueue();
             std::uint32_t seq = q.frontSeq();
             if (!after.empty()) {
               std::uint32_t last = 0;
               if (!after.to(last)) {
                 throw BadCursor();
               }
               // Sequence numbers wrap: compare by their difference.
               if (static_cast<std::int32_t>(last + 1 - seq) > 0) {
                 seq = last + 1;
               }
             }
             Cursor next;
             for (std::size_t n = 0; n < limit && q.has(seq); ++n, ++seq) {
               const auto *h = q.at(seq);
               emit(**h);
               next = Cursor::of(seq);
             }
             return q.has(seq) ? next : Cursor();
           });
  }

private:
  // The cursor of the entries walk: the iteration's phase bits and
  // bookmark, which say where the next step resumes.
  struct EntriesCursor {
    std::uint8_t bits = 0;
    std::uint8_t pad[3] = {};
    Key bookmark;
  };

  template <typename Emit>
  static Cursor walkEntries(const T &t, const Cursor &after, std::size_t limit,
                            Emit &emit) {
    using State = typename T::IterState;
    using Bits = typename State::State;
    if (limit == 0) {
      return after;
    }
    Fwk::Ptr<State> st;
    if (after.empty()) {
      st = t.initIterState();
    } else {
      EntriesCursor at;
      constexpr std::uint8_t kAllowed = Bits::kInAddColl | Bits::kInTblCfg |
                                        Bits::kRemoveAll | Bits::kBookmark;
      if (!after.to(at) || (at.bits & ~kAllowed) != 0 ||
          ((at.bits & Bits::kInAddColl) && (at.bits & Bits::kInTblCfg))) {
        throw BadCursor();
      }
      st = Fwk::make<State>();
      st->swTableIs(&t);
      st->state().set(at.bits);
      st->bookmarkKeyIs(at.bookmark);
    }
    typename T::EntryIterator it(st);
    for (std::size_t n = 0;;) {
      if (it.done()) {
        return Cursor();
      }
      emit(it.entry());
      if (++n == limit) {
        break;
      }
      ++it;
    }
    // The state holds where the next step resumes; nothing is loaded ahead.
    EntriesCursor next;
    next.bits =
        static_cast<std::uint8_t>(st->state().bits() & ~Bits::kEntryValid);
    next.bookmark = st->bookmarkKey();
    return Cursor::of(next);
  }
};

} // namespace Introspect
