// Start-up and main loop.
#pragma once

#include <cstdint>
#include <string_view>

// The VRF id that argv[1] carries after its last hyphen, in decimal; 0 without a hyphen.
uint32_t mirelVrfIdFromArgument(const char *argument);

// Serves the event sockets and the timers for the life of the process; ends only through exit().
[[noreturn]] void mirelMainLoop();
