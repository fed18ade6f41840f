#include "tools/mpls-soak/Damage.h"

#include <fcntl.h>
#include <fmt/format.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <functional>
#include <system_error>

#include "MicaMpls/MplsIsem2Binding.h"
#include "MicaMpls/MplsLemBinding.h"
#include "OrderedTable/EntryLogRecords.h"
#include "platform/shm/Format.h"

namespace MplsSoak {

namespace {

namespace F = Shm::format;

// Slots read per system call while looking for live ones.
constexpr std::uint64_t kSlotsPerRead = 1024;

// A file descriptor closed when it goes.
class Fd {
public:
  explicit Fd(int fd) : fd_(fd) {}
  ~Fd() {
    if (fd_ >= 0) {
      ::close(fd_);
    }
  }
  Fd(const Fd &) = delete;
  Fd &operator=(const Fd &) = delete;
  int get() const noexcept { return fd_; }

private:
  int fd_;
};

bool readAt(int fd, void *buf, std::size_t n, std::uint64_t at) {
  auto *p = static_cast<char *>(buf);
  while (n > 0) {
    const ssize_t r = ::pread(fd, p, n, static_cast<off_t>(at));
    if (r < 0 && errno == EINTR) {
      continue;
    }
    if (r <= 0) {
      return false;
    }
    p += r;
    at += static_cast<std::uint64_t>(r);
    n -= static_cast<std::size_t>(r);
  }
  return true;
}

// Where the live records of an entity file's first (and, for the entry
// log's entities, only) collection are.
struct LiveSlots {
  std::string path;
  std::uint64_t slotsOffset = 0;
  std::uint32_t slotSize = 0;
  std::uint32_t recordSize = 0;
  std::vector<std::uint64_t> slots;
  // Describes a record of this file from its bytes.
  std::function<std::string(const unsigned char *)> describe;
};

bool slotLive(const unsigned char *slot, std::uint32_t recordSize) {
  F::SlotHeader h;
  std::memcpy(&h, slot, sizeof h);
  return F::sealValid(h.seal) &&
         F::recordChecksum(slot + F::kSlotHeaderSize, recordSize, h.seal) ==
             h.checksum;
}

// The live slots of the file at `path`; nothing when there is no file or
// its header is not one the store would mount.
std::optional<LiveSlots> liveSlots(const std::string &path,
                                   std::uint32_t expectedRecordSize) {
  Fd fd(::open(path.c_str(), O_RDONLY | O_NOFOLLOW | O_CLOEXEC));
  struct stat st {};
  if (fd.get() < 0 || ::fstat(fd.get(), &st) != 0 || !S_ISREG(st.st_mode)) {
    return std::nullopt;
  }
  F::FileHeader header;
  std::string why;
  if (!readAt(fd.get(), &header, sizeof header, 0) ||
      !F::headerUsable(header, static_cast<std::uint64_t>(st.st_size), why) ||
      header.collectionCount < 1) {
    return std::nullopt;
  }
  const F::CollectionDesc &c = header.collections[0];
  if (c.recordSize != expectedRecordSize) {
    return std::nullopt;
  }
  F::ControlBlock control;
  if (!readAt(fd.get(), &control, sizeof control, c.controlOffset)) {
    return std::nullopt;
  }
  const std::uint64_t inFile =
      (static_cast<std::uint64_t>(st.st_size) - c.slotsOffset) / c.slotSize;
  const std::uint64_t end =
      std::min({control.highWater, std::uint64_t{c.slotCount}, inFile});
  LiveSlots out;
  out.path = path;
  out.slotsOffset = c.slotsOffset;
  out.slotSize = c.slotSize;
  out.recordSize = c.recordSize;
  std::vector<unsigned char> buf(kSlotsPerRead * c.slotSize);
  for (std::uint64_t first = 0; first < end; first += kSlotsPerRead) {
    const std::uint64_t n = std::min(kSlotsPerRead, end - first);
    if (!readAt(fd.get(), buf.data(), n * c.slotSize,
                c.slotsOffset + first * c.slotSize)) {
      break;
    }
    for (std::uint64_t i = 0; i < n; ++i) {
      if (slotLive(buf.data() + i * c.slotSize, c.recordSize)) {
        out.slots.push_back(first + i);
      }
    }
  }
  return out;
}

template <typename B>
std::optional<LiveSlots> changeLogSlots(const std::string &dir) {
  using Record = Asic::LogSlateEntry<B>;
  auto live = liveSlots(dir + "/" + B::Constants::tableEntryLogSlatePath(),
                        sizeof(Record));
  if (live) {
    live->describe = [](const unsigned char *bytes) {
      Record r;
      std::memcpy(&r, bytes, sizeof r);
      const char *op = r.isTableDelete()   ? "delete of the table"
                       : r.isEntryDelete() ? "delete"
                                           : "write";
      return fmt::format("{} change log: version {} ({} of unit {} label "
                         "{}/{})",
                         B::Constants::tableName, r.logVersion, op, r.unitId,
                         r.logEntry.key.label, r.logEntry.key.qualifier);
    };
  }
  return live;
}

template <typename B>
std::optional<LiveSlots> configSlots(const std::string &dir,
                                     Asic::UnitId unit) {
  using Record = Asic::ConfigSlateEntry<B>;
  auto live = liveSlots(dir + "/" + B::Constants::configSlatePath(unit),
                        sizeof(Record));
  if (live) {
    live->describe = [unit](const unsigned char *bytes) {
      Record r;
      std::memcpy(&r, bytes, sizeof r);
      return fmt::format("{} unit {} configuration: label {}/{} (version "
                         "{}{})",
                         B::Constants::tableName, unit, r.logEntry.key.label,
                         r.logEntry.key.qualifier, r.logVersion,
                         r.isDeleted != 0 ? ", marked deleted" : "");
    };
  }
  return live;
}

std::vector<LiveSlots> candidates(const std::string &dir,
                                  const std::vector<Asic::UnitId> &units,
                                  DamageTarget target) {
  std::vector<std::optional<LiveSlots>> found;
  if (target == DamageTarget::changeLog) {
    found.push_back(changeLogSlots<MicaMpls::MplsIsem2Binding>(dir));
    found.push_back(changeLogSlots<MicaMpls::MplsLemBinding>(dir));
  } else {
    for (Asic::UnitId u : units) {
      found.push_back(configSlots<MicaMpls::MplsIsem2Binding>(dir, u));
      found.push_back(configSlots<MicaMpls::MplsLemBinding>(dir, u));
    }
  }
  std::vector<LiveSlots> out;
  for (auto &f : found) {
    if (f && !f->slots.empty()) {
      out.push_back(std::move(*f));
    }
  }
  return out;
}

std::system_error fileError(const std::string &what, const std::string &path) {
  return std::system_error(errno, std::generic_category(), what + " " + path);
}

} // namespace

std::optional<Damaged> damageRecord(const std::string &instanceDir,
                                    const std::vector<Asic::UnitId> &units,
                                    DamageTarget prefer, Random &rng) {
  DamageTarget target = prefer;
  std::vector<LiveSlots> files = candidates(instanceDir, units, target);
  if (files.empty()) {
    target = prefer == DamageTarget::changeLog ? DamageTarget::configuration
                                               : DamageTarget::changeLog;
    files = candidates(instanceDir, units, target);
  }
  if (files.empty()) {
    return std::nullopt;
  }
  // A file first, then a slot in it: each table type gets its turn whatever
  // its size.
  const LiveSlots &file = files[rng.below(files.size())];
  const std::uint64_t slot = file.slots[rng.below(file.slots.size())];
  const std::uint64_t at = file.slotsOffset + slot * file.slotSize;

  Fd fd(::open(file.path.c_str(), O_RDWR | O_NOFOLLOW | O_CLOEXEC));
  if (fd.get() < 0) {
    throw fileError("cannot open", file.path);
  }
  std::vector<unsigned char> bytes(file.slotSize);
  if (!readAt(fd.get(), bytes.data(), bytes.size(), at)) {
    throw fileError("cannot read", file.path);
  }
  if (!slotLive(bytes.data(), file.recordSize)) {
    return std::nullopt; // changed since the scan: nobody should write here
  }
  Damaged out;
  out.target = target;
  out.file = file.path;
  out.what = fmt::format(
      "{}, slot {}", file.describe(bytes.data() + F::kSlotHeaderSize), slot);
  // One byte of the record changed: the checksum can no longer match (a
  // collision of XXH3-64 is not a concern; the read-back says so anyway).
  for (int attempt = 0; attempt < 8 && slotLive(bytes.data(), file.recordSize);
       ++attempt) {
    const std::uint64_t offset =
        F::kSlotHeaderSize + rng.below(file.recordSize);
    const auto flip = static_cast<unsigned char>(rng.between(1, 255));
    unsigned char b = bytes[offset] ^ flip;
    for (;;) {
      const ssize_t w =
          ::pwrite(fd.get(), &b, 1, static_cast<off_t>(at + offset));
      if (w == 1) {
        break;
      }
      if (w < 0 && errno == EINTR) {
        continue;
      }
      throw fileError("cannot write", file.path);
    }
    if (!readAt(fd.get(), bytes.data(), bytes.size(), at)) {
      throw fileError("cannot read", file.path);
    }
  }
  return out;
}

} // namespace MplsSoak
