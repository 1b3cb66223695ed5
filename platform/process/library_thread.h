// Threads of the library itself.
#pragma once

// Starts a detached thread that takes no signals, which are the program's. 0 or an error number.
int libraryThreadStart(const char *name, void *(*entry)(void *arg), void *arg);
