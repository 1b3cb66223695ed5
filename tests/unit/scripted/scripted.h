// The scripted platform: libtarnapi.so and libqvproc.so with nothing behind them. Every call is recorded as one line of
// text, in one order, and answered as the test has told it to.
//
// A script is a text of lines:
//   <function>: <result> [<output>...]    answers one call; several such lines are answered one after the other
//   <function>= <result> [<output>...]    answers every call for which no line of the first kind is left
//   !<operation> [<argument>...]          runs a debug operation at the next rpcclt_rpc_failure_occured(), once a loop pass
// A function that no line speaks of answers as its row in tarnapi.cpp or qvproc.cpp says. Outputs are filled, in the order
// of the arguments, when the result is 0; a call with another result leaves its first output in errno.
//
// A program that is run on these libraries as a whole is driven through the environment: SCRIPTED_SCRIPT names the script
// (lines appended while it runs are taken up), SCRIPTED_TRACE the file that the calls are appended to, SCRIPTED_CLOCK a
// file with eight bytes, the seconds of the monotonic clock in host order, SCRIPTED_SELECT_MS the longest time that a
// select() may wait.
#ifndef MIREL_TESTS_SCRIPTED_H
#define MIREL_TESTS_SCRIPTED_H

#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <string_view>
#include <typeinfo>
#include <vector>

#pragma GCC visibility push(default)

namespace scripted {

void reset();                        // forgets calls, script, hooks, debug operations and the set clock
void script(std::string_view lines); // adds to the script
void record(std::string line);       // adds a line of the test's own between the calls
std::vector<std::string> calls();    // all that was recorded since the last reset() or takeCalls()
std::vector<std::string> takeCalls();
void clockSet(uint64_t seconds);      // stops the monotonic clock there
int32_t run(const std::string &line); // runs a registered debug operation; -1 = no such operation

// Called with the line of every call, on the thread that makes it, before it is answered.
void observe(std::function<void(const std::string &line)> observer);

void hookSet(const std::string &function, const std::type_info &signature, std::shared_ptr<void> hook);

// The hook answers the calls of a function, with its very arguments, in place of the script.
template <class Signature, class Callable> void hook(const std::string &function, Callable &&callable) {
  hookSet(function, typeid(Signature), std::make_shared<std::function<Signature>>(std::forward<Callable>(callable)));
}

} // namespace scripted

#define SCRIPTED_HOOK(function, ...) scripted::hook<decltype(function)>(#function, __VA_ARGS__)

#pragma GCC visibility pop

#endif
