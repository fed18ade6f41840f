// Names of store instances that start empty, for tests.
#pragma once

#include <unistd.h>

#include <atomic>
#include <filesystem>
#include <string>
#include <system_error>

#include "platform/shm/Store.h"

namespace TestSupport {

// Removes every instance (any instance id) of the agent name `name`.
inline void removeInstances(const std::string &name) {
  std::error_code ec; // no root yet: nothing to remove
  for (const auto &dir :
       std::filesystem::directory_iterator(Shm::rootDirectory(), ec)) {
    if (dir.path().stem() == name) {
      std::filesystem::remove_all(dir.path());
    }
  }
}

// "<prefix>-<pid>-<n>", unique within the process. Process ids come back
// across runs, so whatever an earlier run left under the name (any instance
// id) is removed first.
inline std::string freshInstanceName(const std::string &prefix) {
  static std::atomic<int> n{0};
  const std::string name =
      prefix + "-" + std::to_string(::getpid()) + "-" + std::to_string(n++);
  removeInstances(name);
  return name;
}

} // namespace TestSupport
