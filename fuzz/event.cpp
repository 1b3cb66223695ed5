// Router events, as the main loop reads them from the routing service's socket. An input is a row of datagrams: each is as
// long as it says, and the last one has what is left. A field that the agent does not read says which of the calls that an
// event makes fails.

#include "agent.h"

#include "mirel_context.h"
#include "mirel_router.h"
#include "rppi_event.h"
#include "scripted.h"

#include <algorithm>
#include <string>

namespace {

constexpr size_t RECEIVE_SIZE = 256;
constexpr int SOME_SOCKET =
    1000; // a best-route client that runs already: without one, the end of start-up may end the agent
constexpr size_t EVENTS_MAX = 16;

size_t statedLength(const uint8_t *data, size_t size) {
  uint16_t length = 0;
  if (size >= offsetof(RppiEventMsg, msgLen) + sizeof length) {
    memcpy(&length, data + offsetof(RppiEventMsg, msgLen), sizeof length);
  }
  return length >= offsetof(RppiEventMsg, eventSeq) ? std::min<size_t>(length, size) : size;
}

uint32_t callsUntilFailure;

// Sees each call before it is answered.
void callFailInTurn(const std::string &line) {
  const std::string function = line.substr(0, line.find(' '));
  const bool kernelOrSwitch = function.starts_with("rpcclt_") || function.find("sapi") != std::string::npos;
  if (kernelOrSwitch && callsUntilFailure > 0 && --callsUntilFailure == 0) {
    scripted::script(function + ": " + std::to_string(TARN_FAILURE));
  }
}

} // namespace

int LLVMFuzzerInitialize(int *, char ***) {
  agentSetUp();
  scripted::observe(callFailInTurn);
  brc_sock_fd = SOME_SOCKET;
  return 0;
}

int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
  for (size_t event = 0; event < EVENTS_MAX && size > 0; ++event) {
    const size_t length = statedLength(data, size);
    const size_t read = std::min(length, RECEIVE_SIZE);
    RppiEventMsg msg{};
    memcpy(&msg, data, std::min(read, sizeof msg));
    callsUntilFailure = msg.reserved12;
    mirelRouterEventMsgProcess(&msg, static_cast<uint32_t>(read));
    data += length;
    size -= length;
  }
  agentInputEnd();
  return 0;
}
