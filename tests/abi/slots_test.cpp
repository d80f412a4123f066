// The order of the virtual operations: applications call through these slots by number.

#include <dlfcn.h>
#include <elf.h>
#include <gtest/gtest.h>
#include <link.h>
#include <tessera/tessera.h>

#include <cstring>
#include <string>
#include <vector>

namespace {

const std::vector<std::string> jpegEncoderSlots = {
    "D1Ev",
    "D0Ev",
    "10EncodeYUYVEPhjiiPS0_Rj",
    "10EncodeYUYVEPhjiiS0_jRj",
    "11EncodeRGB32EPhjiiPS0_Rj",
    "11EncodeRGB32EPhjiiS0_jRj",
};
const std::vector<std::string> h264EncoderSlots = {
    "D1Ev",
    "D0Ev",
    "6CreateEjiijjjjj",
    "12ProcessInputEPhjxx",
    "13ProcessOutputEPPhRjS2_",
    "13ProcessOutputEPhjRjS1_",
};
const std::vector<std::string> h264DecoderSlots = {
    "D1Ev",
    "D0Ev",
    "6CreateEiijPKh",
    "12ProcessInputEPhjiijy",
    "13ProcessOutputEPPhRjS2_S2_Ry",
    "13ProcessOutputEPhjRjS1_S1_Ry",
    "10InitializeEv",
};

struct Table {
  std::string className;
  std::vector<std::string> slots;
};

std::string mangled(const std::string& className) {
  return std::to_string(className.size()) + className;
}

class Slots : public testing::TestWithParam<Table> {};

}  // namespace

TEST_P(Slots, HoldTheirOperationsInOrderAndNothingMore) {
  const std::string name = mangled(GetParam().className);
  const auto& slots = GetParam().slots;
  void** table = static_cast<void**>(dlsym(RTLD_DEFAULT, ("_ZTV" + name).c_str()));
  ASSERT_NE(table, nullptr);

  Dl_info info;
  void* extra = nullptr;
  ASSERT_NE(dladdr1(table, &info, &extra, RTLD_DL_SYMENT), 0);
  // Two entries precede the slots: the offset to the top of the object and its type.
  EXPECT_EQ(static_cast<const ElfW(Sym)*>(extra)->st_size, (slots.size() + 2) * sizeof(void*));

  EXPECT_EQ(table[0], nullptr) << "interface and object do not share one address";
  for (std::size_t i = 0; i < slots.size(); ++i) {
    const std::string symbol = "_ZN" + name + slots[i];
    EXPECT_EQ(table[2 + i], dlsym(RTLD_DEFAULT, symbol.c_str()))
        << "slot " << i + 1 << ' ' << symbol;
  }
}

INSTANTIATE_TEST_SUITE_P(Classes, Slots,
                         testing::Values(Table{"DecoderPool",
                                               {"10DecodeJpegEPcjRiS1_", "D1Ev", "D0Ev"}},
                                         Table{"CMmalJpegEncoder", jpegEncoderSlots},
                                         Table{"COmxJpegEncoder", jpegEncoderSlots},
                                         Table{"CMmalH264Encoder", h264EncoderSlots},
                                         Table{"COmxH264Encoder", h264EncoderSlots},
                                         Table{"CMmalH264Decoder", h264DecoderSlots}),
                         [](const auto& test) { return test.param.className; });

namespace {

using Pixels = unsigned char*;
using Allocating = int(void*, Pixels, unsigned, int, int, Pixels*, unsigned&);
using Filling = int(void*, Pixels, unsigned, int, int, Pixels, unsigned, unsigned&);

// An operation by its slot, counted from 1, the way compiled applications find it.
template <class Operation>
Operation* slot(void* object, std::size_t number) {
  void** table;
  std::memcpy(&table, object, sizeof table);
  Operation* operation;
  std::memcpy(&operation, &table[number - 1], sizeof operation);
  return operation;
}

// An encoder of the application's own, whose results tell the slot and the size.
struct OwnEncoder : IJPEGEncoder {
  explicit OwnEncoder(int& gone) : gone_(gone) {}
  ~OwnEncoder() override { ++gone_; }
  int EncodeYUYV(Pixels, unsigned, int w, int h, Pixels*, unsigned&) override {
    return 300 + 10 * w + h;
  }
  int EncodeYUYV(Pixels, unsigned, int w, int h, Pixels, unsigned limit, unsigned& size) override {
    size = limit;
    return 400 + 10 * w + h;
  }
  int EncodeRGB32(Pixels, unsigned, int w, int h, Pixels*, unsigned&) override {
    return 500 + 10 * w + h;
  }
  int EncodeRGB32(Pixels, unsigned, int w, int h, Pixels, unsigned limit, unsigned& size) override {
    size = limit;
    return 600 + 10 * w + h;
  }
  int& gone_;
};

}  // namespace

// One interface called for real: object, arguments, references and result arrive as compiled
// callers pass them, and slot 2 destroys and frees.
TEST(SlotCalls, ReachTheOverriddenOperations) {
  int gone = 0;
  void* object = static_cast<IJPEGEncoder*>(new OwnEncoder(gone));
  unsigned size = 0;
  for (const int each : {3, 5})
    EXPECT_EQ(slot<Allocating>(object, each)(object, nullptr, 1, 7, 8, nullptr, size),
              100 * each + 78);
  for (const int each : {4, 6}) {
    EXPECT_EQ(slot<Filling>(object, each)(object, nullptr, 1, 7, 8, nullptr, 9u + each, size),
              100 * each + 78);
    EXPECT_EQ(size, 9u + each);
  }
  slot<void(void*)>(object, 2)(object);
  EXPECT_EQ(gone, 1);
  EXPECT_EQ(ReleaseEncoderJPEG(new OwnEncoder(gone)), 1);
  EXPECT_EQ(gone, 2);
}
