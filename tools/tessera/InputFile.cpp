#include "InputFile.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/eventfd.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>

#include "Failure.h"
#include "Interrupt.h"

namespace tool {
namespace {

int openInput(const std::string& name) {
  if (name == "-") {
    if (isatty(STDIN_FILENO))
      throw UsageFailure(
          "INPUT is '-', but standard input is a terminal; pipe data in or name a file");
    return STDIN_FILENO;
  }
  const int fd = open(name.c_str(), O_RDONLY | O_CLOEXEC);
  if (fd < 0) throw Failure("cannot read " + name + ": " + std::strerror(errno));
  return fd;
}

void closeInput(int fd) {
  if (fd != STDIN_FILENO) close(fd);
}

}  // namespace

InputFile::InputFile(const std::string& name)
    : name_(name == "-" ? "standard input" : name), fd_(openInput(name)) {
  struct stat info = {};
  std::string fault;
  if (fstat(fd_, &info) != 0) fault = std::string("cannot be read: ") + std::strerror(errno);
  if (S_ISDIR(info.st_mode)) fault = "is a directory; a file or '-' is needed";
  if (S_ISREG(info.st_mode)) {
    // Standard input may be a file of which somebody has read a part.
    position_ = static_cast<std::uint64_t>(std::max<off_t>(0, lseek(fd_, 0, SEEK_CUR)));
    length_ = static_cast<std::uint64_t>(info.st_size);
    if (*length_ <= position_) fault = "is empty";
  }
  if (!fault.empty()) {
    closeInput(fd_);
    throw Failure(name_ + " " + fault);
  }
  cancelled_ = eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);
}

InputFile::~InputFile() {
  closeInput(fd_);
  if (cancelled_ >= 0) close(cancelled_);
}

void InputFile::cancel() {
  const std::uint64_t one = 1;
  (void)!::write(cancelled_, &one, sizeof one);
}

/// @return false once cancelled or interrupted
bool InputFile::mayRead() {
  struct pollfd all[] = {
      {fd_, POLLIN, 0}, {cancelled_, POLLIN, 0}, {Interrupt::descriptor(), POLLIN, 0}};
  while (poll(all, 3, -1) < 0 && errno == EINTR) {
  }
  return !((all[1].revents | all[2].revents) & POLLIN);
}

bool InputFile::waitForData(std::chrono::milliseconds limit) {
  if (!peeked_.empty()) return true;
  struct pollfd input = {fd_, POLLIN, 0};
  return poll(&input, 1, static_cast<int>(limit.count())) != 0;
}

std::size_t InputFile::readSome(void* data, std::size_t size) {
  if (!peeked_.empty()) {
    const std::size_t taken = std::min(size, peeked_.size());
    std::memcpy(data, peeked_.data(), taken);
    peeked_.erase(peeked_.begin(), peeked_.begin() + static_cast<std::ptrdiff_t>(taken));
    position_ += taken;
    return taken;
  }
  ssize_t got = 0;
  if (!mayRead()) return 0;
  do {
    got = ::read(fd_, data, size);
  } while (got < 0 && errno == EINTR);
  if (got < 0) throw Failure("cannot read " + name_ + ": " + std::strerror(errno));
  position_ += static_cast<std::size_t>(got);
  return static_cast<std::size_t>(got);
}

std::size_t InputFile::read(void* data, std::size_t size) {
  std::size_t done = 0;
  while (done < size) {
    const std::size_t got = readSome(static_cast<std::uint8_t*>(data) + done, size - done);
    if (got == 0) break;
    done += got;
  }
  return done;
}

const std::vector<std::uint8_t>& InputFile::peek(std::size_t size) {
  if (peeked_.size() < size) {
    std::vector<std::uint8_t> ahead(size);
    const std::uint64_t before = position_;
    ahead.resize(read(ahead.data(), size));
    position_ = before;
    peeked_.swap(ahead);
  }
  return peeked_;
}

bool InputFile::seek(std::uint64_t position) {
  if (lseek(fd_, static_cast<off_t>(position), SEEK_SET) < 0) return false;
  peeked_.clear();
  position_ = position;
  return true;
}

std::optional<double> InputFile::fraction() const {
  if (!length_ || *length_ == 0) return std::nullopt;
  return std::min(1.0, static_cast<double>(position_) / static_cast<double>(*length_));
}

bool InputFile::isSameAs(const std::string& path) const {
  struct stat mine = {}, other = {};
  return fstat(fd_, &mine) == 0 && stat(path.c_str(), &other) == 0 && S_ISREG(mine.st_mode) &&
         mine.st_dev == other.st_dev && mine.st_ino == other.st_ino;
}

}  // namespace tool
