#include "platform/statedb/EntityManager.h"

#include <fmt/format.h>

#include <stdexcept>
#include <utility>

#include "platform/framework/Errors.h"

namespace StateDb {

namespace {

// Why a component is refused, or null when it is fine.
const char *componentFault(std::string_view c) noexcept {
  if (c.empty()) {
    return "empty component";
  }
  if (c == "." || c == "..") {
    return "relative component";
  }
  if (c.find('\0') != std::string_view::npos) {
    return "NUL character";
  }
  return nullptr;
}

[[noreturn]] void refuse(std::string_view what, std::string_view path,
                         const char *fault) {
  throw std::invalid_argument(
      fmt::format("invalid entity {} \"{}\": {}", what, path, fault));
}

void checkPath(std::string_view path, std::string_view what = "path") {
  std::size_t start = 0;
  for (;;) {
    const std::size_t slash = path.find('/', start);
    const std::string_view c = path.substr(
        start, slash == std::string_view::npos ? slash : slash - start);
    if (const char *fault = componentFault(c)) {
      refuse(what, path, fault);
    }
    if (slash == std::string_view::npos) {
      return;
    }
    start = slash + 1;
  }
}

} // namespace

EntityManager::EntityManager(std::string name, std::uint32_t instanceId)
    : name_(std::move(name)), instanceId_(instanceId) {
  const char *fault = componentFault(name_);
  if (!fault && name_.find('/') != std::string::npos) {
    fault = "a name is one path component";
  }
  if (fault) {
    refuse("agent name", name_, fault);
  }
}

EntityManager::~EntityManager() = default;

void EntityManager::entityIs(std::string_view path,
                             Fwk::Ptr<Fwk::Object> entity) {
  checkPath(path);
  if (!entity) {
    throw Fwk::NullPointerException("entity");
  }
  auto it = entities_.find(path);
  if (it == entities_.end()) {
    entities_.emplace(std::string(path), std::move(entity));
  } else {
    // The replaced entity dies after the map is updated: its destructor may
    // look the path up.
    std::swap(it->second, entity);
  }
}

Fwk::Ptr<Fwk::Object> EntityManager::entity(std::string_view path) const {
  checkPath(path);
  auto it = entities_.find(path);
  return it == entities_.end() ? nullptr : it->second;
}

bool EntityManager::entityDel(std::string_view path) {
  checkPath(path);
  auto it = entities_.find(path);
  if (it == entities_.end()) {
    return false;
  }
  // Extracted, so the entity dies after the map is updated.
  auto node = entities_.extract(it);
  return true;
}

std::vector<std::string>
EntityManager::entityPaths(std::string_view prefix) const {
  std::vector<std::string> out;
  if (prefix.ends_with('/')) {
    prefix.remove_suffix(1);
    if (prefix.empty()) {
      refuse("prefix", "/", "empty component");
    }
  }
  if (prefix.empty()) {
    for (const auto &[path, entity] : entities_) {
      out.push_back(path);
    }
    return out;
  }
  checkPath(prefix, "prefix");
  // "a-b" sorts between "a" and "a/b", so the prefix's own path and the
  // paths under it are looked up apart.
  if (entities_.contains(prefix)) {
    out.emplace_back(prefix);
  }
  const std::string under = std::string(prefix) + '/';
  for (auto it = entities_.lower_bound(under);
       it != entities_.end() && it->first.starts_with(under); ++it) {
    out.push_back(it->first);
  }
  return out;
}

EntityManager::Ptr entityManagerIs(std::string name, std::uint32_t instanceId) {
  return Fwk::make<EntityManager>(std::move(name), instanceId);
}

} // namespace StateDb
