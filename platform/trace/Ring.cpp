// The always-on message ring: descriptors, the writer and the reader. The
// file layout and the rules for sharing it are in RingFormat.h.
#include <fcntl.h>
#include <sys/file.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <fmt/args.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <cerrno>
#include <cstring>
#include <mutex>

#include "platform/framework/FileIo.h"
#include "platform/trace/LineText.h"
#include "platform/trace/RingFormat.h"
#include "platform/trace/Trace.h"
#include "platform/trace/TraceConfig.h"

namespace Trace {

namespace rf = ringfile;

namespace {

static_assert(std::atomic_ref<std::uint64_t>::is_always_lock_free &&
                  std::atomic_ref<std::uint32_t>::is_always_lock_free,
              "ring words are shared between processes, which only "
              "lock-free atomics can do");

// A descriptor as this process registered it, already packed the way a
// file slot holds it.
struct LocalDescriptor {
  std::int32_t line;
  std::uint16_t textSize;
  std::uint16_t argCount;
  std::array<char, sizeof(rf::DescriptorSlot::text)> text;
};

constexpr std::uint32_t kLocalCapacity = rf::kDefaultDescriptorCapacity;
// fileSlot value of a descriptor the file has no room for.
constexpr std::uint32_t kNoSlot = 0xffffffffu;

// One mapped ring file.
struct RingMap {
  int fd = -1; // kept open for flock(); the mapping is never undone
  dev_t dev = 0;
  ino_t ino = 0;
  rf::RingHeader *header = nullptr;
  rf::DescriptorSlot *slots = nullptr;
  rf::RingEntry *entries = nullptr;
  std::uint32_t descriptorCapacity = 0;
  std::uint64_t entryMask = 0;
  // Per local descriptor id: its slot in this file plus one; 0 while it is
  // not in the file yet, kNoSlot when the file's table is full.
  std::array<std::atomic<std::uint32_t>, kLocalCapacity + 1> fileSlot{};
};

struct RingState {
  std::mutex mutex;
  std::vector<LocalDescriptor> descriptors; // id - 1; under mutex
  std::string path;                         // under mutex; empty: no ring
  bool openFailed = false;                  // under mutex
  bool warnedFull = false;                  // under mutex
  bool warnedTooMany = false;               // under mutex
  std::atomic<bool> wanted{false};          // a path is configured
  std::atomic<RingMap *> map{nullptr};
  // Maps of earlier configurations stay mapped: a thread may still be
  // writing through one. Reconfiguring is for tests and tools, so they are
  // few.
  std::vector<RingMap *> retired;
};

RingState &ringState() {
  static RingState &s = *new RingState;
  return s;
}

void warnLine(std::string_view text) noexcept {
  detail::writeAll(2, text.data(), text.size());
}

// Packs the five strings of a descriptor. Each is cut to a size that leaves
// the format most of the room; a format cut short renders as raw text.
LocalDescriptor pack(std::string_view sourceUnit, int line,
                     std::string_view className, std::string_view function,
                     std::string_view format, std::string_view argTypes) {
  LocalDescriptor d{};
  d.line = line;
  sourceUnit = sourceUnit.substr(0, 96);
  className = className.substr(0, 64);
  function = function.substr(0, 64);
  argTypes = argTypes.substr(0, 8);
  const std::size_t fixed = sourceUnit.size() + className.size() +
                            function.size() + argTypes.size() + 5;
  format = format.substr(0, d.text.size() - fixed);
  std::size_t at = 0;
  for (const std::string_view part :
       {sourceUnit, className, function, format, argTypes}) {
    std::memcpy(d.text.data() + at, part.data(), part.size());
    at += part.size();
    d.text[at++] = '\0';
  }
  d.textSize = static_cast<std::uint16_t>(at);
  d.argCount = static_cast<std::uint16_t>(argTypes.size());
  return d;
}

// Whether a header describes this layout, its sizes within the bounds a
// reader believes. It says nothing of the file's length: a reader accepts a
// file shorter than its header claims, a writer does not.
bool geometryOk(const rf::RingHeader &h) noexcept {
  return std::memcmp(h.magic, rf::kMagic, sizeof h.magic) == 0 &&
         h.version == rf::kVersion && h.headerSize == sizeof(rf::RingHeader) &&
         h.descriptorSize == sizeof(rf::DescriptorSlot) &&
         h.entrySize == sizeof(rf::RingEntry) && h.descriptorCapacity > 0 &&
         h.descriptorCapacity <= rf::kMaxDescriptorCapacity &&
         h.entryCapacity > 0 && h.entryCapacity <= rf::kMaxEntryCapacity &&
         (h.entryCapacity & (h.entryCapacity - 1)) == 0 &&
         h.descriptorOffset == sizeof(rf::RingHeader) &&
         h.entryOffset ==
             h.descriptorOffset + std::uint64_t{h.descriptorCapacity} *
                                      sizeof(rf::DescriptorSlot);
}

int flockRetry(int fd, int op) noexcept {
  int r;
  do {
    r = ::flock(fd, op);
  } while (r < 0 && errno == EINTR);
  return r;
}

// Empties the file and lays out a new ring. Under the file lock. The magic
// is written last, so a writer that dies half-way leaves a file that the
// next one re-creates.
bool initialise(int fd) noexcept {
  const std::uint64_t size =
      rf::fileSize(rf::kDefaultDescriptorCapacity, rf::kDefaultEntryCapacity);
  if (::ftruncate(fd, 0) < 0 || ::ftruncate(fd, static_cast<off_t>(size)) < 0) {
    return false;
  }
  rf::RingHeader h{};
  h.version = rf::kVersion;
  h.headerSize = sizeof(rf::RingHeader);
  h.descriptorSize = sizeof(rf::DescriptorSlot);
  h.descriptorCapacity = rf::kDefaultDescriptorCapacity;
  h.entrySize = sizeof(rf::RingEntry);
  h.entryCapacity = rf::kDefaultEntryCapacity;
  h.descriptorOffset = sizeof(rf::RingHeader);
  h.entryOffset = h.descriptorOffset + std::uint64_t{h.descriptorCapacity} *
                                           sizeof(rf::DescriptorSlot);
  return Fwk::pwriteAll(fd, &h, sizeof h, 0) == 0 &&
         Fwk::pwriteAll(fd, rf::kMagic, sizeof rf::kMagic, 0) == 0;
}

// Opens (creating or repairing) and maps a ring file; null with errno-style
// text in why on failure.
RingMap *mapRing(const std::string &path, std::string &why) noexcept {
  const int fd = ::open(path.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0644);
  if (fd < 0) {
    why = std::strerror(errno);
    return nullptr;
  }
  if (flockRetry(fd, LOCK_EX) < 0) {
    why = std::strerror(errno);
    ::close(fd);
    return nullptr;
  }
  RingMap *m = nullptr;
  struct stat st {};
  rf::RingHeader h{};
  bool ok = ::fstat(fd, &st) == 0 && S_ISREG(st.st_mode);
  if (!ok) {
    why = "not a regular file";
  } else {
    const bool usable = static_cast<std::uint64_t>(st.st_size) >= sizeof h &&
                        Fwk::preadAll(fd, &h, sizeof h, 0) == 0 &&
                        geometryOk(h) &&
                        static_cast<std::uint64_t>(st.st_size) >=
                            rf::fileSize(h.descriptorCapacity, h.entryCapacity);
    if (!usable) {
      ok = initialise(fd) && Fwk::preadAll(fd, &h, sizeof h, 0) == 0 &&
           geometryOk(h) && ::fstat(fd, &st) == 0;
      if (!ok) {
        why = std::strerror(errno);
      }
    }
  }
  if (ok) {
    const auto size = static_cast<std::size_t>(
        rf::fileSize(h.descriptorCapacity, h.entryCapacity));
    void *base =
        ::mmap(nullptr, size, PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0);
    if (base == MAP_FAILED) {
      why = std::strerror(errno);
    } else {
      m = new (std::nothrow) RingMap;
      if (m == nullptr) {
        ::munmap(base, size);
        why = "out of memory";
      } else {
        auto *bytes = static_cast<char *>(base);
        m->fd = fd;
        m->dev = st.st_dev;
        m->ino = st.st_ino;
        m->header = reinterpret_cast<rf::RingHeader *>(bytes);
        m->slots =
            reinterpret_cast<rf::DescriptorSlot *>(bytes + h.descriptorOffset);
        m->entries = reinterpret_cast<rf::RingEntry *>(bytes + h.entryOffset);
        m->descriptorCapacity = h.descriptorCapacity;
        m->entryMask = h.entryCapacity - 1;
      }
    }
  }
  flockRetry(fd, LOCK_UN);
  if (m == nullptr) {
    ::close(fd);
  }
  return m;
}

RingMap *openRing(RingState &s) noexcept {
  const std::lock_guard lock(s.mutex);
  if (RingMap *m = s.map.load(std::memory_order_acquire)) {
    return m;
  }
  if (s.path.empty() || s.openFailed) {
    return nullptr;
  }
  std::string why;
  RingMap *m = mapRing(s.path, why);
  if (m == nullptr) {
    s.openFailed = true; // until the next configuration
    try {
      warnLine(fmt::format("trace: cannot open the message ring '{}': {}; "
                           "the ring is not written\n",
                           s.path, why));
    } catch (...) {
    }
    return nullptr;
  }
  s.map.store(m, std::memory_order_release);
  return m;
}

// Finds or adds the descriptor in the file's table; its slot plus one, or
// kNoSlot when the table is full.
std::uint32_t publishDescriptor(RingState &s, RingMap &m,
                                std::uint32_t id) noexcept {
  const std::lock_guard lock(s.mutex);
  if (const std::uint32_t known =
          m.fileSlot[id].load(std::memory_order_acquire)) {
    return known;
  }
  const LocalDescriptor &d = s.descriptors[id - 1];
  flockRetry(m.fd, LOCK_EX);
  std::atomic_ref<std::uint32_t> count(m.header->descriptorCount);
  const std::uint32_t used =
      std::min(count.load(std::memory_order_acquire), m.descriptorCapacity);
  std::uint32_t slot = kNoSlot;
  for (std::uint32_t k = 0; k < used; ++k) {
    rf::DescriptorSlot &f = m.slots[k];
    if (std::atomic_ref<std::uint32_t>(f.ready).load(
            std::memory_order_acquire) == rf::kSlotReady &&
        f.line == d.line && f.textSize == d.textSize &&
        std::memcmp(f.text, d.text.data(), d.textSize) == 0) {
      slot = k + 1;
      break;
    }
  }
  if (slot == kNoSlot && used < m.descriptorCapacity) {
    rf::DescriptorSlot &f = m.slots[used];
    f.line = d.line;
    f.textSize = d.textSize;
    f.argCount = d.argCount;
    f.reserved0 = 0;
    std::memcpy(f.text, d.text.data(), sizeof f.text);
    // release: the slot's text before its ready word, the word before the
    // count that makes a reader look at it.
    std::atomic_ref<std::uint32_t>(f.ready).store(rf::kSlotReady,
                                                  std::memory_order_release);
    count.store(used + 1, std::memory_order_release);
    slot = used + 1;
  }
  flockRetry(m.fd, LOCK_UN);
  if (slot == kNoSlot && !s.warnedFull) {
    s.warnedFull = true;
    warnLine("trace: the message ring's descriptor table is full; new kinds "
             "of message are not recorded (delete the .ring file to start "
             "a new one)\n");
  }
  m.fileSlot[id].store(slot, std::memory_order_release);
  return slot;
}

bool sameFile(const std::string &path, const RingMap &m) noexcept {
  struct stat st {};
  return ::stat(path.c_str(), &st) == 0 && st.st_dev == m.dev &&
         st.st_ino == m.ino;
}

// ---- Reading ----

struct ParsedDescriptor {
  bool valid = false;
  int line = 0;
  std::string_view parts[5]; // unit, class, function, format, types
};

ParsedDescriptor parseSlot(const rf::DescriptorSlot &f) noexcept {
  ParsedDescriptor p;
  if (f.ready != rf::kSlotReady || f.textSize > sizeof f.text) {
    return p;
  }
  std::string_view text(f.text, f.textSize);
  for (auto &part : p.parts) {
    const auto nul = text.find('\0');
    if (nul == std::string_view::npos) {
      return p;
    }
    part = text.substr(0, nul);
    text.remove_prefix(nul + 1);
  }
  p.line = f.line;
  p.valid = true;
  return p;
}

// Whether fmt may be trusted with a format read from a file: a corrupt one
// could ask for a width of two billion characters, or take a width from an
// argument.
bool formatIsTame(std::string_view f) noexcept {
  bool inField = false;
  int digits = 0;
  for (std::size_t i = 0; i < f.size(); ++i) {
    const char c = f[i];
    if (!inField) {
      if (c == '{') {
        if (i + 1 < f.size() && f[i + 1] == '{') {
          ++i;
        } else {
          inField = true;
          digits = 0;
        }
      }
      continue;
    }
    if (c == '}') {
      inField = false;
    } else if (c == '{') {
      return false;
    } else if (c >= '0' && c <= '9') {
      if (++digits > 4) {
        return false;
      }
    } else {
      digits = 0;
    }
  }
  return true;
}

std::string render(std::string_view format, const std::int64_t *args,
                   std::size_t count) {
  if (formatIsTame(format)) {
    fmt::dynamic_format_arg_store<fmt::format_context> store;
    for (std::size_t i = 0; i < count; ++i) {
      store.push_back(args[i]);
    }
    try {
      return fmt::vformat(fmt::string_view(format.data(), format.size()),
                          store);
    } catch (const fmt::format_error &) {
    }
  }
  // What cannot be rendered is shown as it is, arguments after it.
  std::string text(format);
  text += " [";
  for (std::size_t i = 0; i < count; ++i) {
    if (i > 0) {
      text += ", ";
    }
    text += std::to_string(args[i]);
  }
  text += "]";
  return text;
}

template <typename T>
std::vector<T> readArray(int fd, std::uint64_t offset, std::uint64_t count,
                         std::uint64_t fileBytes) {
  if (offset >= fileBytes) {
    return {};
  }
  count = std::min<std::uint64_t>(count, (fileBytes - offset) / sizeof(T));
  std::vector<T> v(static_cast<std::size_t>(count));
  if (count > 0 && Fwk::preadAll(fd, v.data(), v.size() * sizeof(T),
                                 static_cast<off_t>(offset)) != 0) {
    v.clear();
  }
  return v;
}

} // namespace

namespace detail {

void ringPathIs(const std::string &path) {
  RingState &s = ringState();
  const std::lock_guard lock(s.mutex);
  RingMap *current = s.map.load(std::memory_order_acquire);
  if (current != nullptr && path == s.path && sameFile(path, *current)) {
    return;
  }
  if (current != nullptr) {
    s.retired.push_back(current);
    s.map.store(nullptr, std::memory_order_release);
  }
  s.path = path;
  s.openFailed = false;
  s.wanted.store(!path.empty(), std::memory_order_release);
}

} // namespace detail

MessageDescriptor registerMessage(std::string_view sourceUnit, int line,
                                  std::string_view className,
                                  std::string_view function,
                                  std::string_view format,
                                  std::string_view argTypes) {
  const LocalDescriptor d =
      pack(sourceUnit, line, className, function, format, argTypes);
  RingState &s = ringState();
  const std::lock_guard lock(s.mutex);
  for (std::size_t i = 0; i < s.descriptors.size(); ++i) {
    const LocalDescriptor &o = s.descriptors[i];
    if (o.line == d.line && o.textSize == d.textSize &&
        std::memcmp(o.text.data(), d.text.data(), d.textSize) == 0) {
      return {static_cast<std::uint32_t>(i + 1)};
    }
  }
  if (s.descriptors.size() >= kLocalCapacity) {
    if (!s.warnedTooMany) {
      s.warnedTooMany = true;
      warnLine("trace: too many kinds of ring message; new ones are not "
               "recorded\n");
    }
    return {0};
  }
  s.descriptors.push_back(d);
  return {static_cast<std::uint32_t>(s.descriptors.size())};
}

void ringWrite(const MessageDescriptor &descriptor, const std::int64_t *args,
               std::size_t count) noexcept {
  if (descriptor.id == 0 || descriptor.id > kLocalCapacity) {
    return;
  }
  detail::ensureConfigured();
  RingState &s = ringState();
  RingMap *m = s.map.load(std::memory_order_acquire);
  if (m == nullptr) {
    if (!s.wanted.load(std::memory_order_acquire)) {
      return;
    }
    m = openRing(s);
    if (m == nullptr) {
      return;
    }
  }
  std::uint32_t slot =
      m->fileSlot[descriptor.id].load(std::memory_order_acquire);
  if (slot == 0) {
    slot = publishDescriptor(s, *m, descriptor.id);
  }
  if (slot == kNoSlot) {
    return;
  }
  const std::uint64_t i = std::atomic_ref<std::uint64_t>(m->header->writeIndex)
                              .fetch_add(1, std::memory_order_relaxed);
  rf::RingEntry &e = m->entries[i & m->entryMask];
  std::atomic_ref<std::uint64_t> seq(e.seq);
  seq.store(0, std::memory_order_relaxed);
  // release: seq = 0 is visible before any field of the new entry.
  std::atomic_thread_fence(std::memory_order_release);
  const std::size_t n = std::min(count, rf::kMaxArgs);
  e.timeNs = detail::nowNs();
  e.descriptor = slot - 1;
  e.pid = detail::pid();
  e.argCount = static_cast<std::uint32_t>(n);
  e.reserved0 = 0;
  for (std::size_t k = 0; k < rf::kMaxArgs; ++k) {
    e.args[k] = k < n ? args[k] : 0;
  }
  // release: the fields before seq = i + 1, which a reader checks.
  seq.store(i + 1, std::memory_order_release);
}

std::vector<RingMessage> readRing(const std::string &path) {
  std::vector<RingMessage> out;
  const int fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
  if (fd < 0) {
    return out;
  }
  struct Closer {
    int fd;
    ~Closer() { ::close(fd); }
  } closer{fd};
  // The file is read, never mapped: a file truncated under a mapping would
  // kill the reader with SIGBUS.
  struct stat st {};
  rf::RingHeader h{};
  if (::fstat(fd, &st) != 0 || !S_ISREG(st.st_mode) ||
      static_cast<std::uint64_t>(st.st_size) < sizeof h ||
      Fwk::preadAll(fd, &h, sizeof h, 0) != 0 || !geometryOk(h)) {
    return out;
  }
  const auto fileBytes = static_cast<std::uint64_t>(st.st_size);
  const auto slots = readArray<rf::DescriptorSlot>(
      fd, h.descriptorOffset, h.descriptorCapacity, fileBytes);
  std::vector<ParsedDescriptor> descriptors(
      std::min<std::size_t>(h.descriptorCount, slots.size()));
  for (std::size_t k = 0; k < descriptors.size(); ++k) {
    descriptors[k] = parseSlot(slots[k]);
  }
  // Two copies of the entries: one that changed between them was being
  // written while it was read.
  const auto first =
      readArray<rf::RingEntry>(fd, h.entryOffset, h.entryCapacity, fileBytes);
  const auto second =
      readArray<rf::RingEntry>(fd, h.entryOffset, h.entryCapacity, fileBytes);
  const std::uint64_t held =
      std::min<std::uint64_t>(h.writeIndex, h.entryCapacity);
  const std::uint64_t mask = h.entryCapacity - 1;
  for (std::uint64_t i = h.writeIndex - held; i < h.writeIndex; ++i) {
    const std::uint64_t at = i & mask;
    if (at >= first.size() || at >= second.size()) {
      continue; // truncated file
    }
    const rf::RingEntry &e = first[at];
    if (e.seq != i + 1 || std::memcmp(&e, &second[at], sizeof e) != 0 ||
        e.descriptor >= descriptors.size() ||
        !descriptors[e.descriptor].valid) {
      continue;
    }
    const ParsedDescriptor &d = descriptors[e.descriptor];
    const std::size_t argc =
        std::min<std::size_t>({d.parts[4].size(), e.argCount, rf::kMaxArgs});
    RingMessage msg;
    msg.timeNs = e.timeNs;
    msg.text = render(d.parts[3], e.args, argc);
    msg.pid = e.pid;
    msg.sourceUnit = d.parts[0];
    msg.className = d.parts[1];
    msg.function = d.parts[2];
    msg.line = d.line;
    out.push_back(std::move(msg));
  }
  return out;
}

} // namespace Trace
