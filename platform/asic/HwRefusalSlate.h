// The changes the hardware refused, one record per table type, unit and key:
// the hardware writer keeps them in its own shared-memory instance beside
// the table versions, and the agents read them there (read-only). A record
// says that the hardware does not hold the key's committed entry. A change
// the hardware refused is never reported done: the table that logged it
// fails its handle when the hardware's version passes it (refusedChange), and
// an identical write of the key is logged again rather than suppressed, so
// that the writer tries it again.
//
// The writer records a refusal before it publishes the version that covers
// it, and forgets it when a later change of the key is applied (a write that
// fits, a deletion, a deletion of the table) or a rebuild of the unit's table
// puts the key in. A refusal by a rebuild from the agent's configuration
// carries the version the rebuild published and covers every change of the
// key up to it: those were taken by the rebuild, and the key is not in.
//
//   // hardware writer (its own instance, writer access):
//   auto refused = Asic::mountHwRefusalSlate(em, "MicaMpls");
//   refused->refusalIs({tableId, unit, key.packed()}, version,
//                      Asic::HwRefusal::tableFull, /*byRebuild*/ false);
//   refused->refusalDel({tableId, unit, key.packed()});   // applied since
//   // agent (the writer's instance, read access): through its group
//   groupInterface->hwRefusal(tableId, unit, key.packed());
//
// Record layout (explicit padding, always zero):
//   key    tableId u32 | unit u16 | pad u16 | key u64          = 16 bytes
//   record key | logVersion u64 | reason u32 | byRebuild u32   = 32 bytes
// `key` is the table key packed into 64 bits (its packed()), `logVersion`
// the version of the change refused, or with `byRebuild` 1 the version the
// rebuild that refused the key published.
#pragma once

#include <cstdint>
#include <string>

#include "platform/Export.h"
#include "platform/asic/Types.h"
#include "platform/shm/OneCollectionEntity.h"

namespace Asic {

struct HwRefusalKey {
  std::uint32_t tableId = 0; // the packed SwTableId
  std::uint16_t unit = 0;
  std::uint16_t pad = 0;
  std::uint64_t key = 0;
  bool operator==(const HwRefusalKey &) const = default;
};

// Why the hardware refused a change.
enum class HwRefusal : std::uint32_t {
  none = 0,
  tableFull = 1, // a new key into a full hardware table
};
MICA_PLATFORM_API const char *hwRefusalText(std::uint32_t reason) noexcept;

struct HwRefusalRecord {
  HwRefusalKey at;
  LogVersion logVersion = 0;
  std::uint32_t reason = 0;
  std::uint32_t byRebuild = 0; // 1: refused by a rebuild of the table

  // Whether the change of the key logged under `version` is one the hardware
  // refused.
  bool refusedChange(LogVersion version) const noexcept {
    return byRebuild != 0 ? version <= logVersion : version == logVersion;
  }
};
static_assert(sizeof(HwRefusalRecord) == 32,
              "the layout at the top of the file");

struct HwRefusalRecordTraits {
  using Key = HwRefusalKey;
  using Record = HwRefusalRecord;
  static Key keyOf(const Record &r) noexcept { return r.at; }
  static constexpr const char *kRecordName = "Asic::HwRefusalRecord";
  static constexpr std::uint32_t kRecordVersion = 1;
};

struct HwRefusalSlateNames {
  static constexpr const char *kTypeName = "Asic::HwRefusalSlate";
  static constexpr const char *kCollection = "hwRefused";
  static constexpr std::uint32_t kCapacity = 1u << 18;
};

class MICA_PLATFORM_API HwRefusalSlate
    : public Shm::OneCollectionEntity<HwRefusalRecordTraits,
                                      HwRefusalSlateNames> {
public:
  using OneCollectionEntity::OneCollectionEntity;

  // Where a group's refusals live in an instance.
  static std::string path(const std::string &groupName);

  Collection &hwRefused() noexcept { return collection_; }
  const Collection &hwRefused() const noexcept { return collection_; }
  // Writer: records a refusal (replacing an older one of the key). Throws
  // Shm::CollectionFullError when no record is left for a new key.
  void refusalIs(const HwRefusalKey &at, LogVersion version, HwRefusal reason,
                 bool byRebuild);
  // Writer: forgets the refusal of a key, if any. Cheap when there is none.
  void refusalDel(const HwRefusalKey &at);
  // Writer: forgets every refusal of a table type's unit.
  void refusalDelUnit(std::uint32_t tableId, UnitId unit);
};

// Mounts a group's refusals in an instance, with the handle's access.
// Throws the store's errors (a reader gets Shm::NotFoundError when the
// hardware writer has not created them yet).
MICA_PLATFORM_API Fwk::Ptr<HwRefusalSlate>
mountHwRefusalSlate(const Fwk::Ptr<Shm::EntityManager> &em,
                    const std::string &groupName);

} // namespace Asic
