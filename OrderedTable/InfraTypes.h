// The objects that carry one change through a software table, written once
// for every table family (see TableBinding.h):
//
// - EntryWrapperBase: one entry on its way from the client to the entry log,
//   with the change's entry handle and the resource the entry was given;
// - TableResolverEntry: what the group resolver queues and calls back;
// - SwTableHelper: hooks an agent may replace, run when a change commits or
//   fails or when its resource changes.
//
// The per-table classes (MplsIsem2EntryWrapper, MplsIsem2ResolverEntry,
// MplsIsem2SwTableHelperBase and their LEM twins) derive from these and add
// only their names.
#pragma once

#include "OrderedTable/TableBinding.h"
#include "platform/asic/OrderedSwTable.h"
#include "platform/trace/Trace.h"

namespace Asic {

// Helper hooks. A derived helper installed with swTableHelperIs() overrides
// them.
template <typename B> class SwTableHelper : public Fwk::Object {
public:
  using Wrapper = typename B::EntryWrapper;
  using Table = typename B::SwTable;

  // A change committed. Default: nothing.
  virtual void finalizeOnSuccess(const Fwk::Ptr<Wrapper> &, bool /*isDeleted*/,
                                 const Fwk::Ptr<Table> &) {}
  // A write's resource failed. True logs the entry all the same; the
  // default declines, so the write is not committed.
  virtual bool finalizeOnFailure(const Fwk::Ptr<Wrapper> &, bool /*isDeleted*/,
                                 const Fwk::Ptr<Table> &) {
    return false;
  }
  // A resource a committed entry uses changed. True logs the recomputed
  // entry; the default does, even when a resource failed.
  virtual bool finalizeOnResourceUpdate(const Fwk::Ptr<Wrapper> &,
                                        const Fwk::Ptr<Table> &,
                                        bool /*resourceFailed*/) {
    return true;
  }

protected:
  SwTableHelper() = default;
  ~SwTableHelper() override = default;
};

template <typename B> class EntryWrapperBase : public Fwk::Object {
public:
  using Binding = B;
  using Entry = typename B::Entry;
  using Key = typename B::Key;
  using ResourceHandle = typename B::ResourceHandle;
  using Handle = OrderedSwTable::EntryHandle;

  const Entry &entry() const noexcept { return entry_; }
  Entry &entry() noexcept { return entry_; }
  const Key &key() const noexcept { return entry_.key; }
  void keyIs(const Key &key) noexcept { entry_.key = key; }

  // The handle of the change; may be null for entries rebuilt from the log.
  const Fwk::Ptr<Handle> &entryHandle() const noexcept { return entryHandle_; }

  // The resource the entry was given; null until the linkage sets it.
  const Fwk::Ptr<const ResourceHandle> &resourcePtr() const noexcept {
    return resPtr_;
  }
  void resourcePtrIs(Fwk::Ptr<const ResourceHandle> h) noexcept {
    resPtr_ = std::move(h);
  }

  // The resolver entry that carries the wrapper's change while it exists
  // (set and cleared by the resolver entry), or null: what a later change
  // of the key queues behind (ResolverEntry::laneAfterIs).
  const ResolverEntry *queuedAs() const noexcept { return queuedAs_; }
  void queuedAsIs(const ResolverEntry *r) noexcept { queuedAs_ = r; }

  // Writes the resource's results into the entry's resolved fields (zero
  // without a resource).
  void setResolvedFields() noexcept {
    B::setResolvedFields(entry_, resPtr_.ptr());
  }

  // Copies the resource's client data into the entry, for families whose
  // entries carry it; without a resource, or with one not resolved (still
  // pending after a restart that lost its allocation, or failed), it does
  // nothing: such a handle carries no data, and the entry keeps its own.
  void retrieveClientData() {
    if constexpr (B::kCarriesClientData) {
      if (resPtr_ && resPtr_->entryState() ==
                         static_cast<std::uint8_t>(EntryState::finished)) {
        MICA_TRACE(th(), 3, B::kInfraSourceUnit, B::kWrapperClass,
                   " Setting clientData to: {} ", resPtr_->data().clientData);
        B::retrieveClientData(entry_, *resPtr_);
      }
    }
  }

  void finalizeOnSuccess(const Fwk::Ptr<typename B::SwTable> &table,
                         bool isDeleted) {
    MICA_TRACE(th(), 8, B::kInfraSourceUnit, B::kWrapperClass,
               " key: {} isDeleted: {}", entry_.key, isDeleted);
    if (!isDeleted) {
      setResolvedFields();
    }
    table->swTableHelper()->finalizeOnSuccess(self(), isDeleted, table);
  }

  bool finalizeOnFailure(const Fwk::Ptr<typename B::SwTable> &table,
                         bool isDeleted) {
    MICA_TRACE(th(), 8, B::kInfraSourceUnit, B::kWrapperClass,
               " key: {} isDeleted: {}", entry_.key, isDeleted);
    const bool retVal =
        table->swTableHelper()->finalizeOnFailure(self(), isDeleted, table);
    MICA_TRACE(th(), 3, B::kInfraSourceUnit, B::kWrapperClass, " retVal: {}",
               retVal);
    return retVal;
  }

  EntryWrapperBase(const Entry &entry, const Fwk::Ptr<Handle> &handle)
      : entry_(entry), entryHandle_(handle) {}
  // The entry joined from its two stored parts, built in place.
  EntryWrapperBase(const typename B::ResourceKeys &rsrcKeys,
                   const typename B::LogEntry &logEntry,
                   const Fwk::Ptr<Handle> &handle)
      : entry_(Entry::fromParts(rsrcKeys, logEntry)), entryHandle_(handle) {}

protected:
  ~EntryWrapperBase() override = default;

  static Trace::Handle &th() {
    return Trace::handleOf<typename B::EntryWrapper>();
  }

private:
  Fwk::Ptr<typename B::EntryWrapper> self() {
    return Fwk::Ptr<typename B::EntryWrapper>(
        static_cast<typename B::EntryWrapper *>(this));
  }

  Entry entry_;
  Fwk::Ptr<Handle> entryHandle_;
  Fwk::Ptr<const ResourceHandle> resPtr_;
  const ResolverEntry *queuedAs_ = nullptr;
};

template <typename B> class TableResolverEntry : public ResolverEntry {
public:
  using Table = typename B::SwTable;
  using Wrapper = typename B::EntryWrapper;

  Table *swTable() const noexcept { return swTable_; }
  const Fwk::Ptr<Wrapper> &entryWrapper() const noexcept { return wrapper_; }

  bool isResolved() override {
    return swTable_->isResolverEntryResolved(
        Fwk::Ptr<typename B::ResolverEntry>(
            static_cast<typename B::ResolverEntry *>(this)));
  }
  void commitEntry(const Fwk::Ptr<ResolverEntry> &self) override {
    swTable_->commitEntry(self);
  }

  void prefetchCommit(int ahead) const noexcept override {
    swTable_->prefetchCommitted(wrapper_->key(), ahead);
  }

  // The resolver keeps the changes of one table and key in order.
  const void *orderTable() const noexcept override { return swTable_; }
  std::uint64_t orderKey() const noexcept override {
    const auto &key = wrapper_->key();
    if constexpr (requires { key.packed(); }) {
      return key.packed();
    } else {
      return Fwk::hashBytes64(&key, sizeof key, 0);
    }
  }

  TableResolverEntry(Fwk::Ptr<const DependencyEntryHandle> dependency,
                     EntryFlags flags, Table *table, Fwk::Ptr<Wrapper> wrapper)
      : ResolverEntry(std::move(dependency), flags), swTable_(table),
        wrapper_(std::move(wrapper)) {
    if (wrapper_) {
      wrapper_->queuedAsIs(this);
    }
  }

protected:
  ~TableResolverEntry() override {
    if (wrapper_ && wrapper_->queuedAs() == this) {
      wrapper_->queuedAsIs(nullptr);
    }
  }

private:
  // Not counted: the table holds the resolver, and a table that goes away
  // takes its queued changes out of the resolver (resolverQueueDelAll).
  Table *swTable_;
  Fwk::Ptr<Wrapper> wrapper_;
};

} // namespace Asic
