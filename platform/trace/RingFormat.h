// On-file layout of the always-on message ring (<MICA_TRACE_FILE>.ring).
//
// Internal to libMicaPlatform: the writer (Ring.cpp, ringWrite) and the reader
// (Ring.cpp, readRing) both include this header; nobody else should depend
// on the layout. All integers are little-endian host order (the file is read
// on the machine that wrote it), all offsets are in bytes from the start of
// the file, every structure starts 8-byte aligned and padding is explicit.
//
//   offset 0                 RingHeader (64 bytes)
//   descriptorOffset (64)    DescriptorSlot[descriptorCapacity], 512 bytes each
//   entryOffset              RingEntry[entryCapacity], 64 bytes each
//
// Descriptors. A slot holds one message kind: its line, the number of its
// argument type codes and five NUL-terminated strings packed into text:
// source unit, class name, function, format, type codes. Slots are filled in
// order; descriptorCount says how many are in use. A slot is written in full
// and then its `ready` word is set to kSlotReady (release); descriptorCount is
// raised after that (release), so a reader that sees a slot below the count
// with kSlotReady may trust its text. Slots are never rewritten, and a kind
// already in the table (the same text and line, from an earlier run or
// another process) is reused rather than added again.
//
// Entries. writeIndex counts the entries ever claimed; entry i lives in slot
// i % entryCapacity (the capacity is a power of two, and a 64-bit index does
// not wrap in practice). A writer claims i with one atomic fetch-add on
// writeIndex (relaxed: the index orders nothing by itself), stores seq = 0,
// fences (release), writes the entry, then stores seq = i + 1 (release). A
// reader takes writeIndex (acquire) and trusts entry i only if its slot says
// seq == i + 1 both before and after it copied the entry: a slot that is
// being rewritten, or was overwritten by a later lap, fails that test and is
// left out.
//
// Processes. Any number of processes may append to one ring (several agents
// configured with the same trace file): each maps the file shared and claims
// entries with the atomic fetch-add above, so two writers never share a slot
// while the ring holds at least as many entries as writers in flight.
// Creating or repairing the file and adding descriptors happen under an
// exclusive flock() of the file, so they are serialised between processes;
// entry writes take no lock. A file whose header does not describe this
// layout (other magic or version, wrong sizes, shorter than it says) is
// re-created empty by the first writer that opens it. Truncating a ring file
// while a writer has it mapped would kill that writer (SIGBUS): delete the
// file instead, and writers start a new one when they are next configured.
#pragma once

#include <cstddef>
#include <cstdint>
#include <type_traits>

namespace Trace::ringfile {

inline constexpr char kMagic[8] = {'M', 'I', 'C', 'A', 'R', 'N', 'G', '1'};
inline constexpr std::uint32_t kVersion = 1;
inline constexpr std::uint32_t kSlotReady = 0x52454459; // "REDY"
inline constexpr std::size_t kMaxArgs = 4;

// What a new file is made with. A writer also accepts an existing file of
// another capacity as long as its header is consistent.
inline constexpr std::uint32_t kDefaultDescriptorCapacity = 256;
inline constexpr std::uint32_t kDefaultEntryCapacity = 4096;
// Bounds on what a reader believes of a header, so that a corrupt one cannot
// make it allocate or walk without limit.
inline constexpr std::uint32_t kMaxDescriptorCapacity = 1u << 12;
inline constexpr std::uint32_t kMaxEntryCapacity = 1u << 20;

struct RingHeader {
  char magic[8];                // kMagic
  std::uint32_t version;        // kVersion
  std::uint32_t headerSize;     // sizeof(RingHeader)
  std::uint32_t descriptorSize; // sizeof(DescriptorSlot)
  std::uint32_t descriptorCapacity;
  std::uint32_t entrySize;     // sizeof(RingEntry)
  std::uint32_t entryCapacity; // a power of two
  std::uint64_t descriptorOffset;
  std::uint64_t entryOffset;
  std::uint32_t descriptorCount; // atomic: slots in use (under flock)
  std::uint32_t reserved0;       // zero
  std::uint64_t writeIndex;      // atomic: entries ever claimed
};
static_assert(sizeof(RingHeader) == 64,
              "the header layout is part of the file format");
static_assert(std::is_trivially_copyable_v<RingHeader>,
              "a reader copies the header out of the file");

struct DescriptorSlot {
  std::uint32_t ready; // atomic: kSlotReady once the slot is complete
  std::int32_t line;
  std::uint16_t textSize;  // bytes of text in use, NULs included
  std::uint16_t argCount;  // number of type codes
  std::uint32_t reserved0; // zero
  char text[496];          // unit\0class\0function\0format\0types\0
};
static_assert(sizeof(DescriptorSlot) == 512,
              "the slot layout is part of the file format");

struct RingEntry {
  std::uint64_t seq;        // atomic: index + 1 once written, 0 while written
  std::uint64_t timeNs;     // CLOCK_REALTIME
  std::uint32_t descriptor; // slot index in the descriptor table
  std::uint32_t pid;
  std::uint32_t argCount;  // at most kMaxArgs
  std::uint32_t reserved0; // zero
  std::int64_t args[kMaxArgs];
};
static_assert(sizeof(RingEntry) == 64,
              "one entry per cache line keeps writers of neighbouring entries "
              "off each other's line");

inline constexpr std::uint64_t fileSize(std::uint32_t descriptorCapacity,
                                        std::uint32_t entryCapacity) noexcept {
  return sizeof(RingHeader) +
         std::uint64_t{descriptorCapacity} * sizeof(DescriptorSlot) +
         std::uint64_t{entryCapacity} * sizeof(RingEntry);
}

} // namespace Trace::ringfile
