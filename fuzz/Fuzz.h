#ifndef TESSERA_FUZZ_FUZZ_H
#define TESSERA_FUZZ_FUZZ_H

#include <fuzzer/FuzzedDataProvider.h>

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <vector>

/// Stops the fuzzer where a promise is broken.
#define MUST(condition)                                                    \
  do {                                                                     \
    if (!(condition)) {                                                    \
      std::fprintf(stderr, "%s:%d: %s\n", __FILE__, __LINE__, #condition); \
      std::abort();                                                        \
    }                                                                      \
  } while (false)

namespace fuzz {

/// A copy on the heap of exactly its size, so that the sanitizer sees every byte too far.
class Exact {
 public:
  explicit Exact(const std::vector<std::uint8_t>& bytes) : Exact(bytes.size()) {
    std::copy(bytes.begin(), bytes.end(), data_.get());
  }
  explicit Exact(std::size_t size) : size_(size), data_(new std::uint8_t[size]) {}

  std::uint8_t* data() { return data_.get(); }
  char* chars() { return reinterpret_cast<char*>(data_.get()); }
  unsigned size() const { return static_cast<unsigned>(size_); }

 private:
  std::size_t size_;
  std::unique_ptr<std::uint8_t[]> data_;
};

/// What the library prints about bad input is not of interest here.
inline void silence() {
  static const bool done = std::freopen("/dev/null", "w", stdout) != nullptr;
  MUST(done);
}

}  // namespace fuzz

/// The fuzzer's driver keeps an object for good, which the programs that count what operator new
/// makes would report as their own.
extern "C" const char* __lsan_default_suppressions();
extern "C" __attribute__((visibility("default"))) const char* __lsan_default_suppressions() {
  return "leak:fuzzer::FuzzerDriver\n";
}

#endif  // TESSERA_FUZZ_FUZZ_H
