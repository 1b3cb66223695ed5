// Tables and JSON. No state beyond one report.

#include "report.h"

namespace orrin {

namespace {

constexpr std::string_view HEX = "0123456789abcdef";

void pad(std::string &out, size_t begin, size_t width) {
  const size_t written = out.size() - begin;
  out.append(written < width ? width - written : 0, ' ');
}

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
  const bool last = ++column_ == columns_.size();
  if (json_) {
    if (column_ == 1) {
      out_ += first_ ? "\n{" : ",\n{";
      first_ = false;
    } else {
      out_ += ',';
    }
    appendJsonText(out_, column.key);
    out_ += ':';
    if (quoted) {
      appendJsonText(out_, cell);
    } else {
      out_ += cell;
    }
    out_ += last ? "}" : "";
  } else {
    const size_t begin = out_.size();
    out_ += cell.empty() ? std::string_view("-") : cell;
    if (last) {
      out_ += '\n';
    } else {
      pad(out_, begin, column.width);
      out_ += ' ';
    }
  }
  if (last) {
    column_ = 0;
  }
}

void Report::text(std::string_view cell) {
  put(cell, true);
}

void Report::number(uint64_t cell) {
  put(std::to_string(cell), false);
}

void Report::signedNumber(int64_t cell) {
  put(std::to_string(cell), false);
}

void Report::yesNo(bool cell) {
  put(json_ ? (cell ? "true" : "false") : (cell ? "yes" : "no"), false);
}

void Report::custom(std::string_view table, std::string_view json) {
  put(json_ ? json : table, false);
}

} // namespace orrin
