// The common shape of an entity: one keyed collection, named by a Names
// struct (kTypeName, kCollection, kCapacity), and the mount that goes with
// it.
//
//   struct CounterNames {
//     static constexpr const char *kTypeName = "Demo::Counters";
//     static constexpr const char *kCollection = "counters";
//     static constexpr std::uint32_t kCapacity = 256;
//   };
//   class Counters : public Shm::OneCollectionEntity<CounterTraits, CounterNames> {
//   public:
//     using OneCollectionEntity::OneCollectionEntity;
//     Collection &counters() noexcept { return collection_; }
//   };
//   static const Shm::EntityTypeRegistrar<Counters> kCountersType;
//   auto c = Shm::mountOne<Counters>(em, "demo/counters");
#pragma once

#include <cstdint>
#include <string>

#include "platform/shm/Store.h"

namespace Shm {

template <typename Traits, typename Names> class OneCollectionEntity : public Entity {
public:
  using Record = typename Traits::Record;
  using Collection = Shm::Collection<Traits>;
  static constexpr const char *kTypeName = Names::kTypeName;
  static constexpr const char *kCollection = Names::kCollection;
  static constexpr std::uint32_t kCapacity = Names::kCapacity;

  static EntityLayout layout() {
    return EntityLayout(kTypeName).template collection<Traits>(kCollection);
  }
  explicit OneCollectionEntity(EntityInit &init) : Entity(init), collection_(init, kCollection) {}

protected:
  Collection collection_;
};

// Mounts the one-collection entity E at `path` with the handle's access: a
// writer creates it with `capacity` records (E::kCapacity by default), a
// reader takes it as it is. Throws the store's errors (a reader gets
// NotFoundError while the writer has not created it).
template <typename E>
Fwk::Ptr<E> mountOne(const Fwk::Ptr<EntityManager> &em, const std::string &path,
                     std::uint32_t capacity = E::kCapacity) {
  const bool reader = em->access() == Access::read;
  MountInfo info(reader ? MountInfo::kReaderMount : MountInfo::kWriterMount);
  if (!reader) {
    info.collectionInfoIs(E::kCollection, capacity);
  }
  auto group = em->mountGroup();
  group->doMount(path, E::kTypeName, info);
  group->doClose();
  return Fwk::ptrCast<E>(em->entity(path));
}

} // namespace Shm
