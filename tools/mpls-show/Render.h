// How mpls-show prints: every command builds one JSON document, printed as
// is with --json, or as aligned text columns chosen from it.
//
//   std::vector<Column> cols = {{"unit", "/unit"}, {"entries", "/entries"}};
//   printColumns(stdout, doc["units"], cols);
//   // unit  entries
//   //    1     1000
#pragma once

#include <nlohmann/json.hpp>

#include <cstdint>
#include <cstdio>
#include <string>
#include <vector>

namespace MplsShow {

using Json = nlohmann::ordered_json;

// A text column: its header and where its value is in a row (a JSON
// pointer). Numbers are right-aligned, in hexadecimal when `hex`; null and
// missing values print as "-", booleans as yes/no.
struct Column {
  std::string header;
  std::string pointer;
  bool hex = false;
};

// Prints `rows` (an array of objects) under a header line, columns two
// spaces apart.
void printColumns(std::FILE *out, const Json &rows,
                  const std::vector<Column> &columns);

// "2026-11-22 03:04:05 UTC" for ns since the epoch; "-" for 0.
std::string utcTime(std::int64_t ns);

} // namespace MplsShow
