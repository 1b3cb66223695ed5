/* libqvproc.so: the sync database, small records that outlive the processes which read and write them. */
#ifndef MIREL_PLATFORM_SYNCDB_H
#define MIREL_PLATFORM_SYNCDB_H

#include <stddef.h>
#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif
#pragma GCC visibility push(default)

typedef struct SyncdbClient {       /* owned by the caller, zero at start, lives as long as the process; layout */
    int32_t  syncdbNotifyFd;        /* @0 filled by registration: a descriptor to select on for reading, or -1 = none */
    uint32_t clientId;              /* @4 the library's */
    uint64_t reserved8[7];          /* @8 the library's */
} SyncdbClient;                     /* sizeof 64 */

/* Registers a sync database client, name "mirel", and fills the record. The caller only selects on syncdbNotifyFd; it
   reads nothing from it and never closes it: the library withdraws a notification itself.
   R: 0; other = failure (the caller aborts). */
int32_t syncdbClientRegister(const char *name, SyncdbClient *client);
/* Reads a record into value, at most size bytes; flags 0. The agent reads "Mirel Restart State-<vrfId>", size 1.
   R: 0; other = no such record or failure. */
int32_t syncdbGet(SyncdbClient *client, const char *record, void *value, uint32_t size, uint32_t flags);
/* Replaces the contents of an existing record; does not create one.  R: 0; other = failure. */
int32_t syncdbSet(SyncdbClient *client, const char *record, const void *value, uint32_t size);

#pragma GCC visibility pop
#ifdef __cplusplus
}
#endif

#ifdef __cplusplus
#include <type_traits>

static_assert(sizeof(SyncdbClient) == 64 && std::is_trivially_copyable_v<SyncdbClient>);
static_assert(offsetof(SyncdbClient, syncdbNotifyFd) == 0);
static_assert(offsetof(SyncdbClient, clientId) == 4);
static_assert(offsetof(SyncdbClient, reserved8) == 8);
#endif

#endif
