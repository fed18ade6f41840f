// The L2-adjacency-to-FEC resource table (MicaAdjLib): maps each L2
// adjacency its clients request to the FEC that forwards to it.
#pragma once

#include <cstdint>

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

// Changes of an adjacency's FEC are announced as attribute 517 of its handle.
class MICA_PLATFORM_API L2AdjToFecResourceTableResourceTable
    : public Asic::ResourceTable<L2AdjToFecResourceTableEntryKey,
                                 L2AdjToFecData, 517> {
public:
  using Asic::ResourceTable<L2AdjToFecResourceTableEntryKey, L2AdjToFecData,
                            517>::ResourceTable;

private:
  ~L2AdjToFecResourceTableResourceTable() override = default;
};

} // namespace MicaAdjLib
