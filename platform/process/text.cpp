// Address text and bounded text copies.

#include "osapi.h"

#include <arpa/inet.h>
#include <bit>
#include <cstdarg>
#include <cstdio>
#include <cstring>

namespace {

enum AddressFamily : uint32_t { FAMILY_IPV4 = 1, FAMILY_IPV6 = 2 };

} // namespace

extern "C" char *osapiInetNtoa(uint32_t addr, char *buf) {
  const in_addr wire = {htonl(addr)};
  inet_ntop(AF_INET, &wire, buf, INET_ADDRSTRLEN);
  return buf;
}

extern "C" char *osapiInetNtop(uint32_t family, const void *addr, char *buf, uint32_t size) {
  if (family == FAMILY_IPV6) {
    return inet_ntop(AF_INET6, addr, buf, size) != nullptr ? buf : nullptr;
  }
  if (family != FAMILY_IPV4) {
    return nullptr;
  }
  uint32_t host;
  memcpy(&host, addr, sizeof host);
  const in_addr wire = {htonl(host)};
  return inet_ntop(AF_INET, &wire, buf, size) != nullptr ? buf : nullptr;
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
  return strncpy(dst, src, count);
}

extern "C" char *osapiStrncpySafe(char *dst, const char *src, uint32_t size) {
  if (size > 0) {
    const size_t length = strnlen(src, size - 1);
    memcpy(dst, src, length);
    dst[length] = '\0';
  }
  return dst;
}

extern "C" char *osapiStrncat(char *dst, const char *src, uint32_t count) {
  return strncat(dst, src, count);
}
