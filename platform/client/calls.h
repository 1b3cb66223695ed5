// What the sources of the exported functions share: calls by what comes back.
#pragma once

#include "connection.h"
#include "tarnapi.h"

#include <cstring>

namespace tarnclient {

using Args = std::array<uint32_t, 6>;

inline int32_t plainCall(tarnwire::Op op, const Args &args) {
  return call(op, args).result;
}

inline int32_t numberCall(tarnwire::Op op, const Args &args, uint32_t *value) {
  const Answer answer = call(op, args);
  if (answer.result == TARN_OK) {
    *value = answer.values[0];
  }
  return answer.result;
}

// A text that a caller gives: up to its NUL or its size.
inline std::string_view givenText(const tarn_buffdesc *text) {
  return {text->pstart, strnlen(text->pstart, text->size)};
}

} // namespace tarnclient
