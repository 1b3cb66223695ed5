// ARP both ways: what the switch has resolved is written into the kernel's ARP cache, and what the kernel asks for, learns
// and drops is passed to the switch. Addresses are IPv4 in host byte order.
#pragma once

#include "arp_resolution.h"
#include "mirel_context.h"
#include "netlink_attr.h"

inline constexpr size_t MAC_LENGTH = 6;

// Handle of the kernel's interface and ARP requests; -1 until mirelArpNetlinkInit() has made it. Any thread.
extern Relaxed<int> arpIoctlSock;

// Creates the socket of the switch's resolutions in a folder made anew, and stores its descriptor. Returns 0 or 1.
int mirelCreateArpSock(Relaxed<int> *sockFd);

// Writes one resolution into the kernel; a short datagram reads as zeros. Returns 0, or 1 when it is not for this VRF, of
// another kind or refused by the kernel. Main thread.
int mirelArpEvntHandle(const ArpResolutionMsg *msg);

// Writes a completed, not permanent entry into the kernel's ARP cache. index is a kernel index or, if there is no such
// device, the switch's interface number; mac has MAC_LENGTH bytes. Returns 0 when the kernel took it, else 1. Any thread.
int mirelKernelArpSet(uint32_t addr, const uint8_t *mac, uint32_t index);

// Sets up the socket of the kernel's neighbours, stores its descriptor, and makes arpIoctlSock. Always 0: a failure ends the
// process.
int mirelArpNetlinkInit(Relaxed<int> *sockFd);

// Receives and processes one datagram of the kernel's neighbours; always 0. Main thread.
int mirelArpNetlinkEvntHandle();

// Mirrors what the first message of a neighbour datagram says. Main thread.
void mirelNeighbourDatagramProcess(NetlinkBytes datagram);
