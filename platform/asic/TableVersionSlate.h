// The versions the hardware writer has taken, one record per table type:
// the hardware writer keeps them in its own shared-memory instance, and the
// agents read them there (read-only) to learn how far the hardware has got,
// also across their own restarts.
//
//   // hardware writer (its own instance, writer access):
//   auto versions = Asic::mountTableVersionSlate(Shm::entityManager("mpls-hw", 0), "MicaMpls");
//   versions->tableVersionIs(tableId, 42);
//   // agent (the writer's instance, read access):
//   auto seen = Asic::mountTableVersionSlate(
//       Shm::entityManager("mpls-hw", 0, Shm::Access::read), "MicaMpls");
//   groupInterface->tableVersionSlateIs(seen);
//   groupInterface->hwTableVersion(tableId);   // 42
#pragma once

#include <cstdint>
#include <optional>
#include <string>

#include "platform/Export.h"
#include "platform/asic/Types.h"
#include "platform/shm/OneCollectionEntity.h"

namespace Asic {

struct TableVersionRecord {
  std::uint32_t tableId = 0; // the packed SwTableId
  std::uint32_t pad = 0;
  LogVersion version = 0;
};

struct TableVersionRecordTraits {
  using Key = std::uint32_t;
  using Record = TableVersionRecord;
  static Key keyOf(const Record &r) noexcept { return r.tableId; }
  static constexpr const char *kRecordName = "Asic::TableVersionRecord";
  static constexpr std::uint32_t kRecordVersion = 1;
};

struct TableVersionSlateNames {
  static constexpr const char *kTypeName = "Asic::TableVersionSlate";
  static constexpr const char *kCollection = "tableVersion";
  static constexpr std::uint32_t kCapacity = 256;
};

class MICA_PLATFORM_API TableVersionSlate
    : public Shm::OneCollectionEntity<TableVersionRecordTraits, TableVersionSlateNames> {
public:
  using OneCollectionEntity::OneCollectionEntity;

  // Where a group's table versions live in an instance.
  static std::string path(const std::string &groupName);

  Collection &tableVersion() noexcept { return collection_; }
  const Collection &tableVersion() const noexcept { return collection_; }
  // Records the version the hardware has taken of a table type (writer).
  void tableVersionIs(SwTableId tableId, LogVersion version);
};

// Mounts a group's table versions in an instance, with the handle's access.
// Throws the store's errors (a reader gets Shm::NotFoundError when the
// hardware writer has not created them yet).
MICA_PLATFORM_API Fwk::Ptr<TableVersionSlate>
mountTableVersionSlate(const Fwk::Ptr<Shm::EntityManager> &em,
                       const std::string &groupName);

} // namespace Asic
