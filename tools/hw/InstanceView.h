// A read-only view of another process's store instance that outlives that
// process: the instance may not exist yet, vanish, or be created again while
// the view is used, and its files may be replaced.
//
//   MicaMplsHw::InstanceView agent("mpls-agent");
//   auto log = agent.entity<MicaMpls::MplsIsem2EntryLogSlate>(
//       MicaMpls::MplsIsem2Constants::tableEntryLogSlatePath());
//   if (!log) { /* no agent yet: look again later */ }
//   ...
//   if (log->stale()) agent.forget(log->path());   // mapped anew next time
//
// It never takes the writer lock and never writes. Entities it hands out
// stay readable after forget() or reset() (they keep their old mapping);
// they are only no longer the view's.
//
// Not thread-safe. One view per instance and process: views share the
// process's read handle of the instance, and a reset closes it.
#pragma once

#include <sys/types.h>

#include <cstdint>
#include <map>
#include <string>
#include <tuple>
#include <vector>

#include "platform/asic/Types.h"
#include "platform/shm/Store.h"
#include "tools/hw/HwStore.h"

namespace MicaMplsHw {

class InstanceView {
public:
  explicit InstanceView(std::string name, std::uint32_t instanceId = 0);
  ~InstanceView();
  InstanceView(const InstanceView &) = delete;
  InstanceView &operator=(const InstanceView &) = delete;

  const std::string &name() const noexcept { return name_; }
  // <root>/<name>.<instance>
  std::string directory() const;

  // The read handle of the instance, opened when needed; null while the
  // instance has no directory.
  Fwk::Ptr<Shm::EntityManager> instance();

  // The entity at `path` as an E, mounted read-only when needed; null while
  // the instance or the file does not exist. Throws Shm::LayoutError (a file
  // of another type or layout), Shm::CorruptionError (an unusable header) and
  // Shm::Error (a failed system call).
  template <typename E> Fwk::Ptr<E> entity(const std::string &path) {
    ensureEntityType<E>();
    return Fwk::ptrCast<E>(mount(path, E::kTypeName));
  }

  // The units of the per-unit entities under `base`, in increasing order
  // (none while the instance does not exist).
  std::vector<Asic::UnitId> units(const std::string &base);

  // Forgets the mount of `path`: the next entity() maps the file anew.
  void forget(const std::string &path);
  // Forgets every mount and the instance handle.
  void reset();

private:
  Fwk::Ptr<Shm::Entity> mount(const std::string &path,
                              const std::string &typeName);
  // Whether the directory on disk is still the one the handle opened.
  bool sameDirectory() const;

  std::string name_;
  std::uint32_t instanceId_;
  Fwk::Ptr<Shm::EntityManager> em_;
  dev_t dev_ = 0;
  ino_t ino_ = 0;
  std::map<std::string, Fwk::Ptr<Shm::MountGroup>> mounts_;
};

// What a read of a whole collection got: `complete` is false when it gave
// up (nothing was collected then); `dropped` counts the records that failed
// their checks and were left out.
struct RecordsRead {
  bool complete = true;
  unsigned dropped = 0;
  explicit operator bool() const noexcept { return complete; }
};

// Reads every record of a collection: in the collection's order (forEach,
// which copies the records first) or in slot order (forEachUnordered, which
// streams them). A record that fails its checks is handed to the
// collection's corruption handling (reported, counted, then read as absent)
// and the read starts over, `restart` running before every pass. After
// `maxDrops` such records the read gives up (`restart` runs once more). A
// caller for whom a missing record matters looks at `dropped`: a dropped
// record reads as absent from then on, so a later read cannot tell it from
// one that was never there.
template <typename Coll, typename Restart, typename F>
RecordsRead readRecords(Coll &coll, bool ordered, Restart &&restart, F &&f,
                        unsigned maxDrops = 1000) {
  for (RecordsRead out;; ++out.dropped) {
    restart();
    try {
      if (ordered) {
        coll.forEach(f);
      } else {
        coll.forEachUnordered(f);
      }
      return out;
    } catch (const Shm::CorruptionError &e) {
      coll.doCorruptionDetected(e.what());
      if (out.dropped == maxDrops) {
        restart();
        return RecordsRead{false, out.dropped + 1};
      }
    }
  }
}

// The changes the hardware writer's instance `hw` records as refused,
// keyed by table type, unit and packed key; none while it keeps none.
// Damaged records are dropped as readRecords does.
std::map<std::tuple<std::uint32_t, Asic::UnitId, std::uint64_t>,
         Asic::HwRefusalRecord>
hwRefusals(InstanceView &hw);

} // namespace MicaMplsHw
