// Registration of an event client with the platform, the same for router events and best routes.
#pragma once

#include "api_lock.h"

inline constexpr uint32_t REGISTRATION_RETRY_MSEC = 1000;

// Calls registerOnce(&id) under the API semaphore until it answers anything but "not yet", one second apart and without
// the semaphore meanwhile, so that other threads go on. Stores the id and returns the answer.
template <typename Register> int32_t eventClientRegister(Relaxed<uint32_t> *clientId, Register registerOnce) {
  for (;;) {
    uint32_t id = *clientId;
    int32_t status;
    {
      const ApiLock lock;
      status = registerOnce(&id);
    }
    *clientId = id;
    if (status != TARN_NOT_YET) {
      return status;
    }
    osapiSleepMSec(REGISTRATION_RETRY_MSEC);
  }
}
