// The raw ICMP socket of a probe session: opened with the table's lock held, on the thread that starts the session. The
// session owns it from then on.

#include "unique_fd.h"
#include "vr_ipslaprobe_util_session.h"

#include <arpa/inet.h>
#include <cstdio>
#include <cstring>
#include <fcntl.h>
#include <iterator>
#include <linux/filter.h>
#include <netinet/in.h>
#include <netinet/ip_icmp.h>
#include <sys/select.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

namespace {

constexpr const char *OPERATION = "probeAgentProbeCreateSock";
constexpr const char *RECEIVE_MAX_PATH = "/proc/sys/net/core/rmem_max";
constexpr uint32_t DATA_SIZE_OF_DEFAULT_BUFFER = 40960; // the system's own receive buffer does for payloads up to this
constexpr int ON = 1;

bool socketOpen(UniqueFd &sock) {
  sock.reset(socket(AF_INET, SOCK_RAW | SOCK_CLOEXEC, IPPROTO_ICMP));
  if (sock && sock.get() < FD_SETSIZE) {
    return true;
  }
  probeAgentLog(SEVERITY_ALERT, COMPONENT_MIREL, "Error opening ICMP RAW socket. Error = %d \n", sock.get());
  return false;
}

// A raw socket is given every ICMP message of the namespace. What cannot concern the session is dropped before it wakes
// the task: with a hundred sessions the answers of all others would otherwise stand in front of the session's own. A load
// beyond the end drops the datagram. The numbers in a jump are the instructions to skip, when equal and when not.
void foreignMessagesDrop(int sock, uint16_t icmpIdent) {
  sock_filter program[] = {
      BPF_STMT(BPF_LDX | BPF_B | BPF_MSH, 0), // X = the length of the IP header
      BPF_STMT(BPF_LD | BPF_B | BPF_IND, offsetof(icmphdr, type)),
      BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, ICMP_DEST_UNREACH, 3, 0),
      BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, ICMP_ECHOREPLY, 0, 3),
      BPF_STMT(BPF_LD | BPF_H | BPF_IND, offsetof(icmphdr, un.echo.id)),
      BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, icmpIdent, 0, 1),
      BPF_STMT(BPF_RET | BPF_K, UINT32_MAX),
      BPF_STMT(BPF_RET | BPF_K, 0),
  };
  const sock_fprog filter{.len = std::size(program), .filter = program};
  setsockopt(sock, SOL_SOCKET, SO_ATTACH_FILTER, &filter, sizeof filter);
}

void receiveMaxWrite(int wanted) {
  constexpr const char *FAILED = "probeAgentProbeCreateSock(): setsockopt SO_RCVBUF failed to set size\n";
  struct stat info;
  if (stat(RECEIVE_MAX_PATH, &info) != 0) {
    probeAgentLog(SEVERITY_WARNING, COMPONENT_MIREL, FAILED);
    return;
  }
  const UniqueFd file(open(RECEIVE_MAX_PATH, O_WRONLY | O_CLOEXEC));
  if (!file) {
    return;
  }
  char text[sizeof "131110"];
  const int length = snprintf(text, sizeof text, "%d", wanted);
  if (write(file.get(), text, static_cast<size_t>(length)) != length) {
    probeAgentLog(SEVERITY_WARNING, COMPONENT_MIREL, FAILED);
  }
}

// Makes room for two of the largest answers. True also where the kernel's limit is not to be seen.
bool receiveBufferGrow(int sock, uint16_t dataSize) {
  const int wanted = 2 * dataSize + 40;
  FILE *setting = fopen(RECEIVE_MAX_PATH, "re");
  if (setting == nullptr) {
    return true;
  }
  int limit = 0;
  const bool known = fscanf(setting, "%d", &limit) == 1;
  fclose(setting);
  if (known && wanted > limit) {
    receiveMaxWrite(wanted);
  }
  if (setsockopt(sock, SOL_SOCKET, SO_RCVBUF, &wanted, sizeof wanted) != 0) {
    probeAgentLog(SEVERITY_WARNING, COMPONENT_MIREL, "%s: setsockopt FAILED\n", OPERATION);
    return false;
  }
  return true;
}

bool sourceBind(int sock, uint32_t sourceAddr) {
  sockaddr_in source{};
  source.sin_family = AF_INET;
  source.sin_addr.s_addr = htonl(sourceAddr);
  if (bind(sock, reinterpret_cast<const sockaddr *>(&source), sizeof source) == 0) {
    return true;
  }
  char text[INET_ADDRSTRLEN];
  probeAgentLog(SEVERITY_WARNING, COMPONENT_MIREL, "Failed to bind ping socket to IPv4 address %s.",
                osapiInetNtoa(sourceAddr, text));
  return false;
}

} // namespace

uint32_t probeAgentProbeCreateSock(pingSessionEntry &entry) {
  const ProbeCallTrace call(OPERATION);
  UniqueFd sock;
  if (!socketOpen(sock)) {
    return 1;
  }
  foreignMessagesDrop(sock.get(), entry.icmpIdent);
  setsockopt(sock.get(), SOL_SOCKET, SO_TIMESTAMP, &ON, sizeof ON);
  if (setsockopt(sock.get(), SOL_SOCKET, SO_BROADCAST, &ON, sizeof ON) != 0) {
    probeAgentLog(SEVERITY_WARNING, COMPONENT_MIREL, "probeAgentProbeCreateSock(): setsockopt SO_BROADCAST failed\n");
  }
  if (entry.dataSize > DATA_SIZE_OF_DEFAULT_BUFFER && !receiveBufferGrow(sock.get(), entry.dataSize)) {
    return 1;
  }
  if (IN_MULTICAST(entry.targetAddr)) {
    probeAgentLog(SEVERITY_ERROR, COMPONENT_MIREL, "Ping probes for Multicast destination addresses is not supported.");
    return 1;
  }
  if (entry.sourceAddr != 0 && !sourceBind(sock.get(), entry.sourceAddr)) {
    return 1;
  }
  entry.sockFd = sock.release();
  return 0;
}
