// The algorithms of a software table, written once over the table type T (a
// family's class, whose Binding names its types and differences). The
// family classes inherit OrderedSwTableState<Binding>, whose operations are
// defined here and forward to OrderedSwTableAccessor<T>; this header is
// included only by the families' own source units, which instantiate it.
//
// A change, end to end:
//   1. entryWrite / entryRemove / entryRemoveAll record it in the transient
//      collections, make its handle and queue a resolver entry;
//   2. the group resolver asks isResolverEntryResolved() until the change's
//      dependency and resource are ready, then calls commitEntry();
//   3. the commit logs it in the entry log and queues its handle in the
//      entry-handle log (or finishes it at once, or fails it: state 5);
//   4. tableStatusVersion(v) finishes every queued handle that v covers and
//      runs its response handler.
//
// Re-entrancy: response handlers and resource notifications may call back
// into the table (write, read, remove). Every loop here keeps a reference to
// what it walks and re-reads collections after each call-out; handlers run
// from a copy, so they may replace or clear their handle's handler.
#pragma once

#include <chrono>
#include <optional>
#include <span>
#include <type_traits>
#include <vector>

#include "OrderedTable/TableAttributes.h"
#include "OrderedTable/SwTableState.h"
#include "platform/framework/Assert.h"
#include "platform/shm/Errors.h"
#include "platform/trace/Trace.h"

namespace Asic {

template <typename T> struct OrderedSwTableAccessor {
  using B = typename T::Binding;
  using Key = typename B::Key;
  using Entry = typename B::Entry;
  using Wrapper = typename B::EntryWrapper;
  using Resolver = typename B::ResolverEntry;
  using Linkage = typename B::Linkage;
  using EntryHandle = typename T::EntryHandle;
  using Dependency = typename T::Dependency;
  using ResponseHandler = typename T::ResponseHandler;
  using IterState = typename T::IterState;
  using ConfigEntry = ConfigSlateEntry<B>;
  using EntryLogOf = typename B::EntryLog;

  static constexpr const char *kUnit = "OrderedTable/OrderedSwTableAccessor";

  // Traces of the generic algorithms: the table's handle, no class name.
  template <typename... Args>
  [[gnu::always_inline]] static void
  trace(Trace::Level level, const char *function, int line,
        fmt::format_string<Args...> f, Args &&...args) {
    Trace::Handle &h = Trace::handleOf<T>();
    if (h.enabled(level)) [[unlikely]] {
      Trace::emitf(h, level, kUnit, function, line, "", f,
                   std::forward<Args>(args)...);
    }
  }
  // Traces of the table's own operations, as its class.
  template <typename... Args>
  [[gnu::always_inline]] static void
  traceTable(Trace::Level level, const char *function, int line,
             fmt::format_string<Args...> f, Args &&...args) {
    Trace::Handle &h = Trace::handleOf<T>();
    if (h.enabled(level)) [[unlikely]] {
      Trace::emitf(h, level, B::kTableSourceUnit, function, line,
                   B::kSwTableClass, f, std::forward<Args>(args)...);
    }
  }
#define OT_TRACE(level, ...) trace(level, __func__, __LINE__, __VA_ARGS__)

  // ---- Write, remove, remove-all ----

  // The version of a new change of `key`: one past its pending change, or
  // (0, 0) when it has none. `previous` is set to the change of the key
  // queued last, when there may be one: a key without a pending version has
  // no change queued (its version goes when its newest change commits, or
  // when its table's queue is dropped).
  static EntryVersion nextVersion(T &t, const Key &key,
                                  const ResolverEntry *&previous) {
    previous = nullptr;
    if (const EntryVersion *cur = t.transientVersionForKeyColl().find(key)) {
      const EntryVersion currEntryVersion = *cur;
      FWK_ASSERT_NAMED(currEntryVersion.valid(), "currEntryVersion.valid()");
      // The newest pending write or remove of the key, unless a remove-all
      // dropped it from view (the changes after a remove-all are ordered
      // behind it anyway).
      if (const auto *w = t.transientAddEntryColl().find(key)) {
        previous = (*w)->queuedAs();
      } else if (const auto *w = t.transientRemoveEntryColl().find(key)) {
        previous = (*w)->queuedAs();
      }
      return currEntryVersion.next();
    }
    OT_TRACE(8, " Key: {} not found in entry version collection", key);
    return EntryVersion(0, 0);
  }

  static Fwk::Ptr<EntryHandle> makeHandle(T &t, EntryVersion v, const Key &key,
                                          const ResponseHandler &handler) {
    auto h = T::entryHandleFactory(v, key, &t);
    if (handler) {
      h->responseHandlerIs(handler);
    }
    h->entryStateIs(EntryState::made);
    return h;
  }

  // Queues a change with the resolver and tells it something may be ready.
  static void enqueue(T &t, const Fwk::Ptr<Resolver> &r) {
    if (const auto &gr = t.groupResolver()) {
      gr->resolverQueueEnq(r);
      gr->updateGenId();
    }
  }
  static void afterChange(T &t) {
    if (const auto &gr = t.groupResolver()) {
      gr->maybeUpdateSuspend();
    }
    if (t.swTableSet()) {
      t.swTableSet()->maybeUpdatePendingHwWrites();
    }
  }

  // Writes entries[i] at keys[i] in order, each change exactly what a
  // write of its own would be (its version, handle, resolver entry and
  // handler call); the clients are told whether to hold back once, after
  // the last. While one change is made, where the next few keys' pending
  // versions and writes are looked up is fetched, so that a batch over a
  // large table does not wait for memory at every key. Each handle is
  // appended to `handles` when that is given.
  // REQUIRES: keys.size() == entries.size().
  static void entriesWriteGeneric(
      T &t, std::span<const Key> keys, std::span<const Entry> entries,
      const Dependency &dependency, const ResponseHandler &handler,
      Linkage *linkage, std::vector<Fwk::Ptr<const EntryHandle>> *handles) {
    FWK_ASSERT_NAMED(keys.size() == entries.size(),
                     "keys.size() == entries.size()");
    constexpr std::size_t kAhead = 4;
    for (std::size_t i = 0; i < keys.size(); ++i) {
      if (i + kAhead < keys.size()) {
        t.transientVersionForKeyColl().prefetch(keys[i + kAhead]);
        t.transientAddEntryColl().prefetch(keys[i + kAhead]);
      }
      auto handle = entryWriteGeneric(t, keys[i], entries[i], dependency,
                                      handler, linkage, false);
      if (handles) {
        handles->push_back(std::move(handle));
      }
    }
    afterChange(t);
  }

  // A write; `alone`: not one of a batch, whose hold-back check follows its
  // last write only.
  static Fwk::Ptr<const EntryHandle> entryWriteGeneric(
      T &t, const Key &key, const Entry &entry, const Dependency &dependency,
      const ResponseHandler &handler, Linkage *linkage, bool alone = true) {
    OT_TRACE(8, "key: {}", key);
    const ResolverEntry *previous;
    const EntryVersion v = nextVersion(t, key, previous);
    t.transientVersionForKeyIs(key, v);
    const bool marking = t.inMarkingState();
    if (marking) {
      t.markedKeyIs(key);
    }
    auto handle = makeHandle(t, v, key, handler);
    auto wrapper = Fwk::make<Wrapper>(entry, handle);
    wrapper->keyIs(key); // the key argument counts, not the entry's
    t.transientRemoveEntryDel(key);
    t.transientAddEntryIs(wrapper);
    if (linkage) {
      linkage->resolveEntry(wrapper);
    }
    auto r = Fwk::make<Resolver>(
        dependency, marking ? entryFlagMarked : entryFlagNone, &t, wrapper);
    r->laneAfterIs(previous);
    enqueue(t, r);
    OT_TRACE(2, "Done processing write for key: {} ", key);
    t.stats()->entryWriteCntInc(1);
    if (alone) {
      afterChange(t);
    }
    return handle;
  }

  static Fwk::Ptr<const EntryHandle>
  entryRemoveGeneric(T &t, const Key &key, const Dependency &dependency,
                     const ResponseHandler &handler) {
    OT_TRACE(8, " Key: {} ", key);
    const ResolverEntry *previous;
    const EntryVersion v = nextVersion(t, key, previous);
    t.transientVersionForKeyIs(key, v);
    auto handle = makeHandle(t, v, key, handler);
    Entry removed{};
    removed.key = key;
    auto wrapper = Fwk::make<Wrapper>(removed, handle);
    auto r = Fwk::make<Resolver>(dependency, entryFlagRemove, &t, wrapper);
    r->laneAfterIs(previous);
    t.transientAddEntryDel(key);
    t.transientRemoveEntryIs(wrapper);
    enqueue(t, r);
    OT_TRACE(2, " Done processing remove for key: {} ", key);
    t.stats()->entryRemoveCntInc(1);
    afterChange(t);
    return handle;
  }

  static void entryRemoveAllGeneric(T &t, const Dependency &dependency,
                                    const ResponseHandler &handler) {
    OT_TRACE(8, "");
    auto handle = makeHandle(t, EntryVersion(0, 0), Key{}, handler);
    auto wrapper = Fwk::make<Wrapper>(Entry{}, handle);
    auto r = Fwk::make<Resolver>(dependency, entryFlagRemoveAll, &t, wrapper);
    // Pending writes and removes are dropped from view; their resolver
    // entries stay queued and still commit in their turn, so the versions
    // of their keys are kept.
    t.transientAddEntryDelAll();
    t.transientRemoveEntryDelAll();
    const MajorVersion cur = t.transientRemoveAllVersion();
    if (cur.valid()) {
      OT_TRACE(8, "Found valid table remove all version: {}", cur);
      t.transientRemoveAllVersionIs(MajorVersion(cur.value + 1));
    } else {
      OT_TRACE(8, "No remove all operation currently enqueued");
      t.transientRemoveAllVersionIs(MajorVersion(0));
    }
    enqueue(t, r);
    OT_TRACE(2, "Done processing remove all ");
    afterChange(t);
  }

  // ---- Commit ----

  static void setRsrcPtrs(T &t, const Fwk::Ptr<Wrapper> &w, bool refresh) {
    OT_TRACE(8, "key: {}, refresh: {}", w->key(), refresh);
    if (Linkage *l = t.linkage().ptr()) {
      if (refresh) {
        l->resolveEntry(w);
      } else {
        l->setResourceHandle(w);
      }
    }
  }

  static EntryState resolutionState(const Fwk::Ptr<Wrapper> &w,
                                    Linkage *linkage) {
    return linkage ? linkage->entryResolutionState(w) : EntryState::finished;
  }

  static bool resAccessorCheckResolved(const Fwk::Ptr<Wrapper> &w,
                                       Linkage *linkage) {
    if (resolutionState(w, linkage) == EntryState::made) {
      OT_TRACE(3, "SwTable key: {}, resourceKey: {} is still unresolved!",
               w->key(), B::resourceKey(w->entry()));
      return false;
    }
    return true;
  }

  static bool checkResolveSuccess(const Fwk::Ptr<Wrapper> &w,
                                  Linkage *linkage) {
    if (resolutionState(w, linkage) == EntryState::finished) {
      return true;
    }
    OT_TRACE(3, "SwTable key: {}, resourceKey: {} has failed resolution!",
             w->key(), B::resourceKey(w->entry()));
    return false;
  }

  static bool isResolverEntryResolved(T &t, const Fwk::Ptr<Resolver> &r,
                                      Linkage *linkage) {
    // A change that is not ready names what it waits for, where the
    // resolver parks it until that changes (WaitPoint.h).
    const auto &w = r->entryWrapper();
    if (t.entryLog() &&
        t.entryLog()->entryLogRecords() > T::kEntryLogRecordLimit) {
      OT_TRACE(1, "key: {}, isEntryDeleted: {} : no space in entryLog!",
               w->key(), r->isEntryDeleted());
      r->waitOn(*t.entryLog());
      return false;
    }
    if (const auto &dep = r->dependencyHandle()) {
      if (dep->entryState() == EntryState::made) {
        OT_TRACE(3, "key: {} dependant entry not yet resolved", w->key());
        r->waitOn(*dep);
        return false;
      }
      // A failed dependency counts as resolved; the commit rejects it.
      OT_TRACE(3, "key: {} dependant entry is resolved", w->key());
    }
    bool resolved = true;
    if (!r->isEntryDeleted()) {
      t.setRsrcPtrs(w, true);
      resolved = resAccessorCheckResolved(w, linkage);
      if (!resolved) {
        r->waitOn(*w->resourcePtr()); // pending: there is a handle
      }
    }
    if (resolved) {
      OT_TRACE(
          3, "key: {}, isEntryDeleted: {}, isTableDeleted: {}, resolved: true",
          w->key(), r->isEntryDeleted(), r->isTableDeleted());
    }
    return resolved;
  }

  // Calls a handle's response handler from a copy, so that the handler may
  // replace or clear the handle's own.
  static void respond(const Fwk::Ptr<EntryHandle> &h) {
    if (!h->responseHandler()) {
      return;
    }
    const ResponseHandler handler = h->responseHandler();
    handler(Fwk::Ptr<const OrderedSwTable::EntryHandle>(h));
  }

  // Records the change's log version and either queues its handle for the
  // hardware (state 1) or finishes it now (state 4, handler called).
  static void finishOrQueue(T &t, const Fwk::Ptr<EntryHandle> &handle,
                            LogVersion logVersion, bool waits) {
    handle->logVersionIs(logVersion);
    if (waits) {
      handle->entryStateIs(EntryState::logged);
      t.entryHandleInLogEnq(handle);
    } else {
      handle->entryStateIs(EntryState::finished);
      respond(handle);
    }
  }

  // Forgets the pending state of the wrapper's key if this commit is its
  // newest change: the wrapper pending under the key must carry the
  // committed version. Otherwise a newer change of the key is pending, and
  // its own commit clears them. (After a remove-all the wrappers are gone
  // from view, so the versions of their keys stay until a later change of
  // each key commits.)
  template <typename Coll, typename Del>
  static void clearTransient(T &t, const Coll &coll, Del &&del, const Key &key,
                             EntryVersion committed) {
    const auto *found = coll.find(key);
    if (found && *found && (*found)->entryHandle() &&
        (*found)->entryHandle()->version() == committed) {
      del(key);
      t.transientVersionForKeyDel(key);
    }
  }

  static void commitEntry(T &t, const Fwk::Ptr<ResolverEntry> &base,
                          Linkage *linkage) {
    Fwk::Ptr<T> keep(&t); // a handler may drop the last reference
    // The table's own resolver entries are the only ones that call back
    // here (TableResolverEntry::commitEntry): no dynamic check needed.
    FWK_ASSERT(base);
    // The resolver holds the change during the commit, and the change its
    // wrapper: neither is counted again here.
    const Resolver &r = static_cast<const Resolver &>(*base);
    const Dependency &dep = r.dependencyHandle();
    const Fwk::Ptr<Wrapper> &wrapper = r.entryWrapper();
    const bool isEntryDelete = r.isEntryDeleted();
    const bool isTableDelete = r.isTableDeleted();
    OT_TRACE(8, "Entry: {}, isEntryDeleted: {}, isTableDeleted: {}",
             wrapper->entry(), isEntryDelete, isTableDelete);
    FWK_ASSERT_NAMED(!(isEntryDelete && isTableDelete),
                     "!( isEntryDelete && isTableDelete )");
    // The wrapper's handle was made by this table (entryHandleFactory).
    Fwk::Ptr<EntryHandle> handle(
        static_cast<EntryHandle *>(wrapper->entryHandle().ptr()));
    FWK_ASSERT_NAMED(handle, "entryHandle != NULL");
    const EntryVersion entryConfVersion = handle->version();
    if (!isTableDelete) {
      FWK_ASSERT_NAMED(entryConfVersion.valid(), "entryConfVersion.valid()");
    }
    const Key key = wrapper->key();

    enum class Outcome { done, failWithKey, failSilently };
    Outcome outcome = Outcome::done;
    if (dep && entryStateFailed(dep->entryState())) {
      if (!isTableDelete) {
        OT_TRACE(1, "Failed dependent entry for key: {}", key);
        outcome = Outcome::failWithKey;
      } else {
        OT_TRACE(1, "Failed dependent entry for remove all");
        OT_TRACE(1, "Failed to commit entry remove all operation");
        outcome = Outcome::failSilently;
      }
    } else if (isTableDelete) {
      if (!commitTableDelete(t, dep, wrapper, handle)) {
        OT_TRACE(1, "Failed to commit entry remove all operation");
        outcome = Outcome::failSilently;
      }
    } else if (isEntryDelete) {
      outcome =
          commitEntryDelete(t, dep, wrapper, handle, entryConfVersion, linkage)
              ? Outcome::done
              : Outcome::failWithKey;
    } else {
      outcome =
          commitWrite(t, r, dep, wrapper, handle, entryConfVersion, linkage)
              ? Outcome::done
              : Outcome::failWithKey;
    }
    if (outcome != Outcome::done) {
      if (outcome == Outcome::failWithKey) {
        OT_TRACE(1, "Failed to commit entry key: {}", key);
      }
      if (!isEntryDelete && !isTableDelete && linkage) {
        linkage->releaseUnused(wrapper);
      }
      handle->entryStateIs(EntryState::failed);
      respond(handle);
    }
    afterChange(t);
    t.stats()->lastCommitTimeIs(SwTableStats::Clock::now());
    t.stats()->commitCntInc(1);
  }

  // False when the change log had no room (the caller fails the handle).
  static bool commitTableDelete(T &t, const Dependency &dep,
                                const Fwk::Ptr<Wrapper> &wrapper,
                                Fwk::Ptr<EntryHandle> handle) {
    const MajorVersion currRemoveAllVersion = t.transientRemoveAllVersion();
    FWK_ASSERT_NAMED(currRemoveAllVersion.valid(),
                     "currRemoveAllVersion.valid()");
    // Nothing is changed when the change log cannot take the deletion: the
    // remove-all stays pending (and later changes behind it keep waiting)
    // only while it is queued, so a refusal releases its barrier too.
    const bool room = roomToLogChange(t);
    OT_TRACE(8, "Committing table delete for version: {}",
             currRemoveAllVersion);
    auto needed = t.getNeededEntrySet(wrapper);
    if (dep) {
      needed->add(dep);
    }
    // The remove-all's handle is not queued in the entry-handle log: it
    // keeps state 1 and its log version, and the table does not call its
    // handler.
    if (room) {
      t.delAllEntries(true, needed, handle);
    }
    t.transientRemoveAllVersionIs(
        currRemoveAllVersion.value == 0
            ? MajorVersion::invalid()
            : MajorVersion(currRemoveAllVersion.value - 1));
    return room;
  }

  // The unit's configuration table and the key's place in it, looked up
  // once for a commit (no table: no entry log, or the unit not mounted).
  struct ConfigAt {
    ConfigSlate<B> *slate = nullptr;
    typename ConfigSlate<B>::Collection::Place at;
  };
  static ConfigAt configAt(const T &t, const Key &key) {
    ConfigAt c;
    if (t.entryLog()) {
      c.slate = t.entryLog()->configSlateAt(t.unitId());
      if (c.slate) {
        c.at = c.slate->swTableEntries().at(key);
      }
    }
    return c;
  }
  // Whether the key has a committed entry: its record is there, checked,
  // and not marked deleted (a corrupt one is reported, dropped and counts
  // as absent, as entryFromConfig() has it).
  static bool committedAt(ConfigAt &c) {
    if (!c.slate || !c.at.found()) {
      return false;
    }
    const ConfigEntry *r = EntryLogOf::committedAt(*c.slate, c.at);
    return r && !r->isDeleted;
  }
  // The dependencies a commit logs with: the resource's and the change's
  // own; null when there are none (nothing to allocate).
  static Fwk::Ptr<NeededEntry> neededFor(const Fwk::Ptr<Wrapper> &w,
                                         const Dependency &dep) {
    const auto &res = w->resourcePtr();
    if (!dep && (!res || res->neededVersions().empty()) &&
        !Trace::handleOf<typename B::EntryLog>().enabled(8)) {
      return nullptr; // the entry log's trace shows the set
    }
    auto needed = Linkage::Accessor::getNeededEntrySet(w);
    if (dep) {
      needed->add(dep);
    }
    return needed;
  }
  // What the linkage's trace shows as the entry a commit replaces: read
  // only when that trace is on.
  static std::optional<Entry> oldForTrace(const T &t, const Key &key) {
    if (Trace::handleOf<Linkage>().enabled(8)) [[unlikely]] {
      return t.entryFromConfig(key);
    }
    return std::nullopt;
  }

  // False when the change log had no room (the caller fails the handle).
  static bool commitEntryDelete(T &t, const Dependency &dep,
                                const Fwk::Ptr<Wrapper> &wrapper,
                                const Fwk::Ptr<EntryHandle> &handle,
                                EntryVersion committed, Linkage *linkage) {
    const Key key = wrapper->key();
    if (!roomToLogChange(t)) {
      clearTransient(
          t, t.transientRemoveEntryColl(),
          [&t](const Key &k) { t.transientRemoveEntryDel(k); }, key, committed);
      return false; // refused before the helper hears of a success
    }
    ConfigAt c = configAt(t, key);
    const bool oldCommitted = committedAt(c);
    const std::optional<Entry> oldEntry = oldForTrace(t, key);
    Fwk::Ptr<NeededEntry> needed;
    if (dep || Trace::handleOf<typename B::EntryLog>().enabled(8)) {
      needed = Fwk::make<NeededEntry>();
      if (dep) {
        needed->add(dep);
      }
    }
    clearTransient(
        t, t.transientRemoveEntryColl(),
        [&t](const Key &k) { t.transientRemoveEntryDel(k); }, key, committed);
    wrapper->finalizeOnSuccess(Fwk::Ptr<typename B::SwTable>(&t), true);
    LogVersion logVersion = 0;
    if (const auto &log = t.entryLog()) {
      logVersion = c.slate
                       ? log->entryDel(key, *c.slate, c.at, needed, t.unitId())
                       : log->entryDel(key, needed, t.unitId());
    }
    // A deletion waits for the hardware whenever it was logged; one that
    // logged nothing, for a rebuild of the hardware under way, which removes
    // whatever the hardware still holds of the key.
    const LogVersion waitFor = logVersion != 0 || !t.entryLog()
                                   ? logVersion
                                   : t.entryLog()->hwResyncPending();
    finishOrQueue(t, handle, waitFor, waitFor != 0);
    if (linkage) {
      Linkage::Accessor::commitUsage(
          *linkage, wrapper, oldCommitted, true,
          [&] { return oldEntry.value_or(Entry{}); });
    }
    return true;
  }

  // Whether the change log can take a deletion; a refusal is traced and
  // counted.
  static bool roomToLogChange(T &t) {
    const auto &log = t.entryLog();
    if (!log || !log->tableConfigSlate(t.unitId()) || log->canLogChange()) {
      return true;
    }
    OT_TRACE(1, "no room in the entry log for a deletion of unitId: {}",
             t.unitId());
    t.stats()->logRefusedCntInc(1);
    return false;
  }

  // Whether the entry log can take a write of the key: the change log has
  // room, and the unit's configuration table has room or holds the key. A
  // refusal is traced and counted.
  static bool roomToLog(T &t, const Key &key) {
    ConfigAt c = configAt(t, key);
    return roomToLog(t, key, c);
  }
  static bool roomToLog(T &t, const Key &key, ConfigAt &c) {
    const auto &log = t.entryLog();
    if (!log || (c.slate ? log->canLogAt(*c.slate, c.at)
                         : log->canLog(key, t.unitId()))) {
      return true;
    }
    OT_TRACE(1, "key: {}: no room in the entry log of unitId: {}", key,
             t.unitId());
    t.stats()->logRefusedCntInc(1);
    return false;
  }

  // Logs the write of a wrapper's entry at the key's place; its record is
  // built in its slot straight from the entry.
  static LogVersion logWrite(T &t, const Fwk::Ptr<Wrapper> &w, ConfigAt &c,
                             const Fwk::Ptr<NeededEntry> &needed,
                             bool suppress) {
    const auto &log = t.entryLog();
    if (!c.slate) {
      return log->entryIs(w->entry().logEntry(), w->entry().resourceKeys(),
                          needed, t.unitId(), t.stats(), suppress);
    }
    return log->entryIs(w->entry(), *c.slate, c.at, needed, t.unitId(),
                        t.stats(), suppress);
  }

  // False when the write failed (the caller fails its handle).
  static bool commitWrite(T &t, const Resolver &r, const Dependency &dep,
                          const Fwk::Ptr<Wrapper> &wrapper,
                          const Fwk::Ptr<EntryHandle> &handle,
                          EntryVersion committed, Linkage *linkage) {
    const Key key = wrapper->key();
    auto clear = [&] {
      clearTransient(
          t, t.transientAddEntryColl(),
          [&t](const Key &k) { t.transientAddEntryDel(k); }, key, committed);
    };
    ConfigAt c = configAt(t, key);
    const Fwk::Ptr<typename B::SwTable> self(&t);
    if (checkResolveSuccess(wrapper, linkage)) {
      if (!roomToLog(t, key, c)) {
        clear();
        return false; // refused before the helper hears of a success
      }
      wrapper->finalizeOnSuccess(self, false);
      clear();
    } else {
      t.stats()->resolveFailCntInc(1);
      const bool keep = wrapper->finalizeOnFailure(self, false);
      clear();
      if (!keep || !roomToLog(t, key, c)) {
        return false;
      }
    }
    const auto needed = neededFor(wrapper, dep);
    const bool oldCommitted = committedAt(c);
    const std::optional<Entry> oldEntry = oldForTrace(t, key);
    LogVersion logVersion = 0;
    LogVersion resync = 0;
    if (const auto &log = t.entryLog()) {
      resync = log->hwResyncPending();
      try {
        logVersion = logWrite(t, wrapper, c, needed, r.isMarked());
      } catch (const Shm::CollectionFullError &e) {
        // Not expected after roomToLog; nothing was written either way.
        OT_TRACE(1, "key: {}: {}", key, e.what());
        t.stats()->logRefusedCntInc(1);
        return false;
      }
    }
    // A write waits for the hardware unless the hardware has already
    // confirmed its version (a suppressed write of an older one). While the
    // hardware is being rebuilt, nothing older than the rebuild is known to
    // be there: a suppressed write waits for the rebuild.
    logVersion = std::max(logVersion, resync);
    handle->writesKeyIs(true);
    finishOrQueue(t, handle, logVersion,
                  t.entryLog() && logVersion > t.entryLog()->cleanupVersion());
    if (linkage) {
      Linkage::Accessor::commitUsage(
          *linkage, wrapper, oldCommitted, false,
          [&] { return oldEntry.value_or(Entry{}); });
    }
    return true;
  }

  // ---- Version progress ----

  static void tableStatusVersion(T &t, LogVersion v) {
    Fwk::Ptr<T> keep(&t);
    OT_TRACE(8, "tableVersion: {}", v);
    // A version this log never handed out says the hardware writer follows
    // another log: nothing it reports is known to be in the hardware.
    if (t.entryLog() && !t.entryLog()->hwVersionMatches(v)) {
      return;
    }
    if (t.entryLog()) {
      t.entryLog()->cleanupEntryLog(v);
    }
    if (t.groupResolver()) {
      t.groupResolver()->updateGenId();
    }
    // Writes the hardware refused fail; looked up only while it holds
    // refusals.
    const GroupInterface *refusals =
        t.entryLog() && t.entryLog()->groupInterface() &&
                t.entryLog()->groupInterface()->hasHwRefusals()
            ? t.entryLog()->groupInterface().ptr()
            : nullptr;
    while (auto front = t.entryHandleInLogFront()) {
      if (front->logVersion() > v) {
        break; // it and every later handle stay queued
      }
      auto h = t.entryHandleInLogDeq();
      OT_TRACE(3, "Processing version: {}, key: {}", h->logVersion(), h->key());
      if (refusals && h->writesKey() && hwRefused(t, *refusals, *h)) {
        h->entryStateIs(EntryState::failed);
      } else {
        h->entryStateIs(EntryState::finished);
      }
      respond(h);
    }
    // The resource table frees what the confirmed changes let go of.
    if (Linkage *l = t.linkage().ptr(); l && t.entryLog()) {
      l->resTblClient()->tableVersionConfirmed(t.swTableId(),
                                               t.entryLog()->cleanupVersion());
    }
    if (t.swTableSet()) {
      t.swTableSet()->maybeUpdatePendingHwWrites();
    }
  }

  // Whether the hardware refused the change of the handle (a write of a new
  // key into a full hardware table, say): traced and counted.
  static bool hwRefused(T &t, const GroupInterface &group,
                        const EntryHandle &h) {
    const HwRefusalRecord *r =
        group.hwRefusal(t.swTableId(), t.unitId(), h.key().packed());
    if (!r || !r->refusedChange(h.logVersion())) {
      return false;
    }
    OT_TRACE(1, "key: {}: refused by the hardware at version {}: {}", h.key(),
             h.logVersion(), hwRefusalText(r->reason));
    t.stats()->hwRefusedCntInc(1);
    return true;
  }

  static bool hasPendingHwWrites(const T &t) {
    OT_TRACE(8, "");
    const bool pending = t.transientAddEntrys() != 0 ||
                         t.transientRemoveEntrys() != 0 ||
                         t.transientRemoveAllVersion().valid() ||
                         (t.entryLog() && t.entryLog()->tableVersion() !=
                                              t.entryLog()->cleanupVersion());
    OT_TRACE(3, " pendingHwWrites for swTable: tableId: {}, unitId{} is {}",
             t.swTableId(), t.unitId(), pending);
    return pending;
  }

  // ---- Reads ----

  // The committed record of a key, read in place; valid until the
  // collection changes. Corrupt shared memory reads as absent.
  static const ConfigEntry *configRecordRef(const T &t, const Key &key) {
    auto *slate = t.configSlate();
    if (!slate) {
      return nullptr;
    }
    auto &coll = slate->swTableEntries();
    try {
      return coll.findRef(key);
    } catch (const Shm::CorruptionError &e) {
      coll.doCorruptionDetected(e.what());
      return nullptr;
    }
  }

  static bool committed(const T &t, const Key &key) {
    return t.entryLog() && t.entryLog()->entryHas(key, t.unitId());
  }

  static bool entryHas(const T &t, const Key &key) {
    if (t.transientAddEntryColl().contains(key)) {
      return true;
    }
    if (t.transientRemoveEntryColl().contains(key) ||
        t.transientRemoveAllVersion().valid()) {
      return false;
    }
    return committed(t, key);
  }

  static Entry entryReadGeneric(const T &t, const Key &key) {
    OT_TRACE(8, "key: {}", key);
    if (const auto *w = t.transientAddEntryColl().find(key)) {
      return (*w)->entry();
    }
    // A pending remove-all is not consulted here (entryHas and iteration
    // do): a key still committed reads back as its committed entry.
    if (!t.transientRemoveEntryColl().contains(key) && committed(t, key)) {
      return t.entryFromConfig(key);
    }
    OT_TRACE(1, "Failed to find entry for key: {}", key);
    return Entry{};
  }

  // Read in place: no 856-byte record is built, copied or compared per read.
  static Entry entryFromConfig(const T &t, const Key &key) {
    OT_TRACE(8, "key: {}", key);
    static const ConfigEntry kAbsent{};
    const ConfigEntry *r = configRecordRef(t, key);
    if (r && !r->isDeleted && !(*r == kAbsent)) {
      return r->entry();
    }
    return Entry{};
  }

  static std::uint32_t entrys(const T &t) {
    const auto &add = t.transientAddEntryColl();
    if (t.transientRemoveAllVersion().valid()) {
      return static_cast<std::uint32_t>(add.size());
    }
    if (!t.entryLog() || !t.entryLog()->tableConfigSlateHas(t.unitId())) {
      return static_cast<std::uint32_t>(add.size());
    }
    std::uint32_t n = t.entryLog()->entrys(t.unitId());
    for (auto it = add.begin(); it != add.end(); ++it) {
      if (!committed(t, it.key())) {
        ++n;
      }
    }
    const auto &rm = t.transientRemoveEntryColl();
    for (auto it = rm.begin(); it != rm.end(); ++it) {
      if (committed(t, it.key())) {
        --n;
      }
    }
    return n;
  }

  // ---- Iteration ----

  static Fwk::Ptr<IterState> initIterState(const T &t) {
    auto s = Fwk::make<IterState>();
    s->swTableIs(&t);
    if (t.transientRemoveAllVersion().valid()) {
      s->state().set(IterState::State::kRemoveAll);
    }
    s->state().set(IterState::State::kInAddColl);
    return s;
  }

  static Fwk::Ptr<IterState> initIterStateFromKey(const T &t, const Key &key) {
    OT_TRACE(8, " key: {}", key);
    auto s = Fwk::make<IterState>();
    s->swTableIs(&t);
    using S = typename IterState::State;
    if (t.transientRemoveAllVersion().valid()) {
      s->state().set(S::kRemoveAll);
    }
    s->bookmarkKeyIs(key);
    s->state().set(S::kBookmark);
    if (t.transientAddEntryColl().contains(key)) {
      s->state().set(S::kInAddColl);
    } else if (!s->state().removeAllPending() && committed(t, key)) {
      s->state().set(S::kInTblCfg);
    }
    // Otherwise neither phase: the iteration is at its end at once.
    return s;
  }

  static Fwk::Ptr<typename T::SwTableEntries_py>
  getTableEntries_py(const T &t) {
    // The table's "entries" collection as the inspection tools walk it.
    auto snapshot = Fwk::make<typename T::SwTableEntries_py>();
    // (The walk is typed per collection; "entries" yields entries.)
    Introspect::forEachElement(t, "entries", [&snapshot](const auto &e) {
      if constexpr (std::is_same_v<std::decay_t<decltype(e)>, Entry>) {
        snapshot->tableEntriesIs(e);
      }
    });
    return snapshot;
  }

  // ---- Restore, clear, mark and sweep, update ----

  static Fwk::Ptr<Wrapper> entryWrapperFromConfig(T &t, const Key &key,
                                                  bool refreshRsrcPtrs,
                                                  Fwk::Ptr<EntryHandle> &slot) {
    OT_TRACE(8, "key: {}, refreshRsrcPtrs: {}", key, refreshRsrcPtrs);
    return wrapperOf(t, key, t.entryFromConfig(key), refreshRsrcPtrs, slot);
  }

  // entryWrapperFromConfig for a committed record the caller has read
  // already (the same wrapper, without reading the record again).
  static Fwk::Ptr<Wrapper> wrapperFromRecord(T &t, const ConfigEntry &r,
                                             bool refreshRsrcPtrs,
                                             Fwk::Ptr<EntryHandle> &slot) {
    const Key key = r.logEntry.key;
    trace(8, "entryWrapperFromConfig", __LINE__, "key: {}, refreshRsrcPtrs: {}",
          key, refreshRsrcPtrs);
    if (!slot) {
      slot = T::entryHandleFactory(EntryVersion(), key, &t);
    }
    auto w = r.isDeleted ? Fwk::make<Wrapper>(Entry{}, slot)
                         : Fwk::make<Wrapper>(r.rsrcKeys, r.logEntry, slot);
    return finishWrapper(t, w, key, refreshRsrcPtrs);
  }

  static Fwk::Ptr<Wrapper> wrapperOf(T &t, const Key &key, const Entry &e,
                                     bool refreshRsrcPtrs,
                                     Fwk::Ptr<EntryHandle> &slot) {
    if (!slot) {
      slot = T::entryHandleFactory(EntryVersion(), key, &t);
    }
    return finishWrapper(t, Fwk::make<Wrapper>(e, slot), key, refreshRsrcPtrs);
  }

  static Fwk::Ptr<Wrapper> finishWrapper(T &t, Fwk::Ptr<Wrapper> w,
                                         const Key &key, bool refreshRsrcPtrs) {
    w->keyIs(key);
    t.setRsrcPtrs(w, refreshRsrcPtrs);
    w->retrieveClientData();
    return w;
  }

  // Visits every committed (not deleted) record of the unit, in one pass
  // over the configuration table's slots (the cheapest walk; the visit does
  // not depend on the order). `f` must not change the configuration table.
  // A report of corrupt shared memory goes to the collection's corruption
  // handling and ends the walk.
  template <typename F> static void forEachCommitted(T &t, F &&f) {
    auto slate =
        t.entryLog() ? t.entryLog()->tableConfigSlate(t.unitId()) : nullptr;
    if (!slate) {
      return;
    }
    auto &coll = slate->swTableEntries();
    try {
      coll.forEachInPlace([&](const ConfigEntry &r) {
        if (!r.isDeleted) {
          f(r);
        }
      });
    } catch (const Shm::CorruptionError &e) {
      coll.doCorruptionDetected(e.what());
    }
  }

  // Restore, in one pass over the unit's configuration table: every
  // committed entry gets its wrapper, its resource and its usage back, and,
  // while its record is at hand, the update that the pass over the
  // resources in use (handleResourceChangeAtInit) makes of each user of a
  // resource. The resources are then acknowledged, one after the other in
  // the linkage's order, each with the handle of its last user's update, as
  // that pass does. Updates that log a change are made after the walk, which
  // must not change the table it walks; the helper's hook is asked during
  // the walk and must not change the committed entries either.
  static void restoreEntries(T &t) {
    OT_TRACE(8, "");
    if (!t.entryLog() || !t.entryLog()->tableConfigSlate(t.unitId())) {
      return; // nothing was ever committed
    }
    Linkage *linkage = t.linkage().ptr();
    if (!linkage) {
      forEachCommitted(t, [&](const ConfigEntry &r) {
        Fwk::Ptr<EntryHandle> slot;
        wrapperFromRecord(t, r, true, slot);
      });
      return;
    }
    using Handles =
        Fwk::HashMap<Key, Fwk::Ptr<const OrderedSwTable::EntryHandle>>;
    Handles updates(0x4f1bbcdcu);
    updates.reserve(t.entryLog()->entrys(t.unitId()));
    struct Logged {
      Fwk::Ptr<Wrapper> wrapper;
      Fwk::Ptr<EntryHandle> handle;
      typename B::LogEntry storedLog;
      LogVersion storedVersion;
    };
    std::vector<Logged> logged;
    forEachCommitted(t, [&](const ConfigEntry &r) {
      Fwk::Ptr<EntryHandle> handle;
      auto w = wrapperFromRecord(t, r, true, handle);
      linkage->restoreEntry(w);
      const auto &res = w->resourcePtr();
      if (!res || res->isPostReleaseProtoState()) {
        return; // uses no resource (or one on its way out): not updated
      }
      const Key &key = w->key();
      Linkage::Accessor::trace(3, "handleResourceChange", __LINE__,
                               "Updating sw table entry for key: {}", key);
      const bool commitToLog = decideUpdate(t, key, w, linkage);
      if (updateLogs(w, r.logEntry, commitToLog)) {
        logged.push_back(Logged{w, handle, r.logEntry, r.logVersion});
      } else {
        finishUpdate(t, key, w, handle, r.logEntry, r.logVersion, commitToLog);
      }
      updates.insert(key, std::move(handle));
    });
    for (const Logged &l : logged) {
      finishUpdate(t, l.wrapper->key(), l.wrapper, l.handle, l.storedLog,
                   l.storedVersion, true);
    }
    linkage->acknowledgeAtInit(updates);
  }

  static void delAllEntries(T &t, bool releaseResources,
                            const Fwk::Ptr<NeededEntry> &neededEntry,
                            Fwk::Ptr<EntryHandle> &slot, Linkage *linkage) {
    OT_TRACE(8, " releaseResources: {}, neededEntry:{} ", releaseResources,
             neededEntry);
    if (!t.entryLog() || !t.entryLog()->tableConfigSlate(t.unitId())) {
      return; // nothing is logged
    }
    if (releaseResources && linkage) {
      forEachCommitted(t, [&](const ConfigEntry &r) {
        auto w = wrapperFromRecord(t, r, false, slot);
        linkage->updateLocalUsage(w, w->entry(), true);
      });
    }
    const LogVersion v = t.entryLog()->tableDel(neededEntry, t.unitId());
    if (slot) {
      slot->logVersionIs(v);
      slot->entryStateIs(EntryState::logged);
    }
    t.stats()->tableClearCntInc(1);
  }

  static void mark(T &t) {
    OT_TRACE(8, "");
    if (!t.inMarkingState()) {
      t.inMarkingStateIs(true);
    }
  }

  static std::uint32_t sweepGeneric(T &t) {
    OT_TRACE(8, "");
    if (!t.inMarkingState()) {
      return 0; // nothing to reconcile
    }
    Fwk::Ptr<T> keep(&t);
    std::uint32_t count = 0;
    // The walk ends at the first entry equal to a default entry, which is
    // also how an exhausted iterator reads.
    for (auto it = t.entryIteratorConst(); !(it.entry() == Entry{}); ++it) {
      const Key key = it.entry().key;
      if (!t.markedKey(key)) {
        t.entryRemove(key, nullptr);
        ++count;
      }
    }
    if (t.inMarkingState()) {
      t.inMarkingStateIs(false);
    }
    t.markedKeyDelAll();
    return count;
  }

  // One read of the key's record serves the whole update: whether the key
  // is committed, the entry, the log entry it is compared with and its log
  // version (nothing writes the record in between).
  static Fwk::Ptr<const EntryHandle> updateEntry(T &t, const Key &key,
                                                 Linkage *linkage) {
    const ConfigEntry *record = configRecordRef(t, key);
    if (!record || record->isDeleted) {
      OT_TRACE(3, " key: {} entry does not exist ", key);
      return nullptr;
    }
    // The record is read in place: what is needed of it later is copied
    // before anything can change the collection.
    const typename B::LogEntry storedLog = record->logEntry;
    const LogVersion storedVersion = record->logVersion;
    Fwk::Ptr<EntryHandle> handle;
    auto w = wrapperFromRecord(t, *record, false, handle);
    const bool commitToLog = decideUpdate(t, key, w, linkage);
    finishUpdate(t, key, w, handle, storedLog, storedVersion, commitToLog);
    return handle;
  }

  // The first half of an update: the entry takes its resource's results,
  // and the helper decides whether a change is logged. A resource that is
  // not resolved (pending after a restart that lost its allocation, or
  // failed) has no results: the entry keeps those it was committed with,
  // so that the hardware never gets zeroes nobody asked for. A pending
  // resource announces its results when it resolves, and the entry is
  // updated then.
  static bool decideUpdate(T &t, const Key &key, const Fwk::Ptr<Wrapper> &w,
                           Linkage *linkage) {
    const bool ok = checkResolveSuccess(w, linkage);
    if (ok) {
      w->setResolvedFields();
    }
    const bool commitToLog = t.swTableHelper()->finalizeOnResourceUpdate(
        w, Fwk::Ptr<typename B::SwTable>(&t), !ok);
    if (!ok) {
      OT_TRACE(3, " key: {}, some resource had failed", key);
      t.stats()->updateWithFailedResourceCntInc(1);
    }
    return commitToLog;
  }

  // Whether the second half of an update logs a change.
  static bool updateLogs(const Fwk::Ptr<Wrapper> &w,
                         const typename B::LogEntry &storedLog,
                         bool commitToLog) {
    return commitToLog && !(w->entry().logEntry() == storedLog);
  }

  // The second half: a changed entry is logged (handle in state 1 with its
  // new version); otherwise the handle carries the version the entry was
  // logged with.
  static void finishUpdate(T &t, const Key &key, const Fwk::Ptr<Wrapper> &w,
                           const Fwk::Ptr<EntryHandle> &handle,
                           const typename B::LogEntry &storedLog,
                           LogVersion storedVersion, bool commitToLog) {
    if (updateLogs(w, storedLog, commitToLog)) {
      ConfigAt c = configAt(t, key);
      if (roomToLog(t, key, c)) {
        auto needed = t.getNeededEntrySet(w);
        const LogVersion v = logWrite(t, w, c, needed, false);
        handle->logVersionIs(v);
        handle->entryStateIs(EntryState::logged);
        t.stats()->updateCntInc(1);
        OT_TRACE(3, " key: {}, neededEntry: {}, entryLogVersion: {} ", key,
                 needed, v);
        return;
      }
      // Refused (traced and counted): the entry stays as it was logged.
    } else {
      OT_TRACE(
          3,
          " key: {}, commitToLog: {}, no change in logEntry or don't commit "
          "to log",
          key, commitToLog);
    }
    handle->logVersionIs(storedVersion);
    handle->entryStateIs(EntryState::logged);
  }
#undef OT_TRACE
};

// ---- The iteration step ----

// The iterator algorithms trace under one handle for every table.
inline Trace::Handle &iterTraceHandle() {
  static Trace::Handle h("SwTableIter");
  return h;
}

template <typename IterState, typename SwTable> struct IterStateAccessor {
  using Acc = OrderedSwTableAccessor<SwTable>;
  using Key = typename SwTable::Key;
  using Entry = typename SwTable::Entry;
  using S = typename IterState::State;

  template <typename... Args>
  [[gnu::always_inline]] static void trace(Trace::Level level, int line,
                                           fmt::format_string<Args...> f,
                                           Args &&...args) {
    Trace::Handle &h = iterTraceHandle();
    if (h.enabled(level)) [[unlikely]] {
      Trace::emitf(h, level, Acc::kUnit, "maybeUpdateCurrentEntry", line, "", f,
                   std::forward<Args>(args)...);
    }
  }

  static void endPending(IterState &s) {
    s.state().clear(S::kInAddColl);
    if (!s.state().removeAllPending()) {
      s.state().set(S::kInTblCfg);
    }
  }

  static void maybeUpdateCurrentEntry(IterState &s) {
    trace(8, __LINE__, "");
    const SwTable &t = *s.swTable();
    if (s.state().inAddColl()) {
      FWK_ASSERT_NAMED(!s.state().inTblCfg(),
                       "!iterState_->state().inTblCfg()");
      trace(9, __LINE__, "  in transientAdd collection");
      const auto &add = t.transientAddEntryColl();
      auto it = s.state().bookmarkValid() ? add.lowerBound(s.bookmarkKey())
                                          : add.begin();
      if (it == add.end()) {
        trace(9, __LINE__, "  done with transAdd");
        // The bookmark is kept: the configuration phase resumes at it.
        endPending(s);
      } else {
        s.state().set(S::kEntryValid);
        trace(9, __LINE__, "  found entry: {}", it.key());
        s.currentEntryIs(it.value()->entry());
        ++it;
        if (it != add.end()) {
          s.bookmarkKeyIs(it.key());
          s.state().set(S::kBookmark);
        } else {
          s.state().clear(S::kBookmark);
          trace(9, __LINE__, "  done with transAdd");
          endPending(s);
        }
        return;
      }
    }
    if (s.state().inTblCfg()) {
      FWK_ASSERT_NAMED(!s.state().inAddColl(),
                       "!iterState_->state().inAddColl()");
      trace(9, __LINE__, "  in cfgSlate collection");
      if (configStep(s, t)) {
        return;
      }
    }
    trace(9, __LINE__, "  no more entries");
    s.state().clear(S::kEntryValid | S::kInAddColl | S::kInTblCfg);
    s.currentEntryIs(Entry{});
  }

  // How many records ahead of the one it returns a walk of the
  // configuration table starts fetching: large records only (ISEM2's are 14
  // cache lines); for a record of a line or two the walk's own index lookups
  // cost more than the fetch saves (measured in bench_e2e).
  static constexpr unsigned kIterPrefetch =
      sizeof(ConfigSlateEntry<typename SwTable::Binding>) >= 256 ? 4 : 0;

  // One step in the configuration table; false when no record is left.
  // The step looks its bookmark up once and goes on by position; the record
  // is checked and read in place, and only its entry is copied.
  static bool configStep(IterState &s, const SwTable &t) {
    auto *slate = t.configSlate();
    if (!slate) {
      return false;
    }
    auto &coll = slate->swTableEntries();
    constexpr std::size_t kEnd = std::remove_reference_t<decltype(coll)>::kEnd;
    try {
      auto pos = s.state().bookmarkValid() ? coll.lowerBoundPos(s.bookmarkKey())
                                           : coll.firstPos();
      const ConfigSlateEntry<typename SwTable::Binding> *r = nullptr;
      for (; pos != kEnd; pos = coll.nextPos(pos)) {
        const Key &k = coll.keyAtPos(pos);
        if (t.transientRemoveEntryColl().contains(k) ||
            t.transientAddEntryColl().contains(k)) {
          continue; // being removed, or yielded with its pending value
        }
        r = coll.recordAtPos(pos);
        if (!r->isDeleted) {
          break;
        }
      }
      if (pos == kEnd) {
        return false;
      }
      s.state().set(S::kEntryValid);
      s.currentEntryIs(r->entry());
      trace(9, __LINE__, "  found entry: {}", coll.keyAtPos(pos));
      if (const auto next = coll.nextPos(pos, kIterPrefetch); next != kEnd) {
        s.bookmarkKeyIs(coll.keyAtPos(next));
        s.state().set(S::kBookmark);
      } else {
        trace(9, __LINE__, "  done with cfgSlate");
        s.state().clear(S::kBookmark | S::kInTblCfg);
      }
      return true;
    } catch (const Shm::CorruptionError &e) {
      coll.doCorruptionDetected(e.what());
      return false;
    }
  }
};

// ---- The table's operations, forwarded to the accessor ----

template <typename B>
Fwk::Ptr<const typename OrderedSwTableState<B>::EntryHandle>
OrderedSwTableState<B>::entryWrite(const Key &key, const Entry &entry,
                                   const Dependency &dependency) {
  Accessor::traceTable(8, "entryWrite", __LINE__, " key: {}", key);
  return Accessor::entryWriteGeneric(self(), key, entry, dependency,
                                     ResponseHandler(), linkage_.ptr());
}

template <typename B>
Fwk::Ptr<const typename OrderedSwTableState<B>::EntryHandle>
OrderedSwTableState<B>::entryWriteWithResponseHandler(
    const Key &key, const Entry &entry, const Dependency &dependency,
    const ResponseHandler &handler) {
  Accessor::traceTable(8, "entryWriteWithResponseHandler", __LINE__, " key: {}",
                       key);
  return Accessor::entryWriteGeneric(self(), key, entry, dependency, handler,
                                     linkage_.ptr());
}

template <typename B>
void OrderedSwTableState<B>::entriesWriteWithResponseHandler(
    std::span<const Key> keys, std::span<const Entry> entries,
    const Dependency &dependency, const ResponseHandler &handler,
    std::vector<Fwk::Ptr<const EntryHandle>> *handles) {
  Accessor::traceTable(8, "entriesWriteWithResponseHandler", __LINE__,
                       " keys: {}", keys.size());
  Accessor::entriesWriteGeneric(self(), keys, entries, dependency, handler,
                                linkage_.ptr(), handles);
}

template <typename B>
Fwk::Ptr<const typename OrderedSwTableState<B>::EntryHandle>
OrderedSwTableState<B>::entryRemove(const Key &key,
                                    const Dependency &dependency) {
  Accessor::traceTable(8, "entryRemove", __LINE__, " key: {}", key);
  return Accessor::entryRemoveGeneric(self(), key, dependency,
                                      ResponseHandler());
}

template <typename B>
Fwk::Ptr<const typename OrderedSwTableState<B>::EntryHandle>
OrderedSwTableState<B>::entryRemoveWithResponseHandler(
    const Key &key, const Dependency &dependency,
    const ResponseHandler &handler) {
  Accessor::traceTable(8, "entryRemoveWithResponseHandler", __LINE__,
                       " key: {}", key);
  return Accessor::entryRemoveGeneric(self(), key, dependency, handler);
}

template <typename B>
void OrderedSwTableState<B>::entryRemoveAll(const Dependency &dependency) {
  Accessor::traceTable(8, "entryRemoveAll", __LINE__, "");
  Accessor::entryRemoveAllGeneric(self(), dependency, ResponseHandler());
}

template <typename B>
void OrderedSwTableState<B>::entryRemoveAllWithResponseHandler(
    const Dependency &dependency, const ResponseHandler &handler) {
  Accessor::traceTable(8, "entryRemoveAllWithResponseHandler", __LINE__, "");
  Accessor::entryRemoveAllGeneric(self(), dependency, handler);
}

template <typename B>
bool OrderedSwTableState<B>::isResolverEntryResolved(
    const Fwk::Ptr<typename B::ResolverEntry> &entry) {
  return Accessor::isResolverEntryResolved(self(), entry, linkage_.ptr());
}

template <typename B>
void OrderedSwTableState<B>::commitEntry(const Fwk::Ptr<ResolverEntry> &entry) {
  Accessor::commitEntry(self(), entry, linkage_.ptr());
}

template <typename B>
void OrderedSwTableState<B>::setRsrcPtrs(const Fwk::Ptr<Wrapper> &wrapper,
                                         bool refresh) {
  Accessor::setRsrcPtrs(self(), wrapper, refresh);
}

template <typename B>
Fwk::Ptr<NeededEntry> OrderedSwTableState<B>::getNeededEntrySet(
    const Fwk::Ptr<const Wrapper> &wrapper) const {
  return linkage_ ? linkage_->getNeededEntrySet(wrapper)
                  : Fwk::make<NeededEntry>();
}

template <typename B>
void OrderedSwTableState<B>::tableStatusVersion(LogVersion v) {
  Accessor::tableStatusVersion(self(), v);
}

template <typename B> bool OrderedSwTableState<B>::hasPendingHwWrites() const {
  return Accessor::hasPendingHwWrites(cself());
}

template <typename B>
bool OrderedSwTableState<B>::entryHas(const Key &key) const {
  return Accessor::entryHas(cself(), key);
}

template <typename B>
typename B::Entry OrderedSwTableState<B>::entry(const Key &key) const {
  return entryRead(key);
}

template <typename B>
typename B::Entry OrderedSwTableState<B>::entryRead(const Key &key) const {
  Accessor::traceTable(8, "entryRead", __LINE__, " key: {}", key);
  return Accessor::entryReadGeneric(cself(), key);
}

template <typename B>
typename B::Entry
OrderedSwTableState<B>::entryFromConfig(const Key &key) const {
  return Accessor::entryFromConfig(cself(), key);
}

template <typename B> std::uint32_t OrderedSwTableState<B>::entrys() const {
  return Accessor::entrys(cself());
}

template <typename B>
Fwk::Ptr<typename OrderedSwTableState<B>::IterState>
OrderedSwTableState<B>::initIterState() const {
  return Accessor::initIterState(cself());
}

template <typename B>
Fwk::Ptr<typename OrderedSwTableState<B>::IterState>
OrderedSwTableState<B>::initIterStateFromKey(const Key &key) const {
  return Accessor::initIterStateFromKey(cself(), key);
}

template <typename B>
typename OrderedSwTableState<B>::EntryIterator
OrderedSwTableState<B>::entryIteratorConst() const {
  return EntryIterator(initIterState());
}

template <typename B>
typename OrderedSwTableState<B>::EntryIterator
OrderedSwTableState<B>::entryIteratorConst(const Key &key) const {
  return EntryIterator(initIterStateFromKey(key));
}

template <typename B>
Fwk::Ptr<typename OrderedSwTableState<B>::SwTableEntries_py>
OrderedSwTableState<B>::getTableEntries_py() const {
  return Accessor::getTableEntries_py(cself());
}

template <typename B> void OrderedSwTableState<B>::restoreEntries() {
  Accessor::restoreEntries(self());
}

template <typename B>
void OrderedSwTableState<B>::clearTable(bool releaseResources) {
  Accessor::traceTable(8, "clearTable", __LINE__, "");
  Fwk::Ptr<EntryHandle> noHandle;
  delAllEntries(releaseResources, nullptr, noHandle);
}

template <typename B> void OrderedSwTableState<B>::mark() {
  Accessor::mark(self());
}

template <typename B> std::uint32_t OrderedSwTableState<B>::sweep() {
  const std::uint32_t count = Accessor::sweepGeneric(self());
  MICA_TRACE_RING(B::kTableSourceUnit, B::kSwTableClass, "Swept {} entries",
                  count);
  Accessor::traceTable(6, "sweep", __LINE__, "Swept {} entries", count);
  return count;
}

template <typename B>
Fwk::Ptr<const typename OrderedSwTableState<B>::EntryHandle>
OrderedSwTableState<B>::updateEntry(const Key &key) {
  return Accessor::updateEntry(self(), key, linkage_.ptr());
}

template <typename B>
Fwk::Ptr<typename B::EntryWrapper>
OrderedSwTableState<B>::entryWrapperFromConfig(
    const Key &key, bool refreshRsrcPtrs, Fwk::Ptr<EntryHandle> &handleSlot) {
  return Accessor::entryWrapperFromConfig(self(), key, refreshRsrcPtrs,
                                          handleSlot);
}

template <typename B>
void OrderedSwTableState<B>::delAllEntries(
    bool releaseResources, const Fwk::Ptr<NeededEntry> &neededEntry,
    Fwk::Ptr<EntryHandle> &handleSlot) {
  Accessor::delAllEntries(self(), releaseResources, neededEntry, handleSlot,
                          linkage_.ptr());
}

template <typename B> void TableIterState<B>::maybeUpdateCurrentEntry() {
  IterStateAccessor<TableIterState<B>,
                    typename B::SwTable>::maybeUpdateCurrentEntry(*this);
}

} // namespace Asic
