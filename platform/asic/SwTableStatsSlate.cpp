#include "platform/asic/SwTableStatsSlate.h"

#include <chrono>

#include "platform/asic/Constants.h"

namespace Asic {

namespace {
const Shm::EntityTypeRegistrar<SwTableStatsSlate> kSwTableStatsSlateType;

std::int64_t nanosSinceEpoch(SwTableStats::Clock::time_point t) {
  return std::chrono::duration_cast<std::chrono::nanoseconds>(
             t.time_since_epoch())
      .count();
}
} // namespace

std::string SwTableStatsSlate::path(const std::string &groupName) {
  return "ordered/" + Constants::canonicalizeGroupName(groupName) +
         "/swTableStats";
}

void SwTableStatsSlate::swTableStatsIs(SwTableId tableId, UnitId unitId,
                                       const SwTableStats &s,
                                       bool pendingHwWrites) {
  SwTableStatsRecord r;
  r.key = SwTableStatsRecord::recordKey(tableId, unitId);
  r.tableId = tableId.packed();
  r.unitId = unitId;
  r.pendingHwWrites = pendingHwWrites ? 1 : 0;
  using C = SwTableStatsRecord;
  r.counters[C::entryWriteCnt] = s.entryWriteCnt();
  r.counters[C::entryRemoveCnt] = s.entryRemoveCnt();
  r.counters[C::resolveFailCnt] = s.resolveFailCnt();
  r.counters[C::tableClearCnt] = s.tableClearCnt();
  r.counters[C::commitCnt] = s.commitCnt();
  r.counters[C::suppressedWriteCnt] = s.suppressedWriteCnt();
  r.counters[C::suppressCheckDiffCnt] = s.suppressCheckDiffCnt();
  r.counters[C::updateCnt] = s.updateCnt();
  r.counters[C::updateWithFailedResourceCnt] = s.updateWithFailedResourceCnt();
  r.counters[C::logRefusedCnt] = s.logRefusedCnt();
  r.counters[C::hwRefusedCnt] = s.hwRefusedCnt();
  if (s.lastCommitTime() != SwTableStats::Clock::time_point{}) {
    r.lastCommitTimeNs = nanosSinceEpoch(s.lastCommitTime());
  }
  r.publishedTimeNs = nanosSinceEpoch(SwTableStats::Clock::now());
  collection_.insert(r);
}

Fwk::Ptr<SwTableStatsSlate>
mountSwTableStatsSlate(const Fwk::Ptr<Shm::EntityManager> &em,
                       const std::string &groupName) {
  return Shm::mountOne<SwTableStatsSlate>(em, SwTableStatsSlate::path(groupName));
}

} // namespace Asic
