// The best routes that leave through one interface, fetched when it comes up, and the queue of interfaces whose routes did
// not fit into one call's time. Main thread.
#pragma once

#include <cstdint>

// The route after which a fetch continues; prefix 0 with length 0 is the start.
struct IntfBestRouteCursor {
  uint32_t intIfNum;
  uint32_t prefix; // IPv4, host byte order
  uint8_t prefixLen;
};

struct MirelQueueLink {
  IntfBestRouteCursor *item;
  MirelQueueLink *next;
};

// FIFO that owns the items in it. No bound, no check for duplicates: an interface may be queued several times.
struct MirelQueue {
  MirelQueueLink *head;
  MirelQueueLink *tail;
  uint32_t count;
};

extern MirelQueue intfBestRouteQueue;

// Appends the item; without memory for a link it is not queued, and stays the caller's (false).
bool enqueueMirel(MirelQueue *queue, IntfBestRouteCursor *item);

// The head item, now the caller's, or null when the queue is empty.
IntfBestRouteCursor *dequeueMirel(MirelQueue *queue);

// Installs the routes that follow the cursor, for mirelBestRouteApplyTime seconds at most; what is left is queued. The
// cursor stays the caller's.
void mirelIntfBestRoutesAdd(const IntfBestRouteCursor *cursor);

// Goes on with the first queued interface.
void mirelIntfBestRoutesProcess();

// Frees the queued cursors of the interface; the others keep their order.
void deleteNodeIntfBestRoute(int32_t intIfNum);
