#include "tools/hw/HwStore.h"

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstddef>

#include "platform/shm/Format.h"

namespace MicaMplsHw {

std::uint64_t sourceIdOf(const Shm::Entity &entity) {
  const int fd =
      ::open(entity.fileName().c_str(), O_RDONLY | O_NOFOLLOW | O_CLOEXEC);
  if (fd < 0) {
    return 0;
  }
  std::uint64_t seed = 0;
  const ssize_t n = ::pread(fd, &seed, sizeof seed,
                            offsetof(Shm::format::FileHeader, hashSeed));
  ::close(fd);
  if (n != static_cast<ssize_t>(sizeof seed)) {
    return 0;
  }
  return seed == 0 ? 1 : seed; // 0 means "none" in a FollowRecord
}

std::vector<Asic::UnitId> unitsIn(const Shm::EntityManager &em,
                                  const std::string &base) {
  std::vector<Asic::UnitId> out;
  for (const std::string &p : em.entityPaths(base)) {
    // Only direct children named by a number are units.
    if (p.size() > base.size() && p.compare(0, base.size(), base) == 0 &&
        p[base.size()] == '/' &&
        p.find('/', base.size() + 1) == std::string::npos) {
      if (auto u = Asic::Constants::getUnitIdFromConfigPath(p)) {
        out.push_back(*u);
      }
    }
  }
  std::sort(out.begin(), out.end());
  return out;
}

std::int64_t nowNs() {
  return std::chrono::duration_cast<std::chrono::nanoseconds>(
             std::chrono::system_clock::now().time_since_epoch())
      .count();
}

HwStore::HwStore(const std::string &agentName, std::uint32_t capacity)
    : em_(Shm::entityManager(hwInstanceName(agentName), 0, Shm::Access::write)),
      capacity_(capacity) {
  ensureEntityType<FollowSlate>();
  // The refusals before the versions: an agent that finds versions finds
  // the refusals beside them.
  refusals_ = Asic::mountHwRefusalSlate(em_, kGroup);
  versions_ = Asic::mountTableVersionSlate(em_, kGroup);
  follow_ = Shm::mountOne<FollowSlate>(em_, FollowSlate::path());
  if (refusals_->hwRefused().control().wiped()) {
    // Refusals lost: the published versions would report refused changes
    // as taken. Without them every follower rebuilds its tables, which
    // records what the tables refuse again.
    auto &versions = versions_->tableVersion();
    for (auto k = versions.firstKey(); k; k = versions.nextKey(*k)) {
      versions.erase(*k);
    }
    refusals_->hwRefused().control().clearWiped();
  }
  // Lost versions or follow records read as absent, which makes every
  // follower rebuild its tables: nothing else needs the flags.
  versions_->tableVersion().control().clearWiped();
  follow_->follow().control().clearWiped();
}

HwStore::~HwStore() {
  refusals_ = nullptr;
  follow_ = nullptr;
  versions_ = nullptr;
  em_->close();
}

std::optional<Asic::LogVersion> HwStore::published(Asic::SwTableId tableId) {
  Asic::TableVersionRecord r;
  if (versions_->tableVersion().findOrDrop(tableId.packed(), r)) {
    return r.version;
  }
  return std::nullopt;
}

FollowRecord HwStore::followRecord(Asic::SwTableId tableId) {
  FollowRecord r;
  if (!follow_->follow().findOrDrop(tableId.packed(), r)) {
    r = FollowRecord{};
    r.tableId = tableId.packed();
  }
  return r;
}

void HwStore::publish(Asic::SwTableId tableId, Asic::LogVersion version,
                      FollowRecord record) {
  record.tableId = tableId.packed();
  record.updatedTimeNs = nowNs();
  follow_->follow().insert(record);
  versions_->tableVersionIs(tableId, version);
}

} // namespace MicaMplsHw
