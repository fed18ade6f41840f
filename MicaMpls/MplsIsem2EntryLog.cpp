#include "MicaMpls/MplsIsem2EntryLog.h"

namespace MicaMpls {

namespace {
// Registered when the library is loaded.
const Asic::EntryLogMessages kMessages = Asic::registerEntryLogMessages();
const Shm::EntityTypeRegistrar<MplsIsem2ConfigSlate> kConfigSlateType;
const Shm::EntityTypeRegistrar<MplsIsem2EntryLogSlate> kEntryLogSlateType;
} // namespace

MplsIsem2EntryLog::MplsIsem2EntryLog(
    Asic::SwTableId tableId, const Fwk::Ptr<StateDb::EntityManager> &entityManager,
    const Fwk::Ptr<Asic::GroupInterface> &groupInterface, std::string agentName)
    : OrderedEntryLog(tableId, entityManager, groupInterface,
                      std::move(agentName), kMessages) {}

MplsIsem2EntryLog::~MplsIsem2EntryLog() = default;

} // namespace MicaMpls
