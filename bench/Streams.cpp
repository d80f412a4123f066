#include "Streams.h"

#include <fcntl.h>
#include <unistd.h>

#include "Work.h"

namespace bench {
namespace {

std::FILE* ownErrors = stderr;

}  // namespace

std::FILE* takeStream(std::FILE* standard) {
  std::fflush(standard);
  const int number = fileno(standard);
  const int real = fcntl(number, F_DUPFD_CLOEXEC, STDERR_FILENO + 1);
  const int nowhere = open("/dev/null", O_WRONLY | O_CLOEXEC);
  require(real >= 0 && nowhere >= 0 && dup2(nowhere, number) >= 0,
          "cannot set a standard stream aside");
  close(nowhere);
  return fdopen(real, "w");
}

void complainTo(std::FILE* errors) {
  ownErrors = errors;
}

std::FILE* complaints() {
  return ownErrors;
}

void complain(const std::string& what) {
  std::fprintf(ownErrors, "tessera_bench: %s\n", what.c_str());
  std::fflush(ownErrors);
}

}  // namespace bench
