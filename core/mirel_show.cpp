// Text and JSON of the show operations. On the thread of the operation; owns the document that it builds.

#include "mirel_show.h"

#include <cstdio>

namespace {

// What the switch names its interfaces are bytes in no known encoding: one that is not ASCII stands for the character of its
// number, so that the document is valid whatever they are.
void appendQuoted(std::string &out, std::string_view text) {
  out += '"';
  for (const char each : text) {
    const auto byte = static_cast<unsigned char>(each);
    if (each == '"' || each == '\\') {
      out.append(1, '\\').append(1, each);
    } else if (byte < 0x20 || byte >= 0x7f) {
      char escaped[8];
      snprintf(escaped, sizeof escaped, "\\u%04x", byte);
      out += escaped;
    } else {
      out += each;
    }
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
