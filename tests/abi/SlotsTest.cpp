// The order of the virtual operations: applications call through these slots by number.

#include <cxxabi.h>
#include <dlfcn.h>
#include <elf.h>
#include <gtest/gtest.h>
#include <link.h>
#include <tessera/tessera.h>

#include <cstdlib>
#include <fstream>
#include <iterator>
#include <memory>
#include <string>

namespace {

std::string demangled(const char* symbol) {
  const std::unique_ptr<char, decltype(&std::free)> name(
      abi::__cxa_demangle(symbol, nullptr, nullptr, nullptr), std::free);
  return name ? name.get() : "nothing";
}

/// The operations in a class's table, one a line.
std::string slotsOf(const char* typeName) {
  Dl_info info{};
  void* extra = nullptr;
  void** const table =
      static_cast<void**>(dlsym(RTLD_DEFAULT, (std::string("_ZTV") + typeName).c_str()));
  if (table == nullptr || dladdr1(table, &info, &extra, RTLD_DL_SYMENT) == 0) return "no table\n";
  EXPECT_EQ(table[0], nullptr) << "interface and object do not share one address";
  std::string told;
  // Two entries precede the slots: the offset to the top of the object and its type.
  for (std::size_t i = 2; i < static_cast<const ElfW(Sym)*>(extra)->st_size / sizeof(void*); ++i)
    told += (dladdr(table[i], &info) != 0 ? demangled(info.dli_sname) : "nothing") + '\n';
  return told;
}

}  // namespace

TEST(Slots, HoldTheirOperationsInOrderAndNothingMore) {
  ASSERT_EQ(ReleaseDecoderPool(nullptr), 0) << "a call, so that the library is loaded";
  std::string told;
  for (const char* name : {"11DecoderPool", "16CMmalJpegEncoder", "15COmxJpegEncoder",
                           "16CMmalH264Encoder", "15COmxH264Encoder", "16CMmalH264Decoder"})
    told += slotsOf(name);
  std::ifstream file(TESSERA_SLOTS);
  EXPECT_EQ(told, std::string(std::istreambuf_iterator<char>(file), {}));
}
