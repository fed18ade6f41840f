// The generic algorithms of a table's resource linkage, over the linkage
// type L (ResourceLinkage.h): requesting an entry's resource, telling the
// commit whether it is ready, counting its users, and following its changes.
//
// Usage is counted by set membership: a resource key's usage machine holds
// the table keys whose committed entry uses it (as a list of user nodes,
// ResourceLinkage.h). The first committed user
// creates the machine and acknowledges the version it has seen; the last one
// to go releases the resource. The release of an old resource always comes
// before the mapping of a new one.
//
// A change of a resource in use reaches handleResourceChange(): every entry
// that uses it is recomputed through the table's updateEntry(), and the
// resource's current version is acknowledged with the last update's handle
// as the dependency.
#pragma once

#include <vector>

#include "OrderedTable/ResourceLinkage.h"
#include "platform/framework/Assert.h"
#include "platform/trace/Trace.h"

namespace Asic {

template <typename L> struct SwTableResourceAccessor {
  using B = typename L::Binding;
  using Key = typename B::Key;
  using Entry = typename B::Entry;
  using Wrapper = typename B::EntryWrapper;
  using ResourceKey = typename B::ResourceKey;
  using Sm = typename L::LocalUsageUpdateSm;
  using ResourceHandle = typename B::ResourceHandle;

  static constexpr const char *kUnit =
      "OrderedTable/OrderedTableResourceAccessor";

  // Traces of the generic algorithms: the linkage's handle, no class name,
  // the calling function and line (RA_TRACE).
  template <typename... Args>
  [[gnu::always_inline]] static void
  trace(Trace::Level level, const char *function, int line,
        fmt::format_string<Args...> f, Args &&...args) {
    Trace::Handle &h = Trace::handleOf<L>();
    if (h.enabled(level)) [[unlikely]] {
      Trace::emitf(h, level, kUnit, function, line, "", f,
                   std::forward<Args>(args)...);
    }
  }
#define RA_TRACE(level, function, ...)                                         \
  trace(level, function, __LINE__, __VA_ARGS__)

  static bool isNull(const ResourceKey &k) noexcept {
    return k == ResourceKey{};
  }

  // Asks the resource table for the entry's resource. A wrapper that holds
  // the key's handle already (the write asked, the commit asks again) asks
  // through it, which finds the key by its slot.
  static void resolveEntry(L &linkage, const Fwk::Ptr<Wrapper> &w) {
    const ResourceKey key = B::resourceKey(w->entry());
    if (isNull(key)) {
      return; // the entry uses no resource
    }
    auto &client = *linkage.resTblClient();
    if (const auto &held = w->resourcePtr()) {
      w->resourcePtrIs(
          client.requestAgain(*held, key, B::requestData(w->entry())));
    } else {
      w->resourcePtrIs(
          client.request(key, B::requestData(w->entry()), nullptr));
    }
  }

  // Hangs the handle of the key's usage machine on the wrapper: every entry
  // that uses one resource key shares one handle. The machine the table key
  // uses is found through its user node; another key's, through the
  // resource table.
  static void setResourceHandle(L &linkage, const Fwk::Ptr<Wrapper> &w) {
    const ResourceKey key = B::resourceKey(w->entry());
    Sm *sm = linkage.userSm(w->key());
    if (!sm || !sm->resPtr() || !(sm->resPtr()->key() == key)) {
      sm = linkage.machineOfKey(key);
    }
    if (!sm) {
      return;
    }
    w->resourcePtrIs(sm->resPtr());
  }

  static EntryState entryResolutionState(const Fwk::Ptr<const Wrapper> &w) {
    if (!w || !w->resourcePtr()) {
      return EntryState::finished; // nothing to wait for
    }
    switch (w->resourcePtr()->entryState()) {
    case 0:
      return EntryState::made;
    case 1:
      return EntryState::logged;
    case 4:
      return EntryState::finished;
    case 3:
    case 5:
    case 6:
      return EntryState::resolveFailed;
    default:
      FWK_ASSERT_NAMED(false && "Unhandled resHandle entryState",
                       "false && \"Unhandled resHandle entryState\"");
      return EntryState::failed;
    }
  }

  static Fwk::Ptr<NeededEntry>
  getNeededEntrySet(const Fwk::Ptr<const Wrapper> &w) {
    auto needed = Fwk::make<NeededEntry>();
    if (!w || !w->resourcePtr()) {
      return needed;
    }
    for (const TableVersion &v : w->resourcePtr()->neededVersions()) {
      needed->add(v);
    }
    for (const TableVersion &v : needed->versions()) {
      RA_TRACE(9, "getNeededEntrySet", "neededVersion: {}", v);
    }
    return needed;
  }

  // Records a committed write or delete as a user of its resource (or as no
  // longer one), given the entry the key had committed before.
  static void updateLocalUsage(L &linkage, const Fwk::Ptr<Wrapper> &w,
                               const Entry &oldEntry, bool isDeleted) {
    RA_TRACE(8, "updateLocalUsage", "key: {}, isDeleted: {}, oldEntry:{}",
             w->key(), isDeleted, oldEntry);
    usage(linkage, w, static_cast<bool>(oldEntry),
          oldEntry ? B::resourceKey(oldEntry) : ResourceKey{}, isDeleted);
  }

  // The same for a commit, which knows whether the key had a committed
  // entry but has not read it: the resource the entry used is the one the
  // key's user node names (none: the null key). `oldForTrace` is read only
  // when the trace is on.
  template <typename ReadOld>
  static void commitUsage(L &linkage, const Fwk::Ptr<Wrapper> &w,
                          bool oldCommitted, bool isDeleted,
                          ReadOld &&oldForTrace) {
    if (Trace::handleOf<L>().enabled(8)) [[unlikely]] {
      trace(8, "updateLocalUsage", __LINE__,
            "key: {}, isDeleted: {}, oldEntry:{}", w->key(), isDeleted,
            oldCommitted ? oldForTrace() : Entry{});
    }
    Sm *old = oldCommitted ? linkage.userSm(w->key()) : nullptr;
    usage(linkage, w, oldCommitted,
          old && old->resPtr() ? old->resPtr()->key() : ResourceKey{},
          isDeleted);
  }

  // updateLocalUsage's decisions: a first committed entry adds its key to
  // its resource's users; a rewrite onto another resource leaves the old
  // one first (released with its last user) and then joins the new one; a
  // deletion leaves. The same resource again changes nothing.
  static void usage(L &linkage, const Fwk::Ptr<Wrapper> &w, bool oldCommitted,
                    const ResourceKey &oldKey, bool isDeleted) {
    const Key swKey = w->key();
    if (!isDeleted) {
      const ResourceKey newKey = B::resourceKey(w->entry());
      if (!oldCommitted) {
        addResKeyMapping(linkage, newKey, w, true);
        return;
      }
      if (oldKey == newKey) {
        return; // usage unchanged, nothing to acknowledge
      }
      deleteResKeyMapping(linkage, oldKey, swKey, w->entryHandle());
      addResKeyMapping(linkage, newKey, w, true);
      return;
    }
    if (oldCommitted) {
      deleteResKeyMapping(linkage, oldKey, swKey, w->entryHandle());
    }
  }

  static void addResKeyMapping(L &linkage, const ResourceKey &resKey,
                               const Fwk::Ptr<Wrapper> &w, bool ackUpdate) {
    RA_TRACE(8, "addResKeyMapping", "resKey: {}, swKey: {}", resKey, w->key());
    if (isNull(resKey)) {
      RA_TRACE(3, "addResKeyMapping", "Null resKey: {}", resKey);
      return;
    }
    // The wrapper holds the key's handle (it asked for it): its machine is
    // found by the handle's slot, and a key no machine holds gets one
    // without a further lookup.
    const auto &res = w->resourcePtr();
    Sm *sm = nullptr;
    if (res && res->key() == resKey &&
        res->index() != ResourceHandle::kNoIndex) {
      sm = linkage.machineOf(*res);
      if (!sm && !linkage.entryUsageSmAside().empty()) {
        sm = linkage.asideOf(resKey);
      }
      if (!sm) {
        sm = linkage.newMachine(res).ptr();
        ackFirst(linkage, *sm, w, ackUpdate);
      }
    } else {
      sm = linkage.machineOfKey(resKey);
      if (!sm) {
        sm = linkage.entryUsageSmIs(res).ptr();
        ackFirst(linkage, *sm, w, ackUpdate);
      }
    }
    sm->entryUsageIs(w->key());
  }

  // The first user of a resource acknowledges the version it has seen.
  static void ackFirst(L &linkage, Sm &sm, const Fwk::Ptr<Wrapper> &w,
                       bool ackUpdate) {
    if (ackUpdate) {
      linkage.resTblClient()->ackUpdate(sm.resPtr(), sm.resPtr()->version(),
                                        w->entryHandle());
    }
  }

  static void
  deleteResKeyMapping(L &linkage, const ResourceKey &resKey, const Key &swKey,
                      const Fwk::Ptr<OrderedSwTable::EntryHandle> &handle) {
    RA_TRACE(8, "deleteResKeyMapping", "resKey: {}, swKey: {}", resKey, swKey);
    // The machine the key uses is found through its user node; one it does
    // not use (the caller named another), through the resource table.
    Sm *sm = linkage.userSm(swKey);
    if (!sm || !sm->resPtr() || !(sm->resPtr()->key() == resKey)) {
      sm = linkage.machineOfKey(resKey);
    }
    if (!sm) {
      return; // nothing was held
    }
    sm->entryUsageDel(swKey);
    if (sm->entryUsages() == 0) {
      linkage.resTblClient()->release(sm->resPtr(), handle);
      linkage.entryUsageSmDel(*sm);
    }
  }

  // A write that failed lets go of the resource it asked for, unless a
  // committed entry of the table uses it: the resource table keeps nothing
  // for a change that did not happen, and a failed allocation is tried
  // anew at the next request. (A pending write of the same resource asks
  // again before it commits.)
  static void releaseUnused(L &linkage, const Fwk::Ptr<Wrapper> &w) {
    const ResourceKey key = B::resourceKey(w->entry());
    if (isNull(key) || !w->resourcePtr() ||
        linkage.machineOf(*w->resourcePtr()) || linkage.machineOfKey(key)) {
      return;
    }
    // Nothing of the change reached the log: nothing to wait for.
    linkage.resTblClient()->release(w->resourcePtr(), nullptr);
  }

  // After a restart: the entry's usage, without acknowledging anything.
  static void restoreEntry(L &linkage, const Fwk::Ptr<Wrapper> &w) {
    const ResourceKey key = B::resourceKey(w->entry());
    if (isNull(key)) {
      return;
    }
    addResKeyMapping(linkage, key, w, false);
  }

  // After a restart: every resource in use is treated as changed, one
  // after the other in the linkage's order, as handleResourceChange() would
  // treat each. The users of every machine are gathered first (updates do
  // not change usage), so that the records of the next users can be fetched
  // while the current one is updated.
  static void handleResourceChangeAtInit(L &linkage) {
    std::vector<Fwk::Ptr<Sm>> sms;
    std::vector<Key> users;
    std::vector<std::size_t> ends;
    sms.reserve(linkage.entryUsageSms());
    ends.reserve(linkage.entryUsageSms());
    users.reserve(linkage.userNodes());
    linkage.forEachEntryUsageSm([&](Sm &sm) {
      sms.emplace_back(&sm);
      sm.forEachEntryUsage([&](const Key &k) { users.push_back(k); });
      ends.push_back(users.size());
    });
    std::size_t next = 0;
    for (std::size_t i = 0; i < sms.size(); ++i) {
      updateUsers(*sms[i], users, next, ends[i]);
      next = ends[i];
    }
  }

  // Per machine, in the linkage's order, what handleResourceChange would do
  // after updating its users: acknowledge the resource's current version
  // with the handle of the last user's update (in the set's order).
  static void acknowledgeAtInit(
      L &linkage,
      const Fwk::HashMap<Key, Fwk::Ptr<const OrderedSwTable::EntryHandle>>
          &updates) {
    std::vector<Fwk::Ptr<Sm>> sms;
    sms.reserve(linkage.entryUsageSms());
    linkage.forEachEntryUsageSm([&](Sm &sm) { sms.emplace_back(&sm); });
    for (const auto &sm : sms) {
      RA_TRACE(8, "handleResourceChange", "");
      const auto res = sm->resPtr();
      if (!res) {
        continue;
      }
      if (res->isPostReleaseProtoState()) {
        RA_TRACE(3, "handleResourceChange",
                 "Ignoring change for resourceKey: {} ", res->key());
        continue;
      }
      Fwk::Ptr<const OrderedSwTable::EntryHandle> latest;
      sm->forEachEntryUsage([&](const Key &k) {
        if (const auto *h = updates.find(k); h && *h) {
          latest = *h;
        }
      });
      linkage.resTblClient()->ackUpdate(res, res->version(), latest);
    }
  }

  static void handleResourceChange(Sm &sm) {
    std::vector<Key> users;
    users.reserve(sm.entryUsages());
    sm.forEachEntryUsage([&](const Key &k) { users.push_back(k); });
    updateUsers(sm, users, 0, users.size());
  }

  // The change of one machine's resource: users[from, to) are its users
  // (copied: an update may call out), the later ones are fetched ahead.
  static void updateUsers(Sm &sm, const std::vector<Key> &users,
                          std::size_t from, std::size_t to) {
    RA_TRACE(8, "handleResourceChange", "");
    const auto res = sm.resPtr();
    if (!res) {
      return;
    }
    if (res->isPostReleaseProtoState()) {
      RA_TRACE(3, "handleResourceChange",
               "Ignoring change for resourceKey: {} ", res->key());
      return;
    }
    L *linkage = sm.parent();
    auto *table = linkage->swTable();
    Fwk::Ptr<const OrderedSwTable::EntryHandle> latest;
    for (std::size_t i = from; i < to; ++i) {
      if (i + 16 < users.size()) {
        table->prefetchCommitted(users[i + 16], 2);
      }
      if (i + 8 < users.size()) {
        table->prefetchCommitted(users[i + 8], 1);
      }
      RA_TRACE(3, "handleResourceChange", "Updating sw table entry for key: {}",
               users[i]);
      if (auto h = table->updateEntry(users[i])) {
        latest = h;
      }
    }
    linkage->resTblClient()->ackUpdate(res, res->version(), latest);
  }
#undef RA_TRACE
};

} // namespace Asic
