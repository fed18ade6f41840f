// Change notification of framework objects.
//
// A Notifier announces every change of one of its attributes to the observers
// registered with it. A change names the attribute (AttrId) and, for a change
// of one element of a collection attribute, the element's key:
//
//   class Watcher : public Fwk::Observer {
//     void onChange(const Fwk::Notifier &, const Fwk::Change &c) override {
//       if (c.attr == MplsIsem2SwTable::attrTransientAddEntry)
//         if (auto *key = c.key<MplsIsem2EntryKey>()) seen.push_back(*key);
//     }
//   };
//   table->observerIs(&watcher);   // ... and observerDel(&watcher) before it
//   dies
//
// Notifying costs one branch when nobody observes (hasObservers()), which is
// also what lets bulk clears run at once instead of element by element.
//
// Observers may register, deregister (themselves or others) and change the
// notifier from inside onChange. An observer added during a notification
// sees the next change, not the current one; one removed during it is not
// called again. Observers are not owned: an observer deregisters before it
// is destroyed.
#pragma once

#include <cstdint>
#include <typeinfo>
#include <vector>

#include "platform/Export.h"
#include "platform/framework/Object.h"
#include "platform/framework/Slab.h"

namespace Fwk {

// The identity of an attribute of a framework class: a number that is unique
// within its class and the attribute's name.
struct AttrId {
  std::uint16_t id = 0;
  const char *name = "";
  constexpr bool operator==(const AttrId &o) const noexcept {
    return id == o.id;
  }
};

class Notifier;

// One announced change. The key, when there is one, is only valid during the
// notification.
class Change {
public:
  explicit Change(AttrId a) noexcept : attr(a) {}
  template <typename K>
  Change(AttrId a, const K &key) noexcept
      : attr(a), key_(&key), keyType_(&typeid(K)) {}

  AttrId attr;

  bool hasKey() const noexcept { return key_ != nullptr; }
  // The changed element's key, or null when the change carries no key of
  // type K.
  template <typename K> const K *key() const noexcept {
    return keyType_ && *keyType_ == typeid(K) ? static_cast<const K *>(key_)
                                              : nullptr;
  }

private:
  const void *key_ = nullptr;
  const std::type_info *keyType_ = nullptr;
};

class MICA_PLATFORM_API Observer {
public:
  virtual ~Observer();
  virtual void onChange(const Notifier &source, const Change &change) = 0;
};

class MICA_PLATFORM_API Notifier : public Object {
public:
  // Registers an observer; registering one twice has no further effect.
  // Observing does not change the notifier, so a const one can be observed.
  void observerIs(Observer *observer) const;
  // Deregisters an observer; an unknown one is ignored.
  void observerDel(Observer *observer) const noexcept;
  bool hasObservers() const noexcept { return live_ != 0; }
  std::size_t observers() const noexcept { return live_; }

protected:
  Notifier() noexcept = default;
  ~Notifier() override;

  void notify(AttrId attr) const {
    if (live_) {
      dispatch(Change(attr));
    }
  }
  template <typename K> void notify(AttrId attr, const K &key) const {
    if (live_) {
      dispatch(Change(attr, key));
    }
  }

private:
  void dispatch(const Change &change) const;

  // Entries are nulled, not erased, while a notification walks the list.
  mutable std::vector<Observer *, Slab::Allocator<Observer *>> observers_;
  mutable std::uint32_t depth_ = 0;
  mutable std::uint32_t live_ = 0;
};

} // namespace Fwk
