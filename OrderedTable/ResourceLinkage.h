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
//
// Layout. Everything is kept by index, not in maps of sets: the machines in
// an array indexed by their resource's slot in the resource table (the
// handle's index(), ResourceTable.h), and each table key that uses a
// resource as a node of a dense array, linked into the list of its
// resource's users. A key is looked up once per commit (its node); moving it
// from one resource to another unlinks its node from one list and links it
// into the other. A machine whose slot the resource table gave to another
// key (its resource was released by hand while it still had users) moves
// aside, to a short list of its own, and keeps its users.
//
// Invalidation: a change of usage (a machine made or dropped, a user added
// or removed) invalidates no machine; walks of a machine's users must not
// change them (handleResourceChange copies them first).
#pragma once

#include <algorithm>
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
  static constexpr std::uint32_t kNone = ~std::uint32_t{0};

  class LocalUsageUpdateSm;

  // A table key that uses a resource: its machine and its neighbours in the
  // machine's list of users (node numbers, kNone at the ends). Free nodes
  // are chained through `next`.
  struct UserNode {
    Key key;
    LocalUsageUpdateSm *sm = nullptr;
    std::uint32_t prev = kNone;
    std::uint32_t next = kNone;
  };

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
      return linked_ && parent_->userSm(key) == this;
    }
    std::size_t entryUsages() const noexcept { return count_; }
    // Calls f(key) for every user, in the order they were added. f must not
    // change the users.
    template <typename F> void forEachEntryUsage(F &&f) const {
      if (!linked_) {
        return;
      }
      const auto &nodes = parent_->users_;
      for (std::uint32_t i = head_; i != kNone; i = nodes[i].next) {
        f(nodes[i].key);
      }
    }
    // Adds a user; an existing one is left as it is. A key is the user of
    // one resource at a time: one that used another leaves that one's set.
    void entryUsageIs(const Key &key) {
      if (linked_ && parent_->linkUser(key, *this)) {
        notify(attrEntryUsage, key);
      }
    }
    void entryUsageDel(const Key &key) {
      if (linked_ && parent_->unlinkUser(key, *this)) {
        notify(attrEntryUsage, key);
      }
    }
    void entryUsageDelAll() {
      std::vector<Key> users;
      users.reserve(count_);
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
    friend class ResourceLinkage;

    ~LocalUsageUpdateSm() override {
      notificationActive_ = false;
      suppressed_ = true;
      if (subscribed_) {
        resPtr_->observerDel(this);
        subscribed_ = false;
      }
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
    // The list of users (nodes of the parent's array), while the machine is
    // the parent's (linked_); a machine taken out of the parent has none.
    std::uint32_t head_ = kNone;
    std::uint32_t tail_ = kNone;
    std::uint32_t count_ = 0;
    bool linked_ = false;
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
    return SmPtr(machineOfKey(key));
  }
  std::size_t entryUsageSms() const noexcept { return machines_; }
  // The machine at a resource slot (the handle's index()), or null: the
  // way to walk every machine, with the ones set aside (entryUsageSmAside).
  LocalUsageUpdateSm *entryUsageSmAt(std::uint32_t slot) const noexcept {
    return slot < bySlot_.size() ? bySlot_[slot].ptr() : nullptr;
  }
  std::uint32_t entryUsageSmSlots() const noexcept {
    return static_cast<std::uint32_t>(bySlot_.size());
  }
  const std::vector<SmPtr> &entryUsageSmAside() const noexcept {
    return aside_;
  }
  // Calls f(machine) for every machine: by slot, then those set aside.
  template <typename F> void forEachEntryUsageSm(F &&f) const {
    for (const SmPtr &sm : bySlot_) {
      if (sm) {
        f(*sm);
      }
    }
    for (const SmPtr &sm : aside_) {
      f(*sm);
    }
  }

  // The machine of the handle's key, made (subscribed, active) if there is
  // none. A null handle is refused; a key held through another handle is a
  // reinstantiation; so is a handle no resource table made (it has no slot).
  SmPtr entryUsageSmIs(const Fwk::Ptr<const ResourceHandle> &resPtr) {
    if (!resPtr) {
      throw Fwk::NullPointerException("resPtr");
    }
    const std::uint32_t slot = resPtr->index();
    if (slot < bySlot_.size() && bySlot_[slot] &&
        bySlot_[slot]->resPtr() == resPtr) {
      return bySlot_[slot];
    }
    if (machineOfKey(resPtr->key())) {
      throw Fwk::ReinstantiationException(
          fmt::format("entryUsageSm: key {} is held through another resource "
                      "handle",
                      resPtr->key()));
    }
    if (slot == ResourceHandle::kNoIndex) {
      throw Fwk::ReinstantiationException(
          fmt::format("entryUsageSm: the handle of key {} is no resource "
                      "table's",
                      resPtr->key()));
    }
    return newMachine(resPtr);
  }
  // Removes the machine of a key and hands it back (unsubscribed), or null.
  // Users it still has lose it.
  SmPtr entryUsageSmDel(const ResourceKey &key) {
    LocalUsageUpdateSm *sm = machineOfKey(key);
    return sm ? entryUsageSmDel(*sm) : nullptr;
  }
  SmPtr entryUsageSmDel(LocalUsageUpdateSm &machine) {
    SmPtr sm;
    const std::uint32_t slot =
        machine.resPtr_ ? machine.resPtr_->index() : ResourceHandle::kNoIndex;
    if (slot < bySlot_.size() && bySlot_[slot].ptr() == &machine) {
      sm = std::move(bySlot_[slot]);
    } else {
      const auto it =
          std::find_if(aside_.begin(), aside_.end(),
                       [&](const SmPtr &p) { return p.ptr() == &machine; });
      if (it == aside_.end()) {
        return nullptr;
      }
      sm = std::move(*it);
      aside_.erase(it);
    }
    --machines_;
    while (sm->head_ != kNone) {
      unlink(sm->head_);
    }
    sm->linked_ = false;
    notify(attrEntryUsageSm, sm->resPtr_ ? sm->resPtr_->key() : ResourceKey{});
    sm->hasNotificationActiveIs(false);
    return sm;
  }
  // Drops every machine; releases nothing in the resource table.
  void entryUsageSmDelAll() {
    std::vector<LocalUsageUpdateSm *> all;
    all.reserve(machines_);
    forEachEntryUsageSm([&](LocalUsageUpdateSm &sm) { all.push_back(&sm); });
    for (LocalUsageUpdateSm *sm : all) {
      entryUsageSmDel(*sm);
    }
  }

  // ---- The users ----

  // The machine of the resource a table key uses, or null.
  LocalUsageUpdateSm *userSm(const Key &key) const noexcept {
    const std::uint32_t *n = userIndex_.find(key);
    return n ? users_[*n].sm : nullptr;
  }
  // The number of table keys that use a resource.
  std::size_t userNodes() const noexcept { return userIndex_.size(); }

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

  // The machine of a handle the resource table made, or null: by its slot,
  // without looking its key up.
  LocalUsageUpdateSm *machineOf(const ResourceHandle &h) const noexcept {
    const std::uint32_t slot = h.index();
    if (slot < bySlot_.size() && bySlot_[slot] &&
        bySlot_[slot]->resPtr().ptr() == &h) {
      return bySlot_[slot].ptr();
    }
    return nullptr;
  }

protected:
  // Notifications are switched off and every machine is dropped; resources
  // are not released (the table goes away, the resources stay held).
  ~ResourceLinkage() override {
    entryUsageSmDelAll();
    bySlot_.clear();
    resTblClient_ = nullptr;
  }

private:
  friend struct SwTableResourceAccessor<typename B::Linkage>;

  typename B::Linkage &self() {
    return static_cast<typename B::Linkage &>(*this);
  }

  // A machine for a handle whose key has none. REQUIRES: the handle has a
  // slot, and no machine holds its key.
  SmPtr newMachine(const Fwk::Ptr<const ResourceHandle> &resPtr) {
    const std::uint32_t slot = resPtr->index();
    if (slot >= bySlot_.size()) {
      bySlot_.resize(std::max<std::size_t>(
          slot + 1, std::max<std::size_t>(64, 2 * bySlot_.size())));
    }
    if (bySlot_[slot]) {
      // The resource table gave the slot to another key: the machine there
      // watches a handle released by hand (post-release) and keeps its
      // users, aside.
      aside_.push_back(std::move(bySlot_[slot]));
    }
    auto sm = localUsageUpdateSmFactory(
        resPtr, static_cast<typename B::Linkage *>(this));
    sm->hasNotificationActiveIs(true);
    sm->linked_ = true;
    bySlot_[slot] = sm;
    ++machines_;
    notify(attrEntryUsageSm, resPtr->key());
    return sm;
  }

  // The machine among those set aside that holds a key, or null.
  LocalUsageUpdateSm *asideOf(const ResourceKey &key) const noexcept {
    for (const SmPtr &sm : aside_) {
      if (sm->resPtr() && sm->resPtr()->key() == key) {
        return sm.ptr();
      }
    }
    return nullptr;
  }

  // The machine of a resource key: through the resource table's handle of
  // the key (its slot), else among those set aside.
  LocalUsageUpdateSm *machineOfKey(const ResourceKey &key) const {
    if (resTblClient_ && resTblClient_->table()) {
      if (const auto h = resTblClient_->table()->entry(key)) {
        if (LocalUsageUpdateSm *sm = machineOf(*h)) {
          return sm;
        }
      }
    }
    return asideOf(key);
  }

  // Makes `key` a user of `sm`; false when it is one already. A key that
  // used another resource leaves that one's list.
  bool linkUser(const Key &key, LocalUsageUpdateSm &sm) {
    std::uint32_t n;
    if (const std::uint32_t *found = userIndex_.find(key)) {
      n = *found;
      if (users_[n].sm == &sm) {
        return false;
      }
      detach(n);
    } else {
      n = newNode(key);
    }
    attach(n, sm);
    return true;
  }
  // Takes `key` out of `sm`'s users; false when it was not one.
  bool unlinkUser(const Key &key, LocalUsageUpdateSm &sm) {
    const std::uint32_t *found = userIndex_.find(key);
    if (!found || users_[*found].sm != &sm) {
      return false;
    }
    unlink(*found);
    return true;
  }

  std::uint32_t newNode(const Key &key) {
    std::uint32_t n;
    if (freeNode_ != kNone) {
      n = freeNode_;
      freeNode_ = users_[n].next;
    } else {
      n = static_cast<std::uint32_t>(users_.size());
      users_.emplace_back();
    }
    users_[n] = UserNode{key, nullptr, kNone, kNone};
    userIndex_.insert(key, n);
    return n;
  }
  // Appends node n to sm's users.
  void attach(std::uint32_t n, LocalUsageUpdateSm &sm) {
    UserNode &u = users_[n];
    u.sm = &sm;
    u.prev = sm.tail_;
    u.next = kNone;
    (sm.tail_ != kNone ? users_[sm.tail_].next : sm.head_) = n;
    sm.tail_ = n;
    ++sm.count_;
  }
  // Takes node n out of its machine's list (the node stays).
  void detach(std::uint32_t n) {
    UserNode &u = users_[n];
    LocalUsageUpdateSm &sm = *u.sm;
    (u.prev != kNone ? users_[u.prev].next : sm.head_) = u.next;
    (u.next != kNone ? users_[u.next].prev : sm.tail_) = u.prev;
    --sm.count_;
    u.sm = nullptr;
  }
  // Takes node n out of its list and frees it.
  void unlink(std::uint32_t n) {
    detach(n);
    userIndex_.erase(users_[n].key);
    users_[n].next = freeNode_;
    freeNode_ = n;
  }

  Table *swTable_;
  Fwk::Ptr<ClientInstance> resTblClient_;
  // The machines by their resource's slot, those set aside, their number.
  std::vector<SmPtr> bySlot_;
  std::vector<SmPtr> aside_;
  std::size_t machines_ = 0;
  // The users: table key -> node, the nodes, the first free node.
  Fwk::HashMap<Key, std::uint32_t> userIndex_{0x510e527fu};
  std::vector<UserNode> users_;
  std::uint32_t freeNode_ = kNone;
};

} // namespace Asic

#include "OrderedTable/OrderedTableResourceAccessor.h"
