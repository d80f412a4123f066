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

// Calls a slot, counted from 1, the way compiled applications do.
template <class Result, class... Arguments>
Result callSlot(void* object, std::size_t slot, Arguments... arguments) {
  void** table;
  std::memcpy(&table, object, sizeof table);
  Result (*operation)(void*, Arguments...);
  std::memcpy(&operation, &table[slot - 1], sizeof operation);
  return operation(object, arguments...);
}

std::string called;

struct JpegEncoder : IJPEGEncoder {
  ~JpegEncoder() override { called += "~"; }
  int note(const char* what, int width, int height) {
    called = what;
    return width * 100 + height;
  }
  int EncodeYUYV(unsigned char*, unsigned, int w, int h, unsigned char**, unsigned&) override {
    return note("YUYV**", w, h);
  }
  int EncodeYUYV(unsigned char*, unsigned, int w, int h, unsigned char*, unsigned,
                 unsigned& size) override {
    size = 7;
    return note("YUYV*", w, h);
  }
  int EncodeRGB32(unsigned char*, unsigned, int w, int h, unsigned char**, unsigned&) override {
    return note("RGB32**", w, h);
  }
  int EncodeRGB32(unsigned char*, unsigned, int w, int h, unsigned char*, unsigned,
                  unsigned& size) override {
    size = 8;
    return note("RGB32*", w, h);
  }
};

}  // namespace

// One interface called for real: object, arguments, references and result arrive as compiled
// callers pass them, and slot 2 destroys and frees.
TEST(SlotCalls, ReachTheOverriddenOperations) {
  using Bytes = unsigned char*;
  void* object = static_cast<IJPEGEncoder*>(new JpegEncoder);
  unsigned size = 0;
  EXPECT_EQ((callSlot<int, Bytes, unsigned, int, int, Bytes*, unsigned&>(object, 3, nullptr, 1, 2,
                                                                         3, nullptr, size)),
            203);
  EXPECT_EQ(called, "YUYV**");
  EXPECT_EQ((callSlot<int, Bytes, unsigned, int, int, Bytes, unsigned, unsigned&>(
                object, 4, nullptr, 1, 4, 5, nullptr, 9, size)),
            405);
  EXPECT_EQ(called, "YUYV*");
  EXPECT_EQ(size, 7u);
  EXPECT_EQ((callSlot<int, Bytes, unsigned, int, int, Bytes*, unsigned&>(object, 5, nullptr, 1, 6,
                                                                         7, nullptr, size)),
            607);
  EXPECT_EQ(called, "RGB32**");
  EXPECT_EQ((callSlot<int, Bytes, unsigned, int, int, Bytes, unsigned, unsigned&>(
                object, 6, nullptr, 1, 8, 9, nullptr, 9, size)),
            809);
  EXPECT_EQ(called, "RGB32*");
  EXPECT_EQ(size, 8u);
  called.clear();
  callSlot<void>(object, 2);
  EXPECT_EQ(called, "~");
  called.clear();
  EXPECT_EQ(ReleaseEncoderJPEG(new JpegEncoder), 1) << "an encoder of the application's own";
  EXPECT_EQ(called, "~");
}
