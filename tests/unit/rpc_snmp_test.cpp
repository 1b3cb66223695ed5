// The copy of the kernel's counters: what the files of several kernels, and of none, mean for each counter. In every file
// the value of IP counter i is 100 + i, that of ICMP counter i 200 + i, and that of a column the agent does not know 999.

#include "core_test.h"
#include "own_namespaces.h"
#include "snmp_monitor.h"

#include <arpa/inet.h>
#include <filesystem>
#include <fstream>
#include <map>
#include <set>
#include <sstream>
#include <sys/socket.h>
#include <unistd.h>

namespace {

constexpr const char *SNMP = "/tmp/snmp";
constexpr const char *RELEASE = "/tmp/osrelease";
constexpr uint64_t UNTOUCHED = 7;

const std::string IP_NAMES =
    "Ip: Forwarding DefaultTTL InReceives InHdrErrors InAddrErrors ForwDatagrams InUnknownProtos InDiscards InDelivers "
    "OutRequests OutDiscards OutNoRoutes ReasmTimeout ReasmReqds ReasmOKs ReasmFails FragOKs FragFails FragCreates";
const std::string ICMP_IN_NAMES = "InDestUnreachs InTimeExcds InParmProbs InSrcQuenchs InRedirects InEchos InEchoReps "
                                  "InTimestamps InTimestampReps InAddrMasks InAddrMaskReps OutMsgs OutErrors ";
const std::string ICMP_OUT_NAMES = "OutDestUnreachs OutTimeExcds OutParmProbs OutSrcQuenchs OutRedirects OutEchos "
                                   "OutEchoReps OutTimestamps OutTimestampReps OutAddrMasks OutAddrMaskReps";
const std::string ICMP_NAMES_OLD = "Icmp: InMsgs InErrors " + ICMP_IN_NAMES + ICMP_OUT_NAMES;
const std::string ICMP_NAMES_3_10 = "Icmp: InMsgs InErrors InCsumErrors " + ICMP_IN_NAMES + ICMP_OUT_NAMES;
const std::string ICMP_NAMES_6_18 =
    "Icmp: InMsgs InErrors InCsumErrors " + ICMP_IN_NAMES + "OutRateLimitGlobal OutRateLimitHost " + ICMP_OUT_NAMES;

std::string numbers(uint32_t first, uint32_t last) {
  std::string text;
  for (uint32_t number = first; number <= last; ++number) {
    text += " " + std::to_string(number);
  }
  return text;
}

const std::string IP_VALUES = "Ip:" + numbers(100, 118);
const std::string ICMP_VALUES_OLD = "Icmp:" + numbers(200, 201) + numbers(203, 226);
const std::string ICMP_VALUES_3_10 = "Icmp:" + numbers(200, 226);
const std::string ICMP_VALUES_6_18 = "Icmp:" + numbers(200, 215) + " 999 999" + numbers(216, 226);
const std::string REST = "\nIcmpMsg: InType3 OutType3\nIcmpMsg: 2 5\nTcp: RtoAlgorithm RtoMin RtoMax MaxConn\n"
                         "Tcp: 1 200 120000 -1\nUdp: InDatagrams\nUdp: 37\n";

std::string group(const std::string &names, const std::string &values) {
  return names + "\n" + values + "\n";
}

std::string icmpReversed() {
  std::istringstream names(ICMP_NAMES_3_10);
  std::string text;
  std::string name;
  names >> name;
  while (names >> name) {
    text = " " + name + text;
  }
  std::string values;
  for (uint32_t value = 226; value >= 200; --value) {
    values += " " + std::to_string(value);
  }
  return group("Icmp:" + text, "Icmp:" + values);
}

class Snmp : public CoreTest {
protected:
  Snmp() {
    ipStats.fill(UNTOUCHED);
    icmpStats.fill(UNTOUCHED);
  }

  static int read(const std::string &release, const std::string &snmp) {
    std::ofstream(RELEASE) << release << "\n";
    std::ofstream(SNMP) << snmp;
    return snmpStatsRead(SNMP, RELEASE);
  }

  // Those of the counters that do not hold the value they are to have; the ones of the set are to be untouched.
  template <class Counters>
  static std::string wrong(const Counters &counters, uint64_t first, const std::set<uint32_t> &untouched) {
    std::string text;
    for (uint32_t i = 0; i < counters.size(); ++i) {
      const uint64_t expected = untouched.contains(i) ? UNTOUCHED : first + i;
      if (counters[i] != expected) {
        text += " [" + std::to_string(i) + "] " + std::to_string(counters[i].get());
      }
    }
    return text;
  }

  static std::set<uint32_t> from(uint32_t first) {
    std::set<uint32_t> all;
    for (uint32_t i = first; i < 30; ++i) {
      all.insert(i);
    }
    return all;
  }
};

TEST_F(Snmp, Files) {
  const std::string ip = group(IP_NAMES, IP_VALUES);
  const std::string icmp = group(ICMP_NAMES_3_10, ICMP_VALUES_3_10);
  const std::string icmpOld = group(ICMP_NAMES_OLD, ICMP_VALUES_OLD);
  const std::set<uint32_t> none;
  const std::set<uint32_t> csum = {ICMP_IN_CSUM_ERRORS};
  const struct {
    const char *release;
    std::string snmp;
    std::set<uint32_t> ipUntouched;
    std::set<uint32_t> icmpUntouched;
  } CASES[] = {
      {"2.6.32-754.el6.x86_64", ip + icmpOld + REST, none, csum},
      {"3.9.11", ip + icmpOld + REST, none, csum},
      {"3.10.0-1160.el7", ip + icmp + REST, none, none},
      {"4.1", ip + icmp + REST, none, none},
      {"4.19.0-26-amd64", ip + icmp + REST, none, none},
      {"6.18.1",
       group(IP_NAMES + " OutTransmits", IP_VALUES + " 999") + group(ICMP_NAMES_6_18, ICMP_VALUES_6_18) + REST, none,
       none},
      // Without names that say more, the release decides.
      {"3.9.11", IP_VALUES + "\n" + ICMP_VALUES_OLD, none, csum},
      {"3.10.0", IP_VALUES + " 999\n" + ICMP_VALUES_3_10 + " 999 999", none, none},
      {"10.0", IP_VALUES + "\n" + ICMP_VALUES_3_10, none, none},
      {"no number", IP_VALUES + "\n" + ICMP_VALUES_OLD, none, csum},
      {"", IP_VALUES + "\n" + ICMP_VALUES_OLD, none, csum},
      {"4.19.0", ip + group(ICMP_NAMES_OLD, ICMP_VALUES_3_10), none, none}, // lacks one of this release's
      {"4.19.0", ip + group("Icmp: InErrors InMsgs", ICMP_VALUES_3_10), none, none},
      {"4.19.0", ip + group("Icmp:", ICMP_VALUES_3_10), none, none},
      // With them, the names do, whatever the release.
      {"3.9.11", ip + icmp, none, none},
      {"4.19.0", ip + icmpReversed(), none, none},
      {"4.19.0", ip + group(ICMP_NAMES_3_10 + " InMsgs", ICMP_VALUES_3_10 + " 999"), none, none},
      // Damaged lines count as far as they go.
      {"6.18.1", "Ip: 100 101 102 x 104\nIcmp: 200 201\n", from(3), from(2)},
      {"6.18.1", "Ip: 100 101 102 103x\nIcmp: x 201\n", from(3), from(0)},
      {"6.18.1", "Ip: 100\nIp: x\nIp:\n" + group(ICMP_NAMES_6_18, "Icmp: 200 201 202 -"), from(1), from(3)},
      {"6.18.1", "Ip:100 101\n Ip: 100\nIp\nIp: ", from(0), from(0)},
      {"6.18.1", "", from(0), from(0)},
      {"6.18.1", std::string("Ip: 100\0 101\n", 13) + "Icmp: 200", from(1), from(1)},
      {"6.18.1", "Ip: " + std::string(3000, 'n') + "\n" + ip + icmp, none, none},
      {"6.18.1", "Ip:" + numbers(100, 118) + " " + std::string(5000, '9') + "\n" + icmp, none, none},
  };
  for (const auto &row : CASES) {
    ipStats.fill(UNTOUCHED);
    icmpStats.fill(UNTOUCHED);
    EXPECT_EQ(read(row.release, row.snmp), 0);
    const std::string what = std::string(row.release) + "\n" + row.snmp.substr(0, 2000);
    EXPECT_EQ(wrong(ipStats, 100, row.ipUntouched), "") << what;
    EXPECT_EQ(wrong(icmpStats, 200, row.icmpUntouched), "") << what;
  }
}

TEST_F(Snmp, LargeValues) {
  read("6.18.1", "Ip: 4294967296 18446744073709551615 18446744073709551616\n");
  EXPECT_EQ(ipStats[0], 4294967296U);
  EXPECT_EQ(ipStats[1], UINT64_MAX);
  EXPECT_EQ(ipStats[2], UINT64_MAX);
}

TEST_F(Snmp, MissingFiles) {
  std::ofstream(SNMP) << IP_VALUES;
  std::ofstream(RELEASE) << "6.18";
  const struct {
    const char *snmp;
    const char *release;
    const char *output;
    const char *error;
  } CASES[] = {
      {"/tmp/none", RELEASE, "unable to open /proc/net/snmp!\n", ""},
      {"/tmp/none", "/tmp/none", "unable to open /proc/net/snmp!\n", ""},
      {SNMP, "/tmp/none", "", "unable to open /proc/sys/kernel/osrelease!\n: No such file or directory\n"},
  };
  for (const auto &row : CASES) {
    testing::internal::CaptureStderr();
    EXPECT_EQ(printed([&] { EXPECT_EQ(snmpStatsRead(row.snmp, row.release), -1); }), row.output);
    EXPECT_EQ(testing::internal::GetCapturedStderr(), row.error);
    EXPECT_EQ(wrong(ipStats, 100, from(0)), "");
  }
}

// The kernel's own file, read by name here, after traffic that moves counters of both groups.
TEST_F(Snmp, ThisKernel) {
  shell("ip link set lo up");
  const int sock = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
  sockaddr_in closed{};
  closed.sin_family = AF_INET;
  closed.sin_port = htons(9);
  closed.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  for (int i = 0; i < 5; ++i) {
    sendto(sock, "", 1, 0, reinterpret_cast<const sockaddr *>(&closed), sizeof closed);
  }
  close(sock);
  ASSERT_EQ(snmpStatsRefresh(), 0);

  std::map<std::string, std::vector<std::string>> lines;
  std::ifstream file("/proc/net/snmp");
  for (std::string line; std::getline(file, line);) {
    lines[line.substr(0, line.find(' '))].push_back(line.substr(line.find(' ')));
  }
  const auto check = [&](const std::string &prefix, const std::string &names, const auto &counters) {
    std::map<std::string, uint64_t> values;
    std::istringstream kernelNames(lines[prefix].at(0));
    std::istringstream kernelValues(lines[prefix].at(1));
    std::string name;
    uint64_t value;
    while (kernelNames >> name && kernelValues >> value) {
      values[name] = value;
    }
    std::istringstream expected(names.substr(prefix.size()));
    for (size_t i = 0; expected >> name; ++i) {
      EXPECT_EQ(counters.at(i), values.at(name)) << prefix << name;
    }
  };
  check("Ip:", IP_NAMES, ipStats);
  check("Icmp:", ICMP_NAMES_3_10, icmpStats);
  EXPECT_GE(icmpStats[ICMP_OUT_DEST_UNREACHS], 1U);
  EXPECT_GE(ipStats[IP_IN_RECEIVES], 6U);
}

} // namespace
