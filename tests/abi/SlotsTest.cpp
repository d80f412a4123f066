// The order of the virtual operations: applications call through these slots by number.

#include <dlfcn.h>
#include <elf.h>
#include <gtest/gtest.h>
#include <link.h>
#include <tessera/tessera.h>

#include <string>
#include <vector>

namespace {

using Names = std::vector<std::string>;
const Names jpegEncoder = {"D1Ev",
                           "D0Ev",
                           "10EncodeYUYVEPhjiiPS0_Rj",
                           "10EncodeYUYVEPhjiiS0_jRj",
                           "11EncodeRGB32EPhjiiPS0_Rj",
                           "11EncodeRGB32EPhjiiS0_jRj"};
const Names h264Encoder = {"D1Ev",
                           "D0Ev",
                           "6CreateEjiijjjjj",
                           "12ProcessInputEPhjxx",
                           "13ProcessOutputEPPhRjS2_",
                           "13ProcessOutputEPhjRjS1_"};
const Names h264Decoder = {"D1Ev",
                           "D0Ev",
                           "6CreateEiijPKh",
                           "12ProcessInputEPhjiijy",
                           "13ProcessOutputEPPhRjS2_S2_Ry",
                           "13ProcessOutputEPhjRjS1_S1_Ry",
                           "10InitializeEv"};
const std::pair<std::string, Names> classes[] = {
    {"11DecoderPool", {"10DecodeJpegEPcjRiS1_", "D1Ev", "D0Ev"}},
    {"16CMmalJpegEncoder", jpegEncoder},
    {"15COmxJpegEncoder", jpegEncoder},
    {"16CMmalH264Encoder", h264Encoder},
    {"15COmxH264Encoder", h264Encoder},
    {"16CMmalH264Decoder", h264Decoder}};

}  // namespace

TEST(Slots, HoldTheirOperationsInOrderAndNothingMore) {
  ASSERT_EQ(ReleaseDecoderPool(nullptr), 0) << "a call, so that the library is loaded";
  for (const auto& [name, slots] : classes) {
    void** table = static_cast<void**>(dlsym(RTLD_DEFAULT, ("_ZTV" + name).c_str()));
    ASSERT_NE(table, nullptr) << name;

    Dl_info info;
    void* extra = nullptr;
    ASSERT_NE(dladdr1(table, &info, &extra, RTLD_DL_SYMENT), 0);
    // Two entries precede the slots: the offset to the top of the object and its type.
    EXPECT_EQ(static_cast<const ElfW(Sym)*>(extra)->st_size, (slots.size() + 2) * sizeof(void*));
    EXPECT_EQ(table[0], nullptr) << "interface and object do not share one address";
    for (std::size_t i = 0; i < slots.size(); ++i) {
      const std::string symbol = "_ZN" + name + slots[i];
      EXPECT_EQ(table[2 + i], dlsym(RTLD_DEFAULT, symbol.c_str())) << i + 1 << ' ' << symbol;
    }
  }
}
