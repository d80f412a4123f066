#include "StdoutGuard.h"

#include <fcntl.h>
#include <unistd.h>

#include <cstdio>

namespace tool {
namespace {

int realStdout = STDOUT_FILENO;

}  // namespace

void StdoutGuard::install() {
  for (int fd = STDIN_FILENO; fd <= STDERR_FILENO; ++fd)
    if (fcntl(fd, F_GETFD) < 0) (void)!open("/dev/null", fd == STDIN_FILENO ? O_RDONLY : O_WRONLY);

  const int copy = fcntl(STDOUT_FILENO, F_DUPFD_CLOEXEC, STDERR_FILENO + 1);
  if (copy < 0) return;
  std::fflush(stdout);
  dup2(STDERR_FILENO, STDOUT_FILENO);
  // The library's lines keep their place among those of standard error.
  setvbuf(stdout, nullptr, _IOLBF, 0);
  realStdout = copy;
}

int StdoutGuard::descriptor() {
  return realStdout;
}

}  // namespace tool
