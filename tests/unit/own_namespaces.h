// Network and mount namespaces of the test program's own, with an empty /tmp: the agent binds sockets in /tmp and takes
// links down.
#ifndef MIREL_TESTS_OWN_NAMESPACES_H
#define MIREL_TESTS_OWN_NAMESPACES_H

#include <string>

// Moves the calling thread, and what it starts from then on, into them. keepDir stays where it is, also when it lies in
// /tmp. Throws when that cannot be done: a test that cannot run fails.
void enterOwnNamespaces(const std::string &keepDir);

// Runs a shell command; throws when it fails.
void shell(const std::string &command);

#endif
