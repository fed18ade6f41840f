#include "platform/asic/OrderedTableInterface.h"

namespace Asic {

TableInterfaceBase::TableInterfaceBase(
    Fwk::Ptr<OrderedTableInterface> orderedTableIntf)
    : orderedTableIntf_(std::move(orderedTableIntf)) {}

TableInterfaceBase::~TableInterfaceBase() = default;

void TableInterfaceBase::namesIs(std::string tableName,
                                 std::string tableNamespace,
                                 std::string groupName, std::string ownerName) {
  tableName_ = std::move(tableName);
  tableNamespace_ = std::move(tableNamespace);
  groupName_ = std::move(groupName);
  ownerName_ = std::move(ownerName);
}

OrderedTableInterface::OrderedTableInterface(
    Fwk::Ptr<StateDb::EntityManager> entityManager,
    GroupResolver::Scheduler schedule)
    : entityManager_(std::move(entityManager)), schedule_(std::move(schedule)) {
}

OrderedTableInterface::~OrderedTableInterface() = default;

Fwk::Ptr<GroupInterface>
OrderedTableInterface::makeGroupIntf(std::uint16_t agentGroupId,
                                     const std::string &canonicalGroupName) {
  if (auto *g = groups_.find(canonicalGroupName)) {
    return (*g)->agentGroupId() == agentGroupId ? *g : nullptr;
  }
  auto g =
      Fwk::make<GroupInterface>(agentGroupId, canonicalGroupName, schedule_);
  if (!hwAgentName_.empty()) {
    g->tableVersionSourceIs(hwAgentName_, hwInstanceId_);
  }
  groups_.insert(canonicalGroupName, g);
  notify(attrGroupIntf, canonicalGroupName);
  return g;
}

Fwk::Ptr<GroupInterface>
OrderedTableInterface::groupIntf(const std::string &canonicalGroupName) const {
  const auto *g = groups_.find(canonicalGroupName);
  return g ? *g : nullptr;
}

std::vector<Fwk::Ptr<GroupInterface>>
OrderedTableInterface::groupIntfList() const {
  std::vector<Fwk::Ptr<GroupInterface>> out;
  for (auto it = groups_.begin(); it != groups_.end(); ++it) {
    out.push_back(it.value());
  }
  return out;
}

void OrderedTableInterface::hwWriterIs(std::string hwAgentName,
                                       std::uint32_t instanceId) {
  hwAgentName_ = std::move(hwAgentName);
  hwInstanceId_ = instanceId;
  for (const auto &g : groupIntfList()) {
    g->tableVersionSourceIs(hwAgentName_, hwInstanceId_);
  }
}

void OrderedTableInterface::swTableIntfIs(
    const std::string &name, const Fwk::Ptr<TableInterfaceBase> &intf) {
  intfs_.insert(name, intf);
  notify(attrSwTableIntf, name);
}

void OrderedTableInterface::swTableIntfDel(const std::string &name) {
  Fwk::Ptr<TableInterfaceBase> gone; // released after the announcement
  if (intfs_.take(name, gone)) {
    notify(attrSwTableIntf, name);
  }
}

Fwk::Ptr<TableInterfaceBase>
OrderedTableInterface::swTableIntf(const std::string &name) const {
  const auto *i = intfs_.find(name);
  return i ? *i : nullptr;
}

void OrderedTableInterface::initialReplayDoneIs(bool done) {
  if (done != initialReplayDone_) {
    initialReplayDone_ = done;
    notify(attrInitialReplayDone);
  }
}

std::uint32_t
OrderedTableInterface::finishInitialReplay(std::size_t *resourcesReleased) {
  Fwk::Ptr<OrderedTableInterface> self(this);
  std::uint32_t swept = 0;
  std::size_t released = 0;
  for (const auto &g : groupIntfList()) {
    swept += g->sweepAll();
    released += g->releaseUnclaimedResources();
  }
  if (resourcesReleased) {
    *resourcesReleased = released;
  }
  initialReplayDoneIs(true);
  return swept;
}

namespace {
Fwk::Ptr<SwTableInterfacesSingleton> &registry() {
  static Fwk::Ptr<SwTableInterfacesSingleton> r;
  return r;
}
} // namespace

Fwk::Ptr<SwTableInterfacesSingleton>
SwTableInterfacesSingleton::swTableInterfacesSingletonIs() {
  auto &r = registry();
  if (!r) {
    r = Fwk::make<SwTableInterfacesSingleton>();
  }
  return r;
}

Fwk::Ptr<SwTableInterfacesSingleton>
SwTableInterfacesSingleton::swTableInterfacesSingleton() {
  return registry();
}

SwTableInterfacesSingleton::~SwTableInterfacesSingleton() = default;

Fwk::Ptr<TableInterfaceBase>
SwTableInterfacesSingleton::swTableIntf(const std::string &name) const {
  const auto *i = intfs_.find(name);
  return i ? *i : nullptr;
}

void SwTableInterfacesSingleton::swTableIntfIs(
    const std::string &name, const Fwk::Ptr<TableInterfaceBase> &intf) {
  intfs_.insert(name, intf);
}

void SwTableInterfacesSingleton::swTableIntfDel(const std::string &name) {
  Fwk::Ptr<TableInterfaceBase> gone;
  intfs_.take(name, gone);
}

} // namespace Asic
