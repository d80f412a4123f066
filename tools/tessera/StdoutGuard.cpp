#include "StdoutGuard.h"

#include <fcntl.h>
#include <unistd.h>

#include <cstdint>
#include <cstdlib>
#include <string>

#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
#include <sanitizer/common_interface_defs.h>
#endif

namespace tool {
namespace {

constexpr std::size_t mostKept = 16 * 1024;

int realStdout = STDOUT_FILENO;
std::FILE* realStderr = stderr;
int lines = -1;  // where the library's lines come out
std::string& kept() {
  static std::string* const text = new std::string;  // outlives every handler of exit()
  return *text;
}

bool isOpen(int fd) {
  return fcntl(fd, F_GETFD) >= 0;
}

int copyOf(int fd) {
  return fcntl(fd, F_DUPFD_CLOEXEC, STDERR_FILENO + 1);
}

}  // namespace

void StdoutGuard::install() {
  const bool hasStdout = isOpen(STDOUT_FILENO);
  for (int fd = STDIN_FILENO; fd <= STDERR_FILENO; ++fd)
    if (!isOpen(fd)) (void)!open("/dev/null", fd == STDIN_FILENO ? O_RDONLY : O_WRONLY);

  const int out = copyOf(STDOUT_FILENO), err = copyOf(STDERR_FILENO);
  std::FILE* const messages = err >= 0 ? fdopen(err, "w") : nullptr;
  if (out < 0 || messages == nullptr) return;
  realStdout = hasStdout ? out : -1;
  realStderr = messages;
  setvbuf(realStderr, nullptr, _IONBF, 0);
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
  __sanitizer_set_report_fd(reinterpret_cast<void*>(std::intptr_t{err}));
#endif
  // The library's lines keep their order.
  std::fflush(stdout);
  setvbuf(stdout, nullptr, _IOLBF, 0);
  setVerbose(false);
  // The library itself ends the process on some failures.
  std::atexit([] {
    if (lines >= 0) showKept();
  });
}

void StdoutGuard::setVerbose(bool verbose) {
  if (realStderr == stderr) return;
  if (lines >= 0) close(lines);
  lines = -1;
  int ends[2];
  // Where nobody takes the lines in, they are lost; they must not stop the library.
  if (verbose || pipe2(ends, O_CLOEXEC | O_NONBLOCK) != 0) {
    dup2(fileno(realStderr), STDOUT_FILENO);
    dup2(fileno(realStderr), STDERR_FILENO);
    return;
  }
  lines = ends[0];
  dup2(ends[1], STDOUT_FILENO);
  dup2(ends[1], STDERR_FILENO);
  close(ends[1]);
}

int StdoutGuard::descriptor() {
  return realStdout;
}

std::FILE* StdoutGuard::messages() {
  return realStderr;
}

void StdoutGuard::collect() {
  if (lines < 0) return;
  char text[4096];
  for (ssize_t got; (got = read(lines, text, sizeof text)) > 0;)
    kept().append(text, static_cast<std::size_t>(got));
  if (kept().size() <= mostKept) return;
  const std::size_t line = kept().find('\n', kept().size() - mostKept);
  kept().erase(0, line == std::string::npos ? kept().size() - mostKept : line + 1);
}

void StdoutGuard::showKept() {
  collect();
  std::fputs(kept().c_str(), realStderr);
  kept().clear();
}

void StdoutGuard::dropKept() {
  collect();
  kept().clear();
}

}  // namespace tool
