// What the targets of the agent share: the agent of VRF 3, "blue", on the scripted platform, with all traces on and standard
// output thrown away. The kernel's devices are made up, see agent.cpp.
#pragma once

#include "netlink_attr.h"

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <vector>

// Once a process, before the first input.
void agentSetUp();

// After each input: what the scripted platform recorded is forgotten.
void agentInputEnd();

inline NetlinkBytes netlinkBytes(const uint8_t *data, size_t size) {
  return {reinterpret_cast<const std::byte *>(data), size};
}

// A datagram as a reader with a buffer of so many bytes gets it, in memory of exactly its size.
inline std::vector<uint8_t> received(const uint8_t *data, size_t size, size_t bufferSize) {
  return {data, data + (size < bufferSize ? size : bufferSize)};
}

extern "C" int LLVMFuzzerInitialize(int *argc, char ***argv);
extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size);
