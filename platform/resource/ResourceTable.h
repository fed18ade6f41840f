// Resource tables: tables whose entries other tables need (an in-LIF, the
// FEC of an L2 adjacency). A client — one per user table and unit — holds a
// ClientInstance of the resource table under its client name, and follows
// each resource it uses through a ResourceHandle (ResourceHandle.h).
//
//   auto table = Fwk::make<MicaTunnelNiLib::InLifResourceTable>();
//   auto client = table->clientInstanceIs("InLif.featureMicaMpls");
#pragma once

#include <string>

#include "platform/asic/OrderedSwTable.h"
#include "platform/framework/HashMap.h"
#include "platform/framework/Notifier.h"
#include "platform/resource/ResourceHandle.h"

namespace Asic {

template <typename Key, typename Data, std::uint16_t kUpdateAttrId>
class MICA_PLATFORM_API ResourceTable : public Fwk::Notifier {
public:
  using ResourceHandle = Asic::ResourceHandle<Key, Data, kUpdateAttrId>;

  // One client's use of the table.
  class ClientInstance : public Fwk::Object {
  public:
    ClientInstance(ResourceTable *table, std::string name)
        : table_(table), name_(std::move(name)) {}
    const std::string &name() const noexcept { return name_; }
    ResourceTable *table() const noexcept { return table_; }

  private:
    ~ClientInstance() override = default;
    ResourceTable *table_;
    std::string name_;
  };

  static constexpr Fwk::AttrId attrClientInstance{1, "clientInstance"};

  explicit ResourceTable(Fwk::Ptr<const CanonicalTableName> name)
      : name_(std::move(name)) {}

  const Fwk::Ptr<const CanonicalTableName> &name() const noexcept {
    return name_;
  }

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

protected:
  ~ResourceTable() override = default;

private:
  Fwk::Ptr<const CanonicalTableName> name_;
  Fwk::HashMap<std::string, Fwk::Ptr<ClientInstance>> clients_{0x2d7f4e11u};
};

} // namespace Asic
