// Resource tables: tables whose entries other tables need (an in-LIF, the
// FEC of an L2 adjacency). A user table holds one ClientInstance of the
// resource table and follows each resource it uses through a ResourceHandle
// (ResourceHandle.h).
//
//   auto inLifs = Fwk::make<MicaTunnelNiLib::InLifResourceTable>(name);
//   inLifs->storeIs(Shm::entityManager("mpls-agent", 0));  // keep allocations
//   auto client = inLifs->clientInstanceIs("InLif.featureMicaMpls", unit);
//   auto handle = client->request(key, clientData, nullptr);  // state 0:
//   pending
//   ...                                     // the table resolves it (state 4)
//   client->ackUpdate(handle, handle->version(), dependency);
//   client->release(handle, dependency);    // the last holder frees it
//
// Break before make. A release names the change that stopped using the
// resource (its dependency entry handle): until that change is in the
// hardware, the hardware may still use the resource, so it is not freed and
// nobody else can be given it. The hold ends once the change has finished,
// or once the hardware has confirmed the version it was logged at
// (tableVersionConfirmed, which the tables report); a request of the key by
// the same client meanwhile keeps it. Allocations nobody claimed after a
// restart are freed the same way, once the hardware has confirmed every
// change logged until then (releaseUnclaimedAfter).
//
// Lifecycle of a resource. The first request of a key makes its handle in
// state 0 (pending) and queues it for allocation; allocation runs on the
// event loop when the table has a scheduler (soon after the request) and at
// once otherwise. A successful allocation sets the handle's data and state 4
// (resolved); a failed one sets state 5 (failed). A client holds a key from
// its first request until it releases it: further requests of the same
// client return the same handle and add nothing. When the last holder
// releases a key, its handle enters the post-release state, its allocation
// is freed and the key leaves the table; a later request makes a new handle.
// Clients are told apart by name and instance: each software table (unit)
// holds its own instance, so that one unit's release never frees what
// another unit still uses.
//
// Layout. A key in the table has a slot: a small dense number, its handle's
// index(), which stays the key's until the key leaves the table (a freed
// slot is given to the next new key). What the table keeps of a key (its
// handle, its holders, whose releases wait for the hardware) lies in an
// array indexed by slot, and so does what a user table keeps per resource
// (OrderedTable/ResourceLinkage.h): a key is looked up once, when it is
// requested, and everything after goes by its slot.
//
// Client slots. A resource records its holders as one bit per client, so
// at most kMaxClients clients hold resources of one table. A client takes
// its slot (its bit) when it first holds a resource, or before, when its
// user asks (slotIs, so that a unit that cannot be served is refused before
// it starts); a client that never holds anything (the table of a unit that
// is only cleared) takes none. A client keeps its slot for its life. A
// request of a client that finds every slot taken fails: its handle is
// failed (state 5) and belongs to no key of the table.
//
// Persistence. With a store (storeIs), every allocation is kept in the
// agent's shared-memory instance ("resource/<namespace>/<name>", one record
// per key: data and version), written when it is made or updated and erased
// when it is freed, each a single crash-consistent record. A restarted agent
// finds its allocations there: they come back resolved, with the data and
// version they had and no holder, so a restored entry that requests its
// resource again gets it at once, unchanged. Allocations that nobody claims
// by the end of the first replay are freed by releaseUnclaimed(). A crash
// can leave an allocation stored whose user was never committed (or was
// deleted just before): nobody claims it, and it is freed the same way.
//
// Every resolution runs the table's resolved hooks and wakes the registered
// group resolvers (their changes may have waited for it). updateIs() changes
// the data of a resource, which its handle announces (attribute 518 or 517)
// to the tables that use it; they acknowledge the version they have applied
// with ackUpdate().
//
// Not thread safe: the agent's event thread owns the table.
#pragma once

#include <algorithm>
#include <bit>
#include <cstdint>
#include <cstring>
#include <functional>
#include <string>
#include <vector>

#include "platform/asic/GroupResolver.h"
#include "platform/asic/OrderedSwTable.h"
#include "platform/asic/ResourceTableBase.h"
#include "platform/framework/Errors.h"
#include "platform/framework/HashMap.h"
#include "platform/framework/Notifier.h"
#include "platform/resource/ResourceHandle.h"
#include "platform/shm/Store.h"

namespace Asic {

// How a resource table makes and frees its resources.
template <typename Key, typename Data, typename ClientData>
class ResourceAllocator {
public:
  virtual ~ResourceAllocator() = default;
  // Fills `out` for a new resource; false when it cannot be made.
  virtual bool allocate(const Key &key, const ClientData &clientData,
                        Data &out) = 0;
  virtual void free(const Key &key, const Data &data) = 0;
  // Takes back a resource made before (restored from the store); false
  // when its data cannot be in use (outside the pool, or taken twice).
  virtual bool claim(const Key &key, const Data &data) = 0;
  // How many resources are allocated.
  virtual std::size_t inUse() const = 0;
};

// One stored allocation. Explicit padding, always zero.
template <typename Key, typename Data> struct ResourceAllocation {
  Key key;
  Data data;
  std::uint32_t version = 0;
  std::uint32_t pad = 0;
};

template <typename K, typename D, typename Names>
struct ResourceAllocationTraits {
  using Key = K;
  using Record = ResourceAllocation<K, D>;
  static Key keyOf(const Record &r) noexcept { return r.key; }
  static constexpr const char *kRecordName = Names::kRecordName;
  static constexpr std::uint32_t kRecordVersion = 1;
  // It fills up with the resource table and is only scanned, at restore.
  static constexpr bool kPresizeIndex = true;
};

// The store entity of a resource table's allocations. `Names` gives the
// entity's type name (kSlateType) and the record's (kRecordName).
template <typename Key, typename Data, typename Names>
class ResourceAllocationSlate : public Shm::Entity {
public:
  using Traits = ResourceAllocationTraits<Key, Data, Names>;
  using Collection = Shm::Collection<Traits>;
  static constexpr const char *kTypeName = Names::kSlateType;
  static constexpr const char *kCollection = "allocations";

  static Shm::EntityLayout layout() {
    return Shm::EntityLayout(kTypeName).template collection<Traits>(
        kCollection);
  }
  explicit ResourceAllocationSlate(Shm::EntityInit &init)
      : Shm::Entity(init), allocations_(init, kCollection) {}

  Collection &allocations() noexcept { return allocations_; }
  const Collection &allocations() const noexcept { return allocations_; }

private:
  ~ResourceAllocationSlate() override = default;
  Collection allocations_;
};

template <typename Key, typename Data, typename ClientData,
          std::uint16_t kUpdateAttrId, typename Names>
class MICA_PLATFORM_API ResourceTable : public ResourceTableBase {
public:
  using ResourceHandle = Asic::ResourceHandle<Key, Data, kUpdateAttrId>;
  using Allocator = ResourceAllocator<Key, Data, ClientData>;
  using Slate = ResourceAllocationSlate<Key, Data, Names>;
  using Allocation = ResourceAllocation<Key, Data>;
  using Task = std::function<void()>;
  using Scheduler = std::function<void(Task)>;

  // Clients that hold resources of one table (one bit each in a resource's
  // holders; see "Client slots" above).
  static constexpr std::size_t kMaxClients = 64;

  static constexpr Fwk::AttrId attrClientInstance{1, "clientInstance"};
  static constexpr Fwk::AttrId attrEntry{2, "entry"};

  // One client's use of the table.
  class ClientInstance : public Fwk::Object {
  public:
    ClientInstance(ResourceTable *table, std::string name,
                   std::uint32_t instance)
        : table_(table), name_(std::move(name)), instance_(instance) {}
    const std::string &name() const noexcept { return name_; }
    std::uint32_t instance() const noexcept { return instance_; }
    ResourceTable *table() const noexcept { return table_; }

    // Whether the client has its slot.
    bool slotted() const noexcept { return bit_ != 0; }
    // Takes the client's slot now, if it has none; false when every slot
    // is taken.
    bool slotIs() { return table_->takeSlot(*this); }

    // The handle of the key's resource; made (pending) if the key is new.
    Fwk::Ptr<const ResourceHandle>
    request(const Key &key, const ClientData &clientData,
            const Fwk::Ptr<const DependencyEntryHandle> & /*dependency*/) {
      ++requests_;
      return table_->hold(this, key, clientData);
    }
    // The same for tables whose requests carry no client data.
    Fwk::Ptr<const ResourceHandle>
    request(const Key &key,
            const Fwk::Ptr<const DependencyEntryHandle> &dependency) requires
        std::is_same_v<ClientData, Fwk::Unit> {
      return request(key, Fwk::Unit{}, dependency);
    }
    // A request of a key whose handle the caller got from an earlier one:
    // the same as request(key, ...), but while `held` is still the key's
    // handle the key is not looked up (it is found by its slot).
    Fwk::Ptr<const ResourceHandle> requestAgain(const ResourceHandle &held,
                                                const Key &key,
                                                const ClientData &clientData) {
      ++requests_;
      return table_->holdAgain(this, held, key, clientData);
    }
    // Gives up this client's hold of the handle's key once `dependency`
    // (the change that stopped using it; null: none) is in the hardware.
    void release(const Fwk::Ptr<const ResourceHandle> &handle,
                 const Fwk::Ptr<const DependencyEntryHandle> &dependency) {
      ++releases_;
      if (handle) {
        table_->releaseAfter(this, *handle, dependency);
      }
    }
    // The hardware has taken every change of the table type up to `v`.
    void tableVersionConfirmed(SwTableId tableId, LogVersion v) {
      table_->tableVersionConfirmed(tableId, v);
    }
    // This client has applied the resource's data up to `version`.
    void ackUpdate(const Fwk::Ptr<const ResourceHandle> &handle,
                   std::uint32_t version,
                   const Fwk::Ptr<const DependencyEntryHandle> &dependency) {
      ++acks_;
      lastAck_ = {handle, version, dependency};
    }

    // Introspection: how often each operation was called, and the last
    // acknowledgement.
    std::uint64_t requests() const noexcept { return requests_; }
    std::uint64_t releases() const noexcept { return releases_; }
    std::uint64_t acks() const noexcept { return acks_; }
    struct Ack {
      Fwk::Ptr<const ResourceHandle> handle;
      std::uint32_t version = 0;
      Fwk::Ptr<const DependencyEntryHandle> dependency;
    };
    const Ack &lastAck() const noexcept { return lastAck_; }

  private:
    ~ClientInstance() override = default;
    friend class ResourceTable;
    ResourceTable *table_;
    std::string name_;
    std::uint32_t instance_;
    std::uint64_t bit_ = 0; // its bit in a resource's holders; 0: no slot
    unsigned slot_ = 0;     // that bit's number, once it has one
    std::uint64_t requests_ = 0;
    std::uint64_t releases_ = 0;
    std::uint64_t acks_ = 0;
    Ack lastAck_;
  };

  ResourceTable(Fwk::Ptr<const CanonicalTableName> name, Allocator &allocator)
      : name_(std::move(name)), allocator_(&allocator) {}

  const Fwk::Ptr<const CanonicalTableName> &name() const noexcept override {
    return name_;
  }

  // Keeps the allocations in the instance of `em` (a writer handle) and
  // takes back the ones stored there by an earlier run. REQUIRES: nothing
  // requested yet. Throws the store's errors; an allocation the allocator
  // cannot take back (a stored record that no longer fits it) is dropped
  // from the store.
  void storeIs(const Fwk::Ptr<Shm::EntityManager> &em) {
    const std::string path = "resource/" + name_->ns() + "/" + name_->name();
    Shm::MountInfo info;
    info.collectionInfoIs(Slate::kCollection, capacity());
    auto group = em->mountGroup();
    group->doMount(path, Slate::kTypeName, info);
    group->doClose();
    slate_ = Fwk::ptrCast<Slate>(em->entity(path));
    // Sized once for the capacity (a load of at most 1/4 when full): the
    // first load of a table fills it at the rate of changes, and a rebuild
    // would move every entry at once.
    index_.reserve(2 * std::size_t{capacity()});
    slots_.reserve(capacity());
    auto &coll = slate_->allocations();
    coll.control().clearWiped(); // lost allocations are simply made again
    std::vector<Key> unusable;
    for (;;) {
      try {
        coll.forEachUnordered([&](const Allocation &a) {
          if (index_.contains(a.key) || !allocator_->claim(a.key, a.data)) {
            unusable.push_back(a.key);
            return;
          }
          Holding &e = slots_[newSlot(a.key)];
          e.handle->restoredIs(a.data, a.version);
          e.allocated = true;
          ++restored_;
        });
        break;
      } catch (const Shm::CorruptionError &err) {
        coll.doCorruptionDetected(err.what()); // dropped; the scan goes on
        for (auto it = index_.begin(); it != index_.end(); ++it) {
          allocator_->free(it.key(), slots_[it.value()].handle->data());
        }
        index_.clear();
        slots_.clear();
        freeSlots_.clear();
        unusable.clear();
        restored_ = 0;
      }
    }
    for (const Key &k : unusable) {
      coll.erase(k);
    }
  }
  // The allocations restored from the store by storeIs().
  std::size_t restored() const noexcept { return restored_; }
  std::uint32_t capacity() const noexcept { return capacity_; }

  // Runs allocations later on the event thread; without one they run at
  // once, inside request().
  void schedulerIs(Scheduler s) { scheduler_ = std::move(s); }
  // Runs after every pass of allocations that resolved or failed anything.
  void resolvedHookIs(Task hook) { resolvedHooks_.push_back(std::move(hook)); }
  void resolverWakeIs(GroupResolver *resolver) override {
    if (resolver && std::none_of(resolvers_.begin(), resolvers_.end(),
                                 [resolver](const auto &r) {
                                   return r.ptr() == resolver;
                                 })) {
      resolvers_.emplace_back(resolver);
    }
  }

  // The client instance of a name and instance number, made on first use
  // (without a slot).
  Fwk::Ptr<ClientInstance> clientInstanceIs(const std::string &name,
                                            std::uint32_t instance = 0) {
    const std::string key = clientKey(name, instance);
    if (auto *c = clients_.find(key)) {
      return *c;
    }
    auto c = Fwk::make<ClientInstance>(this, name, instance);
    clients_.insert(key, c);
    notify(attrClientInstance, key);
    return c;
  }
  Fwk::Ptr<ClientInstance> clientInstance(const std::string &name,
                                          std::uint32_t instance = 0) const {
    const auto *c = clients_.find(clientKey(name, instance));
    return c ? *c : nullptr;
  }
  // Whether the client of a name and instance has its slot or can take one.
  bool clientSlotAvailable(const std::string &name,
                           std::uint32_t instance = 0) const {
    const auto *c = clients_.find(clientKey(name, instance));
    return (c && (*c)->slotted()) || clientSlotsTaken() < kMaxClients;
  }
  std::size_t clientSlotsTaken() const noexcept {
    return static_cast<std::size_t>(std::popcount(slotsTaken_));
  }

  // The number of keys held by any client, or restored and not yet claimed.
  std::size_t entries() const noexcept override { return index_.size(); }
  // The handle of a held key, or null.
  Fwk::Ptr<const ResourceHandle> entry(const Key &key) const {
    const auto *i = index_.find(key);
    return i ? Fwk::Ptr<const ResourceHandle>(slots_[*i].handle) : nullptr;
  }
  // The number of slots a key can have had so far: every handle's index()
  // is below it.
  std::uint32_t slots() const noexcept {
    return static_cast<std::uint32_t>(slots_.size());
  }
  std::size_t pendingAllocations() const noexcept {
    return pending_.size() - pendingHead_;
  }
  const Allocator &allocator() const noexcept { return *allocator_; }

  // Runs the queued allocations now. Returns how many it ran.
  std::size_t resolvePending() {
    std::size_t n = 0;
    Fwk::Ptr<ResourceTable> self(this);
    // Allocations queued while this runs (by a hook, say) run too. The keys
    // of later allocations are fetched ahead: their entries and index
    // entries of the allocations' store eight places ahead, their handles
    // four.
    for (; pendingHead_ < pending_.size(); ++pendingHead_) {
      prefetchPending(pendingHead_ + 8, pendingHead_ + 4);
      const Pending &p = pending_[pendingHead_];
      Holding *e = &slots_[p.slot];
      if (!e->handle || !(e->handle->key() == p.key) ||
          e->handle->entryState() != 0) {
        continue; // released meanwhile, or resolved already
      }
      const Key key = p.key;
      if (!held_.empty() && held_.contains(key)) {
        heldPending_.push_back(std::move(pending_[pendingHead_]));
        continue; // until holdDel()
      }
      Fwk::Ptr<ResourceHandle> h = e->handle;
      Data data{};
      if (allocator_->allocate(key, p.clientData, data)) {
        e->allocated = true;
        storeThenSet(*h, data, true);
      } else {
        h->entryStateIs(static_cast<std::uint8_t>(EntryState::failed));
      }
      ++n;
    }
    pending_.clear();
    pendingHead_ = 0;
    allocationScheduled_ = false;
    if (n) {
      for (const auto &hook : resolvedHooks_) {
        hook();
      }
      for (const auto &r : resolvers_) {
        r->updateGenId();
      }
    }
    return n;
  }

  // New data for a resolved resource: its handle announces the update.
  // False when the key is not held.
  bool updateIs(const Key &key, const Data &data) {
    const auto *i = index_.find(key);
    if (!i) {
      return false;
    }
    Fwk::Ptr<ResourceHandle> h = slots_[*i].handle;
    storeThenSet(*h, data);
    return true;
  }
  // Holds the allocation of a key back, as a resource that does not exist
  // yet (an adjacency whose neighbour is not learnt): its handle stays
  // pending, and the changes that need it wait, until holdDel(). Keys
  // already allocated are not affected.
  void holdIs(const Key &key) { held_.insert(key, Fwk::Unit{}); }
  void holdDel(const Key &key) {
    if (!held_.erase(key)) {
      return;
    }
    const auto was = heldPending_.size();
    std::erase_if(heldPending_, [&](Pending &p) {
      if (!(p.key == key)) {
        return false;
      }
      pending_.push_back(std::move(p));
      return true;
    });
    if (heldPending_.size() != was) {
      scheduleAllocation();
    }
  }
  bool held(const Key &key) const noexcept { return held_.contains(key); }
  // Allocations waiting for holdDel().
  std::size_t heldAllocations() const noexcept { return heldPending_.size(); }
  // For inspection: the keys in the table, resumable after a key (hash
  // order); f(key, handle, holders) for at most `limit` of them. Returns
  // whether keys remain, `next` then being where to resume.
  template <typename F>
  bool entryWalk(const Key *after, std::size_t limit, F &&f, Key &next) const {
    auto it = index_.begin();
    if (after) {
      it = index_.lowerBound(*after);
      if (it != index_.end() && it.key() == *after) {
        ++it;
      }
    }
    for (std::size_t n = 0; it != index_.end() && n < limit; ++it, ++n) {
      const Holding &h = slots_[it.value()];
      f(it.key(), *h.handle, std::popcount(h.holders));
      next = it.key();
    }
    return it != index_.end();
  }

  // Marks a held resource failed (state 5), as a failing hardware would.
  bool failIs(const Key &key) {
    const auto *i = index_.find(key);
    if (!i) {
      return false;
    }
    Fwk::Ptr<ResourceHandle> h = slots_[*i].handle;
    h->entryStateIs(static_cast<std::uint8_t>(EntryState::failed));
    return true;
  }

  std::size_t releaseUnclaimed() override {
    std::vector<std::uint32_t> unclaimed;
    for (auto it = index_.begin(); it != index_.end(); ++it) {
      if (slots_[it.value()].holders == 0) {
        unclaimed.push_back(it.value());
      }
    }
    for (const std::uint32_t slot : unclaimed) {
      free(slot);
    }
    return unclaimed.size();
  }
  std::size_t releaseUnclaimedAfter(std::vector<TableVersion> fence) override {
    std::size_t n = 0;
    for (auto it = index_.begin(); it != index_.end(); ++it) {
      n += slots_[it.value()].holders == 0 ? 1 : 0;
    }
    unclaimedFence_ = std::move(fence);
    unclaimedPending_ = true;
    maybeReleaseUnclaimed();
    return n;
  }
  // How many releases wait for the hardware.
  std::size_t releasesPending() const noexcept { return releasing_.size(); }

  // The hardware has taken every change of a table type up to `v`: the
  // releases that waited for those changes take effect.
  void tableVersionConfirmed(SwTableId tableId, LogVersion v) {
    confirmed_.insert(tableId.packed(), v);
    if (auto *q = deferred_.find(tableId.packed())) {
      while (!q->empty() && done(*q->front().dependency, v)) {
        const Deferred d = q->popFront();
        finishRelease(d);
      }
    }
    maybeReleaseUnclaimed();
  }

protected:
  ~ResourceTable() override = default;
  void capacityIs(std::uint32_t c) noexcept { capacity_ = c; }

private:
  // A key in the table, at its slot: its handle (null: a free slot), the
  // clients that hold it and those whose release of it waits for the
  // hardware (one bit each), and whether its allocation was made.
  struct Holding {
    Fwk::Ptr<ResourceHandle> handle;
    std::uint64_t holders = 0;
    std::uint64_t releasing = 0;
    bool allocated = false;
  };
  // An allocation to make, with what its first request carried.
  struct Pending {
    std::uint32_t slot;
    Key key;
    ClientData clientData;
  };

  static std::string clientKey(const std::string &name,
                               std::uint32_t instance) {
    return name + '#' + std::to_string(instance);
  }

  // A new key's slot, with a new (pending) handle that names it.
  std::uint32_t newSlot(const Key &key) {
    std::uint32_t slot;
    if (!freeSlots_.empty()) {
      slot = freeSlots_.back();
      freeSlots_.pop_back();
    } else {
      slot = static_cast<std::uint32_t>(slots_.size());
      slots_.emplace_back();
    }
    index_.insert(key, slot);
    Holding &e = slots_[slot];
    e.handle = Fwk::make<ResourceHandle>(key);
    e.handle->indexIs(slot);
    return slot;
  }

  // New data for a resource: stored with the version it takes before the
  // handle announces it, so that what the tables log from the announcement
  // is never newer than what a restart finds in the store.
  void storeThenSet(ResourceHandle &h, const Data &data,
                    bool resolves = false) {
    if (slate_) {
      Allocation a{};
      a.key = h.key();
      a.data = data;
      a.version = h.version() + 1; // what dataIs makes it
      slate_->allocations().insert(a);
    }
    if (resolves) {
      h.resolvedIs(data);
    } else {
      h.dataIs(data);
    }
  }

  bool takeSlot(ClientInstance &client) {
    if (client.bit_ != 0) {
      return true;
    }
    if (slotsTaken_ == ~std::uint64_t{0}) {
      return false;
    }
    client.slot_ = static_cast<unsigned>(std::countr_one(slotsTaken_));
    client.bit_ = std::uint64_t{1} << client.slot_;
    slotsTaken_ |= client.bit_;
    return true;
  }

  // The client's hold of the key at `slot`; a release of it that waits for
  // the hardware is withdrawn (kept after all).
  void holdSlot(const ClientInstance *client, Holding &e, std::uint32_t slot) {
    e.holders |= client->bit_;
    if (e.releasing & client->bit_) [[unlikely]] {
      e.releasing &= ~client->bit_;
      releasing_.erase(releaseId(slot, client->slot_));
    }
  }

  Fwk::Ptr<const ResourceHandle> hold(ClientInstance *client, const Key &key,
                                      const ClientData &cd) {
    if (!takeSlot(*client)) {
      Fwk::Ptr<ResourceHandle> refused = Fwk::make<ResourceHandle>(key);
      refused->entryStateIs(static_cast<std::uint8_t>(EntryState::failed));
      return refused;
    }
    if (const auto *i = index_.find(key)) {
      Holding &e = slots_[*i];
      holdSlot(client, e, *i);
      return e.handle;
    }
    const std::uint32_t slot = newSlot(key);
    Holding &e = slots_[slot];
    e.holders = client->bit_;
    Fwk::Ptr<const ResourceHandle> out = e.handle;
    notify(attrEntry, key);
    pending_.push_back(Pending{slot, key, cd});
    scheduleAllocation();
    return out;
  }

  Fwk::Ptr<const ResourceHandle> holdAgain(ClientInstance *client,
                                           const ResourceHandle &held,
                                           const Key &key,
                                           const ClientData &cd) {
    const std::uint32_t slot = held.index();
    if (client->bit_ != 0 && slot < slots_.size() &&
        slots_[slot].handle.ptr() == &held && held.key() == key) {
      Holding &e = slots_[slot];
      holdSlot(client, e, slot);
      return e.handle;
    }
    return hold(client, key, cd); // released meanwhile, or another key's
  }

  // A release waiting for its dependency names the client's hold of a slot
  // (releaseId) and which release of it this is (a later one, or a request,
  // supersedes it).
  static std::uint64_t releaseId(std::uint32_t slot, unsigned client) {
    return std::uint64_t{slot} << 6 | client;
  }
  struct Deferred {
    std::uint64_t id = 0;
    std::uint64_t seq = 0;
    Fwk::Ptr<const DependencyEntryHandle> dependency;
  };
  // The releases waiting for one table type's changes, oldest first: a ring
  // that grows by doubling and never shrinks, so that a steady flow of
  // releases allocates nothing.
  class DeferredQueue {
  public:
    bool empty() const noexcept { return size_ == 0; }
    const Deferred &front() const noexcept { return ring_[head_]; }
    Deferred popFront() noexcept {
      Deferred d = std::move(ring_[head_]);
      head_ = (head_ + 1) & (ring_.size() - 1);
      --size_;
      return d;
    }
    void pushBack(Deferred d) {
      if (size_ == ring_.size()) {
        std::vector<Deferred> grown(std::max<std::size_t>(16, 2 * size_));
        for (std::size_t i = 0; i < size_; ++i) {
          grown[i] = std::move(ring_[(head_ + i) & (ring_.size() - 1)]);
        }
        ring_.swap(grown);
        head_ = 0;
      }
      ring_[(head_ + size_) & (ring_.size() - 1)] = std::move(d);
      ++size_;
    }

  private:
    std::vector<Deferred> ring_; // a power of two long
    std::size_t head_ = 0;
    std::size_t size_ = 0;
  };

  // Whether the change a release waits for is in the hardware, when the
  // hardware has confirmed its table type up to `confirmed`. Not yet logged
  // (a table deletion whose usage is dropped before it is logged): no.
  static bool done(const DependencyEntryHandle &d, LogVersion confirmed) {
    switch (d.entryState()) {
    case EntryState::made:
      return false;
    case EntryState::logged:
      return d.logVersion() != 0 && d.logVersion() <= confirmed;
    default:
      return true; // finished, or failed: it never reaches the hardware
    }
  }

  void releaseAfter(const ClientInstance *client, const ResourceHandle &handle,
                    const Fwk::Ptr<const DependencyEntryHandle> &dependency) {
    if (client->bit_ == 0) {
      return; // it holds nothing
    }
    std::uint32_t slot = handle.index();
    if (slot >= slots_.size() || slots_[slot].handle.ptr() != &handle) {
      // Not this table's handle of its key (one made by hand, say): found
      // by its key, if the key is here at all.
      const auto *i = index_.find(handle.key());
      if (!i) {
        return;
      }
      slot = *i;
    }
    Holding &e = slots_[slot];
    const std::uint64_t id = releaseId(slot, client->slot_);
    if (dependency) {
      const std::uint32_t table = dependency->tableId().packed();
      const LogVersion *confirmed = confirmed_.find(table);
      if (!done(*dependency, confirmed ? *confirmed : 0)) {
        const std::uint64_t seq = ++releaseSeq_;
        releasing_.insert(id, seq);
        e.releasing |= client->bit_;
        DeferredQueue *q = deferred_.find(table);
        if (!q) {
          deferred_.insert(table, DeferredQueue{});
          q = deferred_.find(table);
        }
        q->pushBack(Deferred{id, seq, dependency});
        return;
      }
    }
    if (e.releasing & client->bit_) {
      e.releasing &= ~client->bit_;
      releasing_.erase(id);
    }
    drop(client->bit_, slot);
  }

  void finishRelease(const Deferred &d) {
    const std::uint64_t *seq = releasing_.find(d.id);
    if (!seq || *seq != d.seq) {
      return; // requested again, or released again later
    }
    releasing_.erase(d.id);
    const auto slot = static_cast<std::uint32_t>(d.id >> 6);
    const std::uint64_t bit = std::uint64_t{1} << (d.id & 63);
    slots_[slot].releasing &= ~bit;
    drop(bit, slot);
  }

  void maybeReleaseUnclaimed() {
    if (!unclaimedPending_) {
      return;
    }
    for (const TableVersion &f : unclaimedFence_) {
      // Table types that never reported use nothing of this table.
      const LogVersion *confirmed = confirmed_.find(f.tableId.packed());
      if (confirmed && *confirmed < f.version) {
        return;
      }
    }
    unclaimedPending_ = false;
    unclaimedFence_.clear();
    releaseUnclaimed();
  }

  void drop(std::uint64_t bit, std::uint32_t slot) {
    Holding &e = slots_[slot];
    if (!e.handle) {
      return;
    }
    e.holders &= ~bit;
    if (e.holders == 0) {
      free(slot);
    }
  }

  // The key leaves the table: its stored record first, then its allocation;
  // its slot is free for the next new key.
  void free(std::uint32_t slot) {
    Holding gone = std::move(slots_[slot]);
    slots_[slot] = Holding{};
    freeSlots_.push_back(slot);
    const Key key = gone.handle->key();
    index_.erase(key);
    if (gone.allocated) {
      if (slate_) {
        slate_->allocations().erase(key);
      }
      allocator_->free(key, gone.handle->data());
    }
    gone.handle->postReleaseProtoStateIs(true);
    notify(attrEntry, key);
  }

  void prefetchPending(std::size_t far, std::size_t near) const noexcept {
    if (far < pending_.size()) {
      __builtin_prefetch(&slots_[pending_[far].slot]);
      if (slate_) {
        slate_->allocations().prefetch(pending_[far].key);
      }
    }
    if (near < pending_.size()) {
      __builtin_prefetch(slots_[pending_[near].slot].handle.get(), 1);
    }
  }

  void scheduleAllocation() {
    if (!scheduler_) {
      resolvePending();
      return;
    }
    if (allocationScheduled_) {
      return;
    }
    allocationScheduled_ = true;
    Fwk::Ptr<ResourceTable> self(this);
    scheduler_([self] { self->resolvePending(); });
  }

  Fwk::Ptr<const CanonicalTableName> name_;
  Allocator *allocator_;
  std::uint32_t capacity_ = 65536;
  Scheduler scheduler_;
  std::vector<Task> resolvedHooks_;
  std::vector<Fwk::Ptr<GroupResolver>> resolvers_;
  Fwk::HashMap<std::string, Fwk::Ptr<ClientInstance>> clients_{0x2d7f4e11u};
  // The keys in the table and their slots; freeSlots_: slots no key has.
  Fwk::HashMap<Key, std::uint32_t> index_{0x4c8e1b53u};
  std::vector<Holding> slots_;
  std::vector<std::uint32_t> freeSlots_;
  std::uint64_t slotsTaken_ = 0; // one bit per client slot
  std::vector<Pending> pending_; // [pendingHead_, end) still to run
  Fwk::HashMap<Key, Fwk::Unit> held_{0x3b9aca07u};
  std::vector<Pending> heldPending_; // allocations of held keys
  std::size_t pendingHead_ = 0;
  bool allocationScheduled_ = false;
  Fwk::Ptr<Slate> slate_;
  std::size_t restored_ = 0;
  // Releases waiting for the hardware, per table type of their dependency
  // in the order they were made (the order of its versions), and the
  // latest release of each hold (by releaseId); the confirmed version of
  // each table type.
  Fwk::HashMap<std::uint32_t, DeferredQueue> deferred_{0x1d8e4e27u};
  Fwk::HashMap<std::uint64_t, std::uint64_t> releasing_{0x7a2b1c93u};
  std::uint64_t releaseSeq_ = 0;
  Fwk::HashMap<std::uint32_t, LogVersion> confirmed_{0x5e2d58d9u};
  std::vector<TableVersion> unclaimedFence_;
  bool unclaimedPending_ = false;
};

} // namespace Asic
