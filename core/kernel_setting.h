// Settings of the kernel that the agent needs at a certain height, in its own network namespace.
#pragma once

// Raises the number in a file under /proc/sys to at least minimum. Without the right to do so the agent runs with what
// there is, so there is no result.
void kernelSettingRaise(const char *path, unsigned minimum);

// Writes the text to a file that exists. Returns 0, or -1 when it does not exist or does not take the text.
int mirelProcFileWrite(const char *path, const char *text);
