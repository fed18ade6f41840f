#include "platform/shm/Entity.h"

#include <fcntl.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <fmt/format.h>

#include <cerrno>
#include <map>
#include <mutex>
#include <set>

namespace Shm {

EntityLayout::EntityLayout(std::string typeName)
    : typeName_(std::move(typeName)) {}

EntityLayout &EntityLayout::add(CollectionLayout c) {
  collections_.push_back(std::move(c));
  return *this;
}

std::uint64_t EntityLayout::fingerprint() const noexcept {
  std::string text = typeName_;
  for (const CollectionLayout &c : collections_) {
    text += fmt::format("\n{}\t{}\t{}\t{}\t{}", c.name, c.recordName,
                        c.recordVersion, c.keySize, c.recordSize);
  }
  return Fwk::hashBytes64(text.data(), text.size(), format::kHeaderSeed);
}

void EntityLayout::validate() const {
  auto fail = [&](const std::string &why) {
    throw Error(fmt::format("entity type {}: {}", typeName_, why));
  };
  if (typeName_.empty() || typeName_.size() >= format::kTypeNameSize) {
    fail("type name must have 1 to 127 characters");
  }
  if (collections_.empty() || collections_.size() > format::kMaxCollections) {
    fail(fmt::format("must have 1 to {} collections", format::kMaxCollections));
  }
  std::set<std::string> names;
  for (const CollectionLayout &c : collections_) {
    if (c.name.empty() || c.name.size() >= format::kNameSize ||
        c.recordName.size() >= format::kNameSize) {
      fail(fmt::format("collection '{}': names must have 1 to 63 characters",
                       c.name));
    }
    if (!names.insert(c.name).second) {
      fail(fmt::format("collection '{}' appears twice", c.name));
    }
    if (c.recordSize == 0 || c.recordSize > format::kMaxRecordSize ||
        c.keySize == 0 || c.keySize > c.recordSize) {
      fail(fmt::format("collection '{}': record of {} bytes not supported",
                       c.name, c.recordSize));
    }
  }
}

namespace detail {

int reserveSpace(int fd, std::uint64_t offset, std::uint64_t len) noexcept {
  int err = 0;
  do {
    err = ::posix_fallocate(fd, static_cast<off_t>(offset),
                            static_cast<off_t>(len));
  } while (err == EINTR);
  return err;
}

void prefault(void *p, std::uint64_t len) noexcept {
#ifndef MADV_POPULATE_WRITE
  constexpr int MADV_POPULATE_WRITE = 23; // Linux 5.14
#endif
  static const auto page = static_cast<std::uintptr_t>(::sysconf(_SC_PAGESIZE));
  const auto begin = reinterpret_cast<std::uintptr_t>(p) & ~(page - 1);
  const auto end = reinterpret_cast<std::uintptr_t>(p) + len;
  if (len != 0) {
    (void)::madvise(reinterpret_cast<void *>(begin), end - begin,
                    MADV_POPULATE_WRITE);
  }
}

MountedFile::~MountedFile() {
  if (base) {
    ::munmap(base, size);
  }
  if (fd >= 0) {
    ::close(fd);
  }
}

} // namespace detail

EntityInit::EntityInit(std::shared_ptr<detail::MountedFile> file,
                       EntityLayout layout)
    : file_(std::move(file)), layout_(std::move(layout)) {}

detail::CollectionSite
EntityInit::site(const CollectionLayout &expected) const {
  const format::FileHeader &h = file_->header;
  for (std::uint32_t i = 0; i < h.collectionCount; ++i) {
    const format::CollectionDesc &d = h.collections[i];
    if (expected.name != d.name) {
      continue;
    }
    if (expected.recordName != d.recordName ||
        expected.recordVersion != d.recordVersion ||
        expected.keySize != d.keySize || expected.recordSize != d.recordSize) {
      throw LayoutError(fmt::format(
          "{}: collection {} holds {} v{} ({} bytes), not {} v{} ({} bytes)",
          file_->filePath, expected.name, d.recordName, d.recordVersion,
          d.recordSize, expected.recordName, expected.recordVersion,
          expected.recordSize));
    }
    detail::CollectionSite s;
    s.file = file_.get();
    s.name = expected.name;
    s.desc = d;
    s.control =
        reinterpret_cast<format::ControlBlock *>(file_->base + d.controlOffset);
    s.slots = file_->base + d.slotsOffset;
    s.hashSeed = h.hashSeed;
    s.writer = file_->writer;
    return s;
  }
  throw LayoutError(
      fmt::format("{}: no collection {}", file_->filePath, expected.name));
}

Entity::Entity(EntityInit &init) : file_(init.file()) {}
Entity::~Entity() = default;

bool Entity::stale() const {
  struct stat fdStat {};
  struct stat pathStat {};
  if (::fstat(file_->fd, &fdStat) != 0 || fdStat.st_nlink == 0) {
    return true;
  }
  if (::stat(file_->filePath.c_str(), &pathStat) != 0) {
    return true;
  }
  return pathStat.st_dev != fdStat.st_dev || pathStat.st_ino != fdStat.st_ino;
}

namespace {
std::mutex &typesMutex() {
  static std::mutex m;
  return m;
}
std::map<std::string, EntityType> &types() {
  static std::map<std::string, EntityType> t;
  return t;
}
} // namespace

void entityTypeIs(const EntityType &type) {
  std::lock_guard<std::mutex> g(typesMutex());
  types()[type.typeName] = type;
}

const EntityType *entityType(const std::string &typeName) {
  std::lock_guard<std::mutex> g(typesMutex());
  const auto it = types().find(typeName);
  return it == types().end() ? nullptr : &it->second;
}

} // namespace Shm
