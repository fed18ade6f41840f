// The handle a resource table gives its clients for one resource.
//
// A handle names its resource key, says how far the resource has got (its
// entry state, one byte, with the numbers of Asic::EntryState), carries the
// resource's current data and version, and the set of other tables' versions
// the resource depends on. Every update of the resource raises its version
// and is announced as a change of the handle's update attribute, which is how
// the tables that use the resource learn about it.
#pragma once

#include <cstdint>
#include <vector>

#include "platform/Export.h"
#include "platform/asic/OrderedSwTable.h"
#include "platform/asic/Types.h"
#include "platform/asic/WaitPoint.h"
#include "platform/framework/Notifier.h"

namespace Asic {

template <typename Key, typename Data, std::uint16_t kUpdateAttrId>
class MICA_PLATFORM_API ResourceHandle : public Fwk::Notifier,
                                         public WaitPoint {
public:
  using KeyType = Key;
  using DataType = Data;
  static constexpr Fwk::AttrId attrUpdate{kUpdateAttrId, "update"};
  static constexpr Fwk::AttrId attrEntryState{1, "entryState"};
  static constexpr Fwk::AttrId attrPostRelease{2, "postReleaseProtoState"};

  explicit ResourceHandle(const Key &key)
      : WaitPoint(WaitKind::resource), key_(key) {}

  const Key &key() const noexcept { return key_; }
  // The key's slot in the resource table that made the handle: a small
  // dense number, the index of whatever the table and its users keep per
  // resource. kNoIndex for a handle no table made.
  static constexpr std::uint32_t kNoIndex = ~std::uint32_t{0};
  std::uint32_t index() const noexcept { return index_; }
  void indexIs(std::uint32_t i) noexcept { index_ = i; }
  // One byte: 0 pending, 4 resolved, 3/5/6 failed, 1 passed through.
  std::uint8_t entryState() const noexcept { return entryState_; }
  std::uint32_t version() const noexcept { return version_; }
  const Data &data() const noexcept { return data_; }
  const std::vector<TableVersion> &neededVersions() const noexcept {
    return neededVersions_;
  }
  // The resource is on its way out after its release.
  bool isPostReleaseProtoState() const noexcept { return postRelease_; }

  // Mutators used by the resource table that owns the handle.
  // Changes parked on a pending handle are handed back when it resolves or
  // fails, and when it is released.
  void entryStateIs(std::uint8_t s) {
    if (s != entryState_) {
      entryState_ = s;
      notify(attrEntryState);
      wake();
    }
  }
  // New data for the resource: raises the version and announces the update.
  void dataIs(const Data &d) {
    data_ = d;
    ++version_;
    notify(attrUpdate);
  }
  // A pending resource resolved with its first data: resolved first (its
  // waiters are handed back), then the update is announced, so that the
  // tables that follow it see a resolved resource.
  void resolvedIs(const Data &d) {
    data_ = d;
    ++version_;
    entryStateIs(static_cast<std::uint8_t>(EntryState::finished));
    notify(attrUpdate);
  }
  void neededVersionsIs(std::vector<TableVersion> v) {
    neededVersions_ = std::move(v);
  }
  // The state a resource had when it was stored: resolved, with its data
  // and version. Announces nothing (nobody follows a handle being restored).
  void restoredIs(const Data &d, std::uint32_t version) {
    data_ = d;
    version_ = version;
    entryState_ = static_cast<std::uint8_t>(EntryState::finished);
  }
  void postReleaseProtoStateIs(bool on) {
    if (on != postRelease_) {
      postRelease_ = on;
      notify(attrPostRelease);
      wake();
    }
  }

private:
  ~ResourceHandle() override = default;

  Key key_;
  std::uint32_t index_ = kNoIndex;
  std::uint8_t entryState_ = 0;
  bool postRelease_ = false;
  std::uint32_t version_ = 0;
  Data data_{};
  std::vector<TableVersion> neededVersions_;
};

} // namespace Asic
