#ifndef TESSERA_TESTS_SWEEP_STREAMS_H
#define TESSERA_TESTS_SWEEP_STREAMS_H

#include <cstddef>
#include <string>

namespace sweep {

/// A process's standard streams as files that its parent can still read when it is gone.
class Streams {
 public:
  Streams();
  ~Streams();
  Streams(const Streams&) = delete;
  Streams& operator=(const Streams&) = delete;

  /// Makes them this process's standard streams, for good.
  void take() const;
  std::string out() const;
  std::string err() const;

 private:
  int out_;
  int err_;
};

/// What this process has printed, first on standard output and then on standard error, once they
/// are files; and how many bytes that is.
std::string printedText();
std::size_t printed();

}  // namespace sweep

#endif  // TESSERA_TESTS_SWEEP_STREAMS_H
