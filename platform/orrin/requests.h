// Answering the platform API.
#pragma once

#include "clients.h"
#include "tarnapi_wire.h"

#include <cstdint>
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

// Carries out one request; TARN_INVALID for an op that there is not, or with more behind it than its op may have.
void answerRequest(Switch &sw, const tarnwire::Request &request, const RequestContext &context, Answer &answer);

} // namespace orrin
