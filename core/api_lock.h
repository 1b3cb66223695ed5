// Holds the API semaphore while it lives. Every platform API call after start-up is made under one; the semaphore is
// recursive, so an operation that holds it may call another that takes it too.
#pragma once

#include "mirel_context.h"

class ApiLock {
public:
  ApiLock() { osapiSemaTake(mirelApiSema, QV_WAIT_FOREVER); }
  ~ApiLock() { osapiSemaGive(mirelApiSema); }
  ApiLock(const ApiLock &) = delete;
  ApiLock &operator=(const ApiLock &) = delete;
};

// One platform API call of the agent's client, under the semaphore.
template <typename... Parameters, typename... Arguments>
int32_t apiCall(int32_t (*call)(tarnapiClient *, Parameters...), Arguments... arguments) {
  const ApiLock lock;
  return call(tarnapiClientHandle, arguments...);
}
