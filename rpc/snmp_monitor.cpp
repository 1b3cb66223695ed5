// The monitor of the kernel's counters, a thread of its own that start-up creates and nothing ends. It reads the "Ip:" and
// "Icmp:" groups of /proc/net/snmp: a line of names, then a line of values. Kernels have put new columns between the old
// ones, so the names say which value is whose; where they cannot, the columns of the kernel's release do.

#include "snmp_monitor.h"

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <span>
#include <string_view>
#include <unistd.h>

std::array<KernelCounter, IP_STATS> ipStats;
std::array<KernelCounter, ICMP_STATS> icmpStats;
pthread_t snmpMonitorThread;

namespace {

constexpr unsigned REFRESH_SEC = 10;
constexpr size_t LINE_SIZE = 1024;            // NUL included
constexpr size_t COLUMNS_MAX = LINE_SIZE / 2; // words that fit a line
constexpr std::string_view BLANKS = " \t\r\n";

// The kernel's names, in the order of the counters.
constexpr std::array<std::string_view, IP_STATS> IP_NAMES = {
    "Forwarding", "DefaultTTL", "InReceives",  "InHdrErrors", "InAddrErrors", "ForwDatagrams", "InUnknownProtos",
    "InDiscards", "InDelivers", "OutRequests", "OutDiscards", "OutNoRoutes",  "ReasmTimeout",  "ReasmReqds",
    "ReasmOKs",   "ReasmFails", "FragOKs",     "FragFails",   "FragCreates"};

constexpr std::array<std::string_view, ICMP_STATS> ICMP_NAMES = {
    "InMsgs",           "InErrors",       "InCsumErrors",   "InDestUnreachs", "InTimeExcds",     "InParmProbs",
    "InSrcQuenchs",     "InRedirects",    "InEchos",        "InEchoReps",     "InTimestamps",    "InTimestampReps",
    "InAddrMasks",      "InAddrMaskReps", "OutMsgs",        "OutErrors",      "OutDestUnreachs", "OutTimeExcds",
    "OutParmProbs",     "OutSrcQuenchs",  "OutRedirects",   "OutEchos",       "OutEchoReps",     "OutTimestamps",
    "OutTimestampReps", "OutAddrMasks",   "OutAddrMaskReps"};

struct FileClose {
  void operator()(FILE *file) const { fclose(file); }
};
using File = std::unique_ptr<FILE, FileClose>;

// Which counter a column holds, or none.
struct Columns {
  static constexpr uint8_t NONE = 0xFF;

  std::array<uint8_t, COLUMNS_MAX> counter;
  size_t count = 0;

  void add(size_t index) {
    if (count < counter.size()) {
      counter[count++] = static_cast<uint8_t>(index);
    }
  }
  bool has(size_t index) const {
    const auto end = counter.begin() + static_cast<ptrdiff_t>(count);
    return std::find(counter.begin(), end, index) != end;
  }
};

// One group while a file is read.
struct Group {
  std::string_view prefix;
  std::span<const std::string_view> names;
  std::span<KernelCounter> counters;
  size_t missing; // the counter that this release does not print, or Columns::NONE
  Columns columns;

  Columns releaseColumns() const {
    Columns release;
    for (size_t i = 0; i < names.size(); ++i) {
      if (i != missing) {
        release.add(i);
      }
    }
    return release;
  }
};

// Takes the first word off the text; empty when there is none.
std::string_view wordTake(std::string_view &text) {
  text.remove_prefix(std::min(text.find_first_not_of(BLANKS), text.size()));
  const std::string_view word = text.substr(0, text.find_first_of(BLANKS));
  text.remove_prefix(word.size());
  return word;
}

// Whether the whole word is a number; one that does not fit becomes the largest.
bool numberRead(std::string_view word, uint64_t &value) {
  char text[LINE_SIZE];
  word.copy(text, word.size());
  text[word.size()] = '\0';
  char *end = text;
  value = strtoull(text, &end, 10);
  return end != text && *end == '\0';
}

// Names that lack one of the release's say nothing about where its values are.
Columns columnsOfNames(const Group &group, std::string_view text) {
  const Columns release = group.releaseColumns();
  Columns named;
  for (std::string_view word = wordTake(text); !word.empty(); word = wordTake(text)) {
    const auto name = std::find(group.names.begin(), group.names.end(), word);
    const auto index = static_cast<size_t>(name - group.names.begin());
    named.add(name == group.names.end() || named.has(index) ? size_t{Columns::NONE} : index);
  }
  const bool usable =
      std::all_of(release.counter.begin(), release.counter.begin() + static_cast<ptrdiff_t>(release.count),
                  [&](uint8_t index) { return named.has(index); });
  return usable ? named : release;
}

void valuesStore(const Group &group, std::string_view text) {
  uint64_t value;
  for (size_t column = 0; column < group.columns.count && numberRead(wordTake(text), value); ++column) {
    const uint8_t index = group.columns.counter[column];
    if (index != Columns::NONE) {
      group.counters[index] = value;
    }
  }
}

void lineProcess(Group &group, std::string_view text) {
  std::string_view rest = text;
  uint64_t ignored;
  if (numberRead(wordTake(rest), ignored)) {
    valuesStore(group, text);
  } else {
    group.columns = columnsOfNames(group, text);
  }
}

// From kernel 3.10 on, the ICMP group has a column of checksum errors.
bool countsChecksumErrors(FILE *release) {
  int major = 0;
  int minor = 0;
  if (fscanf(release, "%d%*c%d", &major, &minor) < 1) {
    return false;
  }
  return major > 3 || (major == 3 && minor > 9);
}

} // namespace

int snmpStatsRead(const char *snmpPath, const char *releasePath) {
  const File snmp(fopen(snmpPath, "re"));
  const File release(fopen(releasePath, "re"));
  if (!snmp) {
    printf("unable to open /proc/net/snmp!\n");
    return -1;
  }
  if (!release) {
    perror("unable to open /proc/sys/kernel/osrelease!\n");
    return -1;
  }
  Group groups[] = {
      {"Ip: ", IP_NAMES, ipStats, Columns::NONE, {}},
      {"Icmp: ",
       ICMP_NAMES,
       icmpStats,
       countsChecksumErrors(release.get()) ? uint32_t{Columns::NONE} : uint32_t{ICMP_IN_CSUM_ERRORS},
       {}},
  };
  for (Group &group : groups) {
    group.columns = group.releaseColumns();
  }
  char line[LINE_SIZE];
  while (fgets(line, sizeof line, snmp.get()) != nullptr) {
    const std::string_view text = line;
    for (Group &group : groups) {
      if (text.starts_with(group.prefix)) {
        lineProcess(group, text.substr(group.prefix.size()));
      }
    }
  }
  return 0;
}

int snmpStatsRefresh() {
  return snmpStatsRead("/proc/net/snmp", "/proc/sys/kernel/osrelease");
}

void *snmpMonitorTask(void *) {
  for (;;) {
    for (unsigned rest = REFRESH_SEC; rest > 0;) {
      rest = sleep(rest);
    }
    snmpStatsRefresh();
  }
}
