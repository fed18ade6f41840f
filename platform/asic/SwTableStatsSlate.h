// The counters of an agent's software tables, published in the agent's own
// shared-memory instance so that operators' tools can read them without
// asking the agent: one record per table type and unit.
//
//   // agent (writer of its instance), now and then and before it exits:
//   auto slate = Asic::mountSwTableStatsSlate(
//       Shm::entityManager("mpls-agent", 0), "MicaMpls");
//   slate->swTableStatsIs(table->swTableId(), table->unitId(),
//                         *table->stats(), table->hasPendingHwWrites());
//   // inspector (read access):
//   auto ro = Asic::mountSwTableStatsSlate(
//       Shm::entityManager("mpls-agent", 0, Shm::Access::read), "MicaMpls");
//   ro->swTableStats().forEach([](const Asic::SwTableStatsRecord &r) { ... });
//
// The records are a snapshot taken when the agent published them; the
// publication time is in each record.
#pragma once

#include <cstdint>
#include <string>

#include "platform/Export.h"
#include "platform/asic/OrderedSwTable.h"
#include "platform/shm/OneCollectionEntity.h"

namespace Asic {

struct SwTableStatsRecord {
  // Which counter is at which index of `counters`.
  enum Counter : std::uint32_t {
    entryWriteCnt,
    entryRemoveCnt,
    resolveFailCnt,
    tableClearCnt,
    commitCnt,
    suppressedWriteCnt,
    suppressCheckDiffCnt,
    updateCnt,
    updateWithFailedResourceCnt,
    logRefusedCnt,
    hwRefusedCnt,
    kCounters
  };
  static constexpr const char *kCounterNames[kCounters] = {
      "entryWriteCnt",        "entryRemoveCnt", "resolveFailCnt",
      "tableClearCnt",        "commitCnt",      "suppressedWriteCnt",
      "suppressCheckDiffCnt", "updateCnt",      "updateWithFailedResourceCnt",
      "logRefusedCnt",        "hwRefusedCnt"};

  std::uint64_t key = 0;     // recordKey(tableId, unitId)
  std::uint32_t tableId = 0; // the packed SwTableId
  std::uint16_t unitId = 0;
  std::uint8_t pendingHwWrites = 0;
  std::uint8_t pad = 0;
  std::uint64_t counters[kCounters] = {};
  std::int64_t lastCommitTimeNs = 0; // UTC, ns since the epoch; 0: none
  std::int64_t publishedTimeNs = 0;  // UTC, ns since the epoch

  static constexpr std::uint64_t recordKey(SwTableId id, UnitId unit) noexcept {
    return std::uint64_t{id.packed()} << 16 | unit;
  }
};

struct SwTableStatsRecordTraits {
  using Key = std::uint64_t;
  using Record = SwTableStatsRecord;
  static Key keyOf(const Record &r) noexcept { return r.key; }
  static constexpr const char *kRecordName = "Asic::SwTableStatsRecord";
  static constexpr std::uint32_t kRecordVersion = 2;
};

struct SwTableStatsSlateNames {
  static constexpr const char *kTypeName = "Asic::SwTableStatsSlate";
  static constexpr const char *kCollection = "swTableStats";
  static constexpr std::uint32_t kCapacity = 1024;
};

class MICA_PLATFORM_API SwTableStatsSlate
    : public Shm::OneCollectionEntity<SwTableStatsRecordTraits, SwTableStatsSlateNames> {
public:
  using OneCollectionEntity::OneCollectionEntity;

  // Where a group's table counters live in an agent's instance.
  static std::string path(const std::string &groupName);

  Collection &swTableStats() noexcept { return collection_; }
  const Collection &swTableStats() const noexcept { return collection_; }
  // Publishes one table's counters (writer).
  void swTableStatsIs(SwTableId tableId, UnitId unitId, const SwTableStats &stats,
                      bool pendingHwWrites);
};

// Mounts a group's table counters in an instance, with the handle's access.
// Throws the store's errors (a reader gets Shm::NotFoundError before the
// agent published anything).
MICA_PLATFORM_API Fwk::Ptr<SwTableStatsSlate>
mountSwTableStatsSlate(const Fwk::Ptr<Shm::EntityManager> &em,
                       const std::string &groupName);

} // namespace Asic
