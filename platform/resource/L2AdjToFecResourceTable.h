// The L2-adjacency-to-FEC resource table (MicaAdjLib): maps each L2
// adjacency its clients request to the FEC that forwards to it. Changes of
// an adjacency's FEC are announced as attribute 517 of its handle. Requests
// carry no client data.
#pragma once

#include <cstdint>

#include "platform/framework/HashMap.h"
#include "platform/resource/IndexPool.h"
#include "platform/resource/ResourceHandle.h"
#include "platform/resource/ResourceTable.h"
#include "platform/resource/ResourceTypes.h"

namespace MicaAdjLib {

// What an adjacency resolves to: its FEC and the error code of the FEC's
// programming (0 when it is fine).
struct L2AdjToFecData {
  std::uint32_t fecId = 0;
  std::uint32_t errorCode = 0;
};

// Simulated FEC allocation: FEC ids from a pool; adjacencies can be made to
// fail.
class MICA_PLATFORM_API L2AdjToFecAllocator
    : public Asic::ResourceAllocator<L2AdjToFecResourceTableEntryKey,
                                     L2AdjToFecData, Fwk::Unit> {
public:
  static constexpr std::uint32_t kFirstFec = 0x20000;

  explicit L2AdjToFecAllocator(std::uint32_t capacity)
      : pool_(kFirstFec, capacity) {}
  bool allocate(const L2AdjToFecResourceTableEntryKey &key, const Fwk::Unit &,
                L2AdjToFecData &out) override;
  void free(const L2AdjToFecResourceTableEntryKey &key,
            const L2AdjToFecData &data) override;
  bool claim(const L2AdjToFecResourceTableEntryKey &key,
             const L2AdjToFecData &data) override;
  std::size_t inUse() const override { return pool_.inUse(); }
  void failingKeyIs(const L2AdjToFecResourceTableEntryKey &key) {
    failing_.insert(key);
  }
  void failingKeyDel(const L2AdjToFecResourceTableEntryKey &key) {
    failing_.erase(key);
  }

private:
  Asic::IndexPool pool_;
  Fwk::HashSet<L2AdjToFecResourceTableEntryKey> failing_;
};

// How the adjacency table's allocations are named in the store.
struct L2AdjToFecAllocationNames {
  static constexpr const char *kSlateType =
      "MicaAdjLib::L2AdjToFecAllocationSlate";
  static constexpr const char *kRecordName = "MicaAdjLib::L2AdjToFecAllocation";
};

class MICA_PLATFORM_API L2AdjToFecResourceTableResourceTable
    : public Asic::ResourceTable<L2AdjToFecResourceTableEntryKey,
                                 L2AdjToFecData, Fwk::Unit, 517,
                                 L2AdjToFecAllocationNames> {
public:
  explicit L2AdjToFecResourceTableResourceTable(
      Fwk::Ptr<const Asic::CanonicalTableName> name,
      std::uint32_t capacity = 65536)
      : ResourceTable(std::move(name), allocator_), allocator_(capacity) {
    capacityIs(capacity);
  }
  L2AdjToFecAllocator &fecAllocator() noexcept { return allocator_; }

private:
  ~L2AdjToFecResourceTableResourceTable() override;
  L2AdjToFecAllocator allocator_;
};

} // namespace MicaAdjLib
