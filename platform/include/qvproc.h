/* libqvproc.so: log, debug shell, memory tracking and watchdog of a process. */
#ifndef MIREL_PLATFORM_QVPROC_H
#define MIREL_PLATFORM_QVPROC_H

#include <stddef.h>
#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif
#pragma GCC visibility push(default)

/* One record to the system log. severity 1 alert to 7 debug (syslog numbers); component 156 agent, 24 kernel route import,
   0 self-test; file: source path without extension; line: source line; format without a line end of its own, though some
   carry one; it is recorded as formatted. Keeps errno.  R: 0 always. */
int32_t qvproc_logf(uint32_t severity, uint32_t component, const char *file, uint32_t line, const char *format, ...)
    __attribute__((format(printf, 5, 6)));
/* Enables the debug shell, on a thread of the library. First it runs, on the caller's, the operations that the environment
   variable QVPROC_START_OPERATIONS names, separated by ';' or line ends; a bad one is logged.  R: 0; not looked at. */
int32_t qvproc_devshell_init(void);
/* An addition of ours: registers a named operation with the debug shell. The library keeps the three pointers, which stay
   valid for the life of the process; may be called before or after qvproc_devshell_init. command runs on the shell's
   thread, one at a time; argv[0] is name, argc counts it, argv[argc] is null. Its output goes to standard output, which
   the shell flushes and delivers to the operator with the value returned (0 done, 1 bad arguments).
   R: 0 registered; 1 refused (null or empty name, null command, name taken, table full; at least 64 names fit). */
int32_t qvproc_devshell_register(const char *name, const char *usage, int32_t (*command)(int32_t argc, const char *const *argv));
/* Starts memory tracking in the calling process: notes the bytes of the heap in use, and logs what has been added since when
   the process ends by exit. A later call begins anew; a forked child tracks nothing until it calls.
   R: 0; 1 no memory for it. */
int32_t qvproc_memtrack_init(void);
/* Arms the process's watchdog; a later call arms it anew with its own time and name. When it runs out the library logs the
   name and ends the process by abort. A process that ends takes it along; a forked child has none. It takes the signal
   SIGRTMAX - 2, which it unblocks in the calling thread.
   R: 0; 1 refused (0 seconds, a null name) or the kernel grants no timer, errno says why. */
int32_t qvproc_watchdog_start(uint32_t seconds, const char *name);
/* Disarms it. No argument.  R: 0, also when none is armed. */
int32_t qvproc_watchdog_stop(void);

#pragma GCC visibility pop
#ifdef __cplusplus
}
#endif

#endif
