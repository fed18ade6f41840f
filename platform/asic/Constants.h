// Names and shared-memory paths of ordered-table groups.
//
// A table type belongs to a group (its agent-and-group id names it); every
// group keeps its tables' persistent state under one base path of the
// shared-memory store:
//
//   ordered/<group>/<table>/entryLog      the table type's change log
//   ordered/<group>/<table>/config/<unit> one configuration table per unit
//
//   auto group = Asic::Constants::canonicalizeGroupName("MicaMpls");
//   Asic::Constants::configSlatePath(group, "MplsIsem2", 3);
//       // "ordered/MicaMpls/MplsIsem2/config/3"
#pragma once

#include <optional>
#include <string>
#include <string_view>

#include "platform/Export.h"
#include "platform/asic/Types.h"

namespace Asic::Constants {

// The canonical form of a group name: the name itself once checked to be
// usable as a path component ([A-Za-z0-9_.-], not "." or ".."). Throws
// std::invalid_argument otherwise.
MICA_PLATFORM_API std::string canonicalizeGroupName(std::string_view name);

MICA_PLATFORM_API std::string
canonicalGroupTableEntryLogSlatePath(std::string_view group,
                                     std::string_view table);
MICA_PLATFORM_API std::string
canonicalGroupTableConfigSlatePathBase(std::string_view group,
                                       std::string_view table);
MICA_PLATFORM_API std::string configSlatePath(std::string_view group,
                                              std::string_view table,
                                              UnitId unit);
// The unit of a configuration table's path (its last component, decimal),
// or nothing when the path does not end in a unit number.
MICA_PLATFORM_API std::optional<UnitId>
getUnitIdFromConfigPath(std::string_view path);

} // namespace Asic::Constants
