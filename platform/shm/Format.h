// On-file layout of a shared-memory entity file. Internal: included by the
// writer (SlotWriter.h), the reader (SlotReader.h) and the mount code; users
// include platform/shm/Store.h.
//
// One file per entity. All integers are little-endian native words; every
// offset below is from the start of the file.
//
//   offset 0      FileHeader, 4096 bytes, written once when the file is
//                 created and never changed afterwards (a new layout is a new
//                 file renamed over the old one). Its last 8 bytes are an
//                 XXH3-64 checksum of the 4088 bytes before them.
//   offset 4096   ControlBlock[collectionCount], 64 bytes each (one cache
//                 line), then zero padding to the next 4096 boundary.
//   then          per collection, page-aligned: slotCount = capacity + 1
//                 slots of slotSize bytes each.
//
// FileHeader (offsets in bytes):
//      0  char[8]  magic "MicaShm1"
//      8  u32      formatVersion (1)
//     12  u32      headerSize (4096)
//     16  u64      fileSize: must equal the size fstat reports
//     24  u64      hashSeed: seeds the key hash of every collection's order,
//                  drawn at random when the file is created
//     32  u64      fingerprint of the layout (type name, collection names,
//                  record names, versions and sizes; not the capacities)
//     40  char[128] typeName, NUL-terminated, NUL-padded
//    168  u32      collectionCount (1..16)
//    172  u32      reserved, 0
//    176  CollectionDesc[16], 176 bytes each; unused ones are all zero
//   2992  zero padding
//   4088  u64      checksum = XXH3-64(bytes [0, 4088), seed kHeaderSeed)
//
// CollectionDesc:
//      0  char[64] name, NUL-terminated      64  char[64] recordName
//    128  u32 recordVersion   132 u32 keySize   136 u32 recordSize
//    140  u32 slotSize        144 u32 capacity  148 u32 slotCount
//    152  u64 controlOffset   160 u64 slotsOffset   168 u64 slotsBytes
//
// ControlBlock (mutable; not covered by the header checksum; every word is
// read and written with single aligned 64-bit atomic accesses):
//      0  wiped       0 when clear; anything else reads as wiped (the
//                     writer stores kWipedMark)
//      8  scratchpad  the library's own word (its last log version)
//     16  highWater   number of slots in use: no slot at or beyond it holds
//                     a seal. Bumped before a slot beyond it is written; the
//                     writer's mount lowers it to just past the last slot
//                     that holds a record. Readers and the mount scan stop
//                     there, and never touch a slot beyond the file's size
//                     or past its last written page (see slotsInFile in
//                     Collection.h), whatever the word says.
//     24  commitSeq   (seq << 1) | busy: the sequence number of the last
//                     change, with bit 0 set while a change is being made.
//                     Lets readers tell whether a scan overlapped a change,
//                     and keeps sequence numbers growing across restarts.
//                     The mount trusts it only between the largest seal's
//                     sequence number and kSeqPlausible.
//     32  auxiliary   a second word of the library's own (the entry log:
//                     the version of its last complete change)
//     40  epoch       a third word of the library's own (the entry log: the
//                     version at which it last asked the hardware writer to
//                     rebuild its tables; 0 in files made before it existed)
//     48  reserved[2] 0
//
// Slot (slotSize = 16 + recordSize rounded up to 8):
//      0  u64 seal      0 = free. Otherwise kSealTag in the top byte and a
//                       56-bit commit sequence number (never 0) below it.
//      8  u64 checksum  XXH3-64 of the record bytes, seeded with the seal
//     16  record bytes, then zero padding to the 8-byte boundary (never
//                       written, so always zero)
//
// Sequence numbers are per collection and only grow (56 bits last centuries
// at millions of changes a second; an insert that would need a 57th bit
// throws instead of storing a seal that wrapped). A record is live exactly
// when its seal carries the tag and its checksum matches; binding the seal
// into the checksum means a stale checksum of an earlier occupant of the
// slot never matches a newer seal.
#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <string>

#include "platform/Export.h"
#include "platform/framework/Hash.h"

namespace Shm::format {

inline constexpr char kMagic[8] = {'M', 'i', 'c', 'a', 'S', 'h', 'm', '1'};
inline constexpr std::uint32_t kFormatVersion = 1;
inline constexpr std::size_t kPageSize = 4096;
inline constexpr std::size_t kHeaderSize = 4096;
inline constexpr std::uint32_t kMaxCollections = 16;
inline constexpr std::size_t kNameSize = 64;
inline constexpr std::size_t kTypeNameSize = 128;
// Bounds that keep every offset computation far from overflow.
inline constexpr std::uint32_t kMaxCapacity = 1u << 28;
inline constexpr std::uint32_t kMaxRecordSize = 1u << 20;
inline constexpr std::uint64_t kHeaderSeed = 0x4d69636153686d31ull;

// The top byte of every live seal. A single flipped bit cannot turn a free
// slot (0) into a plausible seal, nor a seal into another tagged one with a
// matching checksum.
inline constexpr std::uint64_t kSealTag = 0xA5ull << 56;
inline constexpr std::uint64_t kTagMask = 0xFFull << 56;
inline constexpr std::uint64_t kSeqMask = (1ull << 56) - 1;
inline constexpr std::uint64_t kWipedMark = 0x5769706564215749ull;
// More changes than a collection makes in a century at a million a second: a
// commit word beyond it was damaged, not counted up to.
inline constexpr std::uint64_t kSeqPlausible = 1ull << 52;

inline constexpr bool sealValid(std::uint64_t seal) noexcept {
  return (seal & kTagMask) == kSealTag && (seal & kSeqMask) != 0;
}
inline constexpr std::uint64_t sealOf(std::uint64_t seq) noexcept {
  return kSealTag | (seq & kSeqMask);
}

struct CollectionDesc {
  char name[kNameSize];
  char recordName[kNameSize];
  std::uint32_t recordVersion;
  std::uint32_t keySize;
  std::uint32_t recordSize;
  std::uint32_t slotSize;
  std::uint32_t capacity;
  std::uint32_t slotCount;
  std::uint64_t controlOffset;
  std::uint64_t slotsOffset;
  std::uint64_t slotsBytes;
};
static_assert(sizeof(CollectionDesc) == 176, "the layout above is the format");

struct FileHeader {
  char magic[8];
  std::uint32_t formatVersion;
  std::uint32_t headerSize;
  std::uint64_t fileSize;
  std::uint64_t hashSeed;
  std::uint64_t fingerprint;
  char typeName[kTypeNameSize];
  std::uint32_t collectionCount;
  std::uint32_t reserved;
  CollectionDesc collections[kMaxCollections];
  unsigned char padding[4088 - 176 - 176 * kMaxCollections];
  std::uint64_t checksum;
};
static_assert(sizeof(FileHeader) == kHeaderSize,
              "the layout above is the format");
static_assert(offsetof(FileHeader, collections) == 176);
static_assert(offsetof(FileHeader, checksum) == 4088);

struct ControlBlock {
  std::uint64_t wiped;
  std::uint64_t scratchpad;
  std::uint64_t highWater;
  std::uint64_t commitSeq;
  std::uint64_t auxiliary;
  std::uint64_t epoch;
  std::uint64_t reserved[2];
};
static_assert(sizeof(ControlBlock) == 64, "one cache line per collection");

struct SlotHeader {
  std::uint64_t seal;
  std::uint64_t checksum;
};
inline constexpr std::size_t kSlotHeaderSize = sizeof(SlotHeader);

// The 64-bit words of the file are accessed atomically in place.
static_assert(std::atomic_ref<std::uint64_t>::is_always_lock_free,
              "seals and control words need lock-free 64-bit atomics");

inline constexpr std::uint32_t slotSizeFor(std::uint32_t recordSize) noexcept {
  return static_cast<std::uint32_t>(kSlotHeaderSize +
                                    ((recordSize + 7u) & ~7u));
}

// The checksum of a record stored under a seal: XXH3-64 of the record bytes
// seeded with the seal (the widest vector unit of the CPU computes it; the
// value is the same on every CPU).
MICA_PLATFORM_API std::uint64_t recordChecksum(const void *record,
                                               std::size_t size,
                                               std::uint64_t seal) noexcept;

// Fills in slotSize, slotCount and the offsets of every collection of `h`
// (name, record sizes and capacity already set) and h.fileSize.
MICA_PLATFORM_API void computeOffsets(FileHeader &h) noexcept;

// The header checksum as stored at offset 4088.
MICA_PLATFORM_API std::uint64_t headerChecksum(const FileHeader &h) noexcept;

// Whether `h` is a well-formed header of a file of `statSize` bytes: magic,
// version, checksum, counts, NUL-terminated names, sizes within bounds and
// every offset exactly where computeOffsets puts it. On false, `why` says
// what is wrong.
MICA_PLATFORM_API bool headerUsable(const FileHeader &h, std::uint64_t statSize,
                                    std::string &why);

} // namespace Shm::format
