// The operator's debug operations: they print to standard output or set what the running agent goes by. They run on the
// debug shell's thread and bear being called before anything is set up.
#pragma once

#include "mirel_show.h"

#include <cstdint>

void mirelDebugFlagsSet(uint32_t mask);
uint32_t mirelDebugFlagsGet();
void rtoDebugMaskSet(uint32_t mask);
uint32_t rtoDebugMaskGet();
void rtoDebugDisableAll();
void rtoDebugEnableAll();

// Seconds.
void mirelBestRoutePollTimeSet(uint32_t seconds);
void mirelBestRouteApplyTimeSet(uint32_t seconds);

void mirelStatsShow(ShowForm form);
void mirelEventCountShow(uint32_t msgType, ShowForm form);      // 0 = every type that has a fixed row
void mirelIntfEventCountShow(uint32_t intIfNum, ShowForm form); // 0 = every interface
void mirelStatsClear();                                         // all counters but the active routes
void mirelBestRouteClientShow(ShowForm form);
void mirelRouterEventClientShow(ShowForm form);

// Registers every debug operation of the agent with the debug shell, under its name.
void mirelShellOperationsRegister();
