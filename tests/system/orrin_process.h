// A real orrin with a socket and a state folder of its own, and its control socket.
#pragma once

#include <chrono>
#include <cstddef>
#include <initializer_list>
#include <string>
#include <sys/types.h>
#include <thread>

class OrrinProcess {
public:
  OrrinProcess();
  ~OrrinProcess(); // ends it, and forgets its state
  OrrinProcess(const OrrinProcess &) = delete;
  OrrinProcess &operator=(const OrrinProcess &) = delete;

  // Starts it, with arguments behind --state, and waits until it answers.
  void start(std::initializer_list<std::string> more = {});
  // Starts it where it will end by itself; its exit status, and what it wrote to standard error.
  int startFailing(std::initializer_list<std::string> more, std::string &complaint);
  // Sends the signal and waits for the end; the wait status.
  int end(int signal);
  void sendSignal(int signal) const;

  // A command that must be accepted, and its answer.
  std::string run(const std::string &command) const;
  // A command that may be refused; the reason is then written.
  void tell(const std::string &command, std::string &reason) const;
  // A command that must be refused, and the reason.
  std::string refusal(const std::string &command) const;

  const std::string &folder() const { return folder_; }
  std::string socket() const { return folder_ + "/api"; }

private:
  void launch(std::initializer_list<std::string> more, int errorFd);
  bool command(const std::string &line, std::string &answer) const;

  std::string folder_;
  pid_t pid_ = -1;
};

// Calls `done` until it is true, for so long at most.
template <class Done> bool within(int milliseconds, Done done) {
  const auto end = std::chrono::steady_clock::now() + std::chrono::milliseconds(milliseconds);
  while (!done()) {
    if (std::chrono::steady_clock::now() >= end) {
      return false;
    }
    std::this_thread::sleep_for(std::chrono::milliseconds(5));
  }
  return true;
}
