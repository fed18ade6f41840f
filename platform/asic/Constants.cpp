#include "platform/asic/Constants.h"

#include <fmt/format.h>

#include <charconv>
#include <stdexcept>

namespace Asic::Constants {

namespace {

bool validComponent(std::string_view s) {
  if (s.empty() || s == "." || s == "..") {
    return false;
  }
  for (char c : s) {
    const bool ok = (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') ||
                    (c >= '0' && c <= '9') || c == '_' || c == '.' || c == '-';
    if (!ok) {
      return false;
    }
  }
  return true;
}

} // namespace

std::string canonicalizeGroupName(std::string_view name) {
  if (!validComponent(name)) {
    throw std::invalid_argument(
        fmt::format("invalid group name '{}': use letters, digits, '_', '.' "
                    "and '-'",
                    name));
  }
  return std::string(name);
}

std::string canonicalGroupTableEntryLogSlatePath(std::string_view group,
                                                 std::string_view table) {
  return fmt::format("ordered/{}/{}/entryLog", group, table);
}

std::string canonicalGroupTableConfigSlatePathBase(std::string_view group,
                                                   std::string_view table) {
  return fmt::format("ordered/{}/{}/config", group, table);
}

std::string configSlatePath(std::string_view group, std::string_view table,
                            UnitId unit) {
  return fmt::format("{}/{}", canonicalGroupTableConfigSlatePathBase(group, table),
                     unit);
}

std::optional<UnitId> getUnitIdFromConfigPath(std::string_view path) {
  const auto slash = path.rfind('/');
  const std::string_view last =
      slash == std::string_view::npos ? path : path.substr(slash + 1);
  unsigned value = 0;
  const auto [end, ec] =
      std::from_chars(last.data(), last.data() + last.size(), value);
  if (last.empty() || ec != std::errc() || end != last.data() + last.size() ||
      value > 0xffff) {
    return std::nullopt;
  }
  return static_cast<UnitId>(value);
}

} // namespace Asic::Constants
