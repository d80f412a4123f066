#include "Report.h"

#include <chrono>
#include <thread>

#include "Others.h"
#include "Rounds.h"
#include "Streams.h"

namespace bench {
namespace {

/// A quiet machine's own chores stay below a hundredth; one busy program is half of two cores.
constexpr double allowedShare = 0.05;
constexpr double patienceAtStart = 5;  // seconds that others may go on before rows are given up
constexpr double patienceInAll = 60;

const char* const classes[] = {"jpeg-encode yuyv", "jpeg-encode-omx yuyv", "jpeg-decode",
                               "h264-encode i420", "h264-encode-omx i420", "h264-decode-latency"};

void giveUp(double share) {
  throw std::runtime_error(formatted(
      "the machine is busy: others took %.0f %% of its processor time, more than the %.0f %% that "
      "figures bear; end them and start again, or add --even-if-busy",
      100 * share, 100 * allowedShare));
}

}  // namespace

Report::Report(const Settings& settings, const std::string& columns)
    : settings_(settings), text_(columns + "\tothers\n"), patience_(patienceInAll) {
  if (settings_.judged()) awaitQuiet(patienceAtStart);
}

/// Returns after the first second in which nobody else used the processors.
void Report::awaitQuiet(double seconds) {
  while (true) {
    const Others others;
    std::this_thread::sleep_for(std::chrono::seconds(1));
    const double share = others.share();
    if (share <= allowedShare) return;
    seconds -= 1;
    patience_ -= 1;
    if (seconds <= 0 || patience_ <= 0) giveUp(share);
  }
}

void Report::add(const Entry& entry, const std::function<Lines()>& measure) {
  if (entry.work.find(settings_.filter) == std::string::npos) return;
  while (true) {
    const Others others;
    Lines lines;
    double microseconds = 0;
    try {
      microseconds = timed([&] { lines = measure(); });
    } catch (const std::exception& failure) {
      complain(entry.work + " " + entry.size() + ": " + failure.what());
      complete_ = false;
      return;
    }
    const double share = others.share();
    if (!settings_.judged() || share <= allowedShare) {
      for (const std::string& line : lines) text_ += line + formatted("\t%.1f\n", 100 * share);
      return;
    }
    patience_ -= microseconds * 1e-6;
    if (patience_ <= 0) giveUp(share);
    awaitQuiet(patience_);
  }
}

void Report::addClasses(const std::vector<Entry>& entries, const std::vector<std::string>& sizes,
                        const std::function<Lines(const Entry&)>& measure) {
  for (const char* work : classes) {
    for (const std::string& size : sizes) {
      for (const Entry& entry : entries) {
        if (entry.work == work && entry.size() == size) {
          add(entry, [&] { return measure(entry); });
        }
      }
    }
  }
}

bool Report::print(std::FILE* to) const {
  return std::fputs(text_.c_str(), to) >= 0 && std::fflush(to) == 0 && complete_;
}

}  // namespace bench
