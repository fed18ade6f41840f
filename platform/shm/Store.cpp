#include "platform/shm/Store.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/file.h>
#include <sys/mman.h>
#include <sys/random.h>
#include <sys/stat.h>
#include <unistd.h>

#include <fmt/format.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <mutex>
#include <utility>

#include "platform/framework/FileIo.h"

namespace Shm {

namespace {

constexpr const char *kDefaultRoot = "/dev/shm/mica-mpls";
constexpr const char *kLockName = ".lock";
constexpr const char *kCatalogName = ".catalog";
constexpr const char *kCatalogNew = ".catalog.new";
constexpr const char *kCatalogMagic = "mica-shm-catalog 1\n";
constexpr std::size_t kMaxCatalogBytes = 16u << 20;

std::string errnoText(int err) {
  return std::strerror(err);
}

[[noreturn]] void throwSys(const std::string &what, int err) {
  const std::string msg = fmt::format("{}: {}", what, errnoText(err));
  switch (err) {
  case ENAMETOOLONG: // a valid name, but too long for this file system
    throw PathError(msg);
  case ENOSPC:
  case EDQUOT:
    throw NoSpaceError(msg);
  default:
    throw Error(msg);
  }
}

// An owned file descriptor.
class Fd {
public:
  Fd() = default;
  explicit Fd(int fd) : fd_(fd) {}
  Fd(Fd &&o) noexcept : fd_(std::exchange(o.fd_, -1)) {}
  Fd &operator=(Fd &&o) noexcept {
    std::swap(fd_, o.fd_);
    return *this;
  }
  ~Fd() {
    if (fd_ >= 0) {
      ::close(fd_);
    }
  }
  int get() const noexcept { return fd_; }
  int release() noexcept { return std::exchange(fd_, -1); }
  explicit operator bool() const noexcept { return fd_ >= 0; }

private:
  int fd_ = -1;
};

void writeAll(int fd, const void *buf, std::size_t n, off_t at,
              const std::string &file) {
  if (const int err = Fwk::pwriteAll(fd, buf, n, at)) {
    throwSys("cannot write " + file, err);
  }
}

// Opens the file `name` below `dirFd` without following a link and without
// blocking: opening a FIFO for reading would wait for a writer to appear.
// (O_NONBLOCK changes nothing for the regular files the store goes on to
// use, so it stays set.)
int openFile(int dirFd, const std::string &name, int flags) {
  return ::openat(dirFd, name.c_str(),
                  flags | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC, 0600);
}

// Throws for an open of `shownPath` that failed with `err`.
[[noreturn]] void throwOpen(const std::string &shownPath, int err) {
  const char *what = err == ELOOP    ? "a symbolic link"
                     : err == EISDIR ? "a directory"
                     : err == ENXIO  ? "a socket or a device"
                                     : nullptr;
  if (what) {
    throw PathError(fmt::format("{} is {}; refused", shownPath, what));
  }
  throwSys("cannot open " + shownPath, err);
}

// The writer uses a file or directory only when nobody else can change it
// behind its back: it must belong to the writer's user and must not be
// writable by group or others (write bits the writer removes, with a
// notice, since it owns it). A file must also be a regular file with a
// single link: through a second name (a hard link from outside the store)
// every write would land in someone else's file.
void requireWriterOwns(int fd, const std::string &shownPath, bool directory) {
  struct stat st {};
  if (::fstat(fd, &st) != 0) {
    throwSys("cannot stat " + shownPath, errno);
  }
  if (!directory && !S_ISREG(st.st_mode)) {
    throw PathError(
        fmt::format("{} is not a regular file; refused", shownPath));
  }
  if (!directory && st.st_nlink != 1) {
    throw PathError(fmt::format("{} has {} links (another name outside the "
                                "store's control); refused",
                                shownPath, st.st_nlink));
  }
  if (st.st_uid != ::geteuid()) {
    throw PathError(fmt::format("{} belongs to uid {}, not to the writer's "
                                "uid {}; refused",
                                shownPath, st.st_uid, ::geteuid()));
  }
  if ((st.st_mode & 022) != 0) {
    const mode_t mode = st.st_mode & 07755;
    if (::fchmod(fd, mode) != 0) {
      throwSys("cannot chmod " + shownPath, errno);
    }
    reporter().notice(fmt::format("{}: writable by group or others (mode "
                                  "{:04o}); changed to {:04o}",
                                  shownPath, st.st_mode & 07777, mode));
  }
}

// Opens (and for a writer creates) the directory `name` below `dirFd`
// without following a link.
Fd openDir(int dirFd, const std::string &name, bool create,
           const std::string &shownPath) {
  for (int attempt = 0; attempt < 2; ++attempt) {
    const int fd = ::openat(dirFd, name.c_str(),
                            O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC);
    if (fd >= 0) {
      return Fd(fd);
    }
    const int err = errno;
    if (err == ENOTDIR || err == ELOOP) {
      throw PathError(fmt::format(
          "{} is not a directory (a symbolic link or a file); refused",
          shownPath));
    }
    if (err != ENOENT) {
      throwSys("cannot open directory " + shownPath, err);
    }
    if (!create) {
      return Fd();
    }
    if (::mkdirat(dirFd, name.c_str(), 0700) != 0 && errno != EEXIST) {
      throwSys("cannot create directory " + shownPath, errno);
    }
  }
  throwSys("cannot open directory " + shownPath, errno);
}

std::uint64_t randomSeed() {
  std::uint64_t seed = 0;
  if (::getrandom(&seed, sizeof seed, 0) != sizeof seed) {
    seed = static_cast<std::uint64_t>(::getpid()) * 0x9e3779b97f4a7c15ull ^
           reinterpret_cast<std::uintptr_t>(&seed);
  }
  return seed;
}

void copyName(char *dst, std::size_t size, const std::string &s) {
  // Zeroed first, at most size - 1 bytes copied: always terminated.
  std::memset(dst, 0, size);
  std::memcpy(
      dst, s.data(),
      std::min(s.size(),
               size - 1)); // NOLINT(bugprone-not-null-terminated-result)
}

// The header a writer mount expects: layout and capacities, offsets filled
// in. The seed and checksum are set only when a file is created.
format::FileHeader expectedHeader(const EntityLayout &layout,
                                  const MountInfo &info) {
  format::FileHeader h{};
  std::memcpy(h.magic, format::kMagic, sizeof h.magic);
  h.formatVersion = format::kFormatVersion;
  h.headerSize = format::kHeaderSize;
  h.fingerprint = layout.fingerprint();
  copyName(h.typeName, sizeof h.typeName, layout.typeName());
  h.collectionCount = static_cast<std::uint32_t>(layout.collections().size());
  for (std::size_t i = 0; i < layout.collections().size(); ++i) {
    const CollectionLayout &c = layout.collections()[i];
    format::CollectionDesc &d = h.collections[i];
    copyName(d.name, sizeof d.name, c.name);
    copyName(d.recordName, sizeof d.recordName, c.recordName);
    d.recordVersion = c.recordVersion;
    d.keySize = c.keySize;
    d.recordSize = c.recordSize;
    d.capacity = info.capacity(c.name);
  }
  format::computeOffsets(h);
  return h;
}

// Reserves the file space of the header and the control blocks, which every
// mount and change touches (tmpfs files are sparse; see reserveSpace).
void reserveHead(int fd, const format::FileHeader &h,
                 const std::string &shownPath) {
  if (const int err =
          detail::reserveSpace(fd, 0, h.collections[0].slotsOffset)) {
    throwSys("cannot reserve file space for " + shownPath, err);
  }
}

// Why `h` (a usable header) does not hold `layout`, or "" when it does.
// Capacities are compared only where `info` gives one.
std::string layoutDifference(const format::FileHeader &h,
                             const EntityLayout &layout,
                             const MountInfo &info) {
  if (layout.typeName() != h.typeName) {
    return fmt::format("it holds type {}", h.typeName);
  }
  if (h.fingerprint != layout.fingerprint() ||
      h.collectionCount != layout.collections().size()) {
    return "its record layout differs";
  }
  for (std::uint32_t i = 0; i < h.collectionCount; ++i) {
    const format::CollectionDesc &d = h.collections[i];
    const CollectionLayout &c = layout.collections()[i];
    if (c.name != d.name || c.recordName != d.recordName ||
        c.recordVersion != d.recordVersion || c.keySize != d.keySize ||
        c.recordSize != d.recordSize) {
      return fmt::format("collection {} differs", c.name);
    }
    const std::uint32_t cap = info.capacity(c.name);
    if (cap != 0 && cap != d.capacity) {
      return fmt::format("collection {} has capacity {}, not {}", c.name,
                         d.capacity, cap);
    }
  }
  return {};
}

// The temporary name a new entity file `name` is written under: ".<name>.new",
// the name cut so that the whole fits in 255 bytes.
std::string temporaryName(const std::string &name) {
  return "." + name.substr(0, 250) + ".new";
}

// Writes a complete new entity file under the temporary name `tmp`, which
// the caller renames into place (or removes). Returns the open file.
Fd createEntityFile(int dirFd, const std::string &tmp,
                    const std::string &shownPath, format::FileHeader h,
                    bool wiped) {
  if (::unlinkat(dirFd, tmp.c_str(), 0) != 0 && errno != ENOENT) {
    throwSys("cannot remove " + tmp, errno);
  }
  Fd fd(::openat(dirFd, tmp.c_str(),
                 O_RDWR | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, 0600));
  if (!fd) {
    throwSys("cannot create " + shownPath, errno);
  }
  try {
    if (::fchmod(fd.get(), 0600) != 0) {
      throwSys("cannot chmod " + shownPath, errno);
    }
    h.hashSeed = randomSeed();
    h.checksum = format::headerChecksum(h);
    if (::ftruncate(fd.get(), static_cast<off_t>(h.fileSize)) != 0) {
      throwSys("cannot size " + shownPath, errno);
    }
    reserveHead(fd.get(), h, shownPath);
    writeAll(fd.get(), &h, sizeof h, 0, shownPath);
    if (wiped) {
      for (std::uint32_t i = 0; i < h.collectionCount; ++i) {
        const std::uint64_t mark = format::kWipedMark;
        writeAll(fd.get(), &mark, sizeof mark,
                 static_cast<off_t>(h.collections[i].controlOffset +
                                    offsetof(format::ControlBlock, wiped)),
                 shownPath);
      }
    }
  } catch (...) {
    ::unlinkat(dirFd, tmp.c_str(), 0);
    throw;
  }
  return fd;
}

struct RegistryKey {
  std::string directory;
  Access access;
  bool operator<(const RegistryKey &o) const {
    return std::tie(directory, access) < std::tie(o.directory, o.access);
  }
};

std::mutex &registryMutex() {
  static std::mutex m;
  return m;
}
std::map<RegistryKey, Fwk::Ptr<EntityManager>> &registry() {
  static std::map<RegistryKey, Fwk::Ptr<EntityManager>> r;
  return r;
}

bool validName(const std::string &name) noexcept {
  if (name.empty() || name.size() > 255 || name[0] == '.') {
    return false;
  }
  return std::all_of(name.begin(), name.end(), [](char ch) {
    const unsigned char c = static_cast<unsigned char>(ch);
    return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') ||
           (c >= '0' && c <= '9') || c == '.' || c == '_' || c == ':' ||
           c == '-';
  });
}

std::string printable(const std::string &s) {
  std::string out;
  for (const char ch : s) {
    const unsigned char c = static_cast<unsigned char>(ch);
    out += (c >= 0x20 && c < 0x7f) ? std::string(1, ch)
                                   : fmt::format("\\x{:02x}", c);
  }
  return out;
}

} // namespace

std::string rootDirectory() {
  const char *env = std::getenv("MICA_SHM_ROOT");
  return env && *env ? std::string(env) : std::string(kDefaultRoot);
}

void validateComponent(const std::string &name) {
  if (!validName(name)) {
    throw PathError(fmt::format(
        "invalid name '{}': a name is 1 to 255 of [A-Za-z0-9._:-] and does "
        "not start with '.'",
        printable(name)));
  }
}

std::vector<std::string> splitPath(const std::string &path) {
  std::vector<std::string> parts;
  std::size_t begin = 0;
  for (;;) {
    const std::size_t end = path.find('/', begin);
    parts.push_back(path.substr(begin, end - begin));
    if (end == std::string::npos) {
      break;
    }
    begin = end + 1;
  }
  for (const std::string &p : parts) {
    if (!validName(p)) {
      throw PathError(fmt::format(
          "invalid entity path '{}': component '{}' is not 1 to 255 of "
          "[A-Za-z0-9._:-] not starting with '.'",
          printable(path), printable(p)));
    }
  }
  return parts;
}

void MountInfo::collectionInfoIs(const std::string &name,
                                 std::uint32_t capacity) {
  for (CollectionInfo &c : collections_) {
    if (c.name == name) {
      c.capacity = capacity;
      return;
    }
  }
  collections_.push_back(CollectionInfo{name, capacity});
}

std::uint32_t MountInfo::capacity(const std::string &name) const {
  for (const CollectionInfo &c : collections_) {
    if (c.name == name) {
      return c.capacity;
    }
  }
  return 0;
}

// ---------------------------------------------------------------------------

MountGroup::MountGroup(EntityManager *manager) : manager_(manager) {}
MountGroup::~MountGroup() = default;

void MountGroup::doMount(const std::string &path, const std::string &typeName,
                         const MountInfo &info) {
  if (closed_) {
    throw Error("mount of " + path + ": the mount group is closed");
  }
  manager_->mount(path, typeName, info);
  if (std::find(paths_.begin(), paths_.end(), path) == paths_.end()) {
    paths_.push_back(path);
  }
}

void MountGroup::doClose() {
  closed_ = true;
}

void MountGroup::doUnmount() {
  for (const std::string &p : paths_) {
    manager_->unmount(p);
  }
  paths_.clear();
}

// ---------------------------------------------------------------------------

EntityManager::EntityManager(std::string agentName, std::uint32_t instanceId,
                             std::string directory, Access access)
    : agentName_(std::move(agentName)), instanceId_(instanceId),
      directory_(std::move(directory)), access_(access) {}

EntityManager::~EntityManager() {
  if (lockFd_ >= 0) {
    ::close(lockFd_);
  }
  if (dirFd_ >= 0) {
    ::close(dirFd_);
  }
}

void EntityManager::open() {
  const bool writer = access_ == Access::write;
  const std::string root = rootDirectory();
  if (writer) {
    // The root is the operator's choice: created as needed, links followed.
    for (std::size_t at = 1; at <= root.size(); ++at) {
      if (at == root.size() || root[at] == '/') {
        const std::string prefix = root.substr(0, at);
        if (::mkdir(prefix.c_str(), 0700) != 0 && errno != EEXIST) {
          throwSys("cannot create " + prefix, errno);
        }
      }
    }
  }
  Fd rootFd(::open(root.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
  if (!rootFd) {
    if (!writer && errno == ENOENT) {
      throw NotFoundError(fmt::format("no shared-memory root {}", root));
    }
    throwSys("cannot open shared-memory root " + root, errno);
  }
  const std::string inst = fmt::format("{}.{}", agentName_, instanceId_);
  Fd dir = openDir(rootFd.get(), inst, writer, directory_);
  if (!dir) {
    throw NotFoundError(
        fmt::format("instance {} has no directory {}", inst, directory_));
  }
  if (writer) {
    requireWriterOwns(dir.get(), directory_, true);
    // Checked before anything is written into it.
    const std::string lockPath = directory_ + "/" + kLockName;
    Fd lock(openFile(dir.get(), kLockName, O_RDWR | O_CREAT));
    if (!lock) {
      throwOpen(lockPath, errno);
    }
    requireWriterOwns(lock.get(), lockPath, false);
    if (::flock(lock.get(), LOCK_EX | LOCK_NB) != 0) {
      const int err = errno;
      if (err != EWOULDBLOCK) {
        throwSys("cannot lock " + directory_, err);
      }
      char buf[32] = {};
      int pid = 0;
      if (::pread(lock.get(), buf, sizeof buf - 1, 0) > 0) {
        pid = std::atoi(buf);
      }
      std::string holder = "another writer";
      if (pid > 0) {
        holder = pid == ::getpid()
                     ? fmt::format("pid {} (this process, another handle)", pid)
                     : fmt::format("pid {}", pid);
      }
      throw LockedError(fmt::format("instance {} (directory {}) already has a "
                                    "writer: {}",
                                    inst, directory_, holder),
                        pid);
    }
    // Written over the old pid, then cut to length: the file keeps the page
    // it has, so that a full file system cannot stop a restart here.
    const std::string pid = fmt::format("{}\n", ::getpid());
    writeAll(lock.get(), pid.data(), pid.size(), 0, lockPath);
    if (::ftruncate(lock.get(), static_cast<off_t>(pid.size())) != 0) {
      throwSys("cannot write " + lockPath, errno);
    }
    lockFd_ = lock.release();
  }
  dirFd_ = dir.release();
  if (writer) {
    readCatalog();
  }
}

int EntityManager::walkToParent(const std::vector<std::string> &parts,
                                bool create) const {
  Fd cur(::dup(dirFd_));
  if (!cur) {
    throwSys("dup", errno);
  }
  std::string shown = directory_;
  for (std::size_t i = 0; i + 1 < parts.size(); ++i) {
    shown += "/" + parts[i];
    cur = openDir(cur.get(), parts[i], create, shown);
    if (!cur) {
      return -1;
    }
    if (create) {
      requireWriterOwns(cur.get(), shown, true);
    }
  }
  return cur.release();
}

void EntityManager::readCatalog() {
  catalog_.clear();
  catalogLost_ = false;
  const std::string catalogPath = directory_ + "/" + kCatalogName;
  Fd fd(openFile(dirFd_, kCatalogName, O_RDONLY));
  if (!fd) {
    if (errno == ENOENT) {
      return;
    }
    throwOpen(catalogPath, errno);
  }
  struct stat st {};
  if (::fstat(fd.get(), &st) != 0) {
    throwSys("cannot stat " + catalogPath, errno);
  }
  if (!S_ISREG(st.st_mode)) {
    throw PathError(
        fmt::format("{} is not a regular file; refused", catalogPath));
  }
  std::string text;
  bool ok = static_cast<std::size_t>(st.st_size) <= kMaxCatalogBytes;
  if (ok) {
    text.resize(static_cast<std::size_t>(st.st_size));
    ok = Fwk::preadAll(fd.get(), text.data(), text.size(), 0) == 0;
  }
  // "<magic>path\n...end <hex>\n", the hex an XXH3 of what precedes "end".
  const std::size_t end = text.rfind("end ");
  std::set<std::string> paths;
  if (ok) {
    ok = text.rfind(kCatalogMagic, 0) == 0 && end != std::string::npos &&
         text.back() == '\n' &&
         text.substr(end + 4, text.size() - end - 5) ==
             fmt::format("{:016x}", Fwk::hashBytes64(text.data(), end,
                                                     format::kHeaderSeed));
  }
  if (ok) {
    std::size_t at = std::strlen(kCatalogMagic);
    while (ok && at < end) {
      const std::size_t nl = text.find('\n', at);
      const std::string path = text.substr(at, nl - at);
      try {
        splitPath(path);
      } catch (const PathError &) {
        ok = false;
      }
      paths.insert(path);
      at = nl + 1;
    }
  }
  if (!ok) {
    catalogLost_ = true;
    reporter().corruption(fmt::format(
        "corruption in {}/{}: unreadable; entity files found missing will be "
        "recreated as wiped",
        directory_, kCatalogName));
    return;
  }
  catalog_ = std::move(paths);
}

void EntityManager::writeCatalog() {
  std::string text = kCatalogMagic;
  for (const std::string &p : catalog_) {
    text += p + "\n";
  }
  text +=
      fmt::format("end {:016x}\n", Fwk::hashBytes64(text.data(), text.size(),
                                                    format::kHeaderSeed));
  if (::unlinkat(dirFd_, kCatalogNew, 0) != 0 && errno != ENOENT) {
    throwSys("cannot remove the catalog draft of " + directory_, errno);
  }
  Fd fd(::openat(dirFd_, kCatalogNew,
                 O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, 0600));
  if (!fd) {
    throwSys("cannot write the catalog of " + directory_, errno);
  }
  writeAll(fd.get(), text.data(), text.size(), 0, directory_ + "/.catalog");
  if (::renameat(dirFd_, kCatalogNew, dirFd_, kCatalogName) != 0) {
    throwSys("cannot replace the catalog of " + directory_, errno);
  }
}

void EntityManager::mount(const std::string &path, const std::string &typeName,
                          const MountInfo &info) {
  if (closed_) {
    throw Error(
        fmt::format("instance {}.{} is closed", agentName_, instanceId_));
  }
  const std::vector<std::string> parts = splitPath(path);
  const EntityType *type = entityType(typeName);
  if (!type) {
    throw Error(
        fmt::format("mount of {}: unknown entity type {}", path, typeName));
  }
  const EntityLayout layout = type->layout();
  if (const auto it = entities_.find(path); it != entities_.end()) {
    if (it->second->typeName() != typeName) {
      throw Error(fmt::format("mount of {} as {}: already mounted as {}", path,
                              typeName, it->second->typeName()));
    }
    const std::string diff =
        layoutDifference(it->second->file_->header, layout, info);
    if (!diff.empty()) {
      throw Error(
          fmt::format("mount of {}: already mounted, and {}", path, diff));
    }
    // A writer mount serves readers too; a read-only one cannot serve a
    // writer, which would fail at its first change instead of here.
    const bool wantsWriter =
        access_ == Access::write && info.mountType() == MountInfo::kWriterMount;
    if (wantsWriter && !it->second->file_->writer) {
      throw Error(fmt::format(
          "mount of {} for writing: already mounted read-only in this instance "
          "(unmount it first)",
          path));
    }
    return;
  }
  layout.validate();
  if (layout.typeName() != typeName) {
    throw Error(fmt::format("entity type {} declares its layout as {}",
                            typeName, layout.typeName()));
  }
  const bool writer =
      access_ == Access::write && info.mountType() == MountInfo::kWriterMount;
  for (const CollectionInfo &c : info.collections()) {
    const auto &cs = layout.collections();
    if (std::none_of(cs.begin(), cs.end(), [&](const CollectionLayout &l) {
          return l.name == c.name;
        })) {
      throw Error(fmt::format("mount of {}: type {} has no collection {}", path,
                              typeName, c.name));
    }
    if (c.capacity > format::kMaxCapacity) {
      throw Error(fmt::format("mount of {}: capacity {} of {} above the "
                              "maximum {}",
                              path, c.capacity, c.name, format::kMaxCapacity));
    }
  }
  if (writer) {
    for (const CollectionLayout &c : layout.collections()) {
      if (info.capacity(c.name) == 0) {
        throw Error(fmt::format("mount of {}: no capacity given for "
                                "collection {}",
                                path, c.name));
      }
    }
  }

  const std::string filePath = directory_ + "/" + path;
  Fd dir(walkToParent(parts, writer));
  if (!dir) {
    throw NotFoundError(fmt::format("no entity file {}", filePath));
  }
  const std::string &name = parts.back();
  Fd fd(openFile(dir.get(), name, writer ? O_RDWR : O_RDONLY));
  if (!fd) {
    const int err = errno;
    if (err != ENOENT) {
      throwOpen(filePath, err);
    }
    if (!writer) {
      throw NotFoundError(fmt::format("no entity file {}", filePath));
    }
  }
  const bool existed = static_cast<bool>(fd);

  format::FileHeader header{};
  struct stat st {};
  bool wiped = false;
  // What to report once a recreated file is in place.
  std::string recreatedCorrupt, recreatedNotice;
  if (fd) {
    if (::fstat(fd.get(), &st) != 0) {
      throwSys("cannot stat " + filePath, errno);
    }
    if (!S_ISREG(st.st_mode)) {
      throw PathError(
          fmt::format("{} is not a regular file; refused", filePath));
    }
    if (writer) {
      requireWriterOwns(fd.get(), filePath, false);
    }
    std::string why;
    bool usable = static_cast<std::uint64_t>(st.st_size) >= sizeof header;
    if (!usable) {
      why =
          fmt::format("file of {} bytes is shorter than a header", st.st_size);
    } else if (Fwk::preadAll(fd.get(), &header, sizeof header, 0) != 0) {
      throwSys("cannot read " + filePath, errno ? errno : EIO);
    } else {
      usable = format::headerUsable(
          header, static_cast<std::uint64_t>(st.st_size), why);
    }
    if (!usable) {
      const std::string msg =
          CorruptionError(filePath, "", CorruptionError::kNoSlot,
                          "unusable header (" + why + ")")
              .what();
      if (!writer) {
        reporter().corruption(msg);
        throw CorruptionError(filePath, "", CorruptionError::kNoSlot,
                              "unusable header (" + why + ")");
      }
      recreatedCorrupt = msg + "; recreated empty, wiped";
      fd = Fd();
      wiped = true;
    } else if (const std::string diff = layoutDifference(header, layout, info);
               !diff.empty()) {
      if (!writer) {
        throw LayoutError(fmt::format("{} is not a {} of this layout: {}",
                                      filePath, typeName, diff));
      }
      recreatedNotice = fmt::format("{}: {}; recreated empty for {}, wiped",
                                    filePath, diff, typeName);
      fd = Fd();
      wiped = true;
    }
  } else {
    wiped = catalogLost_ || catalog_.count(path) != 0;
    if (wiped) {
      recreatedNotice = fmt::format(
          "{}: missing though it was created before; recreated empty, wiped",
          filePath);
    }
  }

  // A new file is written, mapped and mounted under a temporary name, and
  // renamed into place only when all of that worked: a failed mount leaves
  // the directory as it was (and a file it was to replace untouched).
  std::string tmp;
  if (!fd) {
    tmp = temporaryName(name);
    header = expectedHeader(layout, info);
    fd = createEntityFile(dir.get(), tmp, filePath, header, wiped);
  }
  Fwk::Ptr<Entity> entity;
  try {
    if (::fstat(fd.get(), &st) != 0) {
      throwSys("cannot stat " + filePath, errno);
    }
    if (Fwk::preadAll(fd.get(), &header, sizeof header, 0) != 0) {
      throwSys("cannot read " + filePath, errno ? errno : EIO);
    }
    if (writer) {
      reserveHead(fd.get(), header, filePath);
    }
    auto file = std::make_shared<detail::MountedFile>();
    file->entityPath = path;
    file->filePath = filePath;
    file->typeName = typeName;
    file->writer = writer;
    file->header = header;
    file->size = static_cast<std::size_t>(st.st_size);
    void *base =
        ::mmap(nullptr, file->size, writer ? PROT_READ | PROT_WRITE : PROT_READ,
               MAP_SHARED, fd.get(), 0);
    if (base == MAP_FAILED) {
      throwSys("cannot map " + filePath, errno);
    }
    file->base = static_cast<unsigned char *>(base);
    file->fd = fd.release();

    EntityInit init(file, layout);
    entity = type->make(init);
    if (!tmp.empty() &&
        ::renameat(dir.get(), tmp.c_str(), dir.get(), name.c_str()) != 0) {
      throwSys("cannot rename new file into " + filePath, errno);
    }
  } catch (...) {
    if (!tmp.empty()) {
      ::unlinkat(dir.get(), tmp.c_str(), 0);
    }
    throw;
  }
  if (!recreatedCorrupt.empty()) {
    reporter().corruption(recreatedCorrupt);
  }
  if (!recreatedNotice.empty()) {
    reporter().notice(recreatedNotice);
  }
  if (writer && catalog_.insert(path).second) {
    try {
      writeCatalog();
    } catch (...) {
      // Not recorded, so not kept: a file of a path that was never mounted
      // does not outlive the failed mount.
      catalog_.erase(path);
      if (!existed) {
        ::unlinkat(dir.get(), name.c_str(), 0);
      }
      throw;
    }
  }
  entities_[path] = entity;
}

void EntityManager::unmount(const std::string &path) {
  const auto it = entities_.find(path);
  if (it == entities_.end()) {
    return;
  }
  it->second->markClosed();
  entities_.erase(it);
}

Fwk::Ptr<MountGroup> EntityManager::mountGroup() {
  return Fwk::Ptr<MountGroup>(new MountGroup(this));
}

Fwk::Ptr<Entity> EntityManager::entity(const std::string &path) const {
  const auto it = entities_.find(path);
  return it == entities_.end() ? nullptr : it->second;
}

namespace {

void listFiles(int dirFd, const std::string &prefix,
               std::vector<std::string> &out, int depth) {
  if (depth > 64) {
    return;
  }
  const int fd = ::dup(dirFd);
  if (fd < 0) {
    return;
  }
  DIR *d = ::fdopendir(fd);
  if (!d) {
    ::close(fd);
    return;
  }
  ::rewinddir(d);
  std::vector<std::string> names;
  while (const dirent *e = ::readdir(d)) {
    if (validName(e->d_name)) {
      names.emplace_back(e->d_name);
    }
  }
  ::closedir(d);
  std::sort(names.begin(), names.end());
  for (const std::string &n : names) {
    struct stat st {};
    if (::fstatat(dirFd, n.c_str(), &st, AT_SYMLINK_NOFOLLOW) != 0) {
      continue;
    }
    std::string path = prefix;
    if (!path.empty()) {
      path += '/';
    }
    path += n;
    if (S_ISREG(st.st_mode)) {
      out.push_back(path);
    } else if (S_ISDIR(st.st_mode)) {
      Fd sub(::openat(dirFd, n.c_str(),
                      O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
      if (sub) {
        listFiles(sub.get(), path, out, depth + 1);
      }
    }
  }
}

} // namespace

std::vector<std::string>
EntityManager::entityPaths(const std::string &basePath) const {
  std::vector<std::string> out;
  if (closed_) {
    return out;
  }
  if (basePath.empty()) {
    listFiles(dirFd_, "", out, 0);
    return out;
  }
  const std::vector<std::string> parts = splitPath(basePath);
  Fd dir(walkToParent(parts, false));
  if (!dir) {
    return out;
  }
  struct stat st {};
  if (::fstatat(dir.get(), parts.back().c_str(), &st, AT_SYMLINK_NOFOLLOW) !=
      0) {
    return out;
  }
  if (S_ISREG(st.st_mode)) {
    out.push_back(basePath);
  } else if (S_ISDIR(st.st_mode)) {
    Fd sub(::openat(dir.get(), parts.back().c_str(),
                    O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
    if (sub) {
      listFiles(sub.get(), basePath, out, 0);
    }
  }
  return out;
}

std::vector<std::string>
EntityManager::knownEntityPaths(const std::string &basePath) const {
  std::vector<std::string> out = entityPaths(basePath);
  if (closed_) {
    return out;
  }
  // entityPaths() has checked the path: its components, no trailing '/'.
  const std::string &base = basePath;
  for (const std::string &p : catalog_) {
    if (base.empty() || p == base ||
        (p.size() > base.size() && p.compare(0, base.size(), base) == 0 &&
         p[base.size()] == '/')) {
      out.push_back(p);
    }
  }
  std::sort(out.begin(), out.end());
  out.erase(std::unique(out.begin(), out.end()), out.end());
  return out;
}

void EntityManager::entityDel(const std::string &path) {
  FWK_ASSERT_MSG(access_ == Access::write && !closed_,
                 "entityDel({}) needs an open writer handle", path);
  const std::vector<std::string> parts = splitPath(path);
  unmount(path);
  // The catalog entry goes first: a crash between the two leaves the file
  // and no entry, which mounts as the file it is, never as wiped.
  if (catalog_.erase(path) != 0) {
    try {
      writeCatalog();
    } catch (...) {
      catalog_.insert(path); // still listed on disk, and the file stays
      throw;
    }
  }
  Fd dir(walkToParent(parts, false));
  if (dir && ::unlinkat(dir.get(), parts.back().c_str(), 0) != 0 &&
      errno != ENOENT) {
    throwSys("cannot remove " + directory_ + "/" + path, errno);
  }
}

void EntityManager::close() {
  if (closed_) {
    return;
  }
  for (auto &[path, e] : entities_) {
    e->markClosed();
  }
  entities_.clear();
  if (lockFd_ >= 0) {
    ::close(lockFd_); // releases the writer lock
    lockFd_ = -1;
  }
  if (dirFd_ >= 0) {
    ::close(dirFd_);
    dirFd_ = -1;
  }
  closed_ = true;
  Fwk::Ptr<EntityManager> self(this); // the registry may hold the last ref
  std::lock_guard<std::mutex> g(registryMutex());
  const auto it = registry().find(RegistryKey{directory_, access_});
  if (it != registry().end() && it->second.ptr() == this) {
    registry().erase(it);
  }
}

Fwk::Ptr<EntityManager> entityManager(const std::string &agentName,
                                      std::uint32_t instanceId, Access access) {
  validateComponent(agentName);
  const std::string directory =
      fmt::format("{}/{}.{}", rootDirectory(), agentName, instanceId);
  std::lock_guard<std::mutex> g(registryMutex());
  auto &r = registry();
  const RegistryKey key{directory, access};
  if (const auto it = r.find(key); it != r.end()) {
    return it->second;
  }
  Fwk::Ptr<EntityManager> em(
      new EntityManager(agentName, instanceId, directory, access));
  em->open();
  r[key] = em;
  return em;
}

} // namespace Shm
