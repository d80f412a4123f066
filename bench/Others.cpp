#include "Others.h"

#include <sched.h>
#include <sys/resource.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <fstream>
#include <sstream>
#include <string>

#include "Work.h"

namespace bench {
namespace {

double secondsOf(const rusage& usage) {
  const auto seconds = [](const timeval& time) {
    return static_cast<double>(time.tv_sec) + static_cast<double>(time.tv_usec) * 1e-6;
  };
  return seconds(usage.ru_utime) + seconds(usage.ru_stime);
}

double ownSeconds() {
  rusage self{}, children{};
  getrusage(RUSAGE_SELF, &self);
  getrusage(RUSAGE_CHILDREN, &children);
  return secondsOf(self) + secondsOf(children);
}

}  // namespace

Others::Seconds Others::now() {
  cpu_set_t set;
  require(sched_getaffinity(0, sizeof set, &set) == 0, "cannot tell the processors");
  const std::chrono::duration<double> time = std::chrono::steady_clock::now().time_since_epoch();
  Seconds seconds{time.count() * CPU_COUNT(&set), 0, 0, ownSeconds()};
  const auto tick = static_cast<double>(sysconf(_SC_CLK_TCK));
  std::ifstream file("/proc/stat");
  bool found = false;
  for (std::string line; std::getline(file, line);) {
    std::istringstream fields(line);
    std::string name;
    fields >> name;
    if (name.rfind("cpu", 0) != 0 || name.size() < 4) continue;
    if (!CPU_ISSET(std::stoul(name.substr(3)), &set)) continue;
    double user = 0, nice = 0, system = 0, idle = 0, wait = 0, hard = 0, soft = 0, stolen = 0;
    fields >> user >> nice >> system >> idle >> wait >> hard >> soft >> stolen;
    seconds.used += (user + nice + system + hard + soft + stolen) / tick;
    seconds.idle += (idle + wait) / tick;
    found = true;
  }
  require(found, "/proc/stat does not tell what the processors do");
  return seconds;
}

double Others::share() const {
  const Seconds end = now();
  const double all = end.all - begun_.all;
  const double used = std::min(end.used - begun_.used, all - (end.idle - begun_.idle));
  return std::clamp((used - (end.own - begun_.own)) / all, 0.0, 1.0);
}

}  // namespace bench
