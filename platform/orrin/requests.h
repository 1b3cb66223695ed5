// Answering the platform API: what the sources of its calls share. A handler reads the args as tarnapi_wire.h lists them, puts
// values and tail into the answer and returns the call's result.
#pragma once

#include "clients.h"
#include "tarnapi.h"
#include "tarnapi_wire.h"

#include <algorithm>
#include <array>
#include <cstdint>
#include <initializer_list>
#include <string>
#include <string_view>

namespace orrin {

struct RequestContext {
  uint32_t connection = 0; // no other of this orrin has the number
  uint32_t process = 0;    // at its other end
  std::string_view tail;
};

struct Answer {
  tarnwire::Reply reply{};
  std::string tail;
};

struct Call {
  Switch &sw;
  const std::array<uint32_t, 6> &args;
  const RequestContext &context;
  Answer &answer;

  // The record whose number is in an argument, or null.
  Vrf *vrf(size_t arg) const { return findVrf(sw, args[arg]); }
  const Interface *interface(size_t arg) const { return findInterface(sw, args[arg]); }

  int32_t give(std::initializer_list<uint32_t> values) const {
    std::copy(values.begin(), values.end(), answer.reply.values.begin());
    return TARN_OK;
  }
  // A field of a record; TARN_NOT_FOUND for null.
  template <class Record> int32_t number(const Record *record, uint32_t Record::*field) const {
    return record == nullptr ? int32_t{TARN_NOT_FOUND} : give({record->*field});
  }
  template <class Record> int32_t text(const Record *record, std::string Record::*field) const {
    if (record == nullptr) {
      return TARN_NOT_FOUND;
    }
    answer.tail = record->*field;
    return TARN_OK;
  }
};

struct RequestRow {
  tarnwire::Op op;
  int32_t (*handler)(const Call &call);
};

template <size_t COUNT> constexpr bool inOrderFrom(tarnwire::Op first, const std::array<RequestRow, COUNT> &rows) {
  for (size_t row = 0; row < COUNT; ++row) {
    if (rows[row].op != first + row) {
      return false;
    }
  }
  return true;
}

// requests_interface.cpp
inline constexpr tarnwire::Op INTERFACE_ROWS_BEGIN = tarnwire::INTF_NEXT_GET;
inline constexpr tarnwire::Op INTERFACE_ROWS_END = tarnwire::BEST_ROUTE_REGISTER;
extern const std::array<RequestRow, INTERFACE_ROWS_END - INTERFACE_ROWS_BEGIN> INTERFACE_ROWS;

// Carries out one request; TARN_INVALID for an op that there is not, or with more behind it than its op may have.
void answerRequest(Switch &sw, const tarnwire::Request &request, const RequestContext &context, Answer &answer);

} // namespace orrin
