#include "Shell.h"

#include <sys/wait.h>

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <iterator>

using support::Bytes;
using support::Yuv;

namespace {

std::string text(const Bytes& bytes) {
  return {bytes.begin(), bytes.end()};
}

std::size_t pictureBytes(int width, int height) {
  const auto w = static_cast<std::size_t>(width), h = static_cast<std::size_t>(height);
  return w * h + (w + 1) / 2 * ((h + 1) / 2) * 2;
}

Yuv pictureAt(const std::uint8_t* data, int width, int height) {
  Yuv picture{width, height, {}, {}, {}};
  const std::ptrdiff_t luma = std::ptrdiff_t{width} * height;
  const std::ptrdiff_t chroma = std::ptrdiff_t{picture.chromaWidth()} * picture.chromaHeight();
  picture.y.assign(data, data + luma);
  picture.u.assign(data + luma, data + luma + chroma);
  picture.v.assign(data + luma + chroma, data + luma + 2 * chroma);
  return picture;
}

}  // namespace

ToolTest::ToolTest() {
  char pattern[] = "/tmp/tessera-tool-test.XXXXXX";
  directory_ = mkdtemp(pattern);
}

ToolTest::~ToolTest() {
  std::error_code ignored;
  std::filesystem::remove_all(directory_, ignored);
}

Result ToolTest::run(const std::string& script) const {
  save(".script", Bytes(script.begin(), script.end()));
  const std::string command = "cd " + directory_ +
                              " && PATH=$PATH:. && ln -sf " TESSERA_TOOL
                              " .tool && tessera() { ./.tool \"$@\"; } && . ./.script";
  const std::string limited =
      "timeout 30 bash -c '" + command + "' >" + directory_ + "/.out 2>" + directory_ + "/.err";
  const int status = std::system(limited.c_str());
  return {WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status), text(load(".out")),
          text(load(".err"))};
}

std::string ToolTest::succeed(const std::string& script) const {
  const Result result = run(script);
  EXPECT_EQ(result.status, 0) << result.err;
  return result.err;
}

void ToolTest::save(const std::string& name, const Bytes& data) const {
  std::ofstream file(directory_ + "/" + name, std::ios::binary);
  file.write(reinterpret_cast<const char*>(data.data()), static_cast<std::streamsize>(data.size()));
}

Bytes ToolTest::load(const std::string& name) const {
  std::ifstream file(directory_ + "/" + name, std::ios::binary);
  return Bytes(std::istreambuf_iterator<char>(file), {});
}

std::vector<std::string> ToolTest::files() const {
  std::vector<std::string> names;
  for (const auto& entry : std::filesystem::directory_iterator(directory_)) {
    const std::string name = entry.path().filename();
    if (name != ".script" && name != ".tool" && name != ".out" && name != ".err")
      names.push_back(name);
  }
  std::sort(names.begin(), names.end());
  return names;
}

Bytes toI420(const Yuv& picture) {
  Bytes data = picture.y;
  data.insert(data.end(), picture.u.begin(), picture.u.end());
  data.insert(data.end(), picture.v.begin(), picture.v.end());
  return data;
}

std::vector<Yuv> fromI420(const Bytes& data, int width, int height) {
  std::vector<Yuv> pictures;
  const std::size_t bytes = pictureBytes(width, height);
  EXPECT_EQ(data.size() % bytes, 0u);
  for (std::size_t at = 0; at + bytes <= data.size(); at += bytes)
    pictures.push_back(pictureAt(&data[at], width, height));
  return pictures;
}

Bytes toY4m(const std::vector<Yuv>& pictures, const std::string& header) {
  const std::string first = "YUV4MPEG2 W" + std::to_string(pictures.at(0).width) + " H" +
                            std::to_string(pictures.at(0).height) + header + "\n";
  Bytes data(first.begin(), first.end());
  for (const Yuv& picture : pictures) {
    for (const char c : std::string("FRAME\n")) data.push_back(static_cast<std::uint8_t>(c));
    const Bytes planes = toI420(picture);
    data.insert(data.end(), planes.begin(), planes.end());
  }
  return data;
}

Y4m fromY4m(const Bytes& data) {
  Y4m result;
  auto at = std::find(data.begin(), data.end(), '\n');
  result.header.assign(data.begin(), at);
  int width = 0, height = 0;
  if (at == data.end() ||
      std::sscanf(result.header.c_str(), "YUV4MPEG2 W%d H%d ", &width, &height) != 2) {
    ADD_FAILURE() << "no Y4M header: " << result.header.substr(0, 80);
    return result;
  }
  const auto bytes = static_cast<std::ptrdiff_t>(pictureBytes(width, height));
  for (++at; data.end() - at >= 6 + bytes; at += 6 + bytes) {
    EXPECT_EQ(std::memcmp(&*at, "FRAME\n", 6), 0);
    result.pictures.push_back(pictureAt(&*at + 6, width, height));
  }
  EXPECT_EQ(at, data.end()) << "bytes beyond the last frame";
  return result;
}
