// The shared-memory record store: fixed-capacity keyed collections of
// records in memory-mapped files that outlive the writer process, read by
// other processes without locks.
//
//   auto em = Shm::entityManager("mplsAgent", 0); // takes the writer lock
//   Shm::MountInfo info;
//   info.collectionInfoIs("swTableEntries", 65536);
//   em->mountGroup()->doMount("isem2/slate/unit0",
//                             MplsIsem2ConfigSlate::kTypeName, info);
//   auto slate =
//       Fwk::ptrCast<MplsIsem2ConfigSlate>(em->entity("isem2/slate/unit0"));
//   slate->swTableEntries().insert(rec);
//
//   // another process:
//   auto ro = Shm::entityManager("mplsAgent", 0, Shm::Access::read);
//   ro->mountGroup()->doMount("isem2/slate/unit0",
//                             MplsIsem2ConfigSlate::kTypeName,
//                             Shm::MountInfo(Shm::MountInfo::kReaderMount));
//
// Files. An instance (agent name, instance id) owns the directory
// <root>/<agentName>.<instanceId>/, where <root> is $MICA_SHM_ROOT or
// /dev/shm/mica-mpls. Each entity path "a/b/c" is the file a/b/c below it
// (directories 0700, files 0600). The root itself is the operator's choice
// and is opened as given; below it every component is opened on its own with
// O_NOFOLLOW, so a symbolic link anywhere in the instance directory is
// refused. Names starting with '.' belong to the store: ".lock" (the writer
// lock, holding the writer's pid), ".catalog" (every entity path ever
// created here) and ".<name>.new" (a file being created; the name cut to 250
// bytes). An instance directory may also hold files other programs put there
// (the agent's ".hw-progress" FIFO, say): the store ignores every name
// starting with '.' that is not its own. The layout of an entity file is in
// Format.h.
//
// Processes. One writer per instance: the writer handle holds an exclusive
// flock on .lock for its life (released by close() or by the process's
// death, however it dies). A second writer, in another process or through
// another handle of this process, gets LockedError. A forked child inherits
// the lock with the open file, so fork a writer only while this process has
// no writer handle open. Readers take no lock, map files read-only and never
// write; see SlotReader.h for how they read.
//
// Crash consistency. The writer may be killed at any instruction; a remount
// must find every record as it was before the interrupted change or as after
// it, never torn, and everything committed before it. Why it does:
//
// 1. Nothing the mount relies on is a summary. Counts, the free list and the
//    index live only in the writer's memory and are rebuilt from the slots at
//    every mount. The only summary word in the file, the high-water mark, is
//    bumped before a slot beyond it is first written (W1 before W3), so every
//    sealed slot lies below it; the mount lowers it to just past the last
//    sealed slot.
// 2. A record is committed by one aligned 8-byte store, its seal (W3). The
//    bytes and the checksum are written before it, into a slot whose seal is
//    0, which the mount treats as free whatever the bytes hold. So a kill
//    before the seal store leaves the slot free (the state before an
//    insert); a kill after it leaves the whole record (the state after).
// 3. A replace publishes the new copy in a spare slot first and frees the old
//    one (seal 0) only after. A kill between the two leaves two copies of the
//    key; their sequence numbers tell which is newer, and the mount keeps it
//    and frees the other: the state after the replace. The array has
//    capacity + 1 slots, so that spare always exists, even when full.
// 4. An erase is one store of 0 into the seal.
// 5. The checksum is seeded with the seal, so a seal can only vouch for the
//    bytes written for it: a kill can never pair a new seal with older bytes
//    without the mount seeing a mismatch (which it reports as corruption; a
//    crash alone never produces one).
// 6. Sequence numbers only grow, also across restarts: the mount starts after
//    the largest of the seals it finds and of the commit word (W4), which
//    records the sequence number of every change, erases included. So a
//    newer copy always has the larger number, and a seal value never repeats
//    in a slot (which the lock-free readers rely on). The commit word is
//    stored before any seal of its change, so one below the largest seal, or
//    beyond what a collection can count to (kSeqPlausible), was damaged: the
//    mount reports it and starts after the largest seal. Seals never wrap:
//    once a seal holds the largest sequence number (only damage that kept a
//    valid checksum gets there), every insert throws Shm::Error and writes
//    nothing; erases still work.
// 7. The scratchpad and the wiped flag are single 8-byte words. A file is
//    created complete under a temporary name and renamed into place, so a
//    kill during creation leaves either no file or the whole one; an unusable
//    header is recreated (wiped) rather than repaired.
// 8. No control word decides what memory is touched. Readers and the
//    writer's mount scan slots only below the high-water mark bounded by the
//    file as it is at that moment (fstat: its size, and its last written
//    page), so a mark damaged to any value, or a file cut short under a
//    reader, never faults past the end of the file and never makes a sparse
//    file allocate its holes. The writer's mount reports a mark beyond what
//    a crash leaves (one slot past the written pages) and stores the right
//    one.
// A user that hands out version numbers from the scratchpad reserves a
// version there (stores it) before it writes any record carrying it; then
// after a crash the scratchpad is at least every version a record carries,
// and scratchpad + 1 is never one that a record already holds (a version
// reserved by a change that was cut off is simply never used).
// What this does not cover: power loss or kernel crashes (files live in
// tmpfs; nothing is synced), and a second writer that ignores the lock.
//
// Wiped. A collection whose contents were lost is recreated empty with its
// wiped flag set (CollectionControl::wiped) until clearWiped(): when its file
// is missing though the instance's catalog says it was created before, or
// when the file's header is unusable or of another layout (type, record
// names, versions or sizes, collection names, capacities). A fresh instance
// directory starts with nothing wiped.
//
// Full file system. The store never stores into a page of a mapped file
// that the file system has not allocated (on a full tmpfs such a store
// raises SIGBUS): the header and control blocks are reserved
// (posix_fallocate) when a file is created or mounted for writing, and each
// collection reserves its slots ahead of use, always keeping a free one
// backed (see Collection.h). When the file system has no space, a writer
// mount throws NoSpaceError naming the file, with nothing created and
// nothing committed changed, and an insert of a new key throws NoSpaceError
// (a CollectionFullError) with nothing changed; replaces and erases never
// need new space. Nothing is lost either way: a later mount with space finds
// every committed record. A name the file system finds too long is a
// PathError.
//
// Odd and foreign files. Files are opened with O_NONBLOCK and checked
// (fstat) before anything is read, so a FIFO, socket or device where the
// store expects an entity file, its catalog or its lock is refused with
// PathError instead of hanging an open. The writer uses a file or directory
// only when nobody else can change it: the lock and every entity file must be
// a regular file with a single link (no other name outside the store) owned
// by the writer's effective user, and the instance directory and those below
// it must be owned by that user; all of it is checked on the open
// descriptor before anything is written. Group or other write permission on
// what the writer owns is removed, with a notice. Readers never write, so
// they check only that they open regular files and directories without
// following links; they read files whatever their owner, mode or links (and
// survive whatever bytes they find). A mount that fails leaves nothing
// behind: a file to create is written, mapped and mounted under its temporary
// name and renamed into place only when that worked, and recorded in the
// catalog only after.
//
// Outside the contract: another process that truncates a mapped file (every
// access beyond the new end raises SIGBUS, in the writer and in readers),
// and a user who can change the files behind the checks above (root can).
//
// Threads: a handle and its entities are used by one thread at a time. The
// process registry (entityManager) may be called from any thread.
#pragma once

#include <cstdint>
#include <map>
#include <set>
#include <string>
#include <vector>

#include "platform/Export.h"
#include "platform/framework/Object.h"
#include "platform/shm/Collection.h"
#include "platform/shm/Entity.h"
#include "platform/shm/Errors.h"

namespace Shm {

// $MICA_SHM_ROOT, or /dev/shm/mica-mpls when it is unset or empty.
MICA_PLATFORM_API std::string rootDirectory();

// Throws PathError unless `name` is a valid path component: non-empty, at
// most 255 bytes, only [A-Za-z0-9._:-], not starting with '.'.
MICA_PLATFORM_API void validateComponent(const std::string &name);
// Throws PathError unless every '/'-separated component of `path` is valid.
MICA_PLATFORM_API std::vector<std::string> splitPath(const std::string &path);

struct CollectionInfo {
  std::string name;
  std::uint32_t capacity = 0;
};

// What a mount needs besides the type: the capacity of every collection.
class MICA_PLATFORM_API MountInfo {
public:
  static constexpr std::uint32_t kWriterMount = 0;
  // A read-only mount, also through a writer handle. Capacities are taken
  // from the file (any given here must match it).
  static constexpr std::uint32_t kReaderMount = 1;

  explicit MountInfo(std::uint32_t mountType = kWriterMount)
      : mountType_(mountType) {}

  std::uint32_t mountType() const noexcept { return mountType_; }
  void collectionInfoIs(const std::string &name, std::uint32_t capacity);
  // 0 when not given.
  std::uint32_t capacity(const std::string &name) const;
  const std::vector<CollectionInfo> &collections() const noexcept {
    return collections_;
  }

private:
  std::uint32_t mountType_;
  std::vector<CollectionInfo> collections_;
};

class EntityManager;

// A set of mounts made together. Closing the group ends it: the mounts stay
// with the manager (entity() finds them) until it unmounts them, and the
// group refuses further mounts. doUnmount() takes the group's mounts back.
class MICA_PLATFORM_API MountGroup : public Fwk::Object {
public:
  // Opens the entity file at `path` (creating it, or recreating it empty and
  // wiped, as the top of this file says), builds the entity of the
  // registered type `typeName` over it and registers it with the manager.
  // Mounting a path that is already mounted with the same type does nothing.
  // Throws PathError, LayoutError, NotFoundError (readers), CorruptionError
  // (readers, unusable header), NoSpaceError (writers, the file system is
  // full) or Error (unknown type, missing or invalid capacity, another type
  // mounted at the path, a failed system call). A mount that throws leaves
  // no file behind.
  void doMount(const std::string &path, const std::string &typeName,
               const MountInfo &info);
  // Ends the group; its mounts stay.
  void doClose();
  // Unmounts every entity this group mounted.
  void doUnmount();

  const std::vector<std::string> &paths() const noexcept { return paths_; }

private:
  friend class EntityManager;
  explicit MountGroup(EntityManager *manager);
  ~MountGroup() override;

  Fwk::Ptr<EntityManager> manager_;
  std::vector<std::string> paths_;
  bool closed_ = false;
};

// The process's handle of one instance directory.
class MICA_PLATFORM_API EntityManager : public Fwk::Object {
public:
  const std::string &agentName() const noexcept { return agentName_; }
  std::uint32_t instanceId() const noexcept { return instanceId_; }
  const std::string &directory() const noexcept { return directory_; }
  Access access() const noexcept { return access_; }
  bool closed() const noexcept { return closed_; }

  Fwk::Ptr<MountGroup> mountGroup();
  // The mounted entity at `path`, or null.
  Fwk::Ptr<Entity> entity(const std::string &path) const;
  // The entity files on disk at or below `basePath` ("" for all), as entity
  // paths, each directory's entries in sorted order.
  std::vector<std::string> entityPaths(const std::string &basePath) const;
  // The entities of the instance at or below `basePath` ("" for all), as
  // sorted entity paths: the entity files on disk and, through a writer
  // handle, every entity the instance has created (its catalog), also one
  // whose file has been lost since (a mount recreates it wiped).
  std::vector<std::string> knownEntityPaths(const std::string &basePath) const;
  // Unmounts the entity, removes it from the catalog and deletes its file.
  // REQUIRES: writer.
  void entityDel(const std::string &path);
  // Unmounts everything, releases the writer lock and forgets this handle in
  // the process registry; a later entityManager() opens the instance anew.
  // Entities still held afterwards keep reading their mapping but refuse
  // every change.
  void close();

private:
  friend class MountGroup;
  friend Fwk::Ptr<EntityManager> entityManager(const std::string &,
                                               std::uint32_t, Access);
  EntityManager(std::string agentName, std::uint32_t instanceId,
                std::string directory, Access access);
  ~EntityManager() override;

  void open();
  void mount(const std::string &path, const std::string &typeName,
             const MountInfo &info);
  void unmount(const std::string &path);
  int walkToParent(const std::vector<std::string> &parts, bool create) const;
  void readCatalog();
  void writeCatalog();

  std::string agentName_;
  std::uint32_t instanceId_;
  std::string directory_;
  Access access_;
  bool closed_ = false;
  int dirFd_ = -1;
  int lockFd_ = -1;
  std::set<std::string> catalog_;
  bool catalogLost_ = false;
  std::map<std::string, Fwk::Ptr<Entity>> entities_;
};

// The process's handle of the instance, opened on first use and the same
// object until close(). Access::write takes the writer lock (LockedError when
// another writer holds it) and creates the instance directory when needed;
// Access::read needs it to exist (NotFoundError). A process may hold a
// writer and a reader handle of one instance at once.
MICA_PLATFORM_API Fwk::Ptr<EntityManager>
entityManager(const std::string &agentName, std::uint32_t instanceId,
              Access access = Access::write);

} // namespace Shm
