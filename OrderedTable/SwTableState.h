// The state of a software table, written once for every table family: its
// attributes, its collections and the small mutators through which every
// collection changes. The algorithms that use them (write, remove, commit,
// version progress, reads, restore, sweep) are in OrderedSwTableAccessor.h.
//
// A table family's class derives from OrderedSwTableState<Binding> and adds
// only its names (MplsIsem2SwTable: `inLifLinkage`, MplsLemSwTable:
// `l2AdjToFecLinkage`).
//
// Collections (all keyed by the table's key, hashed with the process seed
// mixed with a constant of their own, iterated in hash order):
//   transientAddEntry     key -> wrapper of the newest uncommitted write
//   transientRemoveEntry  key -> wrapper of the newest uncommitted remove
//   transientVersionForKey key -> version of the newest uncommitted change
//   markedKey             keys written during the current marking pass
//   entryHandleInLog      handles of logged changes waiting for the hardware
//                         (a RingQueue; sequence numbers start at 1)
//
// Every mutator announces its change to the table's observers with the
// attribute and, for one element, its key (the queue: its sequence number).
// The ...DelAll mutators clear at once when nobody observes the table and
// element by element (each announced) otherwise.
//
// Invalidation: a mutator of a collection invalidates iterators of that
// collection (HashMap.h). Response handlers and observers may call back into
// the table; the algorithms re-read collections after every call-out.
#pragma once

#include <cstdint>
#include <span>
#include <string>
#include <vector>

#include "OrderedTable/InfraTypes.h"
#include "OrderedTable/SwTableIterator.h"
#include "OrderedTable/TableBinding.h"
#include "platform/asic/GroupResolver.h"
#include "platform/asic/OrderedSwTable.h"
#include "platform/framework/HashMap.h"
#include "platform/framework/RingQueue.h"
#include "platform/trace/Trace.h"

namespace Asic {

// The handle of one accepted change of a table of family B (the family's
// `EntryHandle`).
template <typename B>
class SwTableEntryHandle : public OrderedSwTable::EntryHandle {
public:
  using Key = typename B::Key;
  using Table = typename B::SwTable;

  static Fwk::Ptr<SwTableEntryHandle>
  EntryHandleIs(EntryVersion version, const Key &key, Table *table) {
    return Fwk::Ptr<SwTableEntryHandle>(
        new SwTableEntryHandle(version, key, table));
  }

  const Key &key() const noexcept { return key_; }
  // Whether the change puts the key's entry in the hardware (a committed
  // write), which the hardware can refuse; deletions it always takes.
  bool writesKey() const noexcept { return writesKey_; }
  void writesKeyIs(bool w) noexcept { writesKey_ = w; }
  Table *swTable() const noexcept { return swTable_; }
  void swTableIs(Table *table) noexcept { swTable_ = table; }

  std::string tableName() const override {
    MICA_TRACE(Trace::handleOf<Table>(), 8, B::kTableSourceUnit,
               B::kSwTableClass, "");
    return swTable_ && swTable_->name() ? swTable_->name()->str()
                                        : std::string();
  }
  SwTableId tableId() const override {
    MICA_TRACE(Trace::handleOf<Table>(), 8, B::kTableSourceUnit,
               B::kSwTableClass, "");
    return swTable_ ? swTable_->swTableId() : SwTableId();
  }

private:
  SwTableEntryHandle(EntryVersion version, const Key &key, Table *table)
      : EntryHandle(version), key_(key), swTable_(table) {}
  ~SwTableEntryHandle() override = default;

  Key key_;
  Table *swTable_;
  bool writesKey_ = false;
};

template <typename T> struct OrderedSwTableAccessor;

template <typename B>
class __attribute__((visibility("default"))) OrderedSwTableState
    : public OrderedSwTableWithMarkSweep {
public:
  using Binding = B;
  using Key = typename B::Key;
  using Entry = typename B::Entry;
  using Wrapper = typename B::EntryWrapper;
  using Helper = typename B::Helper;
  using EntryLog = typename B::EntryLog;
  using Linkage = typename B::Linkage;
  using EntryHandle = SwTableEntryHandle<B>;
  using EntryHandleQueue = Fwk::RingQueue<Fwk::Ptr<EntryHandle>>;
  using Dependency = Fwk::Ptr<const DependencyEntryHandle>;
  using ResponseHandler = OrderedSwTable::ResponseHandler;
  using IterState = TableIterState<B>;
  using EntryIterator = OrderedSwTableEntryIterator<IterState>;
  using SwTableEntries_py = SwTableEntries<B>;
  using Accessor = OrderedSwTableAccessor<typename B::SwTable>;

  // The entry log refuses logging one more change past this many records of
  // its change log: a change waits in the resolver until there is room.
  static constexpr std::uint32_t kEntryLogRecordLimit = 999999;

  // Attribute identities, in declaration order.
  static constexpr Fwk::AttrId attrInMarkingState{16, "inMarkingState"};
  static constexpr Fwk::AttrId attrSwTableHelper{17, "swTableHelper"};
  static constexpr Fwk::AttrId attrTransientAddEntry{18, "transientAddEntry"};
  static constexpr Fwk::AttrId attrTransientRemoveEntry{19,
                                                        "transientRemoveEntry"};
  static constexpr Fwk::AttrId attrTransientVersionForKey{
      20, "transientVersionForKey"};
  static constexpr Fwk::AttrId attrTransientRemoveAllVersion{
      21, "transientRemoveAllVersion"};
  static constexpr Fwk::AttrId attrEntryLog{22, "entryLog"};
  static constexpr Fwk::AttrId attrGroupResolver{23, "groupResolver"};
  static constexpr Fwk::AttrId attrEntryHandleInLog{24, "entryHandleInLog"};
  static constexpr Fwk::AttrId attrMarkedKey{25, "markedKey"};
  static constexpr Fwk::AttrId attrLinkage{26, B::kLinkageAttr};

  // ---- Attributes ----

  bool inMarkingState() const noexcept { return inMarkingState_; }
  void inMarkingStateIs(bool on) {
    if (on != inMarkingState_) {
      inMarkingState_ = on;
      notify(attrInMarkingState);
    }
  }

  const Fwk::Ptr<Helper> &swTableHelper() const noexcept { return helper_; }
  // Installs a helper; the old one is released after the new one is stored.
  void swTableHelperIs(const Fwk::Ptr<Helper> &helper) {
    replace(helper_, helper, attrSwTableHelper);
  }

  const Fwk::Ptr<Linkage> &linkage() const noexcept { return linkage_; }
  void linkageIs(const Fwk::Ptr<Linkage> &linkage) {
    replace(linkage_, linkage, attrLinkage);
  }

  const Fwk::Ptr<EntryLog> &entryLog() const noexcept { return entryLog_; }
  // The unit's configuration table in the entry log, without a counted
  // reference; null when there is none.
  auto *configSlate() const noexcept {
    return entryLog_ ? entryLog_->tableConfigSlatePtr(unitId()) : nullptr;
  }
  const Fwk::Ptr<GroupResolver> &groupResolver() const noexcept {
    return groupResolver_;
  }

  MajorVersion transientRemoveAllVersion() const noexcept {
    return removeAllVersion_;
  }
  // Sets the remove-all counter; announces only a change of value.
  void transientRemoveAllVersionIs(MajorVersion v) {
    if (!(v == removeAllVersion_)) {
      removeAllVersion_ = v;
      notify(attrTransientRemoveAllVersion);
    }
  }

  // ---- Changes (OrderedSwTableAccessor.h) ----
  //
  // None of these touches the entry log or the hardware: each records the
  // change in the transient collections, makes the handle the caller
  // follows, and queues the change with the group resolver. The forms
  // without a handler pass an empty one.

  Fwk::Ptr<const EntryHandle> entryWrite(const Key &key, const Entry &entry,
                                         const Dependency &dependency);
  Fwk::Ptr<const EntryHandle>
  entryWriteWithResponseHandler(const Key &key, const Entry &entry,
                                const Dependency &dependency,
                                const ResponseHandler &handler);
  // A batch of writes: entries[i] at keys[i], in order, each with the same
  // version, handle, commit and handler call as entryWriteWithResponseHandler
  // would give it; the handles are appended to `handles` when it is given.
  // What changes is what the batch costs: the clients are asked to hold
  // back (GroupResolver::maybeUpdateSuspend) once, after the last write,
  // and the next keys' lookups are fetched ahead.
  // REQUIRES: keys.size() == entries.size().
  void entriesWriteWithResponseHandler(
      std::span<const Key> keys, std::span<const Entry> entries,
      const Dependency &dependency, const ResponseHandler &handler,
      std::vector<Fwk::Ptr<const EntryHandle>> *handles = nullptr);
  Fwk::Ptr<const EntryHandle> entryRemove(const Key &key,
                                          const Dependency &dependency);
  Fwk::Ptr<const EntryHandle>
  entryRemoveWithResponseHandler(const Key &key, const Dependency &dependency,
                                 const ResponseHandler &handler);
  void entryRemoveAll(const Dependency &dependency);
  void entryRemoveAllWithResponseHandler(const Dependency &dependency,
                                         const ResponseHandler &handler);

  // ---- Commit (called back by the group resolver) ----

  bool
  isResolverEntryResolved(const Fwk::Ptr<typename B::ResolverEntry> &entry);
  void commitEntry(const Fwk::Ptr<ResolverEntry> &entry);
  // Points the wrapper at its resource: asks again with `refresh`, else
  // takes the handle the linkage already holds.
  void setRsrcPtrs(const Fwk::Ptr<Wrapper> &wrapper, bool refresh);
  Fwk::Ptr<NeededEntry>
  getNeededEntrySet(const Fwk::Ptr<const Wrapper> &wrapper) const;

  // ---- Version progress ----

  // The hardware has taken every change up to `version`: retire the log up
  // to it and finish, in order, every handle whose log version it covers.
  void tableStatusVersion(LogVersion version) override;
  bool hasPendingHwWrites() const override;
  LogVersion loggedVersion() const override {
    return entryLog_ ? entryLog_->tableVersion() : 0;
  }

  // ---- Reads: pending changes merged over the committed configuration ----

  bool entryHas(const Key &key) const;
  // The entry as clients will see it, or a default entry (entryHas tells).
  Entry entry(const Key &key) const;
  Entry entryRead(const Key &key) const;
  // The committed entry only, or a default entry.
  Entry entryFromConfig(const Key &key) const;
  // The number of entries an iteration would yield.
  std::uint32_t entrys() const;
  Fwk::Ptr<IterState> initIterState() const;
  Fwk::Ptr<IterState> initIterStateFromKey(const Key &key) const;
  EntryIterator entryIteratorConst() const;
  EntryIterator entryIteratorConst(const Key &key) const;
  // A full snapshot, for the scripting interface.
  Fwk::Ptr<SwTableEntries_py> getTableEntries_py() const;

  // ---- Restore, clear, mark and sweep, update ----

  // Rebuilds wrappers and resource usage from the committed configuration.
  void restoreEntries();
  // Logs the removal of every committed entry at once.
  void clearTable(bool releaseResources);
  void mark() override;
  std::uint32_t sweep() override;
  // Recomputes a committed entry after its resource changed; null when the
  // key is not committed.
  Fwk::Ptr<const EntryHandle> updateEntry(const Key &key);
  // A wrapper of the committed entry of a key; the handle slot is filled
  // with a new handle when it is empty.
  Fwk::Ptr<Wrapper> entryWrapperFromConfig(const Key &key, bool refreshRsrcPtrs,
                                           Fwk::Ptr<EntryHandle> &handleSlot);
  void delAllEntries(bool releaseResources,
                     const Fwk::Ptr<NeededEntry> &neededEntry,
                     Fwk::Ptr<EntryHandle> &handleSlot);

  // Starts fetching the committed record of a key that is read soon
  // (`ahead` 2: its index entry; 1: its record, once the index entry is
  // there). A hint; changes nothing.
  void prefetchCommitted(const Key &key, int ahead) const noexcept {
    if (auto *slate = configSlate()) {
      if (ahead > 1) {
        slate->swTableEntries().prefetch(key);
      } else {
        slate->swTableEntries().prefetchRecord(key);
      }
    }
  }

  // ---- Pending writes, removes and versions ----

  // The pending wrapper of a key, or null.
  Fwk::Ptr<Wrapper> transientAddEntry(const Key &key) const {
    const auto *w = transientAdd_.find(key);
    return w ? *w : nullptr;
  }
  std::size_t transientAddEntrys() const noexcept {
    return transientAdd_.size();
  }
  const Fwk::HashMap<Key, Fwk::Ptr<Wrapper>> &
  transientAddEntryColl() const noexcept {
    return transientAdd_;
  }
  // Inserts or replaces the pending write under the wrapper's key.
  void transientAddEntryIs(const Fwk::Ptr<Wrapper> &wrapper) {
    collIs(transientAdd_, wrapper->key(), wrapper, attrTransientAddEntry);
  }
  void transientAddEntryDel(const Key &key) {
    collDel(transientAdd_, key, attrTransientAddEntry);
  }
  void transientAddEntryDelAll() {
    collDelAll(transientAdd_, attrTransientAddEntry);
  }

  Fwk::Ptr<Wrapper> transientRemoveEntry(const Key &key) const {
    const auto *w = transientRemove_.find(key);
    return w ? *w : nullptr;
  }
  std::size_t transientRemoveEntrys() const noexcept {
    return transientRemove_.size();
  }
  const Fwk::HashMap<Key, Fwk::Ptr<Wrapper>> &
  transientRemoveEntryColl() const noexcept {
    return transientRemove_;
  }
  void transientRemoveEntryIs(const Fwk::Ptr<Wrapper> &wrapper) {
    collIs(transientRemove_, wrapper->key(), wrapper, attrTransientRemoveEntry);
  }
  void transientRemoveEntryDel(const Key &key) {
    collDel(transientRemove_, key, attrTransientRemoveEntry);
  }
  void transientRemoveEntryDelAll() {
    collDelAll(transientRemove_, attrTransientRemoveEntry);
  }

  // The pending version of a key, or an invalid version.
  EntryVersion transientVersionForKey(const Key &key) const {
    const auto *v = transientVersion_.find(key);
    return v ? *v : EntryVersion::invalid();
  }
  std::size_t transientVersionForKeys() const noexcept {
    return transientVersion_.size();
  }
  const Fwk::HashMap<Key, EntryVersion> &
  transientVersionForKeyColl() const noexcept {
    return transientVersion_;
  }
  void transientVersionForKeyIs(const Key &key, EntryVersion version) {
    collIs(transientVersion_, key, version, attrTransientVersionForKey);
  }
  void transientVersionForKeyDel(const Key &key) {
    collDel(transientVersion_, key, attrTransientVersionForKey);
  }
  void transientVersionForKeyDelAll() {
    collDelAll(transientVersion_, attrTransientVersionForKey);
  }

  // ---- Marked keys ----

  bool markedKey(const Key &key) const noexcept {
    return marked_.contains(key);
  }
  std::size_t markedKeys() const noexcept { return marked_.size(); }
  const Fwk::HashMap<Key, Fwk::Unit> &markedKeyColl() const noexcept {
    return marked_;
  }
  void markedKeyIs(const Key &key) {
    if (marked_.insert(key, Fwk::Unit{})) {
      notify(attrMarkedKey, key);
    }
  }
  void markedKeyDel(const Key &key) { collDel(marked_, key, attrMarkedKey); }
  void markedKeyDelAll() { collDelAll(marked_, attrMarkedKey); }

  // ---- Entry-handle log ----

  // Appends a handle; announced with its sequence number.
  void entryHandleInLogEnq(const Fwk::Ptr<EntryHandle> &handle) {
    const std::uint32_t seq = handleLog_.enq(handle);
    notify(attrEntryHandleInLog, seq);
  }
  // Removes and returns the oldest handle, or null when the log is empty;
  // announced with the sequence number removed.
  Fwk::Ptr<EntryHandle> entryHandleInLogDeq() {
    if (handleLog_.empty()) {
      return nullptr;
    }
    const std::uint32_t seq = handleLog_.frontSeq();
    Fwk::Ptr<EntryHandle> h = handleLog_.deq();
    notify(attrEntryHandleInLog, seq);
    return h;
  }
  // The handle under a sequence number, or null outside front .. back.
  Fwk::Ptr<EntryHandle> entryHandleInLog(std::uint32_t seq) const {
    const auto *h = handleLog_.at(seq);
    return h ? *h : nullptr;
  }
  bool entryHandleInLogHas(std::uint32_t seq) const noexcept {
    return handleLog_.has(seq);
  }
  Fwk::Ptr<EntryHandle> entryHandleInLogFront() const {
    const auto *h = handleLog_.front();
    return h ? *h : nullptr;
  }
  Fwk::Ptr<EntryHandle> entryHandleInLogBack() const {
    const auto *h = handleLog_.back();
    return h ? *h : nullptr;
  }
  std::uint32_t entryHandleInLogSize() const noexcept {
    return handleLog_.size();
  }
  const EntryHandleQueue &entryHandleInLogQueue() const noexcept {
    return handleLog_;
  }
  void entryHandleInLogDelAll() {
    if (!hasObservers()) {
      handleLog_.clear();
      return;
    }
    while (entryHandleInLogDeq()) {
    }
  }

  // Ends every change still queued with the resolver, oldest first: each
  // fails (state 5) with its response handler called, and the pending
  // state of the table is forgotten. For a table taken off its interface;
  // a table that is destroyed does the same. Handlers may write again:
  // those changes are queued as usual.
  void resolverQueueDelAll() {
    if (!groupResolver_) {
      return;
    }
    Fwk::Ptr<OrderedSwTableState> keep(this);
    const auto dropped = groupResolver_->resolverQueueDelAll(this);
    transientAddEntryDelAll();
    transientRemoveEntryDelAll();
    transientVersionForKeyDelAll();
    transientRemoveAllVersionIs(MajorVersion::invalid());
    for (const auto &r : dropped) {
      endDropped(*r, false);
    }
  }

  // Makes the handle of a change of this table.
  static Fwk::Ptr<EntryHandle> entryHandleFactory(EntryVersion version,
                                                  const Key &key,
                                                  typename B::SwTable *table) {
    return EntryHandle::EntryHandleIs(version, key, table);
  }

  void doCreateHwTable() override {}

  // Builds the table with its initial state and runs handleInitialized().
  OrderedSwTableState(Fwk::Ptr<const CanonicalTableName> name,
                      SwTableId swTableId, UnitId unitId,
                      OrderedSwTableSet *swTableSet,
                      Fwk::Ptr<EntryLog> entryLog,
                      Fwk::Ptr<GroupResolver> groupResolver)
      : OrderedSwTableWithMarkSweep(std::move(name), swTableId, unitId,
                                    swTableSet),
        entryLog_(std::move(entryLog)),
        groupResolver_(std::move(groupResolver)) {
    handleInitialized();
  }

  // Prints the table's constants, installs the default helper and creates
  // the statistics.
  void handleInitialized() {
    MICA_TRACE(Trace::handleOf<typename B::SwTable>(), 8, B::kTableSourceUnit,
               B::kSwTableClass, "doesMarkSweep: {} hwErrorHandling: {}",
               pyBool(B::Constants::doesMarkSweep),
               pyBool(B::Constants::hwErrorHandling));
    swTableHelperIs(Fwk::make<Helper>());
    statsIs();
  }

protected:
  // Empties every collection and releases what the table holds, before the
  // base is destroyed. Nobody can observe a table that is being destroyed,
  // so nothing is announced.
  ~OrderedSwTableState() override {
    // Queued changes name their table by its address (the family class
    // adds no base, so it is this one's). They end failed, their handles
    // no longer naming the table.
    if (groupResolver_) {
      for (const auto &r : groupResolver_->resolverQueueDelAll(this)) {
        endDropped(*r, true);
      }
    }
    handleLog_.clear();
    marked_.clear();
    transientVersion_.clear();
    transientRemove_.clear();
    transientAdd_.clear();
    helper_ = nullptr;
    linkage_ = nullptr;
    entryLog_ = nullptr;
    groupResolver_ = nullptr;
  }

private:
  typename B::SwTable &self() noexcept {
    return static_cast<typename B::SwTable &>(*this);
  }
  const typename B::SwTable &cself() const noexcept {
    return static_cast<const typename B::SwTable &>(*this);
  }

  // A change taken out of the resolver without being committed fails, its
  // handler called once; `dying`: the table is being destroyed, and the
  // handle no longer names it.
  static void endDropped(ResolverEntry &base, bool dying) {
    auto &r = static_cast<typename B::ResolverEntry &>(base);
    const Fwk::Ptr<EntryHandle> handle(
        static_cast<EntryHandle *>(r.entryWrapper()->entryHandle().ptr()));
    if (!handle || handle->entryState() != EntryState::made) {
      return;
    }
    MICA_TRACE(Trace::handleOf<typename B::SwTable>(), 1,
               "OrderedTable/OrderedSwTableAccessor", "",
               "Dropped queued change of key: {}, isEntryDeleted: {}, "
               "isTableDeleted: {}",
               handle->key(), r.isEntryDeleted(), r.isTableDeleted());
    if (dying) {
      handle->swTableIs(nullptr);
    }
    handle->entryStateIs(EntryState::failed);
    if (handle->responseHandler()) {
      const ResponseHandler handler = handle->responseHandler();
      handler(Fwk::Ptr<const OrderedSwTable::EntryHandle>(handle));
    }
  }

  // The constants print as the agent's configuration shows them.
  static constexpr const char *pyBool(bool b) { return b ? "True" : "False"; }

  template <typename P>
  void replace(Fwk::Ptr<P> &slot, const Fwk::Ptr<P> &value, Fwk::AttrId attr) {
    if (slot == value) {
      return;
    }
    Fwk::Ptr<P> old = std::move(slot);
    slot = value;
    notify(attr);
    // `old` is released here, after the new value is in place.
  }

  template <typename V>
  void collIs(Fwk::HashMap<Key, V> &coll, const Key &key, const V &value,
              Fwk::AttrId attr) {
    coll.insert(key, value);
    notify(attr, key);
  }
  template <typename V>
  void collDel(Fwk::HashMap<Key, V> &coll, const Key &key, Fwk::AttrId attr) {
    V gone{};
    if (coll.take(key, gone)) {
      notify(attr, key);
    }
  }
  template <typename V>
  void collDelAll(Fwk::HashMap<Key, V> &coll, Fwk::AttrId attr) {
    if (!hasObservers()) {
      coll.clear();
      return;
    }
    while (!coll.empty()) {
      const Key key = coll.begin().key();
      collDel(coll, key, attr);
    }
  }

  bool inMarkingState_ = false;
  Fwk::Ptr<Helper> helper_;
  Fwk::HashMap<Key, Fwk::Ptr<Wrapper>> transientAdd_{0x6a09e667u};
  Fwk::HashMap<Key, Fwk::Ptr<Wrapper>> transientRemove_{0xbb67ae85u};
  Fwk::HashMap<Key, EntryVersion> transientVersion_{0x3c6ef372u};
  MajorVersion removeAllVersion_;
  Fwk::Ptr<EntryLog> entryLog_;
  Fwk::Ptr<GroupResolver> groupResolver_;
  EntryHandleQueue handleLog_;
  Fwk::HashMap<Key, Fwk::Unit> marked_{0xa54ff53au};
  Fwk::Ptr<Linkage> linkage_;
};

} // namespace Asic
