#include "platform/asic/EntryLogBase.h"

#include <cstdlib>

namespace Asic {

Fwk::Ptr<Shm::EntityManager>
agentShmEntityManager(const StateDb::EntityManager &entityManager) {
  const std::uint32_t instance =
      std::getenv("NOT_LOCAL_EM") ? 0 : entityManager.instanceId();
  return Shm::entityManager(entityManager.name(), instance, Shm::Access::write);
}

EntryLogBase::EntryLogBase(SwTableId tableId,
                           Fwk::Ptr<StateDb::EntityManager> entityManager,
                           Fwk::Ptr<GroupInterface> groupInterface,
                           std::string agentName)
    : WaitPoint(WaitKind::logRoom), tableId_(tableId),
      entityManager_(std::move(entityManager)),
      groupInterface_(std::move(groupInterface)),
      agentName_(std::move(agentName)) {}

EntryLogBase::~EntryLogBase() = default;

} // namespace Asic
