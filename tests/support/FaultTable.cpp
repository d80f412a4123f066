#include "support/FaultTable.h"

#include <tessera/CodecStatus.h>

#include <fstream>
#include <iomanip>

#include "support/FaultTest.h"
#include "support/Limits.h"

namespace support {
namespace {

using control::CompletionFault;

struct Row {
  std::string fault;  ///< in words
  std::string when;   ///< the object is "fresh", or has worked and goes on in the "same" size or an
                      ///< "other" one
  AnyFault injected;
  bool works = false;           ///< the call succeeds all the same
  std::string then = "always";  ///< the later ones succeed, or "never", or "later"
  std::string out = {}, err = {};
};

AnyFault faultOf(const std::string& kind, const std::string& name, unsigned nth, std::istream& in) {
  if (kind == "refuse" || kind == "refuse-on") return refuse(name, nth, kind == "refuse-on");
  if (kind == "lose" || kind == "lose-on") return lose(name, nth, kind == "lose-on");
  if (kind == "null") return nullResult(name, nth);
  if (kind == "double") return mangle(name, CompletionFault::Double, nth);
  if (kind == "empty") return mangle(name, CompletionFault::ZeroLength, nth);
  EXPECT_EQ(kind, "delay");
  unsigned delayMs = 0;
  in >> delayMs;
  return delay(name, nth, delayMs);
}

std::vector<Row> rowsOf(const std::string& file) {
  std::ifstream in(TESSERA_FAULTS "/" + file);
  std::vector<Row> rows;
  std::string when, name, line;
  for (std::string word; in >> word;) {
    if (word == "#") {
      std::getline(in, line);
    } else if (word == "fresh" || word == "same" || word == "other") {
      when = word;
    } else if (word == "works") {
      rows.back().works = true;
    } else if (word == "never" || word == "later") {
      rows.back().then = word;
    } else if (word == "out" || word == "err") {
      in >> std::quoted(line);
      (word == "out" ? rows.back().out : rows.back().err) += line + '\n';
    } else {
      unsigned nth = 0;
      in >> name >> nth;
      rows.push_back({when + ": " + word + ' ' + name + ' ' + std::to_string(nth), when,
                      faultOf(word, name, nth, in)});
    }
  }
  EXPECT_FALSE(rows.empty()) << file;
  return rows;
}

/// Never another frame's picture, whatever happened.
void goOn(Driver& driver, const std::string& then) {
  int right = 0;
  for (int i = 1; i <= 6; ++i) {
    Outcome outcome = driver.resize(i / 2 % 2);
    if (outcome.good) outcome = driver.frame(i % 2 * 2);
    EXPECT_EQ(outcome.problem, "") << i;
    right += outcome.good;
  }
  EXPECT_GE(right, then == "always" ? 6 : then == "later" ? 3 : 0);
  EXPECT_LE(right, then == "never" ? 0 : 6);
}

void expectRow(const DriverClass& kind, const Row& row,
               const std::function<void(std::unique_ptr<Driver>)>& instead) {
  Capture capture;
  std::unique_ptr<Driver> driver = kind.make();
  const bool fresh = row.when == "fresh";
  if (!fresh) {
    EXPECT_TRUE(driver->make().good && driver->frame(0).good);
  }
  const std::size_t out = capture.out().size(), err = capture.err().size();
  inject(row.injected);
  const Outcome setUp = fresh ? driver->make() : driver->resize(row.when == "other");
  const Outcome outcome = setUp.good ? driver->frame(fresh ? 0 : 2) : setUp;
  const std::string itsOut = capture.out().substr(out), itsErr = capture.err().substr(err);
  EXPECT_EQ(itsOut, row.out);
  EXPECT_EQ(itsErr, row.err);
  EXPECT_EQ(outcome.problem, "");
  EXPECT_EQ(outcome.good, row.works);
  EXPECT_GE(control::faultsHit(), 1u);
  control::clearFaults();
  if (instead) return instead(std::move(driver));
  if (!setUp.good) {
    EXPECT_FALSE(driver->frame(0).good) << "it goes on without a setup";
  }
  goOn(*driver, row.then);
}

/// What happens 50 ms after the start of a wait: nothing, or a signal, or CLOCK_REALTIME is set an
/// hour ahead, or back.
enum class Disturbance { None, Signal, ClockAhead, ClockBack };
using namespace std::chrono_literals;

/// Has it happen in the wait that follows.
/// @return how long that takes. One that goes by the steady clock takes as long as it would in
///         peace.
std::chrono::milliseconds disturb(Disturbance how, const Limit& its) {
  const bool wall = its.clock == LimitBy::WallClock;
  // Little where the wait takes as much longer.
  const auto ahead = how == Disturbance::ClockAhead ? 3600000ms : wall ? -300ms : -30000ms;
  if (how == Disturbance::Signal) VirtualTime::interrupt(50ms);
  if (how == Disturbance::None || how == Disturbance::Signal) return its.limit;
  VirtualTime::setWallClock(ahead, 50ms);
  if (!wall) return its.limit;
  return how == Disturbance::ClockAhead ? 50ms : its.limit - ahead;
}

}  // namespace

void expectFaults(const std::string& name,
                  const std::function<void(std::unique_ptr<Driver>)>& instead) {
  for (const Row& row : rowsOf(name)) {
    SCOPED_TRACE(row.fault);
    expectRow(driverClass(name), row, instead);
  }
}

void expectLimits(const std::string& name) {
  for (const auto how :
       {Disturbance::None, Disturbance::Signal, Disturbance::ClockAhead, Disturbance::ClockBack}) {
    std::vector<Limit> limits = [&] {
      const Capture quiet;
      return limitsOf(name);
    }();
    loseAnswers();
    for (const Limit& its : limits) {
      EXPECT_TRUE(its.before());
      const auto tookMs = disturb(how, its).count();
      expectAnswer<int>(its.wait, its.result, its.out, its.err, static_cast<int>(tookMs));
      for (auto* const failing : {&interpose::clockGettime, &interpose::semWait}) {
        if (its.broken.empty()) break;
        failing->arm(1, true);
        expectAnswer<int>(its.wait, CodecWaitFailed, its.broken, "", 0);
        failing->disarm();
      }
    }
    control::clearFaults();
    const Capture quiet;  // a pool's end
    limits.clear();
  }
}

void expectIndependence(const std::string& name) {
  const Capture quiet;
  const auto work = [&](int first) {
    const std::unique_ptr<Driver> driver = driverClass(name).make();
    Outcome outcome = driver->make();
    for (int round = 0; round < 4; ++round) {
      if (outcome.good) outcome = driver->resize((first + round) % 2);
      for (int i = 0; i < 4 && outcome.good; ++i) outcome = driver->frame(i);
    }
    EXPECT_TRUE(outcome.good) << outcome.problem;
  };
  ClientThread one([&] { work(0); });
  ClientThread other([&] { work(1); });
}

}  // namespace support
