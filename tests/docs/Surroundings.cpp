// What an example of a header takes for granted: a camera or a stream of thirty frames, and a place
// for what comes out. EXAMPLE is the example; the argument is the file that it reads or writes.

#include <fcntl.h>
#include <tessera/tessera.h>
#include <unistd.h>

#include <atomic>
#include <cstdio>
#include <fstream>
#include <iterator>
#include <thread>
#include <vector>

namespace {

template <typename Byte>
struct Piece : std::vector<Byte> {
  unsigned size() const { return static_cast<unsigned>(std::vector<Byte>::size()); }
  unsigned long long ms() const { return 1; }
  long long microseconds() const { return 1; }
};

Piece<unsigned char> frame, unit;
Piece<char> jpeg;
const char* path;
unsigned given = 0, taken = 0;

template <typename Bytes>
void Read(Bytes& bytes) {
  std::ifstream file(path, std::ios::binary);
  bytes.assign(std::istreambuf_iterator<char>(file), {});
}

struct {
  bool grab(Piece<unsigned char>& into) {
    into.assign(1280 * 720 * 2, static_cast<unsigned char>(given));
    return given < 30 && ++given;
  }
  bool grab(Piece<char>& into) {
    Read(into);
    return given < 30 && ++given;
  }
} camera;

struct {
  tessera::EncodedFrames frames{1280, 720};

  void write(const unsigned char* data, unsigned size) {
    frames.Add(data, size);
    taken = static_cast<unsigned>(frames.Begun());
    std::ofstream file(path, taken > 0 ? std::ios::binary | std::ios::app : std::ios::binary);
    file.write(reinterpret_cast<const char*>(data), size);
  }
} sink;

struct {
  std::vector<unsigned char> all;
  std::size_t at = 0;

  bool next(Piece<unsigned char>& into) {
    if (all.empty()) Read(all);
    const std::size_t end = tessera::AccessUnitEnd(all.data(), all.size(), at);
    into.assign(&all[at], &all[end]);
    at = end;
    return !into.empty() && ++given;
  }
} stream;

template <typename... Values>
void show(Values...) {
  ++taken;
}

int Example() {
#include EXAMPLE
  return 0;
}

}  // namespace

int main(int, char** argv) {
  path = argv[1];
  const int result = Example();
  std::printf("%u of %u pictures\n", taken, given);
  return given == 30 && taken == given ? result : 1;
}
