// Registration of the protocol and the route type under which RTO files the kernel's routes.
#pragma once

// Registers "kernel", code "K", and under it the route type "Kernel". Returns 0, or 1 on any failure, which it traces.
int vrfRouteTypesRegister();
