// Tables and JSON. No state beyond one report.

#include "report.h"

namespace orrin {

namespace {

constexpr std::string_view HEX = "0123456789abcdef";

} // namespace

void appendJsonText(std::string &out, std::string_view text) {
  out += '"';
  for (const char each : text) {
    const auto byte = static_cast<unsigned char>(each);
    if (each == '"' || each == '\\') {
      out.append(1, '\\').append(1, each);
    } else if (byte < 0x20) {
      out.append("\\u00").append(1, HEX[byte >> 4]).append(1, HEX[byte & 15]);
    } else {
      out += each;
    }
  }
  out += '"';
}

Report::Report(std::string &out, bool json, std::span<const Column> columns)
    : out_(out), json_(json), columns_(columns) {
  if (json_) {
    out_ += '[';
    return;
  }
  for (const Column &column : columns_) {
    put(column.key, false);
  }
}

void Report::finish() {
  if (json_) {
    out_ += first_ ? "]\n" : "\n]\n";
  }
}

void Report::put(std::string_view cell, bool quoted) {
  const Column &column = columns_[column_];
  const bool last = column_ + 1 == columns_.size();
  if (json_) {
    if (column_ == 0) {
      out_ += first_ ? "\n{" : ",\n{";
      first_ = false;
    }
    appendJsonText(out_, column.key);
    out_ += ':';
    if (quoted) {
      appendJsonText(out_, cell);
    } else {
      out_ += cell;
    }
    out_ += last ? "}" : ",";
  } else {
    cell = cell.empty() ? "-" : cell;
    out_ += cell;
    out_.append(last || cell.size() >= column.width ? 0 : column.width - cell.size(), ' ') += last ? '\n' : ' ';
  }
  column_ = last ? 0 : column_ + 1;
}

} // namespace orrin
