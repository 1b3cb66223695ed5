// `orrinctl diff`: rows of a VRF as the switch wants them in the kernel, or as they were reported of it, against the rows that
// the kernel has. The switch's side is a Switch that a dump was replayed into.
#pragma once

#include "switch.h"

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <map>
#include <string>
#include <unordered_map>
#include <vector>

namespace orrin {

// One area of one VRF: counts the differences and, if told so, prints each: "-" a row that is missing in the kernel, "+" one
// that should not be there or was not reported, "~" one that is otherwise.
class Comparison {
public:
  // `way` is the text behind the key, by its number: a million routes have few.
  template <class Key> struct Row {
    Key key;
    uint32_t way;
  };
  template <class Key> using Rows = std::vector<Row<Key>>;

  Comparison(uint32_t vrf, bool print) : vrf_(vrf), print_(print) {}

  size_t onSwitch = 0;
  size_t wanted = 0; // of them in the kernel
  size_t inKernel = 0;
  size_t different = 0;

  uint32_t wayOf(std::string text);
  // The kernel's name of a device, in the namespace in which the process is.
  const std::string &deviceOf(uint32_t index);

  // Compares all rows, in ascending order of their keys. `nameOf` prints a key. Several rows of the kernel may have one key: the
  // first that is as wanted counts, and the others are differences unless `othersMay` be.
  template <class Key, class Name>
  void run(Rows<Key> &switchRows, Rows<Key> &kernelRows, const Name &nameOf, bool othersMay = false) {
    const auto before = [](const Row<Key> &a, const Row<Key> &b) { return a.key < b.key; };
    std::stable_sort(switchRows.begin(), switchRows.end(), before);
    std::stable_sort(kernelRows.begin(), kernelRows.end(), before);
    const auto extra = [&](const Row<Key> &row) { report('+', nameOf(row.key), *ways_[row.way]); };
    auto have = kernelRows.cbegin();
    for (const Row<Key> &want : switchRows) {
      for (; have != kernelRows.cend() && before(*have, want); ++have) {
        extra(*have);
      }
      const auto first = have;
      auto match = kernelRows.cend();
      for (; have != kernelRows.cend() && !before(want, *have); ++have) {
        match = match == kernelRows.cend() && isWay(want.way, have->way) ? have : match;
      }
      if (first == have) {
        report('-', nameOf(want.key), *ways_[want.way]);
      } else if (match == kernelRows.cend()) {
        match = first;
        report('~', nameOf(want.key), "switch " + *ways_[want.way] + ", kernel " + *ways_[first->way]);
      }
      for (auto other = first; other != have && !othersMay; ++other) {
        if (other != match) {
          extra(*other);
        }
      }
    }
    std::for_each(have, kernelRows.cend(), extra);
  }

private:
  bool isWay(uint32_t want, uint32_t have) const;
  void report(char sign, const std::string &name, const std::string &way);

  const uint32_t vrf_;
  const bool print_;
  std::unordered_map<std::string, uint32_t> wayNumbers_;
  std::vector<const std::string *> ways_;
  std::map<uint32_t, std::string> devices_;
};

// An interface without a kernel device of its own is out of scope.
inline bool hasDevice(const Interface &interface) {
  return interface.type != Interface::TUNNEL;
}

// Each compares one area of a VRF with the kernel of the current namespace. They return what went wrong, empty when nothing did.
std::string compareInterfaces(const Switch &sw, const Vrf &vrf, Comparison &comparison);
std::string compareRoutes(const Switch &sw, const Vrf &vrf, Comparison &comparison);
std::string compareNeighbours(const Switch &sw, const Vrf &vrf, Comparison &comparison);
std::string compareKernelRoutes(const Switch &sw, const Vrf &vrf, Comparison &comparison);

// Runs `orrinctl diff` with the arguments after "diff". Returns the exit status.
int runDiff(int argc, char **argv);

} // namespace orrin
