// The state of the scripted platform, shared by its two libraries: record, script, hooks, debug operations. One lock guards
// it all; nothing of it is ever destroyed, since a program may end while its threads still call.

#include "recorder.h"

#include <arpa/inet.h>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <deque>
#include <fcntl.h>
#include <map>
#include <mutex>
#include <sstream>
#include <typeindex>
#include <unistd.h>
#include <utility>

namespace scripted {
namespace {

using Command = int32_t (*)(int32_t argc, const char *const *argv);

struct Hook {
  std::type_index signature;
  std::shared_ptr<void> callable;
};

struct State {
  std::mutex lock;
  std::vector<std::string> calls;
  std::map<std::string, std::deque<Answer>> once;
  std::map<std::string, Answer> always;
  std::map<std::string, Hook> hooks;
  std::map<std::string, Command> commands;
  std::deque<std::string> operations;
  std::function<void(const std::string &line)> observer;
  int scriptFd = -1;
  int traceFd = -1;
  std::string partOfLine;

  State() {
    if (const char *path = getenv("SCRIPTED_SCRIPT")) {
      scriptFd = open(path, O_RDONLY | O_CLOEXEC);
    }
    if (const char *path = getenv("SCRIPTED_TRACE")) {
      traceFd = open(path, O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0600);
    }
  }
};

State &state() {
  static State *const only = new State;
  return *only;
}

[[noreturn]] void wrongTest(const std::string &why) {
  fprintf(stderr, "scripted platform: %s\n", why.c_str());
  abort();
}

Answer answerFrom(const std::string &text) {
  std::istringstream words(text);
  Answer answer;
  if (!(words >> answer.result)) {
    wrongTest("no result in \"" + text + "\"");
  }
  for (std::string word; words >> word;) {
    answer.outputs.push_back(word);
  }
  return answer;
}

void takeLine(State &at, const std::string &line) {
  if (line.empty()) {
    return;
  }
  if (line[0] == '!') {
    at.operations.push_back(line.substr(1));
    return;
  }
  const size_t mark = line.find_first_of(":=");
  if (mark == std::string::npos) {
    wrongTest("not a script line: " + line);
  }
  const std::string function = line.substr(0, mark);
  if (line[mark] == ':') {
    at.once[function].push_back(answerFrom(line.substr(mark + 1)));
  } else {
    at.always[function] = answerFrom(line.substr(mark + 1));
  }
}

void takeScript(State &at, std::string_view text) {
  at.partOfLine += text;
  size_t end;
  while ((end = at.partOfLine.find('\n')) != std::string::npos) {
    const std::string line = at.partOfLine.substr(0, end);
    at.partOfLine.erase(0, end + 1);
    takeLine(at, line);
  }
}

void takeScriptFile(State &at) {
  char text[4096];
  ssize_t got;
  while (at.scriptFd >= 0 && (got = read(at.scriptFd, text, sizeof text)) > 0) {
    takeScript(at, {text, static_cast<size_t>(got)});
  }
}

std::string sized(std::string text, uint32_t size) {
  return text + "[" + std::to_string(size) + "]";
}

std::string hexText(const uint8_t *bytes, size_t count) {
  std::string text;
  for (size_t at = 0; at < count; ++at) {
    char digits[3];
    snprintf(digits, sizeof digits, "%02x", bytes[at]);
    text += digits;
  }
  return text;
}

template <class T> void fillNumber(T *out, Outputs &outputs) {
  if (const std::string *text = outputs.next()) {
    *out = static_cast<T>(strtoul(text->c_str(), nullptr, 0));
  }
}

bool addressFrom(const std::string &text, InetAddr *out) {
  InetAddr addr{};
  in_addr ipv4;
  if (inet_pton(AF_INET, text.c_str(), &ipv4) == 1) {
    addr.family = TARN_FAMILY_IPV4;
    addr.ipv4 = ntohl(ipv4.s_addr);
  } else if (inet_pton(AF_INET6, text.c_str(), addr.ipv6) == 1) {
    addr.family = TARN_FAMILY_IPV6;
  } else {
    wrongTest("not an address: " + text);
  }
  *out = addr;
  return true;
}

} // namespace

void reset() {
  State &at = state();
  const std::lock_guard held(at.lock);
  at.calls.clear();
  at.once.clear();
  at.always.clear();
  at.hooks.clear();
  at.commands.clear();
  at.operations.clear();
  at.observer = nullptr;
  clockSet(0);
}

void script(std::string_view lines) {
  State &at = state();
  const std::lock_guard held(at.lock);
  takeScript(at, lines);
  takeScript(at, "\n");
}

void record(std::string line) {
  State &at = state();
  const std::lock_guard held(at.lock);
  at.calls.push_back(std::move(line));
}

std::vector<std::string> calls() {
  State &at = state();
  const std::lock_guard held(at.lock);
  return at.calls;
}

std::vector<std::string> takeCalls() {
  State &at = state();
  const std::lock_guard held(at.lock);
  return std::exchange(at.calls, {});
}

void hookSet(const std::string &function, const std::type_info &signature, std::shared_ptr<void> hook) {
  State &at = state();
  const std::lock_guard held(at.lock);
  at.hooks.insert_or_assign(function, Hook{signature, std::move(hook)});
}

std::shared_ptr<void> hookOf(const std::string &function, const std::type_info &signature) {
  State &at = state();
  const std::lock_guard held(at.lock);
  const auto found = at.hooks.find(function);
  if (found == at.hooks.end()) {
    return nullptr;
  }
  if (found->second.signature != signature) {
    wrongTest("hook of another signature for " + function);
  }
  return found->second.callable;
}

void observe(std::function<void(const std::string &line)> observer) {
  State &at = state();
  const std::lock_guard held(at.lock);
  at.observer = std::move(observer);
}

void traceTo(std::string line) {
  State &at = state();
  std::unique_lock held(at.lock);
  if (const auto observer = at.observer) {
    held.unlock();
    observer(line);
    held.lock();
  }
  if (at.traceFd < 0) {
    at.calls.push_back(std::move(line));
    return;
  }
  line += '\n';
  if (write(at.traceFd, line.data(), line.size()) != static_cast<ssize_t>(line.size())) {
    wrongTest("cannot write the trace");
  }
}

std::optional<Answer> queuedAnswer(const std::string &function) {
  State &at = state();
  const std::lock_guard held(at.lock);
  takeScriptFile(at);
  if (const auto queue = at.once.find(function); queue != at.once.end() && !queue->second.empty()) {
    Answer answer = std::move(queue->second.front());
    queue->second.pop_front();
    return answer;
  }
  if (const auto found = at.always.find(function); found != at.always.end()) {
    return found->second;
  }
  return std::nullopt;
}

Answer answerOf(const std::string &function, const char *otherwise) {
  std::optional<Answer> answer = queuedAnswer(function);
  return answer ? *answer : answerFrom(otherwise);
}

bool commandAdd(const char *name, Command command) {
  State &at = state();
  const std::lock_guard held(at.lock);
  return at.commands.emplace(name, command).second;
}

int32_t run(const std::string &line) {
  std::istringstream words(line);
  std::vector<std::string> texts;
  for (std::string word; words >> word;) {
    texts.push_back(word);
  }
  std::vector<const char *> argv;
  for (const std::string &text : texts) {
    argv.push_back(text.c_str());
  }
  argv.push_back(nullptr);
  Command command = nullptr;
  {
    State &at = state();
    const std::lock_guard held(at.lock);
    if (const auto found = at.commands.find(texts.at(0)); found != at.commands.end()) {
      command = found->second;
    }
  }
  return command == nullptr ? -1 : command(static_cast<int32_t>(texts.size()), argv.data());
}

void runPendingOperations() {
  std::deque<std::string> operations;
  {
    State &at = state();
    const std::lock_guard held(at.lock);
    takeScriptFile(at);
    operations.swap(at.operations);
  }
  for (const std::string &line : operations) {
    const int32_t result = run(line);
    fflush(stdout);
    traceTo("ran " + line + " -> " + std::to_string(result));
  }
}

// ---- arguments as text

namespace {

char theClient; // its address is the handle that every platform call must carry

tarnapiClient *clientHandle() {
  return reinterpret_cast<tarnapiClient *>(&theClient);
}

} // namespace

std::string textOf(uint32_t value) {
  return std::to_string(value);
}

std::string textOf(int32_t value) {
  return std::to_string(value);
}

std::string textOf(const char *value) {
  return value == nullptr ? "(null)" : *value == '\0' ? "''" : value;
}

std::string textOf(tarnapiClient *value) {
  return value == clientHandle() ? "" : "(another client)";
}

std::string textOf(SyncdbClient *value) {
  return value == nullptr ? "(null)" : "";
}

std::string textOf(RouteNetlinkSock *value) {
  return value == nullptr ? "(null)" : strcmp(value->name, "netlink-request_dx-to-kernel") == 0 ? "" : value->name;
}

std::string textOf(const tarn_buffdesc *value) {
  return sized(std::string(value->pstart, strnlen(value->pstart, value->size)), value->size);
}

std::string textOf(const InetAddr *value) {
  char text[INET6_ADDRSTRLEN];
  if (osapiInetNtop(value->family, value->ipv6, text, sizeof text) == nullptr) {
    return "(family " + std::to_string(value->family) + ")";
  }
  return text;
}

std::string textOf(InetPrefix *value) {
  return textOf(&value->addr) + "/" + std::to_string(value->prefixLen);
}

std::string textOf(const RtoRouteRecord *value) {
  char text[160];
  snprintf(text, sizeof text, "%s/%u type %u proto %u reject %u discard %u report %u metric %u hops %u",
           textOf(&value->prefix).c_str(), value->prefixLen, value->routeType, value->routeProto, value->rejectRoute,
           value->discardRoute, value->reportFlag, value->metric, value->numNextHops);
  return text;
}

std::string textOf(Ip value) {
  char text[INET_ADDRSTRLEN];
  return osapiInetNtoa(value.value, text);
}

std::string textOf(Hex value) {
  char text[16];
  snprintf(text, sizeof text, "0x%x", value.value);
  return text;
}

std::string textOf(OutText out) {
  return sized("", out.value->size);
}

std::string textOf(OutBytes out) {
  return sized("", out.value->size);
}

std::string textOf(Bytes bytes) {
  return sized(hexText(reinterpret_cast<const uint8_t *>(bytes.value->pstart), bytes.value->size), bytes.value->size);
}

std::string textOf(NextHops hops) {
  std::string text = sized("", hops.value->size);
  for (size_t at = 0; at + sizeof(NextHopRecord) <= hops.value->size; at += sizeof(NextHopRecord)) {
    NextHopRecord hop;
    memcpy(&hop, hops.value->pstart + at, sizeof hop);
    text += " via " + textOf(&hop.addr) + " " + std::to_string(hop.intIfNum);
  }
  return text;
}

std::string textOf(Mac mac) {
  return hexText(mac.value, 6);
}

std::string textOf(Out<RouteNetlinkSock> out) {
  return out.value->name;
}

std::string textOf(InOut inOut) {
  return std::to_string(*inOut.value);
}

std::string textOf(Byte byte) {
  return std::to_string(*static_cast<const uint8_t *>(byte.value));
}

// ---- outputs from text

void fill(Out<uint32_t> out, Outputs &outputs) {
  fillNumber(out.value, outputs);
}

void fill(InOut out, Outputs &outputs) {
  fillNumber(out.value, outputs);
}

void fill(Out<uint8_t> out, Outputs &outputs) {
  fillNumber(out.value, outputs);
}

void fill(Out<InetAddr> out, Outputs &outputs) {
  if (const std::string *text = outputs.next()) {
    addressFrom(*text, out.value);
  }
}

void fill(Out<tarnapiClient *> out, Outputs &) {
  *out.value = clientHandle();
}

void fill(InetPrefix *out, Outputs &outputs) {
  if (const std::string *text = outputs.next()) {
    const size_t slash = text->find('/');
    addressFrom(text->substr(0, slash), &out->addr);
    out->prefixLen = static_cast<uint32_t>(atoi(text->c_str() + slash + 1));
  }
}

// The output is a descriptor's number, or the path of a FIFO to hand out for reading.
void fill(Out<SyncdbClient> out, Outputs &outputs) {
  const std::string *text = outputs.next();
  if (text != nullptr && (*text)[0] == '/') {
    out.value->syncdbNotifyFd = open(text->c_str(), O_RDWR | O_NONBLOCK | O_CLOEXEC);
  } else if (text != nullptr) {
    out.value->syncdbNotifyFd = atoi(text->c_str());
  }
}

void fill(Out<RouteNetlinkSock> out, Outputs &outputs) {
  if (const std::string *text = outputs.next()) {
    out.value->fd = atoi(text->c_str());
  }
}

// A text that fills the buffer comes without a NUL.
void fill(OutText out, Outputs &outputs) {
  if (const std::string *text = outputs.next()) {
    const size_t length = std::min<size_t>(text->size() + 1, out.value->size);
    memcpy(out.value->pstart, text->c_str(), length);
  }
}

void fill(OutBytes out, Outputs &outputs) {
  const std::string *text = outputs.next();
  for (size_t at = 0; text != nullptr && at < out.value->size && 2 * at + 1 < text->size(); ++at) {
    out.value->pstart[at] = static_cast<char>(strtoul(text->substr(2 * at, 2).c_str(), nullptr, 16));
  }
}

} // namespace scripted
