// fuzz_store: damaged entity files against the store's mount, reads and
// writes, by a reader and by the writer.
//
// An input is a prelude and the image of an entity file of type
// FuzzShm::Slate (FuzzTypes.h; see FuzzSupport.h for images and flags):
//
//    0  u8      flags
//    1  u8[7]   operations, one per byte: the low four bits a key, the top
//               three what the writer does with it (0-2 insert, 3-4 erase,
//               5 in the first byte: drain the collection); the last byte's
//               bit 0 also says which of the writer's scans goes first
//    8  u64     damage offset (modulo the file size)
//   16  u8      damage length (modulo 17)
//   17  u8[16]  damage bytes
//   33  u8[7]   reserved
//   40  the file image
//
// One run: the image is put in place; a reader mounts it and walks every
// collection (ordered and unordered scans, counts, finds); the writer
// mounts it, the damage is written into the live file (kDamageLive) and the
// reader walks again beside the writer, and the writer walks, finds,
// inserts and erases. Every error must be one of the store's exceptions;
// nothing may crash, loop or allocate without bound.
//
// Without live damage the writer's view must also hold together: a walk
// sees count() records, a record just inserted reads back as written, no
// record the mount kept fails its checks, a remount finds exactly what the
// writer left, and a new reader reads the same.
#include <cstdint>
#include <map>
#include <string>

#include "FuzzSupport.h"
#include "FuzzTypes.h"

namespace {

using namespace FuzzSupport;
using FuzzShm::Slate;

constexpr std::size_t kPrelude = 40;
// The slate's file is five pages; a header may name a larger one, but
// larger files only make the scans longer.
constexpr std::uint64_t kMaxFileSize = 1 << 20;
const char *const kAgent = "fuzz";

struct State {
  Root root{kAgent};
  QuietReporter reporter;
  Fwk::Ptr<Shm::EntityManager> writer;
  Fwk::Ptr<Shm::EntityManager> reader;
};
State *state = nullptr;

struct Ops {
  std::uint8_t b[7];
  std::uint32_t key(std::size_t i, std::uint32_t mod) const {
    return b[i % 7] % mod;
  }
};

// One mount, undone when it ends.
class Mount {
public:
  Mount(const Fwk::Ptr<Shm::EntityManager> &em, const Shm::MountInfo &info)
      : group_(em->mountGroup()) {
    group_->doMount(Slate::kPath, Slate::kTypeName, info);
    slate_ = Fwk::ptrCast<Slate>(em->entity(Slate::kPath));
    require(slate_ != nullptr, "a mount that succeeded left no entity");
  }
  ~Mount() {
    slate_ = nullptr;
    group_->doUnmount();
  }
  Slate &operator*() const { return *slate_; }

private:
  Fwk::Ptr<Shm::MountGroup> group_;
  Fwk::Ptr<Slate> slate_;
};

// What a collection holds: key bytes -> record bytes.
using Contents = std::map<std::string, std::string>;

template <typename Traits> Contents contentsOf(Shm::Collection<Traits> &c) {
  Contents out;
  withDrops(c, [&] {
    out.clear();
    c.forEach([&](const typename Traits::Record &r) {
      out[bytesOf(Traits::keyOf(r))] = bytesOf(r);
    });
  });
  return out;
}

// The writer's walk and changes. `strict`: no bytes were damaged under the
// mount, so everything the writer kept must pass its checks.
template <typename Traits>
void writerWalk(Shm::Collection<Traits> &c, const Ops &ops, bool strict,
                typename Traits::Key (*keyOf)(std::uint32_t),
                typename Traits::Record (*recordOf)(std::uint32_t,
                                                    std::uint64_t)) {
  using Record = typename Traits::Record;
  using Key = typename Traits::Key;
  const std::size_t slots = std::size_t{c.capacity()} + 1;
  auto visit = [&](auto &&walk) {
    std::size_t n = 0;
    const std::size_t drops = withDrops(c, [&] {
      n = 0;
      walk([&](const Record &) { ++n; });
    });
    require(!strict || drops == 0,
            "a record the writer's mount kept fails its checks");
    require(n <= slots, "a writer's scan saw more records than slots");
    return n;
  };

  require(c.count() <= c.capacity(), "the writer holds more than its capacity");
  std::size_t keys = 0;
  for (auto k = c.firstKey(); k; k = c.nextKey(*k)) {
    require(++keys <= c.count(), "the key walk is longer than count()");
  }
  require(keys == c.count(), "the key walk is shorter than count()");
  // The scan that meets damage first is the one that drops it; the last
  // operation byte picks which goes first.
  std::size_t ordered = 0, unordered = 0, inPlace = 0;
  if (ops.b[6] & 1) {
    unordered = visit([&](auto f) { c.forEachUnordered(f); });
    inPlace = visit([&](auto f) { c.forEachInPlace(f); });
    ordered = visit([&](auto f) { c.forEach(f); });
  } else {
    ordered = visit([&](auto f) { c.forEach(f); });
    unordered = visit([&](auto f) { c.forEachUnordered(f); });
    inPlace = visit([&](auto f) { c.forEachInPlace(f); });
  }
  if (strict) {
    require(ordered == c.count() && unordered == c.count() &&
                inPlace == c.count(),
            "the writer's scans disagree with count()");
    require(c.countByScan() == c.count(),
            "countByScan() disagrees with count()");
  }

  for (std::size_t i = 0; i < 7; ++i) {
    const Key key = keyOf(ops.key(i, 16));
    const bool had = c.contains(key);
    Record r;
    bool found = false;
    withDrops(c, [&] { found = c.find(key, r); });
    require(!strict || found == had, "find() disagrees with contains()");
    // The find may have dropped a damaged record of the key.
    const bool present = c.contains(key);
    (void)c.lowerBoundKey(key);
    (void)c.nextKey(key);
    switch (ops.b[i] >> 5) {
    case 0:
    case 1:
    case 2: {
      const Record w = recordOf(ops.key(i, 16), ops.b[(i + 1) % 7] + i);
      const Key wk = Traits::keyOf(w);
      const bool replaces = c.contains(wk);
      const std::size_t before = c.count();
      try {
        c.insert(w);
      } catch (const Shm::CollectionFullError &) {
        require(!replaces && before == c.capacity(),
                "an insert was refused as full with room left");
        require(c.count() == before && !c.contains(wk),
                "an insert refused as full changed the collection");
        break;
      }
      require(c.count() == before + (replaces ? 0 : 1),
              "an insert counted wrong");
      const Record *back = nullptr;
      try {
        back = c.findRef(wk);
      } catch (const Shm::CorruptionError &) {
        fail("a record just written fails its checks");
      }
      require(back && bytesOf(*back) == bytesOf(w),
              "a record just written does not read back");
      break;
    }
    case 3:
    case 4: {
      const bool erased = c.erase(key);
      require(erased == present, "erase() disagrees with contains()");
      require(!c.contains(key), "an erased key is still there");
      Record gone;
      bool still = false;
      withDrops(c, [&] { still = c.find(key, gone); });
      require(!still, "an erased key can still be found");
      break;
    }
    case 5: {
      // Drains the collection in order, as clean-ups do.
      if (i == 0) {
        std::size_t erased = 0;
        for (auto k = c.firstKey(); k; k = c.firstKey()) {
          require(c.erase(*k) && ++erased <= slots,
                  "draining the collection does not end");
        }
        require(c.count() == 0, "a drained collection is not empty");
      }
      break;
    }
    default:
      break;
    }
  }
  if (strict) {
    require(c.countByScan() == c.count(),
            "after the changes countByScan() disagrees with count()");
  }
}

std::uint32_t smallKey(std::uint32_t k) {
  return k;
}
std::uint64_t logKey(std::uint32_t k) {
  return k;
}
FuzzShm::WideKey wideKey(std::uint32_t k) {
  return FuzzShm::wideRecord(k, 0).key;
}
FuzzShm::SmallRecord smallOf(std::uint32_t k, std::uint64_t v) {
  return FuzzShm::smallRecord(k, static_cast<std::uint32_t>(v));
}
FuzzShm::LogRecord logOf(std::uint32_t k, std::uint64_t v) {
  return FuzzShm::logRecord(k, v);
}

void readerPass(const Ops &ops) {
  try {
    Mount m(state->reader, Shm::MountInfo(Shm::MountInfo::kReaderMount));
    readerWalk((*m).small(), ops.b, &smallKey);
    readerWalk((*m).log(), ops.b, &logKey);
    readerWalk((*m).wide(), ops.b, &wideKey);
  } catch (const Shm::CorruptionError &) {
  } catch (const Shm::LayoutError &) {
  } catch (const Shm::NotFoundError &) {
  }
}

struct Snapshot {
  Contents small, log, wide;
  bool operator==(const Snapshot &) const = default;
};
Snapshot snapshotOf(Slate &s) {
  return Snapshot{contentsOf(s.small()), contentsOf(s.log()),
                  contentsOf(s.wide())};
}

void run(const Reader &in, std::size_t size) {
  const std::uint8_t flags = in.byte(0);
  Ops ops{};
  for (std::size_t i = 0; i < 7; ++i) {
    ops.b[i] = in.byte(1 + i);
  }
  const Damage damage = in.damage(8);
  const std::string file =
      placeFile(state->root.instanceDir(), Slate::kPath,
                in.bytes(kPrelude, size), flags, kMaxFileSize);

  readerPass(ops);

  Snapshot left;
  bool strict = true;
  {
    Mount w(state->writer, Slate::writerInfo());
    if (flags & kDamageLive) {
      strict = !damageFile(file, damage, kMaxFileSize);
    }
    if (!strict) {
      // Without damage the check after the writer reads its file instead.
      readerPass(ops);
    }
    writerWalk((*w).small(), ops, strict, &smallKey, &smallOf);
    writerWalk((*w).log(), ops, strict, &logKey, &logOf);
    writerWalk((*w).wide(), ops, strict, &wideKey, &FuzzShm::wideRecord);
    if (strict) {
      left = snapshotOf(*w);
    }
  }
  if (!strict) {
    return;
  }
  {
    Mount again(state->writer, Slate::writerInfo());
    require(snapshotOf(*again) == left,
            "a writer's remount does not find what the writer left");
    Mount r(state->reader, Shm::MountInfo(Shm::MountInfo::kReaderMount));
    require(snapshotOf(*r) == left,
            "a reader does not read what the writer left");
  }
}

} // namespace

extern "C" int LLVMFuzzerInitialize(int *, char ***) {
  ::setenv("MICA_AGENTLOG_FILE", "/dev/null", 1);
  static const Shm::EntityTypeRegistrar<Slate> kSlateType;
  state = new State;
  Shm::reporterIs(&state->reporter);
  state->writer = Shm::entityManager(kAgent, 0);
  {
    // Makes the directories of the entity path.
    Mount first(state->writer, Slate::writerInfo());
  }
  state->reader = Shm::entityManager(kAgent, 0, Shm::Access::read);
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t *data,
                                      std::size_t size) {
  const Reader in(data, size);
  try {
    run(in, size);
  } catch (const Shm::Error &) {
    // A clean refusal of the store.
  } catch (const SetAside &) {
    return -1;
  }
  return 0;
}
