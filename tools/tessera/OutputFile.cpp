#include "OutputFile.h"

#include <fcntl.h>
#include <signal.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <climits>
#include <cstdlib>
#include <cstring>
#include <vector>

#include "Failure.h"
#include "StdoutGuard.h"

namespace tool {
namespace {

// One output a process: its temporary name, where a signal handler can read it.
char pending[PATH_MAX] = "";

void removePending() {
  if (pending[0]) unlink(pending);
  pending[0] = '\0';
}

void onSignal(int signal) {
  removePending();
  // SA_RESETHAND put the default action back: the caller sees which signal it was.
  raise(signal);
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

void OutputFile::removeOnSignals() {
  std::atexit(removePending);
  struct sigaction action = {};
  action.sa_handler = onSignal;
  action.sa_flags = static_cast<int>(SA_RESETHAND);
  for (const int signal : {SIGINT, SIGTERM, SIGHUP, SIGQUIT}) {
    struct sigaction old = {};
    // A signal that the caller ignores (nohup) stays ignored.
    if (sigaction(signal, nullptr, &old) == 0 && old.sa_handler != SIG_IGN)
      sigaction(signal, &action, nullptr);
  }
  signal(SIGPIPE, SIG_IGN);
}

OutputFile::OutputFile(const std::string& name, Content content) : name_(name) {
  if (isStdout(name)) {
    name_ = "standard output";
    fd_ = StdoutGuard::descriptor();
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
  openTemporary(followLinks(name));
}

void OutputFile::openTemporary(const std::string& path) {
  const std::size_t slash = path.rfind('/');
  const std::string directory = slash == std::string::npos ? "" : path.substr(0, slash + 1);
  const std::string base = slash == std::string::npos ? path : path.substr(slash + 1);
  std::string pattern = directory + "." + base.substr(0, 200) + ".XXXXXX";
  if (pattern.size() >= sizeof pending) fail("create", ENAMETOOLONG);

  fd_ = mkostemp(pattern.data(), O_CLOEXEC);
  if (fd_ < 0) fail("create", errno);
  std::memcpy(pending, pattern.c_str(), pattern.size() + 1);
  owned_ = true;
  target_ = path;
  temporary_ = pattern;
  fchmod(fd_, modeFor(path));
}

OutputFile::~OutputFile() {
  if (owned_ && fd_ >= 0) close(fd_);
  if (!temporary_.empty()) removePending();
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
  if (temporary_.empty()) return;
  if (rename(temporary_.c_str(), target_.c_str()) != 0) fail("create", errno);
  pending[0] = '\0';
  temporary_.clear();
}

void OutputFile::fail(const std::string& what, int error) {
  throw Failure("cannot " + what + " " + name_ + ": " + std::strerror(error));
}

}  // namespace tool
