// The store against its file system: full, holding odd or foreign files,
// refusing long names, unable to map a file. The parts that could hang or
// die of a fault run in child processes.
#include <sys/mman.h>
#include <sys/stat.h>

#include <fstream>
#include <functional>
#include <set>

#include "ShmTestTypes.h"
#include "platform/shm/OneCollectionEntity.h"
#include "support/ScratchTmpfs.h"

using namespace ShmTest;
namespace format = Shm::format;
using TestSupport::require;
using TestSupport::runInChild;

namespace {

// Records of the largest size the store takes: a collection of a few
// hundred million of them is far beyond what a process can map.
struct HugeRecord {
  std::uint32_t key = 0;
  std::uint32_t value = 0;
  std::uint8_t bytes[(1u << 20) - 8] = {};
};
struct HugeTraits {
  using Key = std::uint32_t;
  using Record = HugeRecord;
  static Key keyOf(const Record &r) { return r.key; }
  static constexpr const char *kRecordName = "ShmTest::HugeRecord";
  static constexpr std::uint32_t kRecordVersion = 1;
};
struct HugeTableNames {
  static constexpr const char *kTypeName = "ShmTest::HugeTable";
  static constexpr const char *kCollection = "entries";
  static constexpr std::uint32_t kCapacity = 1;
};
using HugeTable = Shm::OneCollectionEntity<HugeTraits, HugeTableNames>;
const Shm::EntityTypeRegistrar<HugeTable> kHugeTable;

template <typename E>
void requireThrows(const std::function<void()> &f, const std::string &what) {
  try {
    f();
  } catch (const E &) {
    return;
  } catch (const std::exception &e) {
    throw std::runtime_error(what + ": wrong error: " + e.what());
  }
  throw std::runtime_error(what + ": no error");
}

std::set<std::string> namesIn(const std::string &dir) {
  std::set<std::string> out;
  for (const auto &e : std::filesystem::directory_iterator(dir)) {
    out.insert(e.path().filename().string());
  }
  return out;
}

// Runs `body` in a child whose store root is `root`.
template <typename F> int inStore(const std::string &root, F &&body) {
  return runInChild([&] {
    ::setenv("MICA_SHM_ROOT", root.c_str(), 1);
    body();
  });
}

TEST(ShmFileSystem, AFullFileSystemRefusesNewKeysAndFailsMountsCleanly) {
  TestSupport::ScratchTmpfs fs(1u << 20);
  if (!fs.ok()) {
    GTEST_SKIP() << fs.why();
  }
  // A sparse file 24 times the size of the file system.
  constexpr std::uint32_t kCap = 1u << 20;
  auto *inserted =
      static_cast<std::uint32_t *>(::mmap(nullptr, 4096, PROT_READ | PROT_WRITE,
                                          MAP_SHARED | MAP_ANONYMOUS, -1, 0));
  ASSERT_NE(inserted, MAP_FAILED);
  fs.fill("ballast", 256u << 10); // space to give back at the end

  // New keys go in until the file system is full, then are refused; keys in
  // place can still be replaced, erased and written again.
  auto fillUp = [&] {
    auto em = Shm::entityManager("full", 0);
    auto &c = mount<Table>(em, "t", tableInfo(kCap))->entries();
    std::uint32_t n = 0;
    try {
      for (;; ++n) {
        c.insert(SmallRecord{n, n});
      }
    } catch (const Shm::NoSpaceError &e) {
      require(std::string(e.what()).find("/full.0/t") != std::string::npos,
              e.what());
    }
    require(n > 1000 && n < kCap && c.count() == n,
            "stopped at " + std::to_string(n));
    require(!c.roomForNewKey(), "room for a new key");
    c.insert(SmallRecord{0, 7});
    require(c.erase(1), "erase");
    c.insert(SmallRecord{1, 8});
    *inserted = n;
  };
  EXPECT_EQ(inStore(fs.path(), fillUp), 0);

  // No space left at all, and the mark says more slots were used than have
  // space (a writer died of the full file system between the two): neither
  // that file nor a new one can be mounted, and a failed mount leaves
  // nothing.
  fs.fill("filler");
  const std::string file = fs.path() + "/full.0/t";
  const std::uint64_t markAt = format::kHeaderSize + 16;
  const std::uint64_t mark = peek<std::uint64_t>(file, markAt) + 3000;
  pokeBytes(file, markAt, &mark, sizeof mark);
  auto mountWithoutSpace = [&] {
    auto em = Shm::entityManager("full", 0);
    requireThrows<Shm::NoSpaceError>(
        [&] { mount<Table>(em, "t", tableInfo(kCap)); }, "mount t");
    requireThrows<Shm::NoSpaceError>(
        [&] { mount<Table>(em, "u", tableInfo(4)); }, "mount u");
    require(namesIn(em->directory()) ==
                std::set<std::string>{".lock", ".catalog", "t"},
            "files left behind");
  };
  EXPECT_EQ(inStore(fs.path(), mountWithoutSpace), 0);

  // With space again, everything committed is there and changes go on.
  fs.remove("filler");
  fs.remove("ballast");
  auto mountWithSpace = [&] {
    auto em = Shm::entityManager("full", 0);
    auto &c = mount<Table>(em, "t", tableInfo(kCap))->entries();
    require(c.count() == *inserted, "count after the remount");
    SmallRecord r;
    for (std::uint32_t k = 0; k < *inserted; ++k) {
      const std::uint32_t want = k == 0 ? 7 : k == 1 ? 8 : k;
      require(c.find(k, r) && r.value == want, "key " + std::to_string(k));
    }
    c.insert(SmallRecord{kCap - 1, 1});
    auto u = mount<Table>(em, "u", tableInfo(4));
    require(!u->entries().control().wiped(), "u wiped");
  };
  EXPECT_EQ(inStore(fs.path(), mountWithSpace), 0);
  ::munmap(inserted, 4096);
}

TEST(ShmFileSystem, OddFilesAreRefusedWithoutWaitingOnThem) {
  const std::string agent = freshAgent();
  const std::string dir = instanceDir(agent);
  {
    auto em = Shm::entityManager(agent, 0);
    mount<Table>(em, "t", tableInfo(4))->entries().insert(SmallRecord{1, 1});
    em->close();
  }
  ASSERT_EQ(::mkfifo((dir + "/fifo").c_str(), 0600), 0);
  // A FIFO of another program (the hardware writer's progress channel).
  ASSERT_EQ(::mkfifo((dir + "/.hw-progress").c_str(), 0600), 0);
  // Opening a FIFO for reading would wait for a writer of it: each case
  // runs in a child, which the watchdog fails if it hangs.
  auto mountFifo = [&] {
    auto ro = Shm::entityManager(agent, 0, Shm::Access::read);
    requireThrows<Shm::PathError>(
        [&] { mount<Table>(ro, "fifo", readerInfo()); },
        "reader mount of a FIFO");
    auto em = Shm::entityManager(agent, 0);
    requireThrows<Shm::PathError>(
        [&] { mount<Table>(em, "fifo", tableInfo(4)); },
        "writer mount of a FIFO");
    require(em->entityPaths("") == std::vector<std::string>{"t"}, "listed");
  };
  EXPECT_EQ(runInChild(mountFifo, 60), 0);
  std::filesystem::rename(dir + "/fifo", dir + "/.catalog");
  auto startOnFifoCatalog = [&] {
    requireThrows<Shm::PathError>([&] { Shm::entityManager(agent, 0); },
                                  "writer start with a FIFO as its catalog");
  };
  EXPECT_EQ(runInChild(startOnFifoCatalog, 60), 0);
  std::filesystem::remove(dir + "/.catalog");
  std::filesystem::remove(dir + "/.lock");
  ASSERT_EQ(::mkfifo((dir + "/.lock").c_str(), 0600), 0);
  EXPECT_THROW(Shm::entityManager(agent, 0), Shm::PathError);
}

TEST(ShmFileSystem, ForeignFilesAreRefusedAndLooseModesTightened) {
  const std::string agent = freshAgent();
  const std::string dir = instanceDir(agent);
  const std::string outside = dir + ".outside";
  {
    auto em = Shm::entityManager(agent, 0);
    mount<Table>(em, "sub/t", tableInfo(4))
        ->entries()
        .insert(SmallRecord{1, 5});
    em->close();
  }
  std::ofstream(outside) << "precious\n";

  // A lock that is another name of a file outside the store: refused before
  // anything is written into it.
  std::filesystem::remove(dir + "/.lock");
  std::filesystem::create_hard_link(outside, dir + "/.lock");
  EXPECT_THROW(Shm::entityManager(agent, 0), Shm::PathError);
  EXPECT_EQ(readFile(outside), "precious\n");
  std::filesystem::remove(dir + "/.lock");

  // An entity file with a second name: the writer refuses it, readers read.
  std::filesystem::remove(outside);
  std::filesystem::create_hard_link(dir + "/sub/t", outside);
  auto em = Shm::entityManager(agent, 0);
  EXPECT_THROW(mount<Table>(em, "sub/t", tableInfo(4)), Shm::PathError);
  auto ro = Shm::entityManager(agent, 0, Shm::Access::read);
  SmallRecord r;
  EXPECT_TRUE(mount<Table>(ro, "sub/t", readerInfo())->entries().find(1, r));
  ro->close();
  em->close();
  std::filesystem::remove(outside);

  // Writable by group or others: the writer, the owner, takes that away.
  ::chmod(dir.c_str(), 0777);
  ::chmod((dir + "/sub").c_str(), 0777);
  ::chmod((dir + "/sub/t").c_str(), 0666);
  {
    CaptureReporter rep;
    em = Shm::entityManager(agent, 0);
    EXPECT_TRUE(mount<Table>(em, "sub/t", tableInfo(4))->entries().find(1, r));
    EXPECT_EQ(rep.notices.size(), 3u);
    em->close();
  }
  EXPECT_EQ(modeOf(dir), 0755u);
  EXPECT_EQ(modeOf(dir + "/sub"), 0755u);
  EXPECT_EQ(modeOf(dir + "/sub/t"), 0644u);

  // Owned by another user (only root can arrange that).
  if (::geteuid() != 0) {
    return;
  }
  for (const std::string p : {"/sub/t", "/sub", "/.lock", ""}) {
    ASSERT_EQ(::chown((dir + p).c_str(), 65534, 65534), 0) << p;
    EXPECT_THROW(
        {
          em = Shm::entityManager(agent, 0);
          mount<Table>(em, "sub/t", tableInfo(4));
        },
        Shm::PathError)
        << p;
    if (!em->closed()) {
      em->close();
    }
    // Readers take the store as they find it.
    ro = Shm::entityManager(agent, 0, Shm::Access::read);
    EXPECT_TRUE(mount<Table>(ro, "sub/t", readerInfo())->entries().find(1, r));
    ro->close();
    ASSERT_EQ(::chown((dir + p).c_str(), 0, 0), 0) << p;
  }
}

TEST(ShmFileSystem, FailedMountsRaiseTheRightErrorAndLeaveNothingBehind) {
  TestSupport::ScratchTmpfs fs(1u << 20);
  if (!fs.ok()) {
    GTEST_SKIP() << fs.why();
  }
  auto failedMounts = [&] {
    // Names the checks accept but the file system finds too long.
    const std::string longName(255, 'n');
    requireThrows<Shm::PathError>([&] { Shm::entityManager(longName, 0); },
                                  "writer of a long agent name");
    requireThrows<Shm::PathError>(
        [&] { Shm::entityManager(longName, 0, Shm::Access::read); },
        "reader of a long agent name");
    auto em = Shm::entityManager("agent", 0);
    mount<Table>(em, "d/" + longName, tableInfo(4))
        ->entries()
        .insert(SmallRecord{1, 1});

    // A file too large to map: neither a new one nor the replacement of
    // an existing one stays behind.
    Shm::MountInfo huge;
    huge.collectionInfoIs("entries", format::kMaxCapacity);
    auto group = em->mountGroup();
    group->doMount("t", Table::kTypeName, tableInfo(4));
    Fwk::ptrCast<Table>(em->entity("t"))->entries().insert(SmallRecord{2, 2});
    group->doUnmount();
    for (const char *path : {"huge", "t"}) {
      requireThrows<Shm::Error>(
          [&] { em->mountGroup()->doMount(path, HugeTable::kTypeName, huge); },
          path);
    }
    require(namesIn(em->directory()) ==
                std::set<std::string>{".lock", ".catalog", "d", "t"},
            "files left behind");
    em->close();
    em = Shm::entityManager("agent", 0);
    SmallRecord r;
    auto t = mount<Table>(em, "t", tableInfo(4));
    require(t->entries().find(2, r) && !t->entries().control().wiped(),
            "t lost");
    // Never recorded as created: a later mount is new, not wiped.
    require(
        !mount<Table>(em, "huge", tableInfo(4))->entries().control().wiped(),
        "huge recorded");
  };
  EXPECT_EQ(inStore(fs.path(), failedMounts), 0);
}

} // namespace
