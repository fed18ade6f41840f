#include "platform/resource/InLifResourceTable.h"
#include "platform/resource/L2AdjToFecResourceTable.h"

namespace Asic {
ResourceTableBase::~ResourceTableBase() = default;
} // namespace Asic

namespace MicaTunnelNiLib {

bool InLifAllocator::allocate(const InLifEntryKey &key, const InLifClientData &cd,
                              InLifData &out) {
  if (failing_.contains(key)) {
    return false;
  }
  const auto index = pool_.take();
  if (!index) {
    return false;
  }
  out.inLif0Index = *index;
  out.inLif23Index = *index + k23Offset;
  out.clientData = cd;
  return true;
}

void InLifAllocator::free(const InLifEntryKey &, const InLifData &data) {
  pool_.give(data.inLif0Index);
}

bool InLifAllocator::claim(const InLifEntryKey &, const InLifData &data) {
  return data.inLif23Index == data.inLif0Index + k23Offset &&
         pool_.claim(data.inLif0Index);
}

InLifResourceTable::~InLifResourceTable() = default;

namespace {
const Shm::EntityTypeRegistrar<InLifResourceTable::Slate> kInLifSlateType;
} // namespace

} // namespace MicaTunnelNiLib

namespace MicaAdjLib {

bool L2AdjToFecAllocator::allocate(const L2AdjToFecResourceTableEntryKey &key,
                                   const Fwk::Unit &, L2AdjToFecData &out) {
  if (failing_.contains(key)) {
    return false;
  }
  const auto fec = pool_.take();
  if (!fec) {
    return false;
  }
  out.fecId = *fec;
  out.errorCode = 0;
  return true;
}

void L2AdjToFecAllocator::free(const L2AdjToFecResourceTableEntryKey &,
                               const L2AdjToFecData &data) {
  pool_.give(data.fecId);
}

bool L2AdjToFecAllocator::claim(const L2AdjToFecResourceTableEntryKey &,
                                const L2AdjToFecData &data) {
  return pool_.claim(data.fecId);
}

L2AdjToFecResourceTableResourceTable::~L2AdjToFecResourceTableResourceTable() =
    default;

namespace {
const Shm::EntityTypeRegistrar<L2AdjToFecResourceTableResourceTable::Slate>
    kL2AdjToFecSlateType;
} // namespace

} // namespace MicaAdjLib
