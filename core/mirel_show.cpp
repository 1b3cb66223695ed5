// Text and JSON of the show operations. On the thread of the operation; owns the document that it builds.

#include "mirel_show.h"

#include <algorithm>
#include <cstdio>

namespace {

// A row of UTF-8: how long a sequence is, by its first byte, and between what its second must lie so that it is neither
// longer than needed, nor a surrogate, nor above U+10FFFF. The rest are 0x80 to 0xbf.
struct Utf8Form {
  unsigned char firstLow, firstHigh, secondLow, secondHigh;
  size_t length;
};
constexpr Utf8Form UTF8_FORMS[] = {
    {0xc2, 0xdf, 0x80, 0xbf, 2}, {0xe0, 0xe0, 0xa0, 0xbf, 3}, {0xe1, 0xec, 0x80, 0xbf, 3}, {0xed, 0xed, 0x80, 0x9f, 3},
    {0xee, 0xef, 0x80, 0xbf, 3}, {0xf0, 0xf0, 0x90, 0xbf, 4}, {0xf1, 0xf3, 0x80, 0xbf, 4}, {0xf4, 0xf4, 0x80, 0x8f, 4},
};

bool within(char byte, unsigned char low, unsigned char high) {
  return static_cast<unsigned char>(byte) >= low && static_cast<unsigned char>(byte) <= high;
}

// Bytes of the character above ASCII that the text begins with; 0 when it begins with none.
size_t utf8Length(std::string_view text) {
  for (const Utf8Form &form : UTF8_FORMS) {
    if (within(text[0], form.firstLow, form.firstHigh)) {
      const std::string_view rest = text.substr(1, form.length - 1);
      const bool valid = rest.size() == form.length - 1 && within(rest[0], form.secondLow, form.secondHigh) &&
                         std::ranges::all_of(rest.substr(1), [](char byte) { return within(byte, 0x80, 0xbf); });
      return valid ? form.length : 0;
    }
  }
  return 0;
}

// The switch's names are bytes in no promised encoding: one that is no UTF-8 stands for the character of its number, so that
// the document is valid whatever they are.
void appendQuoted(std::string &out, std::string_view text) {
  out += '"';
  for (size_t at = 0; at < text.size();) {
    const char each = text[at];
    const auto byte = static_cast<unsigned char>(each);
    const size_t length = std::max<size_t>(utf8Length(text.substr(at)), 1);
    if (each == '"' || each == '\\') {
      out.append(1, '\\').append(1, each);
    } else if (length == 1 && (byte < 0x20 || byte >= 0x7f)) {
      char escaped[8];
      snprintf(escaped, sizeof escaped, "\\u%04x", byte);
      out += escaped;
    } else {
      out.append(text, at, length);
    }
    at += length;
  }
  out += '"';
}

void appendMember(std::string &object, const ShowRow &row) {
  object += object.back() == '{' ? "" : ", ";
  appendQuoted(object, row.key);
  object += ": ";
  if (row.quoted) {
    appendQuoted(object, row.value);
  } else {
    object += row.value;
  }
}

void appendText(std::string &text, const ShowRow &row) {
  text += row.label;
  if (!row.label.empty()) {
    text += row.value;
    text += row.end;
  }
}

} // namespace

ShowOutput::ShowOutput(ShowForm form, Shape shape)
    : form_(form), shape_(shape), document_(1, shape == LIST ? '[' : '{') {}

ShowOutput::~ShowOutput() {
  if (form_ != ShowForm::JSON) {
    return;
  }
  if (document_ != "[") {
    document_ += '}';
  }
  document_ += shape_ == LIST ? "\n]\n" : "\n";
  printf("%s", document_.c_str());
}

void ShowOutput::record() {
  document_ += document_ == "[" ? "\n{" : "},\n{";
}

void ShowOutput::rows(std::span<const ShowRow> rows) {
  std::string text;
  for (const ShowRow &row : rows) {
    if (form_ == ShowForm::TEXT) {
      appendText(text, row);
    } else if (row.key != nullptr) {
      appendMember(document_, row);
    }
  }
  if (!text.empty()) {
    printf("%s", text.c_str());
  }
}
