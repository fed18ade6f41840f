// The agent's ordered-table interface and the registry of table interfaces.
//
// OrderedTableInterface is the one object through which an agent boots its
// ordered tables: it makes the group interfaces (one per agent-and-group id,
// found again by canonical group name), keeps the table interfaces of the
// table types registered with it, and knows whether the agent has finished
// its first replay after a restart (until then, a newly made software table
// starts marking, so that what is not replayed is swept).
//
//   auto loop = Evt::Loop::create();
//   auto otIntf = Fwk::make<Asic::OrderedTableInterface>(
//       StateDb::entityManagerIs("mpls-agent", 0),
//       [loop](Asic::GroupResolver::Task t) { loop->defer(std::move(t)); });
//   otIntf->hwWriterIs("mpls-agent-hw", 0);      // where confirmed versions
//   are auto isem2 = MicaMpls::MplsIsem2Interface::getIntf(otIntf);
//   isem2->makeSwTable(1, nullptr, false);       // ... replay while marking
//   ... otIntf->finishInitialReplay();               // sweep, free what is
//   unused
//
// SwTableInterfacesSingleton is the agent-wide registry of table interfaces
// by name ("MicaMpls::MplsIsem2Interface"); a table type's interface is made
// once per agent and found there again. TableInterfaceBase is the base of
// every table interface.
//
// Ownership: the ordered-table interface holds its groups and the table
// interfaces registered with it; a table interface holds the ordered-table
// interface. The cycle is broken by the table interface's onDelete(), which
// unregisters it. Loop thread only.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "platform/Export.h"
#include "platform/asic/GroupInterface.h"
#include "platform/asic/GroupResolver.h"
#include "platform/framework/HashMap.h"
#include "platform/framework/Notifier.h"
#include "platform/statedb/EntityManager.h"

namespace Asic {

class OrderedTableInterface;

// The base of a table type's interface: the ordered-table interface it was
// made with, and its names (table name, namespace, group and owner).
class MICA_PLATFORM_API TableInterfaceBase : public Fwk::Notifier {
public:
  const Fwk::Ptr<OrderedTableInterface> &orderedTableIntf() const noexcept {
    return orderedTableIntf_;
  }
  const std::string &tableName() const noexcept { return tableName_; }
  const std::string &tableNamespace() const noexcept { return tableNamespace_; }
  const std::string &groupName() const noexcept { return groupName_; }
  const std::string &ownerName() const noexcept { return ownerName_; }

  // The interface is being deleted: it unregisters itself.
  virtual void onDelete() {}

protected:
  explicit TableInterfaceBase(Fwk::Ptr<OrderedTableInterface> orderedTableIntf);
  ~TableInterfaceBase() override;

  void namesIs(std::string tableName, std::string tableNamespace,
               std::string groupName, std::string ownerName);

private:
  Fwk::Ptr<OrderedTableInterface> orderedTableIntf_;
  std::string tableName_;
  std::string tableNamespace_;
  std::string groupName_;
  std::string ownerName_;
};

class MICA_PLATFORM_API OrderedTableInterface : public Fwk::Notifier {
public:
  static constexpr Fwk::AttrId attrGroupIntf{1, "groupIntf"};
  static constexpr Fwk::AttrId attrSwTableIntf{2, "swTableIntf"};
  static constexpr Fwk::AttrId attrInitialReplayDone{3, "initialReplayDone"};

  // The groups' resolvers run their passes through `schedule`; without one,
  // passes run only when asked.
  explicit OrderedTableInterface(Fwk::Ptr<StateDb::EntityManager> entityManager,
                                 GroupResolver::Scheduler schedule = nullptr);

  const Fwk::Ptr<StateDb::EntityManager> &entityManager() const noexcept {
    return entityManager_;
  }
  // The agent's name, as its state database handle names it.
  const std::string &agentName() const noexcept {
    return entityManager_->name();
  }

  // The group of an agent-and-group id under its canonical name: found, or
  // made (with its resolver on the agent's loop). Null when the name is
  // taken by a group of another id.
  Fwk::Ptr<GroupInterface> makeGroupIntf(std::uint16_t agentGroupId,
                                         const std::string &canonicalGroupName);
  // The group of a canonical name, or null.
  Fwk::Ptr<GroupInterface>
  groupIntf(const std::string &canonicalGroupName) const;
  std::vector<Fwk::Ptr<GroupInterface>> groupIntfList() const;

  // The instance of the hardware writer whose table versions every group
  // reads (GroupInterface::tableVersionSourceIs).
  void hwWriterIs(std::string hwAgentName, std::uint32_t instanceId);

  void swTableIntfIs(const std::string &name,
                     const Fwk::Ptr<TableInterfaceBase> &intf);
  void swTableIntfDel(const std::string &name);
  Fwk::Ptr<TableInterfaceBase> swTableIntf(const std::string &name) const;
  std::size_t swTableIntfs() const noexcept { return intfs_.size(); }

  // Whether the agent has finished replaying what it still wants after a
  // restart. While it is false, software tables made anew start marking.
  bool initialReplayDone() const noexcept { return initialReplayDone_; }
  void initialReplayDoneIs(bool done);
  // Ends the first replay: sweeps every sweepable table of every group,
  // frees the restored resource allocations nobody claimed again, and sets
  // initialReplayDone. Returns the number of entries swept.
  std::uint32_t finishInitialReplay(std::size_t *resourcesReleased = nullptr);

private:
  ~OrderedTableInterface() override;

  Fwk::Ptr<StateDb::EntityManager> entityManager_;
  GroupResolver::Scheduler schedule_;
  Fwk::HashMap<std::string, Fwk::Ptr<GroupInterface>> groups_{0x27d4eb2fu};
  Fwk::HashMap<std::string, Fwk::Ptr<TableInterfaceBase>> intfs_{0x165667b1u};
  std::string hwAgentName_;
  std::uint32_t hwInstanceId_ = 0;
  bool initialReplayDone_ = false;
};

// The agent-wide registry of table interfaces, made on first use.
class MICA_PLATFORM_API SwTableInterfacesSingleton : public Fwk::Object {
public:
  // The registry, made if there is none yet.
  static Fwk::Ptr<SwTableInterfacesSingleton> swTableInterfacesSingletonIs();
  // The registry, or null before its first use.
  static Fwk::Ptr<SwTableInterfacesSingleton> swTableInterfacesSingleton();

  bool swTableIntfHas(const std::string &name) const {
    return intfs_.contains(name);
  }
  Fwk::Ptr<TableInterfaceBase> swTableIntf(const std::string &name) const;
  void swTableIntfIs(const std::string &name,
                     const Fwk::Ptr<TableInterfaceBase> &intf);
  void swTableIntfDel(const std::string &name);
  std::size_t swTableIntfs() const noexcept { return intfs_.size(); }

  SwTableInterfacesSingleton() = default;

private:
  ~SwTableInterfacesSingleton() override;
  Fwk::HashMap<std::string, Fwk::Ptr<TableInterfaceBase>> intfs_{0xd3a2646cu};
};

} // namespace Asic
