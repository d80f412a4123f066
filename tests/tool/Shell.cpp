#include "Shell.h"

#include <sys/wait.h>

#include <algorithm>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>

using support::Bytes;
using support::Yuv;

namespace {

std::string text(const Bytes& bytes) {
  return {bytes.begin(), bytes.end()};
}

/// Takes a picture's planes, one after another, off the bytes from `at` on.
Yuv takePicture(Bytes::const_iterator& at, int width, int height) {
  Yuv picture{width, height, {}, {}, {}};
  const int chroma = picture.chromaWidth() * picture.chromaHeight();
  for (const auto& [plane, size] : {std::pair(&picture.y, width * height),
                                    std::pair(&picture.u, chroma), std::pair(&picture.v, chroma)}) {
    plane->assign(at, at + size);
    at += size;
  }
  return picture;
}

int pictureBytes(int width, int height) {
  return width * height + (width + 1) / 2 * ((height + 1) / 2) * 2;
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

Bytes operator+(Bytes a, const Bytes& b) {
  a.insert(a.end(), b.begin(), b.end());
  return a;
}

Bytes toI420(const Yuv& picture) {
  return picture.y + picture.u + picture.v;
}

Bytes toY4m(const std::vector<Yuv>& pictures, const std::string& header) {
  const std::string first = "YUV4MPEG2 W" + std::to_string(pictures.at(0).width) + " H" +
                            std::to_string(pictures.at(0).height) + header + "\n";
  Bytes data(first.begin(), first.end());
  for (const Yuv& picture : pictures)
    data = std::move(data) + Bytes{'F', 'R', 'A', 'M', 'E', '\n'} + toI420(picture);
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
  for (++at; data.end() - at >= 6 + pictureBytes(width, height);) {
    EXPECT_EQ(std::string(at, at + 6), "FRAME\n");
    result.pictures.push_back(takePicture(at += 6, width, height));
  }
  EXPECT_EQ(at, data.end()) << "bytes beyond the last frame";
  return result;
}
