// Kernel routes: what an agent reports, what orrin shows of it, tells of it and keeps of it.

#include "switch_fixture.h"

#include <arpa/inet.h>
#include <csignal>
#include <cstring>
#include <vector>

namespace {

struct Hop {
  const char *via;
  uint32_t interface = 11;
};

InetAddr inet(const std::string &text) {
  InetAddr addr{};
  addr.family = text.find(':') == std::string::npos ? 1 : 2;
  const bool v4 = addr.family == 1;
  EXPECT_EQ(inet_pton(v4 ? AF_INET : AF_INET6, text.c_str(), addr.ipv6), 1) << text;
  addr.ipv4 = v4 ? ntohl(addr.ipv4) : addr.ipv4;
  return addr;
}

// A report as the agent makes it.
struct Report {
  Report(const std::string &prefix, std::vector<Hop> via, uint32_t metric = 0) {
    const size_t slash = prefix.find('/');
    record.prefix = inet(prefix.substr(0, slash));
    record.prefixLen = static_cast<uint8_t>(std::stoul(prefix.substr(slash + 1)));
    record.routeType = 2;
    record.routeProto = record.prefix.family == 1 ? 7 : 0;
    record.reportFlag = 1;
    record.metric = metric;
    record.numNextHops = static_cast<uint32_t>(via.size());
    for (const Hop &each : via) {
      NextHopRecord hop{};
      hop.addr = inet(each.via);
      hop.intIfNum = each.interface;
      hops.push_back(hop);
    }
  }
  RtoRouteRecord record{};
  std::vector<NextHopRecord> hops;
};

Report discard(const std::string &prefix) {
  Report report(prefix, {});
  report.record.discardRoute = 1;
  return report;
}

class SwitchKernelRoute : public SwitchFixture {
protected:
  int32_t add(const Report &report, uint32_t vrf = VRF) { return call(rpcclt_tarnapiKernelRouteAddVr, report, vrf); }
  int32_t del(const Report &report, uint32_t vrf = VRF) { return call(rpcclt_tarnapiKernelRouteDelVr, report, vrf); }

  // "<prefix> <origin> <best> <options>" of VRF 3, line by line.
  std::string routes() const {
    std::string table = orrin.run("show routes vrf 3");
    std::string lines;
    for (size_t begin = table.find('\n') + 1, end; (end = table.find('\n', begin)) != std::string::npos;
         begin = end + 1) {
      bool blank = true; // the first word is the VRF
      const std::string line = table.substr(begin, end - begin);
      for (const char each : line.substr(line.find(' '))) {
        lines.append(blank && each == ' ' ? 0 : 1, each);
        blank = each == ' ';
      }
      lines += '\n';
    }
    return lines;
  }

  // The changes that a best-route client is told.
  std::string changes(uint32_t id) {
    std::vector<BestRouteRecord> buffer(50);
    const tarn_buffdesc desc{89200, reinterpret_cast<char *>(buffer.data())};
    EXPECT_EQ(rpcclt_tarnapiBestRouteChangeNextGetMult(client, id, 50, &desc), TARN_NO_MORE);
    std::string text;
    for (const BestRouteRecord &record : buffer) {
      if (record.valid != 0) {
        text += std::string(text.empty() ? "" : " ") + "+-~"[record.changeType];
        text += std::to_string(record.prefix.ipv4 >> 24) + " type " + std::to_string(record.routeType);
      }
    }
    return text;
  }

private:
  template <class Function> int32_t call(Function function, const Report &report, uint32_t vrf) {
    std::vector<NextHopRecord> hops = report.hops;
    const tarn_buffdesc desc{static_cast<uint32_t>(hops.size() * sizeof hops[0]),
                             reinterpret_cast<char *>(hops.data())};
    return function(client, vrf, &report.record, &desc);
  }
};

TEST_F(SwitchKernelRoute, IsShownAsItWasReported) {
  orrin.run("interface add 12 vrf 3 name 0/12 device rt2");
  EXPECT_EQ(add({"10.9.0.0/16", {{"10.1.0.2"}}, 77}), TARN_OK);
  EXPECT_EQ(add({"0.0.0.0/0", {{"10.1.0.2", 11}, {"10.2.0.2", 12}}}), TARN_OK);
  EXPECT_EQ(add(discard("10.8.0.0/24")), TARN_OK);
  EXPECT_EQ(add({"2001:db8::/32", {{"fe80::1", 12}}}), TARN_OK);
  EXPECT_EQ(routes(), "0.0.0.0/0 kernel yes kernel proto 7 via 10.1.0.2 interface 11 via 10.2.0.2 interface 12\n"
                      "10.8.0.0/24 kernel yes kernel discard proto 7\n"
                      "10.9.0.0/16 kernel yes kernel metric 77 proto 7 via 10.1.0.2 interface 11\n"
                      "2001:db8::/32 kernel yes kernel via fe80::1 interface 12\n");
  EXPECT_NE(
      orrin.run("show routes json")
          .find(
              R"({"vrf":3,"prefix":"10.9.0.0/16","origin":"kernel","best":true,"options":"kernel metric 77 proto 7 via 10.1.0.2 interface 11"})"),
      std::string::npos);
  EXPECT_EQ(del({"2001:db8::/32", {{"fe80::1", 12}}}), TARN_OK);
  EXPECT_EQ(del({"10.9.0.0/16", {{"10.1.0.2"}}, 77}), TARN_OK);
  EXPECT_EQ(del({"0.0.0.0/0", {{"10.1.0.2", 11}, {"10.2.0.2", 12}}}), TARN_OK);
  EXPECT_EQ(routes(), "10.8.0.0/24 kernel yes kernel discard proto 7\n");
}

TEST_F(SwitchKernelRoute, ReportsThatAreRefused) {
  orrin.run("vrf add 4 red");
  orrin.run("interface add 41 vrf 4 name 0/41 device rt1");
  const Report good("10.9.0.0/16", {{"10.1.0.2"}});
  ASSERT_EQ(add(good), TARN_OK);
  Report wrongCount = good;
  wrongCount.record.numNextHops = 2;
  Report wrongFamily = good;
  wrongFamily.record.prefix.family = 3;
  Report wrongType = good;
  wrongType.record.routeType = 3;
  Report mixed("10.9.0.0/16", {{"fe80::1"}});
  const std::vector<std::pair<Report, int32_t>> adds = {
      {good, TARN_EXISTS},
      {{"10.10.0.0/16", {{"10.1.0.2", 41}}}, TARN_REFUSED}, // another VRF's interface
      {{"10.10.0.0/16", {{"10.1.0.2", 0}}}, TARN_REFUSED},
      {{"10.10.0.0/16", {}}, TARN_REFUSED},
      {{"10.10.0.1/16", {{"10.1.0.2"}}}, TARN_INVALID},
      {{"10.10.0.0/33", {{"10.1.0.2"}}}, TARN_INVALID},
      {{"2001:db8::1/64", {{"fe80::1"}}}, TARN_INVALID},
      {{"10.10.0.0/16", std::vector<Hop>(17, {"10.1.0.2"})}, TARN_INVALID},
      {wrongCount, TARN_INVALID},
      {wrongFamily, TARN_INVALID},
      {wrongType, TARN_INVALID},
      {mixed, TARN_INVALID},
  };
  for (size_t index = 0; index < adds.size(); ++index) {
    EXPECT_EQ(add(adds[index].first), adds[index].second) << index;
  }
  EXPECT_EQ(add(good, 5), TARN_INVALID) << "no such VRF";
  EXPECT_EQ(del({"10.10.0.0/16", {{"10.1.0.2"}}}), TARN_REFUSED) << "never reported";
  EXPECT_EQ(del({"10.9.0.0/16", {{"10.1.0.3"}}}), TARN_REFUSED) << "another next hop";
  EXPECT_EQ(del({"10.9.0.0/16", {{"10.1.0.2"}}, 5}), TARN_REFUSED) << "another metric";
  orrin.run("vrf set 3 kernel-routes 1");
  EXPECT_EQ(add({"10.10.0.0/16", {{"10.1.0.2"}}}), TARN_FULL);
  EXPECT_EQ(add({"10.9.0.0/16", {{"10.1.0.3"}}}), TARN_OK) << "takes the place of the one before";
  for (const int32_t code : {-23, -24, -25, -26, -29}) {
    orrin.run("fault set KernelRouteAddVr result " + std::to_string(code) + " once");
    orrin.run("fault set KernelRouteDelVr result " + std::to_string(code) + " once");
    EXPECT_EQ(add(good), code);
    EXPECT_EQ(del(good), code);
  }
  EXPECT_EQ(routes(), "10.9.0.0/16 kernel yes kernel proto 7 via 10.1.0.3 interface 11\n");
  EXPECT_EQ(rpcclt_rpc_failure_occured(), 0);
}

TEST_F(SwitchKernelRoute, TheSwitchsOwnGoesFirstAndTheLowestMetricNext) {
  uint32_t id = 0;
  ASSERT_EQ(registerBestRoute(id), TARN_OK);
  const Report far("10.0.0.0/8", {{"10.1.0.3"}}, 100);
  const Report near("10.0.0.0/8", {{"10.1.0.2"}}, 5);
  ASSERT_EQ(add(far), TARN_OK);
  EXPECT_EQ(changes(id), "+10 type 2") << "as a kernel route, which an agent does not install";
  ASSERT_EQ(add(near), TARN_OK);
  EXPECT_EQ(changes(id), "~10 type 2");
  orrin.run("route add vrf 3 10.0.0.0/8 via 10.1.0.9 interface 11");
  EXPECT_EQ(changes(id), "-10 type 0 +10 type 3");
  EXPECT_EQ(routes(), "10.0.0.0/8 switch yes via 10.1.0.9 interface 11\n"
                      "10.0.0.0/8 kernel no kernel metric 5 proto 7 via 10.1.0.2 interface 11\n"
                      "10.0.0.0/8 kernel no kernel metric 100 proto 7 via 10.1.0.3 interface 11\n");
  EXPECT_EQ(orrin.run("dump").find("kernel"), std::string::npos) << "a report is not configured";
  orrin.refusal("route add vrf 3 10.0.0.0/8 reject");
  ASSERT_EQ(del(near), TARN_OK);
  EXPECT_EQ(changes(id), "") << "the switch's own hides it";
  orrin.run("route del vrf 3 10.0.0.0/8");
  EXPECT_EQ(changes(id), "-10 type 0 +10 type 2");
  orrin.refusal("route del vrf 3 10.0.0.0/8");
  orrin.refusal("route modify vrf 3 10.0.0.0/8 reject");
  ASSERT_EQ(del(far), TARN_OK);
  EXPECT_EQ(changes(id), "-10 type 0");
  EXPECT_EQ(routes(), "");
}

TEST_F(SwitchKernelRoute, AnOrrinStartedAnewKnowsThem) {
  orrin.run("routes add vrf 3 10.0.0.0/16 count 3 via 10.1.0.2 interface 11");
  ASSERT_EQ(add({"10.1.0.0/16", {{"10.1.0.2"}}, 77}), TARN_OK);
  ASSERT_EQ(add({"10.3.0.0/16", {{"10.1.0.2"}}}), TARN_OK); // would go on with the run of three
  ASSERT_EQ(add({"10.4.0.0/16", {{"10.1.0.2"}}}), TARN_OK);
  ASSERT_EQ(add({"2001:db8::/32", {{"::", 11}}}), TARN_OK);
  ASSERT_EQ(add(discard("10.5.0.0/16")), TARN_OK);
  ASSERT_EQ(del({"10.4.0.0/16", {{"10.1.0.2"}}}), TARN_OK);
  orrin.run("route del vrf 3 10.1.0.0/16"); // the kernel's is left
  const std::string known = orrin.run("show routes json");
  const std::string configured = orrin.run("dump");
  for (int start = 0; start < 2; ++start) { // the second also reads what the first added
    orrin.end(SIGKILL);
    orrin.start();
    EXPECT_EQ(orrin.run("show routes json"), known);
    EXPECT_EQ(orrin.run("dump"), configured);
  }
  EXPECT_EQ(orrin.run("dump reported vrf 3"),
            "reported route vrf 3 10.1.0.0/16 metric 77 proto 7 via 10.1.0.2 interface 11\n"
            "reported route vrf 3 10.3.0.0/16 proto 7 via 10.1.0.2 interface 11\n"
            "reported route vrf 3 10.5.0.0/16 discard proto 7\n"
            "reported route vrf 3 2001:db8::/32 via :: interface 11\n");
  orrin.refusal("reported route vrf 3 10.6.0.0/16 discard");
  EXPECT_EQ(del({"10.1.0.0/16", {{"10.1.0.2"}}, 77}), TARN_OK);
}

TEST_F(SwitchKernelRoute, WhatTheKernelDropsInSilenceGoesWithTheInterface) {
  orrin.run("interface add 12 vrf 3 name 0/12 device rt2");
  orrin.run("interface enable 11");
  ASSERT_EQ(add({"12.0.0.0/8", {{"10.2.0.2", 12}}}), TARN_OK);
  ASSERT_EQ(add({"2001:db8::/32", {{"fe80::1", 11}}}), TARN_OK);
  ASSERT_EQ(add(discard("13.0.0.0/8")), TARN_OK);
  for (const char *command : {"interface host-mode 11", "interface disable 11"}) {
    for (const char *prefix : {"10.0.0.0/8", "11.0.0.0/8"}) {
      ASSERT_EQ(add({prefix, {{"10.1.0.2", 11}}}), TARN_OK);
    }
    orrin.run(command);
    EXPECT_EQ(routes(), "12.0.0.0/8 kernel yes kernel proto 7 via 10.2.0.2 interface 12\n"
                        "13.0.0.0/8 kernel yes kernel discard proto 7\n"
                        "2001:db8::/32 kernel yes kernel via fe80::1 interface 11\n")
        << command << ": of IPv6 routes it tells";
  }
  orrin.run("interface del 11");
  EXPECT_EQ(routes().find("2001"), std::string::npos);
}

} // namespace
