#ifndef TESSERA_TOOLS_FAILURE_H
#define TESSERA_TOOLS_FAILURE_H

#include <stdexcept>
#include <string>

namespace tool {

enum ExitStatus { ExitDone = 0, ExitFailed = 1, ExitUsage = 2 };

/// Ends the command. The text says what was wrong with which input and what would be right.
class Failure : public std::runtime_error {
 public:
  explicit Failure(const std::string& text, int status = ExitFailed)
      : std::runtime_error(text), status_(status) {}
  int status() const { return status_; }

 private:
  int status_;
};

/// Wrong arguments, found out after they were parsed.
class UsageFailure : public Failure {
 public:
  explicit UsageFailure(const std::string& text) : Failure(text, ExitUsage) {}
};

/// The input breaks off in the middle of a frame. What came before is worth keeping.
class InputCut : public Failure {
 public:
  using Failure::Failure;
};

/// Whoever read the output has gone. Not a Failure: it ends the command without a word.
struct BrokenPipe {};

}  // namespace tool

#endif  // TESSERA_TOOLS_FAILURE_H
