// Writes one ISEM2 entry through an installed libMicaMplsSwBundleSwTable and
// follows it to the entry log and back.
#include <cstdio>

#include "MicaMpls/MplsIsem2EntryLog.h"
#include "MicaMpls/MplsIsem2SwTable.h"
#include "MicaMpls/Version.h"
#include "platform/statedb/EntityManager.h"

int main() {
  using namespace MicaMpls;
  auto stateDb = StateDb::entityManagerIs("consumer", 0);
  const Asic::SwTableId id(MplsIsem2Constants::swTableTypeId);
  auto log = mplsIsem2EntryLogFactory(id, stateDb, nullptr, "consumer");
  log->mountSlateConfig(1, 0);
  auto status = Fwk::make<Asic::OrderedSwTableStatus>(id);
  auto set = Fwk::make<Asic::OrderedSwTableSet>(id, status);
  auto resolver = Fwk::make<Asic::GroupResolver>();
  auto table = mplsIsem2SwTableFactory(
      Asic::CanonicalTableName::canonicalTableNameIs(
          Asic::CanonicalTableName::softwareTable, "MicaMpls", "MplsIsem2"),
      id, 1, set.ptr(), log, resolver);
  MplsIsem2Entry e;
  e.inLif0Index = 7;
  auto handle = table->entryWrite(MplsIsem2EntryKey(100), e, nullptr);
  resolver->runPass();
  table->tableStatusVersion(handle->logVersion());
  const bool ok = handle->entryState() == Asic::EntryState::finished &&
                  table->entryHas(MplsIsem2EntryKey(100)) && table->entrys() == 1;
  std::printf("libMicaMplsSwBundleSwTable %s: %s\n",
              std::string(libraryVersion()).c_str(), ok ? "ok" : "FAILED");
  return ok ? 0 : 1;
}
