#include "Progress.h"

#include <sys/ioctl.h>
#include <unistd.h>

#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <nlohmann/json.hpp>

#include "StdoutGuard.h"

namespace tool {
namespace {

constexpr std::chrono::milliseconds between{100};

std::size_t terminalColumns() {
  struct winsize window = {};
  if (ioctl(fileno(StdoutGuard::messages()), TIOCGWINSZ, &window) == 0 && window.ws_col > 0)
    return window.ws_col;
  return 80;
}

bool isTerminal() {
  const char* kind = std::getenv("TERM");
  return isatty(fileno(StdoutGuard::messages())) && !(kind && std::strcmp(kind, "dumb") == 0);
}

std::string decimal(double value, int digits) {
  char text[40];
  std::snprintf(text, sizeof text, "%.*f", digits, value);
  return text;
}

std::string bytesText(std::uint64_t bytes) {
  if (bytes < 1000) return std::to_string(bytes) + " bytes";
  const double kilo = static_cast<double>(bytes) / 1000;
  if (kilo < 1000) return decimal(kilo, 1) + " kB";
  return kilo < 1e6 ? decimal(kilo / 1000, 1) + " MB" : decimal(kilo / 1e6, 2) + " GB";
}

std::string clockText(double seconds) {
  const long whole = std::lround(seconds);
  char text[40];
  if (whole >= 3600)
    std::snprintf(text, sizeof text, "%ld:%02ld:%02ld", whole / 3600, whole / 60 % 60, whole % 60);
  else
    std::snprintf(text, sizeof text, "%ld:%02ld", whole / 60, whole % 60);
  return text;
}

std::string framesText(std::uint64_t frames) {
  return std::to_string(frames) + (frames == 1 ? " frame" : " frames");
}

std::string notesText(const Progress::Totals& totals) {
  std::string text;
  for (const auto& [what, frames] : totals.notes)
    text += (text.empty() ? "" : ", ") + std::to_string(frames) + " " + what;
  return text;
}

}  // namespace

Progress::Progress(const Arguments& arguments)
    : arguments_(arguments), live_(!arguments.quiet && isTerminal()) {}

Progress::~Progress() {
  clear();
}

double Progress::seconds() const {
  return std::chrono::duration<double>(Clock::now() - start_).count();
}

void Progress::frame(std::optional<double> fraction) {
  ++frames_;
  StdoutGuard::collect();
  if (!live_ || Clock::now() < nextShow_) return;
  nextShow_ = Clock::now() + between;
  show(fraction);
}

void Progress::show(std::optional<double> fraction) {
  const double elapsed = seconds();
  std::string line = framesText(frames_);
  const std::string parts[] = {
      elapsed > 0 ? ", " + decimal(static_cast<double>(frames_) / elapsed, 1) + "/s" : "",
      fraction ? ", " + decimal(*fraction * 100, 0) + " %" : "",
      fraction && *fraction > 0.01 && elapsed > 0.5
          ? ", " + clockText(elapsed / *fraction - elapsed) + " left"
          : ""};
  // A line that wraps cannot be renewed: on narrow terminals the later parts go first.
  const std::size_t room = terminalColumns() - 1;
  for (const std::string& part : parts) {
    if (line.size() + part.size() > room) break;
    line += part;
  }
  std::fprintf(StdoutGuard::messages(), "\r%s\033[K", line.substr(0, room).c_str());
  std::fflush(StdoutGuard::messages());
  shown_ = true;
}

void Progress::clear() {
  if (shown_) std::fputs("\r\033[K", StdoutGuard::messages());
  shown_ = false;
}

void Progress::warn(const std::string& text) {
  clear();
  std::fprintf(StdoutGuard::messages(), "tessera: %s\n", text.c_str());
}

void Progress::finish(const Totals& totals) {
  clear();
  const double elapsed = seconds();
  const double speed = elapsed > 0 ? static_cast<double>(frames_) / elapsed : 0;
  if (arguments_.json) {
    const nlohmann::ordered_json summary = {{"command", nameOf(arguments_.command)},
                                            {"input", arguments_.input},
                                            {"output", arguments_.output},
                                            {"frames", frames_},
                                            {"left_out", totals.leftOut},
                                            {"notes", totals.notes},
                                            {"width", totals.size.width},
                                            {"height", totals.size.height},
                                            {"bytes_in", totals.bytesIn},
                                            {"bytes_out", totals.bytesOut},
                                            {"seconds", elapsed},
                                            {"frames_per_second", speed}};
    // A file name need not be UTF-8.
    std::fprintf(StdoutGuard::messages(), "%s\n",
                 summary.dump(-1, ' ', false, nlohmann::json::error_handler_t::replace).c_str());
  } else if (arguments_.quiet) {
    if (!totals.notes.empty()) warn(arguments_.input + ": " + notesText(totals));
  } else {
    std::string left = notesText(totals);
    if (totals.leftOut > 0)
      left = std::to_string(totals.leftOut) + " left out" + (left.empty() ? "" : ", ") + left;
    if (!left.empty()) left = " (" + left + ")";
    std::fprintf(StdoutGuard::messages(), "%s%s of %s, %s in, %s out, %s s, %s frames/s\n",
                 framesText(frames_).c_str(), left.c_str(), totals.size.text().c_str(),
                 bytesText(totals.bytesIn).c_str(), bytesText(totals.bytesOut).c_str(),
                 decimal(elapsed, 2).c_str(), decimal(speed, 1).c_str());
  }
}

}  // namespace tool
