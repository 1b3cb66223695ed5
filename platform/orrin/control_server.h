// The control socket: command lines in, for each in order "<status> <length>\n" and so many bytes of text out. Status 0 means
// done and on file. While answers wait for their reader, no more commands are read from it.
#pragma once

#include "commands.h"
#include "listener.h"
#include "switch.h"

#include <cstdint>
#include <map>
#include <string>
#include <vector>

namespace orrin {

class ControlServer {
public:
  explicit ControlServer(Switch &sw) : sw_(sw) {}

  bool open(const std::string &path, std::string &error);

  void acceptConnections();
  // After a while without the means to accept.
  void resumeAccepting() { listener_.resume(); }
  void serve(uint32_t number, uint32_t events);

private:
  struct Connection {
    UniqueFd fd;
    std::string input;
    std::string output;
    size_t sent = 0; // of output
    bool ended = false;
  };

  bool receive(Connection &connection);
  void runLines(Connection &connection);
  bool sendOutput(Connection &connection);

  Switch &sw_;
  Listener listener_;
  uint32_t nextNumber_ = 1;
  std::map<uint32_t, Connection> connections_;
};

} // namespace orrin
