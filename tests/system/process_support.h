// What the tests of the process library share. Each runs in network and mount namespaces of its own with an empty /tmp.
#ifndef MIREL_TESTS_PROCESS_SUPPORT_H
#define MIREL_TESTS_PROCESS_SUPPORT_H

#include "proc_osapi.h"

#include <chrono>
#include <cstdint>
#include <functional>
#include <gtest/gtest.h>
#include <string>
#include <vector>

// What a shell command prints; throws when it fails.
std::string outputOf(const std::string &command);
std::vector<std::string> linesOf(const std::string &command);

std::string fileText(const std::string &path);

// Waits until the condition holds, at most five seconds.
bool eventually(const std::function<bool()> &condition);

uint32_t ip(const char *text); // host order
uint32_t mask(uint32_t length);

// Two devices, rt1 with 10.0.0.1/24 and rt2 with 10.0.2.1/24, their far ends, and an open route netlink socket.
class RouterDevices : public testing::Test {
protected:
  void SetUp() override;
  void TearDown() override;

  RouteNetlinkSock sock = {-1, 0, "netlink-request_dx-to-kernel"};
};

#endif
