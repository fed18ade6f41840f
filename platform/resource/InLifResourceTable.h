// The in-LIF resource table (MicaTunnelNiLib): allocates ingress logical
// interfaces for the keys its clients request, and publishes each one's
// indexes through a resource handle.
#pragma once

#include <cstdint>

#include "platform/resource/ResourceHandle.h"
#include "platform/resource/ResourceTable.h"
#include "platform/resource/ResourceTypes.h"

namespace MicaTunnelNiLib {

// What an in-LIF resolves to: the two hardware indexes and the client data
// the in-LIF was programmed with.
struct InLifData {
  std::uint32_t inLif0Index = 0;
  std::uint32_t inLif23Index = 0;
  InLifClientData clientData;
};

// Changes of an in-LIF are announced as attribute 518 of its handle.
class MICA_PLATFORM_API InLifResourceTable
    : public Asic::ResourceTable<InLifEntryKey, InLifData, 518> {
public:
  using Asic::ResourceTable<InLifEntryKey, InLifData, 518>::ResourceTable;

private:
  ~InLifResourceTable() override = default;
};

} // namespace MicaTunnelNiLib
