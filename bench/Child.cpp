#include "Child.h"

#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <fstream>

#include "Streams.h"

namespace bench {
namespace {

Lines readLines(std::FILE* from) {
  Lines lines;
  std::string line;
  for (int c; (c = std::fgetc(from)) != EOF;) {
    if (c != '\n') {
      line += static_cast<char>(c);
      continue;
    }
    lines.push_back(line);
    line.clear();
  }
  std::fclose(from);
  return lines;
}

/// @param child  writes to the descriptor and returns the process's exit status
Lines linesFrom(const std::function<int(int)>& child) {
  int ends[2];
  require(pipe(ends) == 0, "no pipe for a process");
  const pid_t process = fork();
  require(process >= 0, "no process to measure in");
  if (process == 0) {
    close(ends[0]);
    _exit(child(ends[1]));
  }
  close(ends[1]);
  Lines lines = readLines(fdopen(ends[0], "r"));
  int status = 0;
  require(waitpid(process, &status, 0) == process && status == 0,
          "the process to measure in failed");
  return lines;
}

}  // namespace

Lines inChild(const std::function<Lines()>& measure) {
  return linesFrom([&](int output) {
    std::FILE* to = fdopen(output, "w");
    try {
      for (const std::string& line : measure()) std::fprintf(to, "%s\n", line.c_str());
    } catch (const std::exception& failure) {
      complain(failure.what());
      return 1;
    }
    return std::fclose(to) == 0 ? 0 : 1;
  });
}

Lines inProgram(const std::string& argument, const char* preloaded) {
  return linesFrom([&](int output) {
    dup2(output, STDOUT_FILENO);
    dup2(fileno(complaints()), STDERR_FILENO);
    setenv("LD_PRELOAD", preloaded, 1);
    execl("/proc/self/exe", "tessera_bench", argument.c_str(), nullptr);
    complain("cannot start itself");
    return 1;
  });
}

// Exact, unlike statm, which may lag behind by some pages of each thread.
double residentMegabytes() {
  std::ifstream file("/proc/self/smaps_rollup");
  for (std::string word; file >> word;) {
    double kilobytes = 0;
    if (word == "Rss:" && file >> kilobytes) return kilobytes * 1024 / 1e6;
  }
  throw std::runtime_error("/proc/self/smaps_rollup does not tell the memory");
}

}  // namespace bench
