// What the rows of tarnapi.cpp, qvproc.cpp and libc.cpp are made of: how an argument is written into the record, how an
// output is filled from the script, and the one road that every call takes.
#ifndef MIREL_TESTS_RECORDER_H
#define MIREL_TESTS_RECORDER_H

#include "scripted.h"

#include "osapi.h"
#include "proc_osapi.h"
#include "qvproc.h"
#include "syncdb.h"
#include "tarnapi.h"

#include <cerrno>
#include <cstdlib>
#include <optional>
#include <typeinfo>

#pragma GCC visibility push(default)

namespace scripted {

struct Answer {
  int32_t result = 0;
  std::vector<std::string> outputs;
};

Answer answerOf(const std::string &function, const char *otherwise);
std::optional<Answer> queuedAnswer(const std::string &function);
std::shared_ptr<void> hookOf(const std::string &function, const std::type_info &signature);
void runPendingOperations();
bool commandAdd(const char *name, int32_t (*command)(int32_t argc, const char *const *argv));
void traceTo(std::string line); // record(), and into the trace file

// An argument that stands in the record otherwise than its type tells, or not at all.
struct Ip {
  uint32_t value;
};
struct Hex {
  uint32_t value;
};
struct OutText {
  const tarn_buffdesc *value;
};
struct Bytes {
  const tarn_buffdesc *value;
};
struct OutBytes {
  const tarn_buffdesc *value;
};
struct NextHops {
  const tarn_buffdesc *value;
};
struct Mac {
  const uint8_t *value;
};
struct Byte {
  const void *value;
};
template <class T> struct Out { T *value; };
template <class T> Out(T *) -> Out<T>;
struct InOut : Out<uint32_t> {};

std::string textOf(uint32_t value);
std::string textOf(int32_t value);
std::string textOf(const char *value);
std::string textOf(tarnapiClient *value);
std::string textOf(SyncdbClient *value);
std::string textOf(RouteNetlinkSock *value);
std::string textOf(const tarn_buffdesc *value);
std::string textOf(const InetAddr *value);
std::string textOf(InetPrefix *value);
std::string textOf(const RtoRouteRecord *value);
std::string textOf(Ip value);
std::string textOf(Hex value);
std::string textOf(OutText value);
std::string textOf(Bytes value);
std::string textOf(OutBytes value);
std::string textOf(NextHops value);
std::string textOf(Mac value);
std::string textOf(Byte value);
std::string textOf(Out<RouteNetlinkSock> value);
std::string textOf(InOut value);
template <class T> std::string textOf(Out<T>) {
  return "";
}

// Takes the output it needs off the front of the list; an output that the script leaves out stays as it was.
class Outputs {
public:
  explicit Outputs(std::vector<std::string> texts) : texts_(std::move(texts)) {}
  const std::string *next() { return at_ < texts_.size() ? &texts_[at_++] : nullptr; }

private:
  std::vector<std::string> texts_;
  size_t at_ = 0;
};

template <class T> void fill(const T &, Outputs &) {}
void fill(Out<uint32_t> out, Outputs &outputs);
void fill(Out<uint8_t> out, Outputs &outputs);
void fill(InOut out, Outputs &outputs);
void fill(Out<InetAddr> out, Outputs &outputs);
void fill(Out<tarnapiClient *> out, Outputs &outputs);
void fill(InetPrefix *out, Outputs &outputs);
void fill(Out<SyncdbClient> out, Outputs &outputs);
void fill(Out<RouteNetlinkSock> out, Outputs &outputs);
void fill(OutText out, Outputs &outputs);
void fill(OutBytes out, Outputs &outputs);

template <class T> T raw(T value) {
  return value;
}
inline uint32_t raw(Ip arg) {
  return arg.value;
}
inline uint32_t raw(Hex arg) {
  return arg.value;
}
inline const tarn_buffdesc *raw(OutText arg) {
  return arg.value;
}
inline const tarn_buffdesc *raw(Bytes arg) {
  return arg.value;
}
inline const tarn_buffdesc *raw(OutBytes arg) {
  return arg.value;
}
inline const tarn_buffdesc *raw(NextHops arg) {
  return arg.value;
}
inline const uint8_t *raw(Mac arg) {
  return arg.value;
}
inline uint32_t *raw(InOut arg) {
  return arg.value;
}
inline const void *raw(Byte arg) {
  return arg.value;
}
template <class T> T *raw(Out<T> arg) {
  return arg.value;
}

inline void appendArgument(std::string &line, const std::string &text) {
  if (!text.empty()) {
    line += ' ';
    line += text;
  }
}

template <class Signature, class... Arguments>
int32_t call(const char *function, const char *otherwise, Arguments... arguments) {
  std::string line = function;
  (appendArgument(line, textOf(arguments)), ...);
  traceTo(std::move(line));
  if (const auto hook = hookOf(function, typeid(Signature))) {
    return (*static_cast<std::function<Signature> *>(hook.get()))(raw(arguments)...);
  }
  const Answer answer = answerOf(function, otherwise);
  Outputs outputs(answer.outputs);
  if (answer.result == 0) {
    (fill(arguments, outputs), ...);
  } else if (const std::string *error = outputs.next()) {
    errno = atoi(error->c_str());
  }
  return answer.result;
}

} // namespace scripted

#pragma GCC visibility pop

// One row a function: its arguments as they stand in the record, and its answer when nothing else is scripted.
#define SCRIPTED(function, parameters, otherwise, ...)                                                                 \
  extern "C" int32_t function parameters {                                                                             \
    return scripted::call<decltype(function)>(#function, otherwise __VA_OPT__(, ) __VA_ARGS__);                        \
  }

#endif
