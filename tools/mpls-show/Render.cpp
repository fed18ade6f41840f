#include "tools/mpls-show/Render.h"

#include <fmt/format.h>

#include <algorithm>
#include <ctime>

namespace MplsShow {

namespace {

std::string cellText(const Json &row, const Column &c, bool &number) {
  const Json::json_pointer at(c.pointer);
  number = false;
  if (!row.contains(at) || row.at(at).is_null()) {
    return "-";
  }
  const Json &v = row.at(at);
  if (v.is_boolean()) {
    return v.get<bool>() ? "yes" : "no";
  }
  if (v.is_number_unsigned() || v.is_number_integer()) {
    number = true;
    return c.hex ? fmt::format("{:#x}", v.get<std::uint64_t>()) : v.dump();
  }
  if (v.is_string()) {
    return v.get<std::string>();
  }
  number = v.is_number();
  return v.dump();
}

} // namespace

void printColumns(std::FILE *out, const Json &rows,
                  const std::vector<Column> &columns) {
  std::vector<std::vector<std::string>> cells;
  cells.reserve(rows.size());
  std::vector<bool> right(columns.size(), false);
  std::vector<std::size_t> width(columns.size(), 0);
  for (std::size_t i = 0; i < columns.size(); ++i) {
    width[i] = columns[i].header.size();
  }
  for (const Json &row : rows) {
    std::vector<std::string> line;
    line.reserve(columns.size());
    for (std::size_t i = 0; i < columns.size(); ++i) {
      bool number = false;
      line.push_back(cellText(row, columns[i], number));
      right[i] = right[i] || number;
      width[i] = std::max(width[i], line.back().size());
    }
    cells.push_back(std::move(line));
  }
  const auto print = [&](const std::vector<std::string> &line) {
    std::string text;
    for (std::size_t i = 0; i < line.size(); ++i) {
      const bool last = i + 1 == line.size();
      if (right[i]) {
        text += fmt::format("{:>{}}", line[i], width[i]);
      } else {
        text += last ? line[i] : fmt::format("{:<{}}", line[i], width[i]);
      }
      if (!last) {
        text += "  ";
      }
    }
    std::fprintf(out, "%s\n", text.c_str());
  };
  std::vector<std::string> header;
  header.reserve(columns.size());
  for (const Column &c : columns) {
    header.push_back(c.header);
  }
  print(header);
  for (const auto &line : cells) {
    print(line);
  }
}

std::string utcTime(std::int64_t ns) {
  if (ns == 0) {
    return "-";
  }
  const std::time_t secs = static_cast<std::time_t>(ns / 1000000000);
  std::tm tm{};
  char buf[64] = "-";
  if (::gmtime_r(&secs, &tm)) {
    std::strftime(buf, sizeof buf, "%Y-%m-%d %H:%M:%S UTC", &tm);
  }
  return buf;
}

} // namespace MplsShow
