// What the entry log's fuzz target and its seed maker share: the instance,
// the unit, and the two table families of the entry-log suites (entries
// made from small numbers, so that inputs name keys the seeds hold).
#pragma once

#include <cstdint>
#include <string>

#include "support/EntryLogFamilies.h"

namespace FuzzEntryLog {

// The instance the entry logs of the fuzz targets live in, and the unit
// whose configuration table an input holds.
inline constexpr const char *kAgent = "fuzzlog";
inline constexpr Asic::UnitId kUnit = 1;

using EntryLogFamilies::Isem2;
using EntryLogFamilies::Lem;

} // namespace FuzzEntryLog
