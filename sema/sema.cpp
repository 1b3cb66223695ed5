// The five semaphore operations that the program exports: one object type that is a recursive mutex or a counting
// semaphore. Any thread may call any of them. libqvproc.so refers to these names and binds to these definitions.

#include "osapi.h"

#include <atomic>
#include <cerrno>
#include <new>
#include <pthread.h>
#include <semaphore.h>

namespace {

enum SemaKind : uint32_t { SEMA_MUTEX = 0, SEMA_COUNTING = 1 };

enum SemaResult : int32_t { SEMA_OK = 0, SEMA_FAILED = 1, SEMA_BAD_TIMEOUT = 2 };

} // namespace

// A plain mutex goes to whoever asks first, and a thread that gives and takes in a tight loop is always first: the thread
// that its give has woken comes too late, for half a second at a time on two cores. So a thread that must wait for the
// mutex does so inside `gate`, and the tight loop, as soon as anyone waits, finds the gate shut until the other has had its
// turn. Without a thread waiting the gate costs nothing: a route takes and gives three times.
struct osapiSema {
  SemaKind kind;
  sem_t count;
  pthread_mutex_t mutex;
  pthread_mutex_t gate;
  std::atomic<uint32_t> waiting; // threads at the gate or inside it
  std::atomic<pthread_t> owner;  // 0 = free; a thread may rely on it only to learn whether it is the owner itself
  uint32_t depth;                // of the owner's takes, which the mutex counts as one; the owner's alone
};

namespace {

int32_t resultOf(int error) {
  return error == 0 ? SEMA_OK : SEMA_FAILED;
}

int lockRetrying(pthread_mutex_t *mutex) {
  int error;
  do {
    error = pthread_mutex_lock(mutex);
  } while (error == EINTR);
  return error;
}

bool recursiveMutexInit(pthread_mutex_t *mutex) {
  pthread_mutexattr_t recursive;
  if (pthread_mutexattr_init(&recursive) != 0) {
    return false;
  }
  pthread_mutexattr_settype(&recursive, PTHREAD_MUTEX_RECURSIVE);
  const int error = pthread_mutex_init(mutex, &recursive);
  pthread_mutexattr_destroy(&recursive);
  return error == 0;
}

bool ownedByCaller(const osapiSema *sema) {
  return sema->owner.load(std::memory_order_relaxed) == pthread_self();
}

int lockInTurn(osapiSema *sema) {
  if (sema->waiting.load(std::memory_order_relaxed) == 0 && pthread_mutex_trylock(&sema->mutex) == 0) {
    return 0;
  }
  sema->waiting.fetch_add(1, std::memory_order_relaxed);
  int error = lockRetrying(&sema->gate);
  if (error == 0) {
    error = lockRetrying(&sema->mutex);
    pthread_mutex_unlock(&sema->gate);
  }
  sema->waiting.fetch_sub(1, std::memory_order_relaxed);
  return error;
}

int32_t mutexTake(osapiSema *sema, int32_t timeout) {
  if (!ownedByCaller(sema)) { // the owner never goes through the gate: a thread inside it waits for this very owner
    const int error = timeout == QV_NO_WAIT ? pthread_mutex_trylock(&sema->mutex) : lockInTurn(sema);
    if (error != 0) {
      return SEMA_FAILED;
    }
    sema->owner.store(pthread_self(), std::memory_order_relaxed);
  }
  ++sema->depth;
  return SEMA_OK;
}

int32_t mutexGive(osapiSema *sema) {
  if (!ownedByCaller(sema)) {
    return SEMA_FAILED;
  }
  if (--sema->depth != 0) {
    return SEMA_OK;
  }
  sema->owner.store(pthread_t{}, std::memory_order_relaxed);
  return resultOf(pthread_mutex_unlock(&sema->mutex));
}

int32_t countTake(osapiSema *sema, int32_t timeout) {
  int status;
  do {
    status = timeout == QV_NO_WAIT ? sem_trywait(&sema->count) : sem_wait(&sema->count);
  } while (status != 0 && errno == EINTR);
  return resultOf(status);
}

} // namespace

extern "C" osapiSema *osapiSemaMCreateTrack(const char *, uint32_t, uint32_t) {
  auto *sema = new (std::nothrow) osapiSema{};
  if (sema == nullptr) {
    return nullptr;
  }
  sema->kind = SEMA_MUTEX;
  if (!recursiveMutexInit(&sema->mutex)) {
    delete sema;
    return nullptr;
  }
  pthread_mutex_init(&sema->gate, nullptr);
  return sema;
}

extern "C" osapiSema *osapiSemaCCreateTrack(const char *, uint32_t, uint32_t, uint32_t count) {
  auto *sema = new (std::nothrow) osapiSema{};
  if (sema == nullptr) {
    return nullptr;
  }
  sema->kind = SEMA_COUNTING;
  if (sem_init(&sema->count, 0, count) != 0) {
    delete sema;
    return nullptr;
  }
  return sema;
}

extern "C" int32_t osapiSemaTake(osapiSema *sema, int32_t timeout) {
  if (timeout != QV_WAIT_FOREVER && timeout != QV_NO_WAIT) {
    return SEMA_BAD_TIMEOUT;
  }
  return sema->kind == SEMA_COUNTING ? countTake(sema, timeout) : mutexTake(sema, timeout);
}

extern "C" int32_t osapiSemaGive(osapiSema *sema) {
  return sema->kind == SEMA_COUNTING ? resultOf(sem_post(&sema->count)) : mutexGive(sema);
}

extern "C" int32_t osapiSemaDelete(osapiSema *sema) {
  if (sema->kind == SEMA_COUNTING) {
    sem_destroy(&sema->count);
  } else {
    pthread_mutex_destroy(&sema->mutex);
    pthread_mutex_destroy(&sema->gate);
  }
  delete sema;
  return SEMA_OK;
}
