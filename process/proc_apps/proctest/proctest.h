// What the self-test application is made of. A test that returns leaves its process idling; children that it has forked are
// never waited for.
#pragma once

// Sleeps for ever, a second at a time.
[[noreturn]] void idle();

// Runs the work in a forked child, which idles when the work returns.
void inChild(void (*work)());

// The number in a flag file, 0 when the file cannot be read. Descriptors below lowestFd count as missing too.
long flagRead(const char *path, int lowestFd = 0);

// Processes that die, hang and run wild.
void testChildProcesses();
void testCrashingProcesses();
void testHangWatchdog();
void testProcessorHog();
void testShellCommand();

// Logs and memory.
void testLogFiles();
void testLogCount();
void testMemoryTracking();
void testMemoryLimit();

// The library's own semaphores, queues and time.
void testLibrary();
