// One answer of `show`, as a table for people or as JSON for programs: the same rows and cells make both.
#pragma once

#include <cstddef>
#include <cstdint>
#include <span>
#include <string>
#include <string_view>
#include <type_traits>

namespace orrin {

struct Column {
  std::string_view key; // of the JSON member, and the title of the table's column
  size_t width;
};

void appendJsonText(std::string &out, std::string_view text);

// A cell that the two forms word differently; `json` is written without quotes.
struct Worded {
  std::string table;
  std::string json;
};

class Report {
public:
  // Writes the head; finish() writes the end.
  Report(std::string &out, bool json, std::span<const Column> columns);
  void finish();

  // As many cells as there are columns: numbers, bool for yes and no, Worded, or text.
  template <class... Cells> void row(const Cells &...cells) { (cell(cells), ...); }

  // Cells go into the row's columns from left to right; a row is complete with its last column.
  void text(std::string_view cell) { put(cell, true); }
  void number(uint64_t cell) { put(std::to_string(cell), false); }
  void custom(std::string_view table, std::string_view json) { put(json_ ? json : table, false); }

private:
  template <class Cell> void cell(const Cell &cell) {
    if constexpr (std::is_same_v<Cell, Worded>) {
      custom(cell.table, cell.json);
    } else if constexpr (std::is_same_v<Cell, bool>) {
      custom(cell ? "yes" : "no", cell ? "true" : "false");
    } else if constexpr (std::is_integral_v<Cell>) {
      put(std::to_string(cell), false);
    } else {
      text(cell);
    }
  }
  void put(std::string_view cell, bool quoted);

  std::string &out_;
  const bool json_;
  const std::span<const Column> columns_;
  size_t column_ = 0;
  bool first_ = true;
};

} // namespace orrin
