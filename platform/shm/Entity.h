// Entities: typed views of one mapped entity file, and how their types are
// declared and registered. Users include platform/shm/Store.h.
//
// An entity type lists its collections in a layout and binds each of them to
// the mapped file in its constructor:
//
//   class MplsIsem2ConfigSlate : public Shm::Entity {
//   public:
//     static constexpr const char *kTypeName =
//     "MicaMpls::MplsIsem2ConfigSlate"; static Shm::EntityLayout layout() {
//       return Shm::EntityLayout(kTypeName)
//           .collection<ConfigRecordTraits>("swTableEntries");
//     }
//     explicit MplsIsem2ConfigSlate(Shm::EntityInit &init)
//         : Shm::Entity(init), entries_(init, "swTableEntries") {}
//     Shm::Collection<ConfigRecordTraits> &swTableEntries() { return entries_;
//     }
//   private:
//     Shm::Collection<ConfigRecordTraits> entries_;
//   };
//   // in the .cpp, so that doMount(path, kTypeName, info) can build it:
//   static const Shm::EntityTypeRegistrar<MplsIsem2ConfigSlate> kReg;
#pragma once

#include <sys/types.h>

#include <atomic>
#include <cstdint>
#include <memory>
#include <string>
#include <type_traits>
#include <vector>

#include "platform/Export.h"
#include "platform/framework/Object.h"
#include "platform/shm/Errors.h"
#include "platform/shm/Format.h"

namespace Shm {

class EntityManager;

enum class Access { write, read };

// One collection of a layout: what its records are, not how many.
struct CollectionLayout {
  std::string name;
  std::string recordName;
  std::uint32_t recordVersion = 0;
  std::uint32_t keySize = 0;
  std::uint32_t recordSize = 0;
  bool operator==(const CollectionLayout &) const = default;
};

// What records and keys must be to live in a file.
template <typename Record, typename Key> constexpr bool StorableRecords = [] {
  static_assert(std::is_trivially_copyable_v<Record> &&
                    std::is_trivially_copyable_v<Key>,
                "records live in shared memory and are copied as bytes");
  static_assert(std::has_unique_object_representations_v<Record> &&
                    std::has_unique_object_representations_v<Key>,
                "records and keys are checksummed, hashed and compared as "
                "bytes: declare padding as explicit fields that stay zero");
  static_assert(alignof(Record) <= 8 && alignof(Key) <= 8,
                "records sit at 8-byte aligned offsets in the file");
  return true;
}();

// The type name and collections of an entity type. Two files have the same
// layout exactly when their fingerprints are equal; a change of any record's
// name, version or size is a new layout (and a writer mount of the old file
// recreates it empty, wiped).
class MICA_PLATFORM_API EntityLayout {
public:
  explicit EntityLayout(std::string typeName);

  // Adds a collection of Traits::Record keyed by Traits::Key.
  template <typename Traits> EntityLayout &collection(std::string name) {
    using Record = typename Traits::Record;
    using Key = typename Traits::Key;
    static_assert(StorableRecords<Record, Key>);
    return add(CollectionLayout{std::move(name), Traits::kRecordName,
                                Traits::kRecordVersion,
                                static_cast<std::uint32_t>(sizeof(Key)),
                                static_cast<std::uint32_t>(sizeof(Record))});
  }

  const std::string &typeName() const noexcept { return typeName_; }
  const std::vector<CollectionLayout> &collections() const noexcept {
    return collections_;
  }
  std::uint64_t fingerprint() const noexcept;
  // Throws Shm::Error when a name is empty or too long, a collection name
  // repeats, there are no or too many collections, or a record is too big.
  void validate() const;

private:
  EntityLayout &add(CollectionLayout c);

  std::string typeName_;
  std::vector<CollectionLayout> collections_;
};

namespace detail {

// A mapped entity file. Owned by its Entity; collections point into it.
class MICA_PLATFORM_API MountedFile {
public:
  MountedFile() = default;
  MountedFile(const MountedFile &) = delete;
  MountedFile &operator=(const MountedFile &) = delete;
  ~MountedFile();

  std::string entityPath;
  std::string filePath;
  std::string typeName;
  int fd = -1;
  unsigned char *base = nullptr;
  std::size_t size = 0;
  bool writer = false;
  // The header as validated at mount: offsets are taken from this copy, never
  // from the mapping, so a later change of the mapped bytes cannot move them.
  format::FileHeader header{};
  // Set when the handle that mounted the file closes or unmounts it.
  std::atomic<bool> closed{false};
};

// Makes the file system allocate the bytes [offset, offset + len) of the
// file, so that no store into a mapping of them can fault for want of a
// page (tmpfs files are sparse: a store into a hole allocates the page then,
// and raises SIGBUS when the file system is full). Returns 0, or the error
// number of the failure (ENOSPC when the file system is full).
MICA_PLATFORM_API int reserveSpace(int fd, std::uint64_t offset,
                                   std::uint64_t len) noexcept;

// Maps the pages of [p, p + len), reserved space of a writable mapping, in
// one call instead of one fault per page at their first store (a first load
// stores into every page it reserves). Changes no byte; a kernel without
// the call leaves the pages to fault as before.
MICA_PLATFORM_API void prefault(void *p, std::uint64_t len) noexcept;

// Where one collection lives in a mapped file.
struct CollectionSite {
  MountedFile *file = nullptr;
  std::string name;
  format::CollectionDesc desc{};
  format::ControlBlock *control = nullptr;
  unsigned char *slots = nullptr;
  std::uint64_t hashSeed = 0;
  bool writer = false;
};

} // namespace detail

// Handed to an entity type's constructor while it is mounted. Lives only
// during the constructor.
class MICA_PLATFORM_API EntityInit {
public:
  EntityInit(std::shared_ptr<detail::MountedFile> file, EntityLayout layout);

  // The collection `name` of the file. Throws LayoutError when the layout has
  // no such collection or its record does not match `expected`.
  detail::CollectionSite site(const CollectionLayout &expected) const;

  const std::shared_ptr<detail::MountedFile> &file() const noexcept {
    return file_;
  }
  const EntityLayout &layout() const noexcept { return layout_; }

private:
  std::shared_ptr<detail::MountedFile> file_;
  EntityLayout layout_;
};

// The base of every entity type: one mounted file.
class MICA_PLATFORM_API Entity : public Fwk::Object {
public:
  const std::string &path() const noexcept { return file_->entityPath; }
  const std::string &typeName() const noexcept { return file_->typeName; }
  // The file's path on disk.
  const std::string &fileName() const noexcept { return file_->filePath; }
  Access access() const noexcept {
    return file_->writer ? Access::write : Access::read;
  }
  // True once the handle that mounted it has closed or unmounted it. A closed
  // entity still reads its mapping but refuses every change (assertion).
  bool closed() const noexcept {
    return file_->closed.load(std::memory_order_relaxed);
  }
  // For readers: whether the file this entity maps has since been removed or
  // replaced (the writer recreated it, or deleted the entity). A stale entity
  // keeps reading the old contents; mount again to see the new file.
  bool stale() const;

protected:
  explicit Entity(EntityInit &init);
  ~Entity() override;

private:
  friend class EntityManager;
  void markClosed() noexcept {
    file_->closed.store(true, std::memory_order_relaxed);
  }

  std::shared_ptr<detail::MountedFile> file_;
};

// How the store builds an entity of a registered type.
struct EntityType {
  std::string typeName;
  EntityLayout (*layout)() = nullptr;
  Fwk::Ptr<Entity> (*make)(EntityInit &) = nullptr;
};

// Registers a type under its name; a second registration of the same name
// replaces the first (so a library reloaded in one process works).
MICA_PLATFORM_API void entityTypeIs(const EntityType &type);
// The registered type of that name, or null.
MICA_PLATFORM_API const EntityType *entityType(const std::string &typeName);

// Registers E (which provides kTypeName, layout() and E(EntityInit&)) from a
// static initialiser.
template <typename E> struct EntityTypeRegistrar {
  EntityTypeRegistrar() {
    entityTypeIs(EntityType{E::kTypeName, &E::layout,
                            [](EntityInit &init) -> Fwk::Ptr<Entity> {
                              return Fwk::Ptr<Entity>(new E(init));
                            }});
  }
};

} // namespace Shm
