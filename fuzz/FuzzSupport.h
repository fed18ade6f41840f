// What the fuzz targets share: the prelude that steers an input, a private
// store root, putting fuzzed bytes in place as an entity file, damaging a
// file under a live mount, and the checks that turn a broken promise of the
// store into a crash that libFuzzer keeps.
//
// Every input starts with a prelude and goes on with one or more file
// images. A file image is the leading bytes of an entity file; with
// kSizeFromHeader the file is then cut or extended (sparse) to the size its
// header names, so a seed needs to hold only the pages in use and the
// fuzzer's changes to the header's sizes and offsets stay consistent with
// the file's length. kFixHeader and kFixRecords recompute the checksums the
// fuzzer's changes break, so that the mutated fields themselves are tested
// and not just the checksum checks in front of them.
//
//   FuzzSupport::Root root("fuzz");               // once, in Initialize
//   FuzzSupport::placeFile(root.instanceDir(), "a/b", image, flags, 1 << 20);
//   FuzzSupport::require(n <= cap, "walk longer than the capacity");
#pragma once

#include <fcntl.h>
#include <signal.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

#include "platform/shm/Collection.h"
#include "platform/shm/Errors.h"
#include "platform/shm/Format.h"

namespace FuzzSupport {

namespace format = Shm::format;

// Prelude flags.
inline constexpr std::uint8_t kFixHeader = 1;  // header checksum redone
inline constexpr std::uint8_t kFixRecords = 2; // sealed slots re-checksummed
inline constexpr std::uint8_t kSizeFromHeader = 4; // file sized as it says
inline constexpr std::uint8_t kDamageLive = 8;     // damage after the mounts

// The damage an input does to a file under a live mount.
struct Damage {
  std::uint64_t offset = 0; // modulo the file size
  std::uint8_t length = 0;  // at most 16
  std::uint8_t bytes[16] = {};
};

// Little-endian reads from the input, short inputs reading as zeros.
class Reader {
public:
  Reader(const std::uint8_t *data, std::size_t size)
      : data_(data), size_(size) {}
  std::uint64_t uint(std::size_t at, std::size_t width) const {
    std::uint64_t v = 0;
    for (std::size_t i = 0; i < width && at + i < size_; ++i) {
      v |= std::uint64_t{data_[at + i]} << (8 * i);
    }
    return v;
  }
  std::uint8_t byte(std::size_t at) const {
    return static_cast<std::uint8_t>(uint(at, 1));
  }
  Damage damage(std::size_t at) const {
    Damage d;
    d.offset = uint(at, 8);
    d.length = byte(at + 8) % 17;
    for (std::size_t i = 0; i < sizeof d.bytes; ++i) {
      d.bytes[i] = byte(at + 9 + i);
    }
    return d;
  }
  // Bytes [at, at + n) clipped to the input.
  std::vector<std::uint8_t> bytes(std::size_t at, std::size_t n) const {
    if (at >= size_) {
      return {};
    }
    n = std::min(n, size_ - at);
    return std::vector<std::uint8_t>(data_ + at, data_ + at + n);
  }

private:
  const std::uint8_t *data_;
  std::size_t size_;
};
inline constexpr std::size_t kDamageBytes = 25;

// Failures set aside while their fix is under way elsewhere: the file named
// by $MICA_FUZZ_SET_ASIDE holds one part of a failure message per line ('#'
// starts a comment). An input that fails with such a message is rejected
// (thrown as SetAside; the target tells libFuzzer not to keep it) instead of
// crashing, so that a run gets past a known fault to the next one.
struct SetAside {};

inline const std::vector<std::string> &setAsideMessages() {
  static const std::vector<std::string> parts = [] {
    std::vector<std::string> out;
    const char *file = std::getenv("MICA_FUZZ_SET_ASIDE");
    if (!file || !*file) {
      return out;
    }
    std::ifstream in(file);
    for (std::string line; std::getline(in, line);) {
      if (!line.empty() && line[0] != '#') {
        out.push_back(line);
      }
    }
    return out;
  }();
  return parts;
}

// A broken promise of the store: printed and turned into a crash.
[[noreturn]] inline void fail(const std::string &what) {
  for (const std::string &part : setAsideMessages()) {
    if (what.find(part) != std::string::npos) {
      throw SetAside{};
    }
  }
  std::fprintf(stderr, "fuzz: %s\n", what.c_str());
  std::abort();
}
inline void require(bool ok, const char *what) {
  if (!ok) [[unlikely]] {
    fail(what);
  }
}

// Runs body() until it gets through without a CorruptionError, handing each
// one to the collection's doCorruptionDetected(), as the library's callers
// do. A dropped record must not be raised again, so more rounds than the
// collection has slots mean it keeps raising a record it claims to have
// dropped: such a caller would loop forever. Returns the drops.
template <typename C, typename Body> std::size_t withDrops(C &c, Body &&body) {
  const std::size_t slots = std::size_t{c.capacity()} + 1;
  std::size_t drops = 0;
  for (;;) {
    try {
      body();
      return drops;
    } catch (const Shm::CorruptionError &e) {
      c.doCorruptionDetected(e.what());
      if (++drops > slots + 1) {
        fail(std::string(c.writer() ? "the writer" : "a reader") +
             " raises a corrupt record again after dropping it (a caller "
             "that drops and retries loops forever): " +
             e.what());
      }
    }
  }
}

// Silences the store's reports (an input is mostly damage) and counts them.
struct QuietReporter : Shm::Reporter {
  void corruption(const std::string &) override { ++corruptions; }
  void notice(const std::string &) override { ++notices; }
  std::uint64_t corruptions = 0;
  std::uint64_t notices = 0;
};

// The store root of this process: the directory mica-fuzz.<pid> under
// $TMPDIR (tmpfs when /dev/shm is there and TMPDIR is unset), made
// $MICA_SHM_ROOT and removed when the process exits normally. A target that
// crashed could not remove its own; the next one removes those of processes
// that are gone.
class Root {
public:
  explicit Root(const std::string &agent) : agent_(agent) {
    const char *tmp = std::getenv("TMPDIR");
    std::string base = tmp && *tmp ? tmp : "/tmp";
    if (!(tmp && *tmp) && ::access("/dev/shm", W_OK) == 0) {
      base = "/dev/shm";
    }
    removeLeftovers(base);
    dir_ = base + "/" + kPrefix + std::to_string(::getpid());
    std::error_code ec;
    std::filesystem::remove_all(dir_, ec);
    if (!std::filesystem::create_directory(dir_, ec)) {
      fail("cannot make " + dir_);
    }
    ::setenv("MICA_SHM_ROOT", dir_.c_str(), 1);
    static std::string removeAtExit;
    removeAtExit = dir_;
    std::atexit([] {
      std::error_code ec;
      std::filesystem::remove_all(removeAtExit, ec);
    });
  }
  const std::string &dir() const noexcept { return dir_; }
  std::string instanceDir() const { return dir_ + "/" + agent_ + ".0"; }

private:
  static constexpr const char *kPrefix = "mica-fuzz.";

  static void removeLeftovers(const std::string &base) {
    std::error_code ec;
    for (const auto &e : std::filesystem::directory_iterator(base, ec)) {
      const std::string name = e.path().filename().string();
      if (name.rfind(kPrefix, 0) != 0) {
        continue;
      }
      const std::string digits = name.substr(std::strlen(kPrefix));
      if (digits.empty() ||
          digits.find_first_not_of("0123456789") != std::string::npos) {
        continue;
      }
      const long pid = std::strtol(digits.c_str(), nullptr, 10);
      if (::kill(static_cast<pid_t>(pid), 0) != 0 && errno == ESRCH) {
        std::filesystem::remove_all(e.path(), ec);
      }
    }
  }

  std::string agent_;
  std::string dir_;
};

// The header of an image, or zeros when it is shorter than one.
inline format::FileHeader headerOf(const std::vector<std::uint8_t> &image) {
  format::FileHeader h{};
  if (image.size() >= sizeof h) {
    std::memcpy(&h, image.data(), sizeof h);
  }
  return h;
}

// Recomputes, as the flags ask, the header checksum and the checksum of
// every sealed slot the image holds (where the header's offsets and sizes
// say the slots are; whatever they say, only bytes of the image are
// touched).
inline void fixChecksums(std::vector<std::uint8_t> &image, std::uint8_t flags) {
  if (image.size() < sizeof(format::FileHeader)) {
    return;
  }
  format::FileHeader h = headerOf(image);
  if (flags & kFixRecords) {
    const std::uint32_t n =
        std::min(h.collectionCount, format::kMaxCollections);
    for (std::uint32_t c = 0; c < n; ++c) {
      const format::CollectionDesc &d = h.collections[c];
      if (d.slotSize < format::kSlotHeaderSize ||
          d.recordSize > d.slotSize - format::kSlotHeaderSize ||
          d.slotsOffset >= image.size()) {
        continue;
      }
      const std::uint64_t room = (image.size() - d.slotsOffset) / d.slotSize;
      const std::uint64_t slots = std::min<std::uint64_t>(room, d.slotCount);
      for (std::uint64_t i = 0; i < slots; ++i) {
        std::uint8_t *s = image.data() + d.slotsOffset + i * d.slotSize;
        format::SlotHeader sh;
        std::memcpy(&sh, s, sizeof sh);
        if (format::sealValid(sh.seal)) {
          sh.checksum = format::recordChecksum(s + format::kSlotHeaderSize,
                                               d.recordSize, sh.seal);
          std::memcpy(s, &sh, sizeof sh);
        }
      }
    }
  }
  if (flags & kFixHeader) {
    h.checksum = format::headerChecksum(h);
    std::memcpy(image.data(), &h, sizeof h);
  }
}

// Lowers every high-water mark of the image that lies more than `slack`
// slots beyond the slots the image holds. For a target whose collections
// have a million slots: a mark damaged to anything above that makes every
// mount and scan walk them all, a second a run, and the handling of such
// marks is fuzz_store's business, on collections small enough to walk.
inline void boundHighWater(std::vector<std::uint8_t> &image,
                           std::uint64_t slack) {
  const format::FileHeader h = headerOf(image);
  const std::uint32_t n = std::min(h.collectionCount, format::kMaxCollections);
  for (std::uint32_t c = 0; c < n; ++c) {
    const format::CollectionDesc &d = h.collections[c];
    const std::uint64_t at =
        d.controlOffset + offsetof(format::ControlBlock, highWater);
    if (d.slotSize == 0 || at > image.size() - 8 || at < sizeof h) {
      continue;
    }
    const std::uint64_t held =
        d.slotsOffset < image.size()
            ? (image.size() - d.slotsOffset + d.slotSize - 1) / d.slotSize
            : 0;
    std::uint64_t hw;
    std::memcpy(&hw, image.data() + at, sizeof hw);
    if (hw > held + slack) {
      hw = held + slack;
      std::memcpy(image.data() + at, &hw, sizeof hw);
    }
  }
}

// Puts `image` in place as the entity file `entityPath` of the instance
// directory `dir`: written under a temporary name and renamed over the old
// file, as the store itself replaces files. With kSizeFromHeader the file
// takes the size its header says, up to `maxSize` (the scans are bounded by
// the file, and the file by this). Returns the file's path.
inline std::string placeFile(const std::string &dir,
                             const std::string &entityPath,
                             std::vector<std::uint8_t> image,
                             std::uint8_t flags, std::uint64_t maxSize) {
  fixChecksums(image, flags);
  std::uint64_t size = image.size();
  if (flags & kSizeFromHeader) {
    const std::uint64_t want = headerOf(image).fileSize;
    if (want != 0 && want <= maxSize) {
      size = want;
    }
  }
  const std::string path = dir + "/" + entityPath;
  const std::string tmp = dir + "/.fuzz-image";
  const int fd =
      ::open(tmp.c_str(), O_RDWR | O_CREAT | O_TRUNC | O_CLOEXEC, 0600);
  if (fd < 0) {
    fail("cannot create " + tmp);
  }
  const std::size_t n = std::min<std::uint64_t>(image.size(), size);
  bool ok = ::ftruncate(fd, static_cast<off_t>(size)) == 0;
  for (std::size_t done = 0; ok && done < n;) {
    const ssize_t w =
        ::pwrite(fd, image.data() + done, n - done, static_cast<off_t>(done));
    ok = w > 0;
    done += ok ? static_cast<std::size_t>(w) : 0;
  }
  ::close(fd);
  if (!ok || ::rename(tmp.c_str(), path.c_str()) != 0) {
    fail("cannot put the image in place at " + path);
  }
  return path;
}

// Writes the damage into the file at `path` (as another process would: a
// live mapping sees it), at its offset modulo `span` (the part of the file
// worth damaging) or the file's size if smaller. Returns false when there
// is none to do.
inline bool damageFile(const std::string &path, const Damage &d,
                       std::uint64_t span) {
  if (d.length == 0) {
    return false;
  }
  const int fd = ::open(path.c_str(), O_RDWR | O_CLOEXEC);
  if (fd < 0) {
    return false;
  }
  struct stat st {};
  bool done = false;
  if (::fstat(fd, &st) == 0 && st.st_size > 0) {
    const std::uint64_t size = static_cast<std::uint64_t>(st.st_size);
    const std::uint64_t at =
        d.offset % std::max<std::uint64_t>(1, std::min(span, size));
    const std::size_t n =
        static_cast<std::size_t>(std::min<std::uint64_t>(d.length, size - at));
    done = ::pwrite(fd, d.bytes, n, static_cast<off_t>(at)) ==
           static_cast<ssize_t>(n);
  }
  ::close(fd);
  return done;
}

// A reader's walk: every scan terminates, sees no more records than there
// are slots, and raises only CorruptionError, which drops the record.
template <typename Traits>
void readerWalk(Shm::Collection<Traits> &c, const std::uint8_t (&ops)[7],
                typename Traits::Key (*keyOf)(std::uint32_t)) {
  using Record = typename Traits::Record;
  const std::size_t slots = std::size_t{c.capacity()} + 1;
  std::size_t n = 0;
  withDrops(c, [&] {
    n = 0;
    c.forEach([&](const Record &) { ++n; });
  });
  require(n <= slots, "a reader's ordered scan saw more records than slots");
  withDrops(c, [&] {
    n = 0;
    c.forEachUnordered([&](const Record &) { ++n; });
  });
  require(n <= slots, "a reader's unordered scan saw more records than slots");
  withDrops(c, [&] { n = c.countByScan(); });
  require(n <= slots, "a reader's count is more than its slots");
  // A reader's find is a scan too: one of each kind.
  Record r;
  withDrops(c, [&] { c.find(keyOf(ops[0] % 16u), r); });
  c.findOrDrop(keyOf(ops[1] % 16u), r);
}

// The bytes of an object, for comparisons and as map keys.
template <typename T> std::string bytesOf(const T &v) {
  return std::string(reinterpret_cast<const char *>(&v), sizeof v);
}

} // namespace FuzzSupport
