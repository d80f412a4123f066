#include "Streams.h"

#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdio>

namespace sweep {
namespace {

std::string contents(int file) {
  std::string text;
  char block[4096];
  off_t at = 0;
  for (ssize_t n; (n = pread(file, block, sizeof block, at)) > 0; at += n)
    text.append(block, static_cast<std::size_t>(n));
  return text;
}

std::size_t sizeOf(int file) {
  struct stat info {};
  return fstat(file, &info) == 0 ? static_cast<std::size_t>(info.st_size) : 0;
}

}  // namespace

Streams::Streams() : out_(memfd_create("out", 0)), err_(memfd_create("err", 0)) {}

Streams::~Streams() {
  close(out_);
  close(err_);
}

void Streams::take() const {
  std::fflush(stdout);
  std::fflush(stderr);
  dup2(out_, STDOUT_FILENO);
  dup2(err_, STDERR_FILENO);
}

std::string Streams::out() const {
  return contents(out_);
}
std::string Streams::err() const {
  return contents(err_);
}

std::string printedText() {
  std::fflush(stdout);
  std::fflush(stderr);
  return contents(STDOUT_FILENO) + contents(STDERR_FILENO);
}

std::size_t printed() {
  std::fflush(stdout);
  std::fflush(stderr);
  return sizeOf(STDOUT_FILENO) + sizeOf(STDERR_FILENO);
}

}  // namespace sweep
