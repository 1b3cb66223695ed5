// Requests of the platform API to orrin, on a small switch. An input is a row of datagrams, each as many bytes longer than its
// record as the low byte of its sequence number says: the number means nothing to orrin, which only sends it back.

#include "requests.h"
#include "switch.h"

#include <algorithm>
#include <cstring>
#include <unistd.h>

int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
  SmallSwitch small;
  orrin::Switch &sw = *small;
  tarnwire::Request request;
  const size_t form = size;
  while (size >= sizeof request) {
    memcpy(&request, data, sizeof request);
    const size_t length = sizeof request + std::min<size_t>(request.sequence & 0xFF, size - sizeof request);
    const std::string tail(reinterpret_cast<const char *>(data) + sizeof request, length - sizeof request);
    orrin::Answer answer;
    orrin::answerRequest(sw, request, {1, static_cast<uint32_t>(getpid()), tail}, answer);
    if (sizeof answer.reply + answer.tail.size() > tarnwire::REPLY_MAX) {
      __builtin_trap();
    }
    data += length;
    size -= length;
  }
  small.print(form);
  restoreCheck(sw);
  return 0;
}
