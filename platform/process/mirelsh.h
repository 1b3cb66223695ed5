// What the one-shot form and the prompt share.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

struct Target {
  uint32_t vrf;
  bool json;   // operations are asked for JSON
  bool prompt; // somebody types and reads
};

int fail(const std::string &message); // prints it; the exit status for it

// Runs the operation in the VRF's agent and prints what it prints. The exit status.
int operationRun(const Target &target, const std::vector<std::string> &words);

// Names of the operations of the VRF's agent; none when it cannot be asked.
std::vector<std::string> operationNames(const Target &target);

// Runs line after line from standard input, until it ends or says so. With editing, history and completion on a terminal.
int promptRun(const Target &target);
