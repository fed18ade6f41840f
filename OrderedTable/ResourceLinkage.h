// The resource linkage of a software table, written once for every table
// family: the one object per table (per unit) that stands between the table
// and its client of the resource table. It keeps, per resource key in use,
// a usage state machine: the resource's handle and the set of table keys
// whose committed entry uses it.
//
//   auto linkage = mplsIsem2InLifLinkageFactory(table.ptr(), client);
//   table->inLifLinkageIs(linkage);
//
// Invariants: a usage machine exists exactly while its resource is held for
// at least one table key, under the key its handle carries; the usage count
// of a resource is the size of its machine's entryUsage set.
#pragma once

#include "OrderedTable/TableBinding.h"
#include "platform/framework/HashMap.h"
#include "platform/framework/Notifier.h"

namespace Asic {

template <typename B> class ResourceLinkage : public Fwk::Notifier {
public:
  using Table = typename B::SwTable;
  using Key = typename B::Key;
  using ResourceKey = typename B::ResourceKey;
  using ResourceHandle = typename B::ResourceHandle;
  using ClientInstance = typename B::ResourceTable::ClientInstance;

  static constexpr Fwk::AttrId attrEntryUsageSm{3, "entryUsageSm"};

  // Per resource key in use: its handle and the table keys that use it.
  class LocalUsageUpdateSm : public Fwk::Notifier {
  public:
    static constexpr Fwk::AttrId attrEntryUsage{3, "entryUsage"};
    static constexpr Fwk::AttrId attrHasNotificationActive{4, "hasNotificationActive"};

    LocalUsageUpdateSm(Fwk::Ptr<const ResourceHandle> resPtr,
                       typename B::Linkage *parent)
        : resPtr_(std::move(resPtr)), parent_(parent) {}

    const Fwk::Ptr<const ResourceHandle> &resPtr() const noexcept {
      return resPtr_;
    }
    typename B::Linkage *parent() const noexcept { return parent_; }

    bool entryUsage(const Key &key) const noexcept {
      return entryUsage_.contains(key);
    }
    std::size_t entryUsages() const noexcept { return entryUsage_.size(); }
    const Fwk::HashSet<Key> &entryUsageColl() const noexcept {
      return entryUsage_;
    }
    // Adds a user; an existing one is left as it is.
    void entryUsageIs(const Key &key) {
      if (entryUsage_.insert(key)) {
        notify(attrEntryUsage, key);
      }
    }
    void entryUsageDel(const Key &key) {
      if (entryUsage_.erase(key)) {
        notify(attrEntryUsage, key);
      }
    }
    void entryUsageDelAll() {
      while (!entryUsage_.empty()) {
        entryUsageDel(Key(entryUsage_.begin().key()));
      }
    }

    bool hasNotificationActive() const noexcept { return notificationActive_; }
    void hasNotificationActiveIs(bool on) {
      if (on != notificationActive_) {
        notificationActive_ = on;
        notify(attrHasNotificationActive);
      }
    }

  private:
    ~LocalUsageUpdateSm() override {
      notificationActive_ = false;
      entryUsage_.clear();
    }

    Fwk::Ptr<const ResourceHandle> resPtr_;
    typename B::Linkage *parent_;
    Fwk::HashSet<Key> entryUsage_{0x510e527fu};
    bool notificationActive_ = false;
  };

  Table *swTable() const noexcept { return swTable_; }
  const Fwk::Ptr<ClientInstance> &resTblClient() const noexcept {
    return resTblClient_;
  }

  // The usage machine of a resource key, or null.
  Fwk::Ptr<LocalUsageUpdateSm> entryUsageSm(const ResourceKey &key) const {
    const auto *sm = entryUsageSm_.find(key);
    return sm ? *sm : nullptr;
  }
  std::size_t entryUsageSms() const noexcept { return entryUsageSm_.size(); }
  const Fwk::HashMap<ResourceKey, Fwk::Ptr<LocalUsageUpdateSm>> &
  entryUsageSmColl() const noexcept {
    return entryUsageSm_;
  }

  ResourceLinkage(Table *table, Fwk::Ptr<ClientInstance> client)
      : swTable_(table), resTblClient_(std::move(client)) {}

protected:
  ~ResourceLinkage() override {
    entryUsageSm_.clear();
    resTblClient_ = nullptr;
  }

  Fwk::HashMap<ResourceKey, Fwk::Ptr<LocalUsageUpdateSm>> &entryUsageSmMap() noexcept {
    return entryUsageSm_;
  }

private:
  Table *swTable_;
  Fwk::Ptr<ClientInstance> resTblClient_;
  Fwk::HashMap<ResourceKey, Fwk::Ptr<LocalUsageUpdateSm>> entryUsageSm_{0x9b05688cu};
};

} // namespace Asic
