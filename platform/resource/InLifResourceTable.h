// The in-LIF resource table (MicaTunnelNiLib): allocates ingress logical
// interfaces for the keys its clients request, and publishes each one's
// indexes and client data through a resource handle. Changes of an in-LIF
// are announced as attribute 518 of its handle.
//
//   auto inLifs = Fwk::make<MicaTunnelNiLib::InLifResourceTable>(
//       Asic::CanonicalTableName::canonicalTableNameIs(
//           Asic::CanonicalTableName::resourceTable, "MicaTunnelNiLib",
//           "InLif.featureMicaMpls"));
#pragma once

#include <cstdint>

#include "platform/framework/HashMap.h"
#include "platform/resource/IndexPool.h"
#include "platform/resource/ResourceHandle.h"
#include "platform/resource/ResourceTable.h"
#include "platform/resource/ResourceTypes.h"

namespace MicaTunnelNiLib {

// What an in-LIF resolves to: its two hardware indexes and the client data
// the in-LIF was programmed with.
struct InLifData {
  std::uint32_t inLif0Index = 0;
  std::uint32_t inLif23Index = 0;
  InLifClientData clientData;
};

// Simulated in-LIF allocation: in-LIF 0 indexes from a pool, the 2/3 index
// derived from it; keys can be made to fail, as a refusing chip would.
class MICA_PLATFORM_API InLifAllocator
    : public Asic::ResourceAllocator<InLifEntryKey, InLifData,
                                     InLifClientData> {
public:
  static constexpr std::uint32_t kFirstIndex = 0x1000;
  static constexpr std::uint32_t k23Offset = 0x100000;

  explicit InLifAllocator(std::uint32_t capacity)
      : pool_(kFirstIndex, capacity) {}
  bool allocate(const InLifEntryKey &key, const InLifClientData &cd,
                InLifData &out) override;
  void free(const InLifEntryKey &key, const InLifData &data) override;
  bool claim(const InLifEntryKey &key, const InLifData &data) override;
  std::size_t inUse() const override { return pool_.inUse(); }
  // Allocation of this key fails from now on.
  void failingKeyIs(const InLifEntryKey &key) { failing_.insert(key); }
  void failingKeyDel(const InLifEntryKey &key) { failing_.erase(key); }

private:
  Asic::IndexPool pool_;
  Fwk::HashSet<InLifEntryKey> failing_;
};

// How the in-LIF table's allocations are named in the store.
struct InLifAllocationNames {
  static constexpr const char *kSlateType =
      "MicaTunnelNiLib::InLifAllocationSlate";
  static constexpr const char *kRecordName = "MicaTunnelNiLib::InLifAllocation";
};

class MICA_PLATFORM_API InLifResourceTable
    : public Asic::ResourceTable<InLifEntryKey, InLifData, InLifClientData, 518,
                                 InLifAllocationNames> {
public:
  explicit InLifResourceTable(Fwk::Ptr<const Asic::CanonicalTableName> name,
                              std::uint32_t capacity = 65536)
      : ResourceTable(std::move(name), allocator_), allocator_(capacity) {
    capacityIs(capacity);
  }
  InLifAllocator &inLifAllocator() noexcept { return allocator_; }

private:
  ~InLifResourceTable() override;
  InLifAllocator allocator_;
};

} // namespace MicaTunnelNiLib
