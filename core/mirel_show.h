// What the show operations print: records of rows, as the text that operators know or as one JSON document. Both forms come
// from the same rows, so they cannot differ.
#pragma once

#include <cstdint>
#include <span>
#include <string>
#include <string_view>

enum class ShowForm { TEXT, JSON };

// One value. `label` stands before it in the text and `end` behind it; `key` is its name in JSON. A row without a key is text
// alone, one without a label is JSON alone.
struct ShowRow {
  ShowRow(std::string text) : label(std::move(text)) {}
  ShowRow(std::string text, const char *name, int64_t number, const char *rowEnd = "\n")
      : label(std::move(text)), key(name), value(std::to_string(number)), end(rowEnd) {}
  ShowRow(std::string text, const char *name, const char *words)
      : label(std::move(text)), key(name), value(words), quoted(true), end("\n") {}

  std::string label;
  const char *key = nullptr;
  std::string value;
  bool quoted = false;
  const char *end = "";
};

// Prints to standard output; the document is complete when it ends.
class ShowOutput {
public:
  enum Shape { ONE_RECORD, LIST };

  ShowOutput(ShowForm form, Shape shape);
  ShowOutput(const ShowOutput &) = delete;
  ShowOutput &operator=(const ShowOutput &) = delete;
  ~ShowOutput();

  // Begins the next record of a list; a document of one record has begun with it.
  void record();

  // The next rows of the record; as text they are one call of printf.
  void rows(std::span<const ShowRow> rows);
  void row(const ShowRow &row) { rows({&row, 1}); }

private:
  ShowForm form_;
  Shape shape_;
  std::string document_;
};
