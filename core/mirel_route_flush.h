// The parts of the kernel route flush that read what the kernel answers.
#pragma once

#include "netlink_attr.h"

// Handles one read of a link dump: flaps the router links in it that are up. Returns whether the dump has ended, by its
// end mark or by an error that the kernel answered instead of one.
bool mirelLinkDumpRead(NetlinkBytes read);
