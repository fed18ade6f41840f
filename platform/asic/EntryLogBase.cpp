#include "platform/asic/EntryLogBase.h"

namespace Asic {

EntryLogBase::EntryLogBase(SwTableId tableId,
                           Fwk::Ptr<StateDb::EntityManager> entityManager,
                           Fwk::Ptr<GroupInterface> groupInterface,
                           std::string agentName)
    : tableId_(tableId), entityManager_(std::move(entityManager)),
      groupInterface_(std::move(groupInterface)),
      agentName_(std::move(agentName)) {}

EntryLogBase::~EntryLogBase() = default;

} // namespace Asic
