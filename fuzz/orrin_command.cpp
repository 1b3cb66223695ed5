// Command lines of orrin, on a small switch. Lines up to the first empty one are run as if they stood in the state folder.

#include "switch.h"

namespace {

constexpr size_t COUNT_DIGITS_MAX = 3;

// orrin adds as many routes as it is told to, which may be all that there are: that takes time and shows nothing.
bool countsFar(std::string_view line) {
  orrin::Words words(line);
  while (!words.atEnd()) {
    if (words.take() == "count" && words.peek().size() > COUNT_DIGITS_MAX) {
      return true;
    }
  }
  return false;
}

} // namespace

int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
  SmallSwitch small;
  orrin::Switch &sw = *small;
  std::string_view text(reinterpret_cast<const char *>(data), size);
  sw.restoring = text.find("\n\n") != std::string_view::npos;
  while (!text.empty()) {
    const std::string_view line = text.substr(0, text.find('\n'));
    text.remove_prefix(std::min(line.size() + 1, text.size()));
    sw.restoring = sw.restoring && !line.empty();
    if (std::string out; !countsFar(line)) {
      orrin::runCommand(sw, line, out);
    }
  }
  small.print(size);
  restoreCheck(sw);
  return 0;
}
