/* libqvproc.so, the part that stands in for an operating system layer: semaphores, queues, tasks, time, text, kernel
   devices and IPv4 settings. "R:" gives the results; "R1" is 0, or non-zero (1) with errno saying why. Every function may
   be called from any thread; kernel operations act in the network namespace of the calling process. */
#ifndef MIREL_PLATFORM_OSAPI_H
#define MIREL_PLATFORM_OSAPI_H

#include <stddef.h>
#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif
#pragma GCC visibility push(default)

typedef struct osapiSema     osapiSema;       /* opaque; its storage belongs to the program's definitions */
typedef struct osapiMsgQueue osapiMsgQueue;   /* opaque */

enum { QV_WAIT_FOREVER = -1, QV_NO_WAIT = 0 };

/* A mutual-exclusion (recursive) semaphore. options 0. Is osapiSemaMCreateTrack with a file and line of the
   library, so that the handle suits the program's osapiSemaTake, Give and Delete.  R: handle; null on failure. */
osapiSema *osapiSemaMCreate(uint32_t options);
/* A counting semaphore starting at count; the same with osapiSemaCCreateTrack.  R: handle; null on failure. */
osapiSema *osapiSemaCCreate(uint32_t options, uint32_t count);
/* A FIFO of at most count messages of msgSize bytes. The name may be empty and need not be unique.
   R: handle; null on failure. */
osapiMsgQueue *osapiMsgQueueCreate(const char *name, uint32_t count, uint32_t msgSize);
/* Destroys the queue and what it holds; no thread may be waiting on it.  R: 0; other = failure. */
int32_t osapiMsgQueueDelete(osapiMsgQueue *queue);
/* Depth of the queue (the count of its creation), through a pointer.  R: 0; other = failure. */
int32_t osapiMsgQueueLimitGet(osapiMsgQueue *queue, uint32_t *limit);
/* Messages now queued, through a pointer.  R: 0; other = failure. */
int32_t osapiMsgQueueGetNumMsgs(osapiMsgQueue *queue, uint32_t *count);
/* Copies a message in. size is the queue's msgSize (a shorter one is filled with zeros, a longer one refused);
   wait: QV_WAIT_FOREVER or QV_NO_WAIT; priority 0 = normal, at the tail, the only one used.
   R: 0; 1 not sent (full, or any other failure); 2 another wait value. */
int32_t osapiMessageSend(osapiMsgQueue *queue, const void *message, uint32_t size, int32_t wait, uint32_t priority);
/* Copies the head message out, at most size bytes, and removes it.  R: 0; 1 none or failure; 2 another wait value. */
int32_t osapiMessageReceive(osapiMsgQueue *queue, void *buffer, uint32_t size, int32_t wait);
/* Copies the message at a position (0 = head), at most size bytes, and leaves it.  R: 0; other = no such position. */
int32_t osapiMessagePeek(osapiMsgQueue *queue, void *buffer, uint32_t size, uint32_t position);
/* Starts a thread of default attributes that runs entry(arg). The agent passes "GenRPC Server", its entry, 0xFFFFFFFF, the
   argument, 65536, 255, 1; the numbers are hints that may be ignored.
   R: the thread's pthread_t as a number, good for pthread_cancel; 0 = not created, errno says why. */
uint64_t osapiTaskCreate(const char *name, void *(*entry)(void *arg), uint32_t argCount, void *arg, uint32_t stackSize,
                         uint32_t priority, uint32_t timeSlice);
/* Sleeps the calling thread, resuming after interruptions.  R: 0. */
int32_t osapiSleepMSec(uint32_t milliseconds);
/* Seconds since boot, as the value returned. */
uint32_t osapiUpTimeRaw(void);
/* Milliseconds since boot, modulo 2^32, as the value returned. */
uint32_t osapiUpTimeMillisecondsGet(void);

/* IPv4 address (host order) as "a.b.c.d" in buf, at least 16 bytes, supplied by the caller.  R: buf. */
char *osapiInetNtoa(uint32_t addr, char *buf);
/* Address text. family: 1 = IPv4 (addr: a host-order uint32_t), 2 = IPv6 (addr: 16 bytes, network order), as in InetAddr.
   R: buf; null for another family or too small a buffer (46 always suffice). */
char *osapiInetNtop(uint32_t family, const void *addr, char *buf, uint32_t size);
/* Prefix length of a mask (host order), as the value returned: the number of leading one bits, 0 to 32. */
uint32_t osapiInetMaskLengthGet(uint32_t mask);
/* size is that of the whole destination buffer, except in osapiStrncpy and osapiStrncat, which follow the C library's
   strncpy and strncat. */
int32_t osapiSnprintf(char *buf, uint32_t size, const char *format, ...) __attribute__((format(printf, 3, 4)));
char *osapiStrncpy(char *dst, const char *src, uint32_t count);
char *osapiStrncpySafe(char *dst, const char *src, uint32_t size);  /* copies at most size - 1 characters, always terminates */
char *osapiStrncat(char *dst, const char *src, uint32_t count);

/* Kernel index of a device.  R: 0 *ifIndex valid; other = no such device. */
int32_t osapiStackIfIndexGet(const char *name, uint32_t *ifIndex);
/* Sets the hardware address (6 bytes).  R1. */
int32_t osapiIfMacSet(const char *name, const uint8_t *mac);
/* Sets (set 1) or clears (set 0) a device flag; flag 1 = IFF_UP is the only one used.  R1. */
int32_t osapiIfFlagChange(const char *name, uint32_t flag, uint32_t set);
/* Sets the device up for ARP with the agent: clears IFF_NOARP and makes the kernel ask user space to resolve an address on
   this device (its neighbour setting app_solicit), which reaches the agent's neighbour socket.  R1. */
int32_t osapiIfArpSet(const char *name);
/* Strips the device of its IPv4 addresses, primary, secondary and labelled, so that the next enable starts clean; a device
   without any is a success.  R1. */
int32_t osapiIfAddrDel(const char *name);
/* IPv4 MTU of the device.  R1. */
int32_t osapiIfIpv4MtuSet(const char *name, uint32_t mtu);
/* Whether the device sends ICMP unreachables; the platform's mode passed through, 0 = no, other = yes. A kernel
   without such a setting must not make this fail: the enable of an interface would stop there.  R1. */
int32_t osapiIfIpv4IcmpSendDestinationUnreachableSet(const char *name, uint32_t mode);
/* Whether the device sends ICMP redirects; the platform's mode passed through.  R1. */
int32_t osapiIfIpv4IcmpRedirectSendSet(const char *name, uint32_t mode);
/* ICMP rate limit of the namespace, burst size first.  R1. */
int32_t osapiIpv4IcmpRatelimitSet(uint32_t burstSize, uint32_t interval);
/* 1 = ignore echo requests, 0 = answer them.  R1. */
int32_t osapiIpv4IcmpIgnoreEchoRequestSet(uint32_t ignore);
/* 1 = ignore broadcast echo requests, 0 = answer them.  R1. */
int32_t osapiIpv4IcmpEchoIgnoreBcastSet(uint32_t ignore);

/* The program that loads the library defines the next five and exports them; the library only refers to them, so that each
   of its uses binds to the program's definition. */

/* Recursive mutex. All three arguments accepted and not used.  R: handle; null on failure. */
osapiSema *osapiSemaMCreateTrack(const char *file, uint32_t line, uint32_t options);
/* Counting semaphore starting at count.  R: handle; null on failure. */
osapiSema *osapiSemaCCreateTrack(const char *file, uint32_t line, uint32_t options, uint32_t count);
/* timeout: QV_WAIT_FOREVER or QV_NO_WAIT.  R: 0 obtained; 1 not obtained or failure; 2 any other timeout. */
int32_t osapiSemaTake(osapiSema *sema, int32_t timeout);
/* R: 0; 1 the primitive reported an error (a mutex that the caller does not hold). */
int32_t osapiSemaGive(osapiSema *sema);
/* Destroys and frees.  R: 0 always. */
int32_t osapiSemaDelete(osapiSema *sema);

#pragma GCC visibility pop
#ifdef __cplusplus
}
#endif

#endif
