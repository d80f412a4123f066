#include "Engine.h"

#include <dlfcn.h>
#include <malloc.h>
#include <poll.h>
#include <sys/mman.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <map>
#include <memory>
#include <sstream>
#include <thread>

#include "support/Capture.h"
#include "support/Interpose.h"
#include "support/MappedBuffers.h"
#include "support/VirtualTime.h"

namespace sweep {
namespace {

namespace control = tessera_platform;
namespace interpose = support::interpose;
using control::CallFault;
using control::CompletionFault;
using support::contents;
using support::entries;

/// For what time that stands still does not see: a child that does not stop working.
constexpr int childLimitSeconds = 120;
/// How many points a process works off, where all goes well.
constexpr std::size_t stretch = 32;
/// The control's own lists of faults.
constexpr std::size_t blockSlack = 4;
/// The encoder's threads draw on arenas of their own, more or fewer from run to run.
constexpr std::size_t heapSlack = 65536;
constexpr char threadList[] = "/proc/self/task";

/// The stand-in devices, where they are loaded in front of this program.
struct Devices {
  template <typename Function>
  static Function* find(const char* name) {
    return reinterpret_cast<Function*>(dlsym(RTLD_DEFAULT, name));
  }
  void (*const fail)(unsigned nth, int error,
                     bool forGood) = find<void(unsigned, int, bool)>("standin_fail");
  unsigned (*const calls)() = find<unsigned()>("standin_calls");
  bool areThere() const { return fail != nullptr; }
  void startCounting() const {
    if (areThere()) fail(0, 0, false);
  }
  unsigned count() const { return areThere() ? calls() : 0; }
};
const Devices devices;

/// What must be the same before and after.
struct Holdings {
  std::size_t heap = mallinfo2().uordblks;
  std::size_t blocks = interpose::liveBlocks();
  int threads = entries(threadList);
  int descriptors = entries("/proc/self/fd");
  std::size_t mappings = devices.areThere() ? support::mappedBuffers() : 0;
};

bool isOneOf(const std::string& names, const std::string& name) {
  return (" " + names + " ").find(" " + name + " ") != std::string::npos;
}

/// Calls that give something back: refused for good, what they hold stays, by definition.
bool givesBack(const std::string& call) {
  return isOneOf(
      "mmal_component_destroy mmal_component_release mmal_wrapper_destroy mmal_pool_destroy "
      "mmal_queue_destroy mmal_port_disable mmal_wrapper_port_disable mmal_component_disable "
      "mmal_buffer_header_release OMX_FreeHandle OMX_Deinit",
      call);
}

/// What the component keeps it gives back only when its port is disabled, and a queue that told a
/// lie has a buffer too many from then on. A device that failed is left until the next stream.
bool losesABuffer(const Point& point) {
  if (point.deviceCall > 0) return true;
  if (!point.completion) return point.call.call == "mmal_queue_get";
  return point.event.action == CompletionFault::Drop ||
         point.event.action == CompletionFault::ErrorEvent;
}

bool returnsPointer(const std::string& call) {
  return isOneOf("mmal_queue_get mmal_queue_create mmal_pool_create", call);
}

bool returnsNothing(const std::string& call) {
  return isOneOf(
      "bcm_host_init bcm_host_deinit mmal_queue_put mmal_queue_destroy mmal_pool_destroy "
      "mmal_buffer_header_release mmal_component_acquire",
      call);
}

bool isIl(const std::string& name) {
  return name.rfind("OMX_", 0) == 0 || name == "EventHandler" || name == "EmptyBufferDone" ||
         name == "FillBufferDone";
}

/// An object's work in one child; problems go to `report`.
class Run {
 public:
  /// @param threads  that the process has while nobody has any of the library's objects
  Run(const DriverClass& kind, int threads) : kind_(kind), threads_(threads) {}

  std::string problem;
  bool met = false;
  /// Nothing is left of the run that the next one in this process would find.
  bool clean = true;

  void go(const Scenario& scenario, const Point* point) {
    once(scenario, point);
    fresh();
  }

 private:
  void judge(const char* step, const Outcome& outcome, bool mustBeGood = true) {
    if (!outcome.problem.empty()) blame(std::string(step) + ": " + outcome.problem);
    if (mustBeGood && !outcome.good) blame(std::string(step) + ": refused without a fault");
  }

  void once(const Scenario& scenario, const Point* point) {
    awaitThreads();
    const Holdings before;
    {
      const std::unique_ptr<Driver> neighbour = kind_.make();
      if (scenario.withNeighbour) judge("neighbour", neighbour->make());
      std::unique_ptr<Driver> object = kind_.make();
      judge("before", scenario.before(*object));
      if (point != nullptr) arm(*point);
      judge("run", scenario.run(*object), false);
      if (point != nullptr && point->goesOn) goOn(*object, *point);
      object.reset();
      if (point != nullptr) met = met || isMet(*point);
      devices.startCounting();
      control::clearFaults();
      interpose::elsewhere.disarm();
      if (scenario.withNeighbour) judge("neighbour", neighbour->frame(0));
    }
    after(before, point);
  }

  void goOn(Driver& object, const Point& point) {
    control::awaitQuiet();
    met = isMet(point);
    devices.startCounting();
    control::clearFaults();
    // A late answer is over when it has come.
    if (point.completion && point.event.action == CompletionFault::Delay)
      std::this_thread::sleep_for(std::chrono::milliseconds(point.event.delayMs));
    std::string last;
    for (int tries = 1; tries <= 3; ++tries) {
      const Outcome outcome = object.goOn(tries == 3 && losesABuffer(point));
      if (outcome.good) return;
      last = outcome.problem;
    }
    blame("the object is of no more use: " + last);
  }

  static bool isMet(const Point& point) {
    return control::faultsHit() > 0 || interpose::elsewhere.met > 0 ||
           (point.deviceCall > 0 && devices.count() >= point.deviceCall);
  }

  void arm(const Point& point) {
    if (point.deviceCall > 0)
      devices.fail(point.deviceCall, point.error, point.forGood);
    else if (point.shortage > 0)
      interpose::elsewhere.arm(point.shortage, point.forGood);
    else if (point.completion)
      control::inject(point.event);
    else
      control::inject(point.call);
  }

  void after(const Holdings& before, const Point* point) {
    const bool kept = point != nullptr && !point->completion && givesBack(point->call.call);
    // A pool whose way back to Loaded is refused says so and keeps what it holds.
    const bool abandoned = kind_.name == std::string("DecoderPool") && point != nullptr &&
                           !point->completion && point->call.call == "OMX_SendCommand";
    clean = !kept && !abandoned;
    if (!clean) return;
    const control::Census census = control::census();
    if (!census.empty()) blame("left behind: " + control::describe(census));
    awaitThreads();
    const Holdings now;
    if (now.threads != threads_) blame("threads left behind");
    if (now.descriptors != before.descriptors) blame("descriptors left behind");
    if (now.mappings != before.mappings) blame("mappings left behind");
    if (now.blocks > before.blocks + blockSlack)
      blame(std::to_string(now.blocks - before.blocks) + " blocks left behind");
    if (now.heap > before.heap + heapSlack)
      blame("heap grew by " + std::to_string(now.heap - before.heap) + " bytes");
  }

  /// A thread that has been joined may stay in the list for a moment, which is a real one.
  void awaitThreads() const {
    for (int tries = 0; entries(threadList) != threads_ && tries < 1000; ++tries)
      poll(nullptr, 0, 10);
  }

  /// The next object in the same process works.
  void fresh() {
    const std::unique_ptr<Driver> object = kind_.make();
    for (const Outcome& outcome : {object->make(), object->frame(0)})
      if (!outcome.good) blame("a fresh object fails: " + outcome.problem);
  }

  void blame(const std::string& what) { problem += (problem.empty() ? "" : "; ") + what; }

  const DriverClass& kind_;
  const int threads_;
};

/// A process that works off a stretch of the points.
struct Child {
  std::size_t first = 0, end = 0;  ///< its points
  pid_t pid = 0;
  int report = -1;
  int out = memfd_create("out", 0), err = memfd_create("err", 0);
  std::string text;  ///< what it reported so far, each piece with a zero after it

  void close() const {
    for (const int descriptor : {report, out, err}) ::close(descriptor);
  }
};

template <typename Work>
Child start(std::size_t first, std::size_t end, Work work) {
  Child child;
  child.first = first;
  child.end = end;
  int ends[2];
  if (pipe(ends) != 0) std::abort();
  std::fflush(nullptr);
  child.pid = fork();
  if (child.pid == 0) {
    close(ends[0]);
    dup2(child.out, STDOUT_FILENO);
    dup2(child.err, STDERR_FILENO);
    work(ends[1]);
    _exit(0);
  }
  close(ends[1]);
  child.report = ends[0];
  return child;
}

void tell(int end, const std::string& piece) {
  if (write(end, piece.c_str(), piece.size() + 1) < 0) _exit(98);
}

/// Which of them has something to say, or has ended.
std::size_t awaitOne(const std::vector<Child>& children) {
  std::vector<pollfd> ends;
  for (const Child& child : children) ends.push_back({child.report, POLLIN, 0});
  for (;;)
    if (poll(ends.data(), ends.size(), -1) > 0)
      for (std::size_t i = 0; i < ends.size(); ++i)
        if (ends[i].revents != 0) return i;
}

/// Takes what there is; whether there may be more.
bool hear(Child& child) {
  char block[4096];
  const ssize_t n = read(child.report, block, sizeof block);
  if (n > 0) child.text.append(block, static_cast<std::size_t>(n));
  return n > 0;
}

/// The three ways in which the library may end its process.
bool endsAsDocumented(const DriverClass& kind, const Point& point, const Child& child) {
  if (point.shortage > 0) return false;  // no failure of the component's
  const std::string name = kind.name;
  if (name == "DecoderPool")
    return contents(child.out).find("unrecoverable error: ") != std::string::npos;
  if (name == "CMmalJpegEncoder")
    return contents(child.err).find("CMmalJpegEncoder::Encode - failed to get full buffer\n") !=
           std::string::npos;
  return false;
}

/// A pool waits without a limit while it is set up and taken down: a command that is never
/// completed keeps it there.
bool hangsAsDocumented(const DriverClass& kind, const Point& point) {
  return kind.name == std::string("DecoderPool") && point.completion &&
         point.event.completion == "EventHandler";
}

/// Of a point at which its process ended.
Verdict verdictOfEnd(const DriverClass& kind, const Point& point, const Child& child, int status) {
  Verdict verdict{point, "", true};
  const bool hung = contents(child.err).find(support::VirtualTime::hangLine) != std::string::npos;
  if (WIFSIGNALED(status)) {
    if (hung && hangsAsDocumented(kind, point)) return verdict;
    verdict.problem = std::string("killed by ") + strsignal(WTERMSIG(status));
  } else if (WEXITSTATUS(status) == 1 && endsAsDocumented(kind, point, child)) {
    verdict.problem.clear();
  } else if (WEXITSTATUS(status) != 0) {
    verdict.problem = "ended with status " + std::to_string(WEXITSTATUS(status)) + ": " +
                      contents(child.out) + contents(child.err);
  } else {
    verdict.problem = "ended as if all were well";
  }
  return verdict;
}

const std::string stretchDone = ".";

/// The verdicts of a child that has ended, in order; they may be fewer than it has points.
std::vector<Verdict> conclude(const DriverClass& kind, const std::vector<Point>& points,
                              Child& child) {
  std::vector<Verdict> verdicts;
  std::istringstream pieces(child.text);
  bool done = false;
  for (std::string piece; std::getline(pieces, piece, '\0');) {
    done = piece == stretchDone;
    if (!done)
      verdicts.push_back({points[child.first + verdicts.size()], piece.substr(1), piece[0] == '+'});
  }
  int status = 0;
  waitpid(child.pid, &status, 0);
  if (!done)
    verdicts.push_back(verdictOfEnd(kind, points[child.first + verdicts.size()], child, status));
  child.close();
  return verdicts;
}

/// What everybody allocates once in a process is there before the children measure.
void warmUp(const DriverClass& kind, const Scenario& scenario) {
  const support::Capture quiet;
  Run(kind, entries(threadList)).go(scenario, nullptr);
}

void forgetPrinted() {
  std::fflush(nullptr);
  for (const int stream : {STDOUT_FILENO, STDERR_FILENO})
    if (ftruncate(stream, 0) != 0 || lseek(stream, 0, SEEK_SET) != 0) _exit(98);
}

/// Runs points one after the other, up to the end or to the first that leaves something behind.
void workOff(const DriverClass& kind, const Scenario& scenario, const Point* point,
             const Point* end, int report) {
  const int threads = entries(threadList);
  for (bool goesOn = true; goesOn && point != end; ++point) {
    alarm(childLimitSeconds);
    forgetPrinted();
    Run run(kind, threads);
    {
      const support::VirtualTime time;
      run.go(scenario, point);
    }
    tell(report, (run.met ? "+" : "-") + run.problem);
    goesOn = run.clean && run.problem.empty();
  }
  tell(report, stretchDone);
}

/// Offers a fault at one place, once and from then on, and, where it is met before the object is
/// destroyed, also with the object going on after it.
void offer(const Point& point, bool whileUsed, std::vector<Point>& points) {
  for (const bool sticky : {false, true}) {
    points.push_back(point);
    (point.completion ? points.back().event.sticky : points.back().call.sticky) = sticky;
  }
  if (!whileUsed) return;
  points.push_back(point);
  points.back().goesOn = true;
}

/// What was recorded of a scenario: names, and how many of them while the object was used.
struct Record {
  std::vector<std::string> names;
  std::size_t whileUsed = 0;
};

void addCalls(const Record& record, std::vector<Point>& points) {
  std::map<std::string, unsigned> seen;
  for (std::size_t i = 0; i < record.names.size(); ++i) {
    const std::string& name = record.names[i];
    const unsigned nth = ++seen[name];
    if (returnsNothing(name)) continue;
    const bool il = isIl(name);
    std::vector<CallFault> faults{{name, nth, false, CallFault::Fail, il ? 0x80001001LL : 7}};
    if (!returnsPointer(name)) {
      faults.push_back({name, nth, false, CallFault::Fail, il ? 0x80001000LL : 1});
      // Of a call without a result pointer it would be a plain success that did nothing.
      const bool hasResult = name.find("reate") != std::string::npos || name == "OMX_GetHandle" ||
                             name == "OMX_AllocateBuffer";
      if (nth == 1 && hasResult) faults.push_back({name, nth, false, CallFault::NullResult, 0});
      if (nth == 1) faults.push_back({name, nth, false, CallFault::FinishFirst, 0});
    }
    for (const CallFault& fault : faults) {
      Point point;
      point.call = fault;
      offer(point, i < record.whileUsed, points);
    }
  }
}

void addCompletions(const Record& record, std::vector<Point>& points) {
  std::map<std::string, unsigned> seen;
  constexpr unsigned lateMs = 50, tooLateMs = 11000;  // the limits are 100 ms to 10 s
  for (std::size_t i = 0; i < record.names.size(); ++i) {
    const std::string& name = record.names[i];
    const unsigned nth = ++seen[name];
    const std::uint32_t code = isIl(name) ? 0x80001009 : 7;
    for (const CompletionFault& fault : {
             CompletionFault{name, nth, false, CompletionFault::Drop, 0, 0},
             CompletionFault{name, nth, false, CompletionFault::Delay, lateMs, 0},
             CompletionFault{name, nth, false, CompletionFault::Delay, tooLateMs, 0},
             CompletionFault{name, nth, false, CompletionFault::Double, 0, 0},
             CompletionFault{name, nth, false, CompletionFault::ErrorEvent, 0, code},
             CompletionFault{name, nth, false, CompletionFault::ZeroLength, 0, 0},
         }) {
      Point point;
      point.completion = true;
      point.event = fault;
      offer(point, i < record.whileUsed, points);
    }
  }
}

void addShortages(int allocations, std::vector<Point>& points) {
  for (int nth = 1; nth <= allocations; ++nth)
    for (const bool forGood : {false, true}) {
      points.emplace_back();
      points.back().shortage = nth;
      points.back().forGood = forGood;
    }
}

/// Errors one after the other: what a device answers is one failure to the coders.
void addDeviceFaults(unsigned calls, unsigned whileUsed, std::vector<Point>& points) {
  constexpr int errors[] = {EIO, EBUSY, EINVAL, ENOMEM, ENODEV};
  for (unsigned nth = 1; nth <= calls; ++nth)
    for (const int error : {errors[nth % 5], Point::silent, Point::frameLost})
      for (const bool forGood : {false, true}) {
        Point point;
        point.deviceCall = nth;
        point.error = error;
        point.forGood = forGood;
        point.goesOn = nth <= whileUsed && !forGood;
        points.push_back(point);
      }
}

}  // namespace

std::string Point::text() const {
  static const char* const calls[] = {"Fail", "NullResult", "FinishFirst"};
  static const char* const events[] = {"Drop", "Delay", "Double", "ErrorEvent", "ZeroLength"};
  std::ostringstream out;
  if (deviceCall > 0)
    out << "device's call #" << deviceCall << (forGood ? " on: " : ": ")
        << (error > 0         ? std::strerror(error)
            : error == silent ? "silence"
                              : "frame lost");
  else if (shortage > 0)
    out << "no memory #" << shortage << (forGood ? " on" : "");
  else if (completion)
    out << events[event.action] << ' ' << event.completion << " #" << event.nth
        << (event.sticky ? " on" : "") << ' ' << event.delayMs << " ms";
  else
    out << calls[call.action] << ' ' << call.call << " #" << call.nth << (call.sticky ? " on" : "")
        << " 0x" << std::hex << call.status;
  if (goesOn) out << ", then on";
  return out.str();
}

const std::vector<Scenario>& scenarios() {
  static const auto nothing = [](Driver&) { return Outcome{}; };
  static const auto make = [](Driver& d) { return d.make(); };
  // What was refused does not keep the application from going on.
  static const auto frames = [](Driver& d, Outcome outcome, int count) {
    for (int i = 0; i < count && outcome.problem.empty(); ++i) outcome = d.frame(i);
    return outcome;
  };
  static const std::vector<Scenario> all{
      {"create and destroy", nothing, make, false},
      {"one frame", nothing, [](Driver& d) { return frames(d, d.make(), 1); }, false},
      {"three frames", make, [](Driver& d) { return frames(d, {}, 3); }, false},
      {"a frame in flight", make, [](Driver& d) { return d.launch(), Outcome{}; }, false},
      {"a second size", [](Driver& d) { return frames(d, d.make(), 1); },
       [](Driver& d) { return frames(d, d.resize(1), 1); }, false},
      {"two objects", make, [](Driver& d) { return d.frame(0); }, true},
  };
  return all;
}

std::vector<Point> record(const DriverClass& kind, const Scenario& scenario) {
  const auto work = [&](int report) {
    const support::VirtualTime time;
    std::ostringstream text;
    std::unique_ptr<Driver> s = kind.make();
    scenario.before(*s);
    // How often workers allocate, before the journal's lines add to that.
    interpose::elsewhere.arm(0);
    devices.startCounting();
    scenario.run(*s);
    control::awaitQuiet();
    const unsigned whileUsed = devices.count();
    text << interpose::elsewhere.calls << ' ';
    s.reset();
    text << devices.count() << ' ' << whileUsed << ' ';
    s = kind.make();
    scenario.before(*s);
    control::startJournal();
    scenario.run(*s);
    control::awaitQuiet();
    for (const auto which : {control::Lines::Calls, control::Lines::Completions})
      text << control::journalNames(which).size() << ' ';
    s.reset();
    control::stopJournal();
    for (const auto which : {control::Lines::Calls, control::Lines::Completions}) {
      for (const std::string& name : control::journalNames(which)) text << name << ' ';
      text << ". ";
    }
    tell(report, text.str());
  };
  Child child = start(0, 0, work);
  while (hear(child)) continue;
  waitpid(child.pid, nullptr, 0);
  child.close();
  std::istringstream text(child.text);
  Record calls, completions;
  int allocations = 0;
  unsigned deviceCalls = 0, deviceCallsWhileUsed = 0;
  text >> allocations >> deviceCalls >> deviceCallsWhileUsed >> calls.whileUsed >>
      completions.whileUsed;
  for (Record* const each : {&calls, &completions})
    for (std::string name; text >> name && name != ".";) each->names.push_back(name);
  std::vector<Point> points;
  if (devices.areThere()) {
    addDeviceFaults(deviceCalls, deviceCallsWhileUsed, points);
  } else {
    addCalls(calls, points);
    addCompletions(completions, points);
    addShortages(allocations, points);
  }
  return points;
}

std::vector<Verdict> sweep(const DriverClass& kind, const Scenario& scenario,
                           const std::vector<Point>& points) {
  warmUp(kind, scenario);
  std::vector<Verdict> verdicts;
  std::vector<Child> running;
  std::vector<std::size_t> firsts;  // of what nobody works on, each up to a multiple of `stretch`
  for (std::size_t i = points.size(); i-- > 0;)
    if (i % stretch == 0) firsts.push_back(i);
  const auto startNext = [&] {
    const std::size_t first = firsts.back();
    const std::size_t end = std::min((first / stretch + 1) * stretch, points.size());
    firsts.pop_back();
    running.push_back(start(first, end, [&](int report) {
      workOff(kind, scenario, points.data() + first, points.data() + end, report);
    }));
  };
  // Most of a run is waiting.
  const std::size_t atOnce = 2 * std::max(1u, std::thread::hardware_concurrency());
  while (!firsts.empty() || !running.empty()) {
    while (!firsts.empty() && running.size() < atOnce) startNext();
    const std::size_t i = awaitOne(running);
    Child& child = running[i];
    if (hear(child)) continue;
    const std::vector<Verdict> seen = conclude(kind, points, child);
    verdicts.insert(verdicts.end(), seen.begin(), seen.end());
    if (child.first + seen.size() < child.end) firsts.push_back(child.first + seen.size());
    running.erase(running.begin() + static_cast<std::ptrdiff_t>(i));
  }
  return verdicts;
}

}  // namespace sweep
