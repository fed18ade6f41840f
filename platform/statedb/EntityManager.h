// The agent's state database handle: named entities (framework objects) that
// outlive the code that made them, keyed by '/'-separated paths.
//
//   StateDb::EntityManager::Ptr em = StateDb::entityManagerIs("MplsAgent", 0);
//   em->entityIs("mpls/config/isem2", config);            // insert or replace
//   auto c = em->entity<Isem2Config>("mpls/config/isem2"); // null if absent or
//                                                          // of another type
//   for (const std::string &p : em->entityPaths("mpls"))   // sorted, under
//   "mpls"
//     show(p);
//   em->entityDel("mpls/config/isem2");
//
// The handle also names the agent instance (name and instance id), which is
// what the relaunch record (GenId.h) and the shared-memory store are keyed by.
//
// Paths. A path is one or more components joined by '/'. A component is not
// empty (no leading, trailing or doubled '/'), is neither "." nor "..", and
// holds no NUL character. Every operation that takes a path refuses a bad one
// with std::invalid_argument and changes nothing. The prefix of entityPaths()
// follows the same rules, except that it may be empty (everything) and may
// end in one '/'.
//
// Ownership and invalidation: the manager holds one reference to each entity;
// entityIs() on a present path drops the reference to the entity it replaces,
// entityDel() the one it removes. The lists entityPaths() returns are copies
// that nothing invalidates. Loop thread only.
#pragma once

#include <cstddef>
#include <cstdint>
#include <map>
#include <string>
#include <string_view>
#include <vector>

#include "platform/Export.h"
#include "platform/framework/Object.h"

namespace StateDb {

class MICA_PLATFORM_API EntityManager : public Fwk::Object {
public:
  using Ptr = Fwk::Ptr<EntityManager>;

  // REQUIRES: name is one valid path component (std::invalid_argument
  // otherwise): it names directories and paths.
  EntityManager(std::string name, std::uint32_t instanceId);
  ~EntityManager() override;

  // The agent's name and the instance id among agents of that name.
  const std::string &name() const noexcept { return name_; }
  std::uint32_t instanceId() const noexcept { return instanceId_; }

  // Stores an entity at a path, replacing what was there.
  // REQUIRES: a valid path; an entity (Fwk::NullPointerException otherwise).
  void entityIs(std::string_view path, Fwk::Ptr<Fwk::Object> entity);
  // The entity at a path, or null.
  Fwk::Ptr<Fwk::Object> entity(std::string_view path) const;
  // The entity at a path if it is a T, else null.
  template <typename T> Fwk::Ptr<T> entity(std::string_view path) const {
    return Fwk::ptrCast<T>(entity(path));
  }
  // Removes the entity at a path. True when there was one.
  bool entityDel(std::string_view path);
  // The paths at or under a prefix ("a" lists "a", "a/b", not "ab"), in
  // byte order.
  std::vector<std::string> entityPaths(std::string_view prefix = {}) const;
  std::size_t entities() const noexcept { return entities_.size(); }

private:
  const std::string name_;
  const std::uint32_t instanceId_;
  std::map<std::string, Fwk::Ptr<Fwk::Object>, std::less<>> entities_;
};

// A new, empty state database handle for an agent instance.
MICA_PLATFORM_API EntityManager::Ptr entityManagerIs(std::string name,
                                                     std::uint32_t instanceId);

} // namespace StateDb
