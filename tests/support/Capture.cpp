#include "support/Capture.h"

#include <gtest/gtest.h>
#include <sys/mman.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <iostream>

namespace support {
namespace {

void flushAll() {
  std::fflush(stdout);
  std::fflush(stderr);
  std::cout.flush();
  std::cerr.flush();
}

}  // namespace

int entries(const char* folder) {
  return static_cast<int>(std::distance(std::filesystem::directory_iterator(folder), {}));
}

std::string contents(int file) {
  std::string text;
  char block[4096];
  off_t at = 0;
  for (ssize_t n; (n = pread(file, block, sizeof block, at)) > 0; at += n)
    text.append(block, static_cast<std::size_t>(n));
  return text;
}

std::string printedText() {
  flushAll();
  return contents(STDOUT_FILENO) + contents(STDERR_FILENO);
}

Capture::Stream Capture::redirect(int target) {
  const Stream stream{target, dup(target), memfd_create("capture", MFD_CLOEXEC)};
  if (stream.saved < 0 || stream.file < 0 || dup2(stream.file, target) < 0) std::abort();
  return stream;
}

void Capture::restore(const Stream& stream) {
  dup2(stream.saved, stream.target);
  close(stream.saved);
  close(stream.file);
}

Capture::Capture() {
  flushAll();
  out_ = redirect(STDOUT_FILENO);
  err_ = redirect(STDERR_FILENO);
}

Capture::~Capture() {
  // What a failing test has said of its failure is in here too.
  const std::string text = testing::Test::HasFailure() ? out() + err() : std::string();
  flushAll();
  restore(err_);
  restore(out_);
  std::fputs(text.c_str(), stdout);
}

std::string Capture::out() {
  flushAll();
  return contents(out_.file);
}
std::string Capture::err() {
  flushAll();
  return contents(err_.file);
}

}  // namespace support
