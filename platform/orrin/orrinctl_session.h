// The control connection to orrin: command lines out, their answers back, in order.
#pragma once

#include "unique_fd.h"

#include <cstddef>
#include <string>
#include <string_view>

struct ControlAnswer {
  bool accepted = false;
  std::string text;
};

// One command over a connection of its own; not accepted, with the reason, when orrin cannot be asked.
ControlAnswer askOrrin(const std::string &command);

class ControlSession {
public:
  enum class Event { Answer, Input, Lost };

  // False when orrin cannot be reached; error() says why.
  bool connect();

  // One command, without its line end.
  void queue(std::string_view command);

  // Moves bytes both ways until an answer is complete, `input` (-1: none) can be read, or the connection is lost.
  Event wait(int input);

  // The oldest answer, after wait() returned Event::Answer.
  ControlAnswer takeAnswer();

  size_t unanswered() const { return unanswered_; }
  size_t unsent() const { return out_.size() - sent_; }
  const std::string &error() const { return error_; }

private:
  enum class Parsed { Whole, Partial, Broken };

  Parsed parseAnswer();
  bool sendSome();
  bool receiveSome();
  Event lost(std::string why);

  UniqueFd fd_;
  std::string out_;
  size_t sent_ = 0;
  std::string in_;
  size_t taken_ = 0;
  size_t textStart_ = 0;
  size_t textLength_ = 0;
  bool accepted_ = false;
  size_t unanswered_ = 0;
  std::string error_;
};
