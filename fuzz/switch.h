// What the targets of orrin share: a small switch, and a world outside of it in which nobody listens and no file is there.
#pragma once

#include "commands.h"

#include <cstddef>
#include <cstdint>

// Two VRFs, one of them routing, with an interface that is up, routes of all kinds, neighbours, and a client of each kind. The
// rest of the machine is out of reach while it lives.
class SmallSwitch {
public:
  SmallSwitch();
  SmallSwitch(const SmallSwitch &) = delete;
  SmallSwitch &operator=(const SmallSwitch &) = delete;
  ~SmallSwitch();

  orrin::Switch &operator*() { return sw_; }

  // One of the forms in which the switch shows what it holds.
  void print(size_t form);

private:
  orrin::Switch sw_;
};

// What orrin dumps brings the same state back in another one; ends the process otherwise.
void restoreCheck(orrin::Switch &sw);

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size);
