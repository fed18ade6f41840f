// The resource linkage of a software table, written once for every table
// family: the one object per table (per unit) that stands between the table
// and its client of the resource table.
//
//   auto linkage = mplsIsem2InLifLinkageFactory(table.ptr(), client);
//   table->inLifLinkageIs(linkage);
//   linkage->resolveEntry(wrapper);              // on write: request
//   linkage->entryResolutionState(wrapper);      // commit: ready? failed?
//   linkage->updateLocalUsage(wrapper, old, d);  // commit: count users
//
// It keeps, per resource key in use, a usage state machine
// (LocalUsageUpdateSm): the resource's handle and the set of table keys
// whose committed entry uses it. Invariants: a machine exists exactly while
// its resource is held for at least one table key, under the key its handle
// carries; the usage count of a resource is the size of its entryUsage set;
// the resource is released when that set empties. A machine watches its
// handle and, when the resource changes, brings every entry that uses it up
// to date (OrderedTableResourceAccessor.h).
#pragma once

#include <optional>
#include <vector>

#include "OrderedTable/TableBinding.h"
#include "platform/asic/OrderedSwTable.h"
#include "platform/framework/Errors.h"
#include "platform/framework/HashMap.h"
#include "platform/framework/Notifier.h"

namespace Asic {

template <typename L> struct SwTableResourceAccessor;

template <typename B> class ResourceLinkage : public Fwk::Notifier {
public:
  using Table = typename B::SwTable;
  using Key = typename B::Key;
  using Entry = typename B::Entry;
  using Wrapper = typename B::EntryWrapper;
  using ResourceKey = typename B::ResourceKey;
  using ResourceHandle = typename B::ResourceHandle;
  using ClientInstance = typename B::ResourceTable::ClientInstance;
  using Binding = B;
  using Accessor = SwTableResourceAccessor<typename B::Linkage>;

  static constexpr Fwk::AttrId attrEntryUsageSm{3, "entryUsageSm"};

  // Per resource key in use: its handle and the table keys that use it.
  class LocalUsageUpdateSm : public Fwk::Notifier, private Fwk::Observer {
  public:
    static constexpr Fwk::AttrId attrEntryUsage{3, "entryUsage"};
    static constexpr Fwk::AttrId attrHasNotificationActive{
        4, "hasNotificationActive"};

    // Subscribes to the handle's changes at once.
    LocalUsageUpdateSm(Fwk::Ptr<const ResourceHandle> resPtr,
                       typename B::Linkage *parent)
        : resPtr_(std::move(resPtr)), parent_(parent) {
      subscribe(true);
    }
    static Fwk::Ptr<LocalUsageUpdateSm>
    LocalUsageUpdateSmIs(Fwk::Ptr<const ResourceHandle> resPtr,
                         typename B::Linkage *parent) {
      return Fwk::make<LocalUsageUpdateSm>(std::move(resPtr), parent);
    }

    const Fwk::Ptr<const ResourceHandle> &resPtr() const noexcept {
      return resPtr_;
    }
    typename B::Linkage *parent() const noexcept { return parent_; }

    bool entryUsage(const Key &key) const noexcept {
      return many_.empty() ? one_ && *one_ == key : many_.contains(key);
    }
    std::size_t entryUsages() const noexcept {
      return many_.empty() ? (one_ ? 1 : 0) : many_.size();
    }
    // Calls f(key) for every user, in the set's (hash) order.
    template <typename F> void forEachEntryUsage(F &&f) const {
      if (many_.empty()) {
        if (one_) {
          f(*one_);
        }
        return;
      }
      for (auto it = many_.begin(); it != many_.end(); ++it) {
        f(it.key());
      }
    }
    // Adds a user; an existing one is left as it is.
    void entryUsageIs(const Key &key) {
      bool added = true;
      if (!many_.empty()) {
        added = many_.insert(key);
      } else if (!one_) {
        one_ = key;
      } else if (*one_ == key) {
        added = false;
      } else {
        many_.insert(*one_);
        many_.insert(key);
        one_.reset();
      }
      if (added) {
        notify(attrEntryUsage, key);
      }
    }
    void entryUsageDel(const Key &key) {
      bool gone = false;
      if (many_.empty()) {
        gone = one_ && *one_ == key;
        if (gone) {
          one_.reset();
        }
      } else if (many_.erase(key)) {
        gone = true;
        if (many_.size() == 1) {
          one_ = many_.begin().key();
          many_.clear();
        }
      }
      if (gone) {
        notify(attrEntryUsage, key);
      }
    }
    void entryUsageDelAll() {
      std::vector<Key> users;
      forEachEntryUsage([&](const Key &k) { users.push_back(k); });
      for (const Key &k : users) {
        entryUsageDel(k);
      }
    }

    bool hasNotificationActive() const noexcept { return notificationActive_; }
    // Sets the flag and subscribes to (or unsubscribes from) the handle; a
    // notification raised meanwhile is not acted on.
    void hasNotificationActiveIs(bool on) {
      if (on == notificationActive_) {
        return;
      }
      notificationActive_ = on;
      notify(attrHasNotificationActive);
      if (resPtr_) {
        subscribe(on);
      }
    }

    // Brings every entry that uses the resource up to date.
    void handleResourceChange() { Accessor::handleResourceChange(*this); }

  private:
    ~LocalUsageUpdateSm() override {
      notificationActive_ = false;
      suppressed_ = true;
      if (subscribed_) {
        resPtr_->observerDel(this);
        subscribed_ = false;
      }
      one_.reset();
      many_.clear();
    }

    void subscribe(bool on) {
      if (!resPtr_ || on == subscribed_) {
        return;
      }
      const bool was = suppressed_;
      suppressed_ = true;
      if (on) {
        resPtr_->observerIs(this);
      } else {
        resPtr_->observerDel(this);
      }
      subscribed_ = on;
      suppressed_ = was;
    }

    // The subscription's callback: only the handle's update counts.
    void onChange(const Fwk::Notifier &, const Fwk::Change &c) override {
      if (c.attr == ResourceHandle::attrUpdate && !suppressed_) {
        Fwk::Ptr<LocalUsageUpdateSm> self(this);
        handleResourceChange();
      }
    }

    Fwk::Ptr<const ResourceHandle> resPtr_;
    typename B::Linkage *parent_;
    // The users: most resources have one, kept here without a set (one_
    // alone, many_ empty); two or more are in many_ (one_ empty).
    std::optional<Key> one_;
    Fwk::HashSet<Key> many_{0x510e527fu};
    bool notificationActive_ = false;
    bool subscribed_ = false;
    bool suppressed_ = false;
  };
  using SmPtr = Fwk::Ptr<LocalUsageUpdateSm>;

  // The usage machine of a resource handle, with `parent` as its linkage.
  static SmPtr localUsageUpdateSmFactory(Fwk::Ptr<const ResourceHandle> resPtr,
                                         typename B::Linkage *parent) {
    return LocalUsageUpdateSm::LocalUsageUpdateSmIs(std::move(resPtr), parent);
  }

  ResourceLinkage(Table *table, Fwk::Ptr<ClientInstance> client)
      : swTable_(table), resTblClient_(std::move(client)) {}

  Table *swTable() const noexcept { return swTable_; }
  const Fwk::Ptr<ClientInstance> &resTblClient() const noexcept {
    return resTblClient_;
  }

  // ---- The machines ----

  // The usage machine of a resource key, or null.
  SmPtr entryUsageSm(const ResourceKey &key) const {
    const auto *sm = entryUsageSm_.find(key);
    return sm ? *sm : nullptr;
  }
  std::size_t entryUsageSms() const noexcept { return entryUsageSm_.size(); }
  const Fwk::HashMap<ResourceKey, SmPtr> &entryUsageSmColl() const noexcept {
    return entryUsageSm_;
  }
  // The machine of the handle's key, made (subscribed, active) if there is
  // none. A null handle is refused; a key held through another handle is a
  // reinstantiation.
  SmPtr entryUsageSmIs(const Fwk::Ptr<const ResourceHandle> &resPtr) {
    if (!resPtr) {
      throw Fwk::NullPointerException("resPtr");
    }
    if (const auto *sm = entryUsageSm_.find(resPtr->key())) {
      if ((*sm)->resPtr() == resPtr) {
        return *sm;
      }
      throw Fwk::ReinstantiationException(
          fmt::format("entryUsageSm: key {} is held through another resource "
                      "handle",
                      resPtr->key()));
    }
    auto sm = localUsageUpdateSmFactory(
        resPtr, static_cast<typename B::Linkage *>(this));
    sm->hasNotificationActiveIs(true);
    entryUsageSm_.insert(resPtr->key(), sm);
    notify(attrEntryUsageSm, resPtr->key());
    return sm;
  }
  // Removes the machine of a key and hands it back (unsubscribed), or null.
  SmPtr entryUsageSmDel(const ResourceKey &key) {
    SmPtr sm;
    if (!entryUsageSm_.take(key, sm)) {
      return nullptr;
    }
    notify(attrEntryUsageSm, key);
    sm->hasNotificationActiveIs(false);
    return sm;
  }
  // Drops every machine; releases nothing in the resource table.
  void entryUsageSmDelAll() {
    // A machine is kept under its handle's key, so the map's key is the one.
    while (!entryUsageSm_.empty()) {
      entryUsageSmDel(ResourceKey(entryUsageSm_.begin().key()));
    }
  }

  // ---- What the table calls ----

  void resolveEntry(const Fwk::Ptr<Wrapper> &w) {
    Accessor::resolveEntry(self(), w);
  }
  void setResourceHandle(const Fwk::Ptr<Wrapper> &w) {
    Accessor::setResourceHandle(self(), w);
  }
  EntryState entryResolutionState(const Fwk::Ptr<const Wrapper> &w) const {
    return Accessor::entryResolutionState(w);
  }
  Fwk::Ptr<NeededEntry>
  getNeededEntrySet(const Fwk::Ptr<const Wrapper> &w) const {
    return Accessor::getNeededEntrySet(w);
  }
  void updateLocalUsage(const Fwk::Ptr<Wrapper> &w, const Entry &oldEntry,
                        bool isDeleted) {
    Accessor::updateLocalUsage(self(), w, oldEntry, isDeleted);
  }
  void restoreEntry(const Fwk::Ptr<Wrapper> &w) {
    Accessor::restoreEntry(self(), w);
  }
  void releaseUnused(const Fwk::Ptr<Wrapper> &w) {
    Accessor::releaseUnused(self(), w);
  }
  void handleResourceChangeAtInit() {
    Accessor::handleResourceChangeAtInit(self());
  }
  // The acknowledgements of handleResourceChangeAtInit, after a restore
  // that has updated every user itself: `updates` holds each user's update
  // handle.
  void acknowledgeAtInit(
      const Fwk::HashMap<Key, Fwk::Ptr<const OrderedSwTable::EntryHandle>>
          &updates) {
    Accessor::acknowledgeAtInit(self(), updates);
  }

protected:
  // Notifications are switched off and every machine is dropped; resources
  // are not released (the table goes away, the resources stay held).
  ~ResourceLinkage() override {
    entryUsageSmDelAll();
    entryUsageSm_.clear();
    resTblClient_ = nullptr;
  }

private:
  typename B::Linkage &self() {
    return static_cast<typename B::Linkage &>(*this);
  }

  Table *swTable_;
  Fwk::Ptr<ClientInstance> resTblClient_;
  Fwk::HashMap<ResourceKey, SmPtr> entryUsageSm_{0x9b05688cu};
};

} // namespace Asic

#include "OrderedTable/OrderedTableResourceAccessor.h"
