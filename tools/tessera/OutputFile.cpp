#include "OutputFile.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstdlib>
#include <cstring>
#include <vector>

#include "Failure.h"
#include "StdoutGuard.h"

namespace tool {
namespace {

constexpr std::size_t longestStem = 200;

// One output a process: the name of its part file.
char pending[PATH_MAX] = "";

void removePending() {
  if (pending[0]) unlink(pending);
  pending[0] = '\0';
}

bool isStdout(const std::string& name) {
  return name == "-" || name == "/dev/stdout" || name == "/dev/fd/1" || name == "/proc/self/fd/1";
}

std::string followLinks(const std::string& path) {
  char* real = realpath(path.c_str(), nullptr);
  if (!real) return path;
  std::string result = real;
  std::free(real);
  return result;
}

/// What open() would have given a new file, or what the file to be replaced has.
mode_t modeFor(const std::string& target) {
  struct stat info = {};
  if (stat(target.c_str(), &info) == 0) return info.st_mode & 0777;
  const mode_t mask = umask(0);
  umask(mask);
  return 0666 & ~mask;
}

}  // namespace

void OutputFile::removeOnExit() {
  std::atexit(removePending);
}

OutputFile::OutputFile(const std::string& name, Content content) : name_(name) {
  if (isStdout(name)) {
    name_ = "standard output";
    fd_ = StdoutGuard::descriptor();
    if (fd_ < 0) throw Failure("cannot write standard output: it is closed");
    if (content == Content::Data && isatty(fd_))
      throw UsageFailure(
          "OUTPUT is '-', but standard output is a terminal; redirect it or name a file with -o");
    return;
  }
  struct stat info = {};
  if (stat(name.c_str(), &info) == 0 && S_ISDIR(info.st_mode))
    throw Failure(name + " is a directory; OUTPUT must be a file or '-'");
  if (stat(name.c_str(), &info) == 0 && !S_ISREG(info.st_mode)) {
    fd_ = open(name.c_str(), O_WRONLY | O_CLOEXEC);
    if (fd_ < 0) fail("write", errno);
    owned_ = true;
    return;
  }
  if (access(name.c_str(), F_OK) == 0 && access(name.c_str(), W_OK) != 0) fail("write", errno);
  openPart(followLinks(name));
}

void OutputFile::openPart(const std::string& path) {
  const std::size_t slash = path.rfind('/');
  const std::string directory = slash == std::string::npos ? "" : path.substr(0, slash + 1);
  const std::string base = slash == std::string::npos ? path : path.substr(slash + 1);
  // The ending stays the last: what a killed process leaves can be played.
  const std::size_t dot = base.rfind('.');
  const std::string ending = dot == std::string::npos || dot == 0 ? "" : base.substr(dot);
  std::string pattern = directory +
                        base.substr(0, std::min(base.size() - ending.size(), longestStem)) +
                        ".part-XXXXXX" + ending;
  if (pattern.size() >= sizeof pending) fail("create", ENAMETOOLONG);

  fd_ = mkostemps(pattern.data(), static_cast<int>(ending.size()), O_CLOEXEC);
  if (fd_ < 0) {
    const int error = errno;
    if (access(path.c_str(), W_OK) != 0) fail("create", error);
    throw Failure("cannot write " + name_ +
                  ": its folder takes no new file, and until it is complete "
                  "it is one (" +
                  std::strerror(error) + "); write to another folder, or through -o -");
  }
  std::memcpy(pending, pattern.c_str(), pattern.size() + 1);
  owned_ = true;
  target_ = path;
  part_ = pattern;
  fchmod(fd_, modeFor(path));
}

OutputFile::~OutputFile() {
  if (owned_ && fd_ >= 0) close(fd_);
  if (!part_.empty()) removePending();
}

void OutputFile::write(const void* data, std::size_t size) {
  const auto* at = static_cast<const std::uint8_t*>(data);
  while (size > 0) {
    const ssize_t done = ::write(fd_, at, size);
    if (done < 0 && errno == EINTR) continue;
    if (done < 0 && errno == EPIPE) throw BrokenPipe();
    if (done < 0) fail("write", errno);
    at += done;
    size -= static_cast<std::size_t>(done);
    bytes_ += static_cast<std::uint64_t>(done);
  }
}

std::int64_t OutputFile::seek(std::int64_t offset, int whence) {
  return isSeekable() ? lseek(fd_, static_cast<off_t>(offset), whence) : -1;
}

void OutputFile::commit() {
  if (!owned_) return;
  // What was written twice counts once.
  if (isSeekable()) bytes_ = static_cast<std::uint64_t>(lseek(fd_, 0, SEEK_END));
  const int result = close(fd_);
  fd_ = -1;
  // Some file systems tell of a full disk only here.
  if (result != 0 && errno != EINTR) fail("write", errno);
  if (part_.empty()) return;
  if (rename(part_.c_str(), target_.c_str()) != 0) fail("create", errno);
  pending[0] = '\0';
  part_.clear();
}

void OutputFile::fail(const std::string& what, int error) {
  throw Failure("cannot " + what + " " + name_ + ": " + std::strerror(error));
}

}  // namespace tool
