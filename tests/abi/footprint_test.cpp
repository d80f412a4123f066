// Memory: how much the library and its buffers take at full size, and that nothing of it stays.

#include <dlfcn.h>
#include <gtest/gtest.h>
#include <malloc.h>
#include <tessera/tessera.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <cerrno>
#include <cinttypes>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <functional>
#include <mutex>
#include <utility>
#include <vector>

#include "support/Capture.h"
#include "support/Pictures.h"

// The program's own allocator passes on to the C library's and counts what anybody but the codec
// libraries takes: libtessera.so, the software platform, their threads.
extern "C" {
void* __libc_malloc(std::size_t);
void* __libc_calloc(std::size_t, std::size_t);
void* __libc_realloc(void*, std::size_t);
void* __libc_memalign(std::size_t, std::size_t);
void __libc_free(void*);
}

namespace {

// Blocks below this size are not worth the search for their owner.
constexpr std::size_t smallest = 1024;

class Ledger {
 public:
  void taken(void* block, std::size_t size, const void* caller) {
    if (block == nullptr || size < smallest || !counting_ || isCodec(caller)) return;
    const std::lock_guard<std::mutex> guard(lock_);
    for (Entry& entry : entries_) {
      if (entry.block != nullptr) continue;
      entry = {block, size};
      now_ += size;
      peak_ = std::max(peak_, now_);
      return;
    }
    overflowed_ = true;
  }

  void given(void* block) {
    if (block == nullptr || !counting_) return;
    const std::lock_guard<std::mutex> guard(lock_);
    for (Entry& entry : entries_) {
      if (entry.block != block) continue;
      now_ -= entry.size;
      entry = {};
      return;
    }
  }

  void start() {
    entries_ = {};
    now_ = peak_ = 0;
    counting_ = true;
  }
  std::size_t stop() {
    counting_ = false;
    return overflowed_ ? SIZE_MAX : peak_;
  }

 private:
  struct Entry {
    void* block = nullptr;
    std::size_t size = 0;
  };

  static bool isCodec(const void* caller) {
    Dl_info info;
    if (dladdr(caller, &info) == 0 || info.dli_fname == nullptr) return false;
    for (const char* name : {"/libx264", "/libav", "/libjpeg", "/libturbojpeg", "/libswresample"})
      if (std::strstr(info.dli_fname, name) != nullptr) return true;
    return false;
  }

  std::atomic<bool> counting_{false};
  std::mutex lock_;
  std::array<Entry, 4096> entries_{};
  std::size_t now_ = 0;
  std::size_t peak_ = 0;
  bool overflowed_ = false;
};

Ledger ledger;

void* noted(void* block, std::size_t size, const void* caller) {
  ledger.taken(block, size, caller);
  return block;
}

}  // namespace

extern "C" {
void* malloc(std::size_t size) {
  return noted(__libc_malloc(size), size, __builtin_return_address(0));
}
void* calloc(std::size_t count, std::size_t size) {
  return noted(__libc_calloc(count, size), count * size, __builtin_return_address(0));
}
void* realloc(void* old, std::size_t size) {
  ledger.given(old);
  return noted(__libc_realloc(old, size), size, __builtin_return_address(0));
}
void* memalign(std::size_t alignment, std::size_t size) {
  return noted(__libc_memalign(alignment, size), size, __builtin_return_address(0));
}
void* aligned_alloc(std::size_t alignment, std::size_t size) {
  return noted(__libc_memalign(alignment, size), size, __builtin_return_address(0));
}
int posix_memalign(void** block, std::size_t alignment, std::size_t size) {
  *block = noted(__libc_memalign(alignment, size), size, __builtin_return_address(0));
  return *block != nullptr ? 0 : ENOMEM;
}
void free(void* block) {
  ledger.given(block);
  __libc_free(block);
}
}

namespace {

using support::Bytes;

// Bytes of address space that the program has mapped, by its own map: under emulation the other
// figures of /proc are the emulator's.
std::uint64_t addressSpace() {
  std::FILE* maps = std::fopen("/proc/self/maps", "r");
  std::uint64_t total = 0, from = 0, to = 0;
  char line[512];
  while (std::fgets(line, sizeof line, maps) != nullptr)
    if (std::sscanf(line, "%" SCNx64 "-%" SCNx64, &from, &to) == 2) total += to - from;
  std::fclose(maps);
  return total;
}

// On a slow machine the decoder may take longer than the call waits.
void feed(IH264Decoder* decoder, unsigned char* data, unsigned size, int width, int height) {
  CodecStatus fed = CodecTimeout;
  for (int tries = 0; tries < 10 && fed == CodecTimeout; ++tries)
    fed = decoder->ProcessInput(data, size, width, height, 0, 0);
  EXPECT_EQ(fed, CodecOk);
}

// One picture through H.264 and back, both objects alive at once.
void encodeAndDecodeVideo(int width, int height, Bytes& frame, Bytes& data, Bytes& picture) {
  IH264Encoder* encoder = CreateEncoderH264();
  ASSERT_TRUE(encoder->Create(0x30323449, width, height, 30, 1, 1, 1, 4000000));
  IH264Decoder* decoder = nullptr;
  ASSERT_EQ(CreateH264Decoder(&decoder), 1);
  ASSERT_TRUE(decoder->Create(width, height, 0, nullptr));
  ASSERT_EQ(encoder->ProcessInput(frame.data(), static_cast<unsigned>(picture.size()), 0, 0),
            CodecOk);

  CodecStatus decoded = CodecTimeout;
  for (int tries = 0; tries < 100 && decoded != CodecOk; ++tries) {
    unsigned size = 0, flags = 0, gotWidth = 0, gotHeight = 0;
    unsigned long long timestamp = 0;
    if (encoder->ProcessOutput(data.data(), static_cast<unsigned>(data.size()), size, flags) ==
        CodecOk) {
      unsigned char end[] = {0, 0, 0, 1, 10};
      feed(decoder, data.data(), size, width, height);
      if (flags != 0) feed(decoder, end, sizeof end, width, height);
    }
    decoded = decoder->ProcessOutput(picture.data(), static_cast<unsigned>(picture.size()), size,
                                     gotWidth, gotHeight, timestamp);
  }
  EXPECT_EQ(decoded, CodecOk);
  FreeH264Decoder(decoder);
  ReleaseEncoderH264(encoder);
}

// One picture through JPEG and back, both objects alive at once.
void encodeAndDecodeJpeg(int width, int height, Bytes& frame, Bytes& jpeg) {
  DecoderPool* pool = GetDecoderPool();
  IJPEGEncoder* encoder = CreateEncoderJPEG();
  unsigned size = 0;
  int gotWidth = 0, gotHeight = 0;
  ASSERT_EQ(encoder->EncodeYUYV(frame.data(), static_cast<unsigned>(frame.size()), width, height,
                                jpeg.data(), static_cast<unsigned>(jpeg.size()), size),
            1);
  EXPECT_NE(pool->DecodeJpeg(reinterpret_cast<char*>(jpeg.data()), size, gotWidth, gotHeight),
            nullptr);
  ReleaseEncoderJPEG(encoder);
  ReleaseDecoderPool(pool);
}

constexpr int width = 1920, height = 1080;

}  // namespace

TEST(Footprint, FullHdTakesLessThan64MiBBesideTheCodecs) {
  const std::size_t pixels = width * support::round16(height);
  Bytes frame(2 * pixels, 100), data(2 * pixels), picture(pixels * 3 / 2);
  const std::pair<const char*, std::function<void()>> works[] = {
      {"JPEG", [&] { encodeAndDecodeJpeg(width, height, frame, data); }},
      {"video", [&] { encodeAndDecodeVideo(width, height, frame, data, picture); }}};
  for (const auto& [name, work] : works) {
    ledger.start();
    work();
    const std::size_t peak = ledger.stop();
    std::printf("%s: %.1f MiB at most\n", name, static_cast<double>(peak) / (1 << 20));
    // Less than one frame in and one out would mean that nothing was counted.
    EXPECT_GT(peak, 2 * picture.size());
    EXPECT_LT(peak, 64u << 20);
  }
}

TEST(Footprint, AThousandCyclesLeaveTheAddressSpaceWhereItWas) {
  // With one arena, what grows is a leak and not the allocator's choice.
  mallopt(M_ARENA_MAX, 1);
  const auto cycle = [] {
    ReleaseDecoderPool(GetDecoderPool());
    ReleaseEncoderJPEG(CreateEncoderJPEG());
    ReleaseEncoderJPEG(new COmxJpegEncoder);
    ReleaseEncoderH264(CreateEncoderH264());
    ReleaseEncoderH264(new COmxH264Encoder);
    IH264Decoder* decoder = nullptr;
    CreateH264Decoder(&decoder);
    FreeH264Decoder(decoder);
  };
  std::uint64_t before = 0, after = 0;
  {
    support::Capture quiet;
    for (int i = 0; i < 20; ++i) cycle();
    before = addressSpace();
    for (int i = 0; i < 1000; ++i) cycle();
    after = addressSpace();
  }
  EXPECT_LE(after, before + (256u << 10));
}
