#include "platform/asic/Constants.h"
#include "platform/records/MplsIsem2Records.h"
#include "platform/records/MplsLemRecords.h"

namespace MicaMpls {

namespace {

template <typename C> std::string entryLogPath() {
  return Asic::Constants::canonicalGroupTableEntryLogSlatePath(
      Asic::Constants::canonicalizeGroupName(C::groupName), C::tableName);
}

template <typename C> std::string configPath(Asic::UnitId unit) {
  return Asic::Constants::configSlatePath(
      Asic::Constants::canonicalizeGroupName(C::groupName), C::tableName, unit);
}

} // namespace

std::string MplsIsem2Constants::tableEntryLogSlatePath() {
  return entryLogPath<MplsIsem2Constants>();
}
std::string MplsIsem2Constants::configSlatePath(Asic::UnitId unitId) {
  return configPath<MplsIsem2Constants>(unitId);
}
std::string MplsLemConstants::tableEntryLogSlatePath() {
  return entryLogPath<MplsLemConstants>();
}
std::string MplsLemConstants::configSlatePath(Asic::UnitId unitId) {
  return configPath<MplsLemConstants>(unitId);
}

} // namespace MicaMpls
