// Start of the threads that the library itself runs: the debug shell's and that of the ARP requests.

#include "library_thread.h"

#include <csignal>
#include <pthread.h>

int libraryThreadStart(const char *name, void *(*entry)(void *arg), void *arg) {
  sigset_t all;
  sigset_t callers;
  sigfillset(&all);
  pthread_sigmask(SIG_SETMASK, &all, &callers);
  pthread_t thread;
  const int error = pthread_create(&thread, nullptr, entry, arg);
  pthread_sigmask(SIG_SETMASK, &callers, nullptr);
  if (error == 0) {
    pthread_setname_np(thread, name);
    pthread_detach(thread);
  }
  return error;
}
