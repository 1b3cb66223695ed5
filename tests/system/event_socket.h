// A client's event socket, as the agent binds it.
#pragma once

#include "rppi_event.h"
#include "unique_fd.h"

#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <optional>
#include <poll.h>
#include <stdexcept>
#include <sys/socket.h>
#include <sys/un.h>

class EventSocket {
public:
  EventSocket(const char *format, uint32_t client) : fd_(socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0)) {
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    std::snprintf(address.sun_path, sizeof address.sun_path, format, client);
    unlink(address.sun_path);
    if (bind(fd_.get(), reinterpret_cast<const sockaddr *>(&address), sizeof address) != 0) {
      throw std::runtime_error("bind");
    }
  }

  // The next message, if one comes in so long; one whose msgLen is not its length is none.
  std::optional<RppiEventMsg> receive(int milliseconds) {
    pollfd wait{fd_.get(), POLLIN, 0};
    RppiEventMsg message{};
    if (poll(&wait, 1, milliseconds) != 1) {
      return std::nullopt;
    }
    const ssize_t length = recv(fd_.get(), &message, sizeof message, MSG_DONTWAIT | MSG_TRUNC);
    return length == message.msgLen ? std::optional(message) : std::nullopt;
  }

  // The type of the next message, 0 when none comes.
  uint16_t receiveType(int milliseconds) {
    const std::optional<RppiEventMsg> message = receive(milliseconds);
    return message ? message->msgType : uint16_t{0};
  }

private:
  UniqueFd fd_;
};

inline constexpr const char *BEST_ROUTE_SOCKET = "/tmp/rppi_brc.%04u";
inline constexpr const char *ROUTER_EVENT_SOCKET = "/tmp/rppi_rec.%04u";
