// The request socket: one SEQPACKET connection per calling thread of a client, one request at a time on each. A faulty
// request is refused, a broken one costs its connection; nobody is waited for.
#pragma once

#include "listener.h"
#include "requests.h"

#include <cstdint>
#include <map>
#include <string>

namespace orrin {

class ApiServer {
public:
  explicit ApiServer(Switch &sw) : sw_(sw) {}

  bool open(const std::string &path, std::string &error);

  void acceptConnections();
  // After a while without the means to accept.
  void resumeAccepting() { listener_.resume(); }
  void serve(uint32_t number, uint32_t events);

  // Requests held back by a fault.
  uint64_t nextDueMs() const { return delayed_.empty() ? 0 : delayed_.begin()->first; }
  void answerDue();

private:
  struct Connection {
    UniqueFd fd;
    uint32_t process = 0;
  };

  // A request under a fault that delays it; `number` may be gone by then.
  struct Delayed {
    uint32_t number = 0;
    std::string request;
    Fault fault;
  };

  bool receive(uint32_t number, const Connection &connection);
  void take(uint32_t number, std::string_view bytes);
  void answer(uint32_t number, std::string_view bytes, const Fault *fault);
  void close(uint32_t number) { connections_.erase(number); }

  Switch &sw_;
  Listener listener_;
  uint32_t nextNumber_ = 1;
  std::map<uint32_t, Connection> connections_;
  std::multimap<uint64_t, Delayed> delayed_; // by due time
};

} // namespace orrin
