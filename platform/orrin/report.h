// One answer of `show`, as a table for people or as JSON for programs: the same rows and cells make both.
#pragma once

#include <cstddef>
#include <cstdint>
#include <span>
#include <string>
#include <string_view>

namespace orrin {

struct Column {
  std::string_view key; // of the JSON member, and the title of the table's column
  size_t width;
};

void appendJsonText(std::string &out, std::string_view text);

class Report {
public:
  // Writes the head; finish() writes the end.
  Report(std::string &out, bool json, std::span<const Column> columns);
  void finish();

  // Cells go into the row's columns from left to right; a row is complete with its last column.
  void text(std::string_view cell);
  void number(uint64_t cell);
  void signedNumber(int64_t cell);
  void yesNo(bool cell);
  // For the row's last column: text for the table, JSON for the other form.
  void custom(std::string_view table, std::string_view json);

private:
  void put(std::string_view cell, bool quoted);

  std::string &out_;
  const bool json_;
  const std::span<const Column> columns_;
  size_t column_ = 0;
  bool first_ = true;
};

} // namespace orrin
