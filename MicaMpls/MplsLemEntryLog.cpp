#include "MicaMpls/MplsLemEntryLog.h"

namespace MicaMpls {

namespace {
// Registered when the library is loaded.
const Asic::EntryLogMessages kMessages = Asic::registerEntryLogMessages();
const Shm::EntityTypeRegistrar<MplsLemConfigSlate> kConfigSlateType;
const Shm::EntityTypeRegistrar<MplsLemEntryLogSlate> kEntryLogSlateType;
} // namespace

MplsLemEntryLog::MplsLemEntryLog(
    Asic::SwTableId tableId, const Fwk::Ptr<StateDb::EntityManager> &entityManager,
    const Fwk::Ptr<Asic::GroupInterface> &groupInterface, std::string agentName)
    : OrderedEntryLog(tableId, entityManager, groupInterface,
                      std::move(agentName), kMessages) {}

MplsLemEntryLog::~MplsLemEntryLog() = default;

} // namespace MicaMpls
