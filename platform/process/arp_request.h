// The first ARP request for a neighbour that neither the kernel nor the switch knows.
#pragma once

// Sends these requests in the caller's namespace, on a thread of the library, for the life of the process. Later calls do
// nothing. A failure is logged once, and the next call tries again: the kernel's own requests do, only later.
void arpRequesterStart();
