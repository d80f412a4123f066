#ifndef TESSERA_TESTS_TOOL_SHELL_H
#define TESSERA_TESTS_TOOL_SHELL_H

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "support/Pictures.h"

/// What a command left behind.
struct Result {
  int status = -1;  ///< exit status; 128 + signal where one ended it
  std::string out;
  std::string err;
};

/// A directory of its own for each test, and a shell in it that knows the tool as `tessera`.
class ToolTest : public testing::Test {
 protected:
  ToolTest();
  ~ToolTest() override;

  /// Runs a script for at most 30 s; a longer one ends with status 124.
  Result run(const std::string& script) const;
  /// The same, and expects that it succeeds. @return what it said on standard error
  std::string succeed(const std::string& script) const;

  void save(const std::string& name, const support::Bytes& data) const;
  support::Bytes load(const std::string& name) const;

  /// All names in the directory, hidden ones included, but for what run() needs.
  std::vector<std::string> files() const;

  std::string directory_;
};

support::Bytes operator+(support::Bytes a, const support::Bytes& b);

/// Frames of scene() one after another, each by the function given.
template <typename Make>
support::Bytes frames(int count, Make make) {
  support::Bytes all;
  for (int t = 0; t < count; ++t) all = std::move(all) + make(t);
  return all;
}

/// The planes one after another, as in raw files.
support::Bytes toI420(const support::Yuv& picture);

/// A Y4M file of 4:2:0 pictures; `header` is what follows the size.
support::Bytes toY4m(const std::vector<support::Yuv>& pictures, const std::string& header);

struct Y4m {
  std::string header;  ///< the first line
  std::vector<support::Yuv> pictures;
};
Y4m fromY4m(const support::Bytes& data);

#endif  // TESSERA_TESTS_TOOL_SHELL_H
