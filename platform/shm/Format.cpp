#include "platform/shm/Format.h"

#include <fmt/format.h>
#include <xxhash.h>
#if defined(__x86_64__)
#include <xxh_x86dispatch.h>
#endif

#include <cstring>

namespace Shm::format {

namespace {

constexpr std::uint64_t roundUp(std::uint64_t v, std::uint64_t to) noexcept {
  return (v + to - 1) / to * to;
}

bool terminated(const char *s, std::size_t n) noexcept {
  return std::memchr(s, '\0', n) != nullptr;
}

} // namespace

void computeOffsets(FileHeader &h) noexcept {
  const std::uint32_t n = std::min(h.collectionCount, kMaxCollections);
  std::uint64_t off =
      roundUp(kHeaderSize + std::uint64_t{n} * sizeof(ControlBlock), kPageSize);
  for (std::uint32_t i = 0; i < n; ++i) {
    CollectionDesc &d = h.collections[i];
    d.slotSize = slotSizeFor(d.recordSize);
    d.slotCount = d.capacity + 1;
    d.controlOffset = kHeaderSize + std::uint64_t{i} * sizeof(ControlBlock);
    d.slotsOffset = off;
    d.slotsBytes = std::uint64_t{d.slotSize} * d.slotCount;
    off = roundUp(off + d.slotsBytes, kPageSize);
  }
  h.fileSize = off;
}

std::uint64_t recordChecksum(const void *record, std::size_t size,
                             std::uint64_t seal) noexcept {
#if defined(__x86_64__)
  return XXH3_64bits_withSeed_dispatch(record, size, seal);
#else
  return XXH3_64bits_withSeed(record, size, seal);
#endif
}

std::uint64_t headerChecksum(const FileHeader &h) noexcept {
  return Fwk::hashBytes64(&h, offsetof(FileHeader, checksum), kHeaderSeed);
}

bool headerUsable(const FileHeader &h, std::uint64_t statSize,
                  std::string &why) {
  if (std::memcmp(h.magic, kMagic, sizeof kMagic) != 0) {
    why = "bad magic";
    return false;
  }
  if (h.formatVersion != kFormatVersion || h.headerSize != kHeaderSize) {
    why = fmt::format("format version {} / header size {} not supported",
                      h.formatVersion, h.headerSize);
    return false;
  }
  if (headerChecksum(h) != h.checksum) {
    why = "header checksum mismatch";
    return false;
  }
  if (h.collectionCount == 0 || h.collectionCount > kMaxCollections) {
    why = fmt::format("bad collection count {}", h.collectionCount);
    return false;
  }
  if (!terminated(h.typeName, sizeof h.typeName)) {
    why = "type name not terminated";
    return false;
  }
  FileHeader expect = h;
  for (std::uint32_t i = 0; i < h.collectionCount; ++i) {
    const CollectionDesc &d = h.collections[i];
    if (!terminated(d.name, sizeof d.name) ||
        !terminated(d.recordName, sizeof d.recordName)) {
      why = fmt::format("collection {}: name not terminated", i);
      return false;
    }
    if (d.capacity == 0 || d.capacity > kMaxCapacity || d.recordSize == 0 ||
        d.recordSize > kMaxRecordSize || d.keySize == 0 ||
        d.keySize > d.recordSize) {
      why = fmt::format("collection {}: bad sizes (capacity {}, record {}, "
                        "key {})",
                        i, d.capacity, d.recordSize, d.keySize);
      return false;
    }
  }
  computeOffsets(expect);
  if (std::memcmp(&expect, &h, sizeof h) != 0) {
    why = "collection offsets or file size inconsistent";
    return false;
  }
  if (h.fileSize != statSize) {
    why = fmt::format("file is {} bytes, its header says {}", statSize,
                      h.fileSize);
    return false;
  }
  return true;
}

} // namespace Shm::format
