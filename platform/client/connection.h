// The calling thread's connection to orrin: made by the first call that needs it, closed with the thread, and closed by a
// call that ran out of time, so that a late answer is never taken for another call's.
#pragma once

#include "published.h"
#include "tarnapi_wire.h"

#include <cstddef>
#include <cstdint>
#include <span>
#include <string_view>

namespace tarnclient {

// What came back; `tail` is valid until the thread's next call.
struct Answer {
  int32_t result = 0;
  std::array<uint32_t, 6> values{};
  std::span<const std::byte> tail;
};

// One remote call, 5 seconds at most in all. TARN_FAILURE when it could not be carried out, which raises the failure
// indication.
Answer call(tarnwire::Op op, const std::array<uint32_t, 6> &args, std::string_view tail = {});
// The same for a call that need not reach orrin: false, and no failure indicated, when no answer came; `answer` is as it was.
bool callIfThere(tarnwire::Op op, const std::array<uint32_t, 6> &args, std::string_view tail, Answer &answer);

// The page that answers in orrin's stead for this call; null when orrin itself must be asked.
const tarnwire::Published *publishedFor(tarnwire::Op op);

bool failureOccurred();
void failureReset();

} // namespace tarnclient
