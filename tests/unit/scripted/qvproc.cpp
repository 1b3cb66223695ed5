// libqvproc.so of the scripted platform: osapi.h, proc_osapi.h, syncdb.h and qvproc.h. Text, time and queue functions do
// what they say and leave no record; a sleep is recorded and not slept.

#include "recorder.h"

#include <arpa/inet.h>
#include <bit>
#include <condition_variable>
#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <deque>
#include <mutex>
#include <pthread.h>

using namespace scripted;

// ---- kernel devices, addresses and routes

SCRIPTED(osapiStackIfIndexGet, (const char *name, uint32_t *ifIndex), "0 41", name, Out{ifIndex})
SCRIPTED(osapiIfMacSet, (const char *name, const uint8_t *mac), "0", name, Mac{mac})
SCRIPTED(osapiIfFlagChange, (const char *name, uint32_t flag, uint32_t set), "0", name, flag, set)
SCRIPTED(osapiIfArpSet, (const char *name), "0", name)
SCRIPTED(osapiIfAddrDel, (const char *name), "0", name)
SCRIPTED(osapiIfIpv4MtuSet, (const char *name, uint32_t mtu), "0", name, mtu)
SCRIPTED(osapiIfIpv4IcmpSendDestinationUnreachableSet, (const char *name, uint32_t mode), "0", name, mode)
SCRIPTED(osapiIfIpv4IcmpRedirectSendSet, (const char *name, uint32_t mode), "0", name, mode)
SCRIPTED(osapiIpv4IcmpRatelimitSet, (uint32_t burstSize, uint32_t interval), "0", burstSize, interval)
SCRIPTED(osapiIpv4IcmpIgnoreEchoRequestSet, (uint32_t ignore), "0", ignore)
SCRIPTED(osapiIpv4IcmpEchoIgnoreBcastSet, (uint32_t ignore), "0", ignore)
SCRIPTED(osapiSleepMSec, (uint32_t milliseconds), "0", milliseconds)

SCRIPTED(procOsapiRouteNetlinkSocketInit, (RouteNetlinkSock * sock), "0 100", Out{sock})
SCRIPTED(procOsapiNetlinkIPv4Add,
         (const char *label, uint32_t addr, uint32_t mask, uint32_t broadcast, RouteNetlinkSock *sock), "0", label,
         Ip{addr}, Ip{mask}, Ip{broadcast}, sock)
SCRIPTED(procOsapiNetlinkIPv4Del, (const char *label, uint32_t addr, uint32_t mask, RouteNetlinkSock *sock), "0", label,
         Ip{addr}, Ip{mask}, sock)
SCRIPTED(procOsapiAddMRoute,
         (uint32_t dest, uint32_t mask, uint32_t gateway, uint32_t intIfNum, uint32_t flags, const char *device,
          RouteNetlinkSock *sock),
         "0", Ip{dest}, Ip{mask}, Ip{gateway}, intIfNum, Hex{flags}, device, sock)
SCRIPTED(procOsapiDeleteMRoute,
         (uint32_t dest, uint32_t mask, uint32_t gateway, uint32_t intIfNum, const char *device,
          RouteNetlinkSock *sock),
         "0", Ip{dest}, Ip{mask}, Ip{gateway}, intIfNum, device, sock)

// ---- sync database and process

SCRIPTED(syncdbClientRegister, (const char *name, SyncdbClient *client), "0 -1", name, Out{client})
SCRIPTED(qvproc_devshell_init, (void), "0")
SCRIPTED(qvproc_memtrack_init, (void), "0")
SCRIPTED(qvproc_watchdog_start, (uint32_t seconds, const char *name), "0", seconds, name)
SCRIPTED(qvproc_watchdog_stop, (void), "0")

extern "C" int32_t syncdbGet(SyncdbClient *client, const char *name, void *value, uint32_t size, uint32_t flags) {
  return call<decltype(syncdbGet)>("syncdbGet", "0 0", client, name, Out{static_cast<uint8_t *>(value)}, size, flags);
}

extern "C" int32_t syncdbSet(SyncdbClient *client, const char *name, const void *value, uint32_t size) {
  return call<decltype(syncdbSet)>("syncdbSet", "0", client, name, Byte{value}, size);
}

extern "C" int32_t qvproc_devshell_register(const char *name, const char *,
                                            int32_t (*command)(int32_t argc, const char *const *argv)) {
  traceTo(std::string("qvproc_devshell_register ") + name);
  return commandAdd(name, command) ? 0 : 1;
}

extern "C" int32_t qvproc_logf(uint32_t severity, uint32_t component, const char *file, uint32_t, const char *format,
                               ...) {
  const int saved = errno;
  char text[1024];
  va_list values;
  va_start(values, format);
  vsnprintf(text, sizeof text, format, values);
  va_end(values);
  traceTo("log " + std::to_string(severity) + " " + std::to_string(component) + " " + file + " " + text);
  errno = saved;
  return 0;
}

// ---- semaphores, tasks, time

extern "C" osapiSema *osapiSemaMCreate(uint32_t options) {
  return osapiSemaMCreateTrack(__FILE__, __LINE__, options);
}

extern "C" osapiSema *osapiSemaCCreate(uint32_t options, uint32_t count) {
  return osapiSemaCCreateTrack(__FILE__, __LINE__, options, count);
}

extern "C" uint64_t osapiTaskCreate(const char *name, void *(*entry)(void *arg), uint32_t, void *arg, uint32_t,
                                    uint32_t, uint32_t) {
  if (call<int32_t(const char *)>("osapiTaskCreate", "0", name) != 0) {
    return 0;
  }
  pthread_t thread;
  return pthread_create(&thread, nullptr, entry, arg) == 0 ? static_cast<uint64_t>(thread) : 0;
}

extern "C" uint32_t osapiUpTimeRaw(void) {
  timespec now;
  clock_gettime(CLOCK_MONOTONIC, &now);
  return static_cast<uint32_t>(now.tv_sec);
}

extern "C" uint32_t osapiUpTimeMillisecondsGet(void) {
  timespec now;
  clock_gettime(CLOCK_MONOTONIC, &now);
  return static_cast<uint32_t>(now.tv_sec * 1000 + now.tv_nsec / 1000000);
}

// ---- text

extern "C" char *osapiInetNtoa(uint32_t addr, char *buf) {
  const in_addr network{htonl(addr)};
  inet_ntop(AF_INET, &network, buf, INET_ADDRSTRLEN);
  return buf;
}

extern "C" char *osapiInetNtop(uint32_t family, const void *addr, char *buf, uint32_t size) {
  uint8_t bytes[16];
  if (family == TARN_FAMILY_IPV6) {
    memcpy(bytes, addr, sizeof bytes);
  } else if (family == TARN_FAMILY_IPV4) {
    uint32_t host;
    memcpy(&host, addr, sizeof host);
    host = htonl(host);
    memcpy(bytes, &host, sizeof host);
  } else {
    return nullptr;
  }
  return const_cast<char *>(inet_ntop(family == TARN_FAMILY_IPV4 ? AF_INET : AF_INET6, bytes, buf, size));
}

extern "C" uint32_t osapiInetMaskLengthGet(uint32_t mask) {
  return static_cast<uint32_t>(std::countl_one(mask));
}

extern "C" int32_t osapiSnprintf(char *buf, uint32_t size, const char *format, ...) {
  va_list values;
  va_start(values, format);
  const int length = vsnprintf(buf, size, format, values);
  va_end(values);
  return length;
}

extern "C" char *osapiStrncpy(char *dst, const char *src, uint32_t count) {
  return static_cast<char *>(memcpy(memset(dst, 0, count), src, strnlen(src, count)));
}

extern "C" char *osapiStrncpySafe(char *dst, const char *src, uint32_t size) {
  snprintf(dst, size, "%s", src);
  return dst;
}

extern "C" char *osapiStrncat(char *dst, const char *src, uint32_t count) {
  const size_t added = strnlen(src, count);
  char *end = dst + strlen(dst);
  memcpy(end, src, added);
  end[added] = '\0';
  return dst;
}

// ---- queues

struct osapiMsgQueue {
  std::mutex lock;
  std::condition_variable changed;
  std::deque<std::string> messages;
  uint32_t limit;
  uint32_t msgSize;
};

namespace {

bool waitValid(int32_t wait) {
  return wait == QV_WAIT_FOREVER || wait == QV_NO_WAIT;
}

} // namespace

extern "C" osapiMsgQueue *osapiMsgQueueCreate(const char *name, uint32_t count, uint32_t msgSize) {
  if (call<int32_t(const char *, uint32_t, uint32_t)>("osapiMsgQueueCreate", "0", name, count, msgSize) != 0) {
    return nullptr;
  }
  auto *queue = new osapiMsgQueue;
  queue->limit = count;
  queue->msgSize = msgSize;
  return queue;
}

extern "C" int32_t osapiMsgQueueDelete(osapiMsgQueue *queue) {
  delete queue;
  return 0;
}

extern "C" int32_t osapiMsgQueueLimitGet(osapiMsgQueue *queue, uint32_t *limit) {
  *limit = queue->limit;
  return 0;
}

extern "C" int32_t osapiMsgQueueGetNumMsgs(osapiMsgQueue *queue, uint32_t *count) {
  const std::lock_guard held(queue->lock);
  *count = static_cast<uint32_t>(queue->messages.size());
  return 0;
}

extern "C" int32_t osapiMessageSend(osapiMsgQueue *queue, const void *message, uint32_t size, int32_t wait, uint32_t) {
  if (!waitValid(wait)) {
    return 2;
  }
  std::unique_lock held(queue->lock);
  const auto room = [queue] { return queue->messages.size() < queue->limit; };
  if (size > queue->msgSize || (wait == QV_NO_WAIT && !room())) {
    return 1;
  }
  queue->changed.wait(held, room);
  std::string bytes(static_cast<const char *>(message), size);
  bytes.resize(queue->msgSize);
  queue->messages.push_back(std::move(bytes));
  queue->changed.notify_all();
  return 0;
}

extern "C" int32_t osapiMessageReceive(osapiMsgQueue *queue, void *buffer, uint32_t size, int32_t wait) {
  if (!waitValid(wait)) {
    return 2;
  }
  std::unique_lock held(queue->lock);
  const auto any = [queue] { return !queue->messages.empty(); };
  if (wait == QV_NO_WAIT && !any()) {
    return 1;
  }
  queue->changed.wait(held, any);
  const std::string &head = queue->messages.front();
  memcpy(buffer, head.data(), std::min<size_t>(size, head.size()));
  queue->messages.pop_front();
  queue->changed.notify_all();
  return 0;
}

extern "C" int32_t osapiMessagePeek(osapiMsgQueue *queue, void *buffer, uint32_t size, uint32_t position) {
  const std::lock_guard held(queue->lock);
  if (position >= queue->messages.size()) {
    return 1;
  }
  const std::string &message = queue->messages[position];
  memcpy(buffer, message.data(), std::min<size_t>(size, message.size()));
  return 0;
}
