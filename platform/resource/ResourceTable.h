// Resource tables: tables whose entries other tables need (an in-LIF, the
// FEC of an L2 adjacency). A user table holds one ClientInstance of the
// resource table under its client name and follows each resource it uses
// through a ResourceHandle (ResourceHandle.h).
//
//   auto inLifs = Fwk::make<MicaTunnelNiLib::InLifResourceTable>(name);
//   auto client = inLifs->clientInstanceIs("InLif.featureMicaMpls");
//   auto handle = client->request(key, clientData, nullptr);  // state 0: pending
//   ...                                     // the table resolves it (state 4)
//   client->ackUpdate(handle, handle->version(), dependency);
//   client->release(handle, dependency);    // the last holder frees it
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
//
// Every resolution runs the table's resolved hooks (the group resolver uses
// one to retry changes that waited for a resource). updateIs() changes the
// data of a resolved resource, which its handle announces (attribute 518 or
// 517) to the tables that use it; they acknowledge the version they have
// applied with ackUpdate().
//
// Not thread safe: the agent's event thread owns the table.
#pragma once

#include <cstdint>
#include <deque>
#include <functional>
#include <string>
#include <vector>

#include "platform/asic/OrderedSwTable.h"
#include "platform/framework/HashMap.h"
#include "platform/framework/Notifier.h"
#include "platform/resource/ResourceHandle.h"

namespace Asic {

// How a resource table makes and frees its resources.
template <typename Key, typename Data, typename ClientData> class ResourceAllocator {
public:
  virtual ~ResourceAllocator() = default;
  // Fills `out` for a new resource; false when it cannot be made.
  virtual bool allocate(const Key &key, const ClientData &clientData, Data &out) = 0;
  virtual void free(const Key &key, const Data &data) = 0;
  // How many resources are allocated.
  virtual std::size_t inUse() const = 0;
};

template <typename Key, typename Data, typename ClientData,
          std::uint16_t kUpdateAttrId>
class MICA_PLATFORM_API ResourceTable : public Fwk::Notifier {
public:
  using ResourceHandle = Asic::ResourceHandle<Key, Data, kUpdateAttrId>;
  using Allocator = ResourceAllocator<Key, Data, ClientData>;
  using Task = std::function<void()>;
  using Scheduler = std::function<void(Task)>;

  static constexpr Fwk::AttrId attrClientInstance{1, "clientInstance"};
  static constexpr Fwk::AttrId attrEntry{2, "entry"};

  // One client's use of the table.
  class ClientInstance : public Fwk::Object {
  public:
    ClientInstance(ResourceTable *table, std::string name)
        : table_(table), name_(std::move(name)) {}
    const std::string &name() const noexcept { return name_; }
    ResourceTable *table() const noexcept { return table_; }

    // The handle of the key's resource; made (pending) if the key is new.
    Fwk::Ptr<const ResourceHandle>
    request(const Key &key, const ClientData &clientData,
            const Fwk::Ptr<const DependencyEntryHandle> & /*dependency*/) {
      ++requests_;
      return table_->hold(this, key, clientData);
    }
    // The same for tables whose requests carry no client data.
    Fwk::Ptr<const ResourceHandle>
    request(const Key &key, const Fwk::Ptr<const DependencyEntryHandle> &dependency)
      requires std::is_same_v<ClientData, Fwk::Unit>
    {
      return request(key, Fwk::Unit{}, dependency);
    }
    // Gives up this client's hold of the handle's key.
    void release(const Fwk::Ptr<const ResourceHandle> &handle,
                 const Fwk::Ptr<const DependencyEntryHandle> & /*dependency*/) {
      ++releases_;
      if (handle) {
        table_->drop(this, handle->key());
      }
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
    ResourceTable *table_;
    std::string name_;
    std::uint64_t requests_ = 0;
    std::uint64_t releases_ = 0;
    std::uint64_t acks_ = 0;
    Ack lastAck_;
  };

  ResourceTable(Fwk::Ptr<const CanonicalTableName> name, Allocator &allocator)
      : name_(std::move(name)), allocator_(&allocator) {}

  const Fwk::Ptr<const CanonicalTableName> &name() const noexcept {
    return name_;
  }

  // Runs allocations later on the event thread; without one they run at
  // once, inside request().
  void schedulerIs(Scheduler s) { scheduler_ = std::move(s); }
  // Runs after every pass of allocations that resolved or failed anything.
  void resolvedHookIs(Task hook) { resolvedHooks_.push_back(std::move(hook)); }

  // The client instance of a name, made on first use.
  Fwk::Ptr<ClientInstance> clientInstanceIs(const std::string &name) {
    if (auto *c = clients_.find(name)) {
      return *c;
    }
    auto c = Fwk::make<ClientInstance>(this, name);
    clients_.insert(name, c);
    notify(attrClientInstance, name);
    return c;
  }
  Fwk::Ptr<ClientInstance> clientInstance(const std::string &name) const {
    const auto *c = clients_.find(name);
    return c ? *c : nullptr;
  }

  // The number of keys held by any client.
  std::size_t entries() const noexcept { return entries_.size(); }
  // The handle of a held key, or null.
  Fwk::Ptr<const ResourceHandle> entry(const Key &key) const {
    const auto *e = entries_.find(key);
    return e ? Fwk::Ptr<const ResourceHandle>(e->handle) : nullptr;
  }
  std::size_t pendingAllocations() const noexcept { return pending_.size(); }
  const Allocator &allocator() const noexcept { return *allocator_; }

  // Runs the queued allocations now. Returns how many it ran.
  std::size_t resolvePending() {
    std::size_t n = 0;
    Fwk::Ptr<ResourceTable> self(this);
    while (!pending_.empty()) {
      const Key key = pending_.front();
      pending_.pop_front();
      auto *e = entries_.find(key);
      if (!e || e->handle->entryState() != 0) {
        continue; // released meanwhile, or resolved already
      }
      Fwk::Ptr<ResourceHandle> h = e->handle;
      Data data{};
      if (allocator_->allocate(key, e->clientData, data)) {
        e->allocated = true;
        h->dataIs(data);
        h->entryStateIs(static_cast<std::uint8_t>(EntryState::finished));
      } else {
        h->entryStateIs(static_cast<std::uint8_t>(EntryState::failed));
      }
      ++n;
    }
    allocationScheduled_ = false;
    if (n) {
      for (const auto &hook : resolvedHooks_) {
        hook();
      }
    }
    return n;
  }

  // New data for a resolved resource: its handle announces the update.
  // False when the key is not held.
  bool updateIs(const Key &key, const Data &data) {
    auto *e = entries_.find(key);
    if (!e) {
      return false;
    }
    Fwk::Ptr<ResourceHandle> h = e->handle;
    h->dataIs(data);
    return true;
  }
  // Marks a held resource failed (state 5), as a failing hardware would.
  bool failIs(const Key &key) {
    auto *e = entries_.find(key);
    if (!e) {
      return false;
    }
    Fwk::Ptr<ResourceHandle> h = e->handle;
    h->entryStateIs(static_cast<std::uint8_t>(EntryState::failed));
    return true;
  }

protected:
  ~ResourceTable() override = default;

private:
  struct Holding {
    Fwk::Ptr<ResourceHandle> handle;
    ClientData clientData{};
    std::vector<const ClientInstance *> holders;
    bool allocated = false;
  };

  Fwk::Ptr<const ResourceHandle> hold(const ClientInstance *client,
                                      const Key &key, const ClientData &cd) {
    if (auto *e = entries_.find(key)) {
      for (const auto *h : e->holders) {
        if (h == client) {
          return e->handle;
        }
      }
      e->holders.push_back(client);
      return e->handle;
    }
    Holding e;
    e.handle = Fwk::make<ResourceHandle>(key);
    e.clientData = cd;
    e.holders.push_back(client);
    Fwk::Ptr<const ResourceHandle> out = e.handle;
    entries_.insert(key, std::move(e));
    notify(attrEntry, key);
    pending_.push_back(key);
    scheduleAllocation();
    return out;
  }

  void drop(const ClientInstance *client, const Key &key) {
    auto *e = entries_.find(key);
    if (!e) {
      return;
    }
    auto &hs = e->holders;
    for (auto it = hs.begin(); it != hs.end(); ++it) {
      if (*it == client) {
        hs.erase(it);
        break;
      }
    }
    if (!hs.empty()) {
      return;
    }
    Holding gone;
    entries_.take(key, gone);
    if (gone.allocated) {
      allocator_->free(key, gone.handle->data());
    }
    gone.handle->postReleaseProtoStateIs(true);
    notify(attrEntry, key);
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
  Scheduler scheduler_;
  std::vector<Task> resolvedHooks_;
  Fwk::HashMap<std::string, Fwk::Ptr<ClientInstance>> clients_{0x2d7f4e11u};
  Fwk::HashMap<Key, Holding> entries_{0x4c8e1b53u};
  std::deque<Key> pending_;
  bool allocationScheduled_ = false;
};

} // namespace Asic
