#include "tessera_platform/control.h"

#include <algorithm>
#include <array>
#include <condition_variable>
#include <map>
#include <mutex>
#include <sstream>

#include "control/Hooks.h"

namespace tessera_platform {
namespace {

struct Line {
  std::string name;
  std::string text;
  bool completion;
};

/// An injected fault and how many calls of its name have passed since.
template <typename Fault>
struct Armed {
  Fault fault;
  unsigned seen = 0;
};

struct State {
  std::mutex mutex;
  std::vector<Line> lines;
  std::map<const void*, std::string> names;
  std::map<std::string, unsigned> numbers;
  std::vector<Armed<CallFault>> callFaults;
  std::vector<Armed<CompletionFault>> completionFaults;
  unsigned hit = 0;
};

/// Never destroyed: worker threads of an application that exits without tidying up may still ask.
State& state() {
  static State* const instance = new State;
  return *instance;
}

std::array<std::atomic<int>, 9> counters{};

/// The workers that there are. A component's lock may be taken while this one is held.
struct Watch {
  std::mutex mutex;
  std::vector<const hooks::Watched*> workers;
};

Watch& watch() {
  static Watch* const instance = new Watch;
  return *instance;
}

/// Where those wait who await quiet. No other lock is taken while this one is held.
struct Rest {
  std::mutex mutex;
  std::condition_variable changed;
  std::atomic<std::uint64_t> times{0};  ///< that a worker went to sleep
  std::atomic<int> awaited{0};
};

Rest& rest() {
  static Rest* const instance = new Rest;
  return *instance;
}

bool wanted(const Line& line, Lines which) {
  return which == Lines::All || line.completion == (which == Lines::Completions);
}

template <typename Fault>
bool match(std::vector<Armed<Fault>>& armed, std::string Fault::*name, const char* what, Fault& met,
           unsigned& hit) {
  bool found = false;
  for (Armed<Fault>& each : armed) {
    if (each.fault.*name != what) continue;
    ++each.seen;
    if (found || each.seen < each.fault.nth) continue;
    if (each.seen > each.fault.nth && !each.fault.sticky) continue;
    met = each.fault;
    found = true;
    ++hit;
  }
  return found;
}

template <typename Fault>
void arm(std::vector<Armed<Fault>> State::*faults, const Fault& fault) {
  State& s = state();
  const std::lock_guard<std::mutex> lock(s.mutex);
  (s.*faults).push_back({fault});
  hooks::faultsArmed = true;
}

std::vector<std::string> linesOf(Lines which, std::string Line::*what) {
  State& s = state();
  const std::lock_guard<std::mutex> lock(s.mutex);
  std::vector<std::string> texts;
  for (const Line& line : s.lines)
    if (wanted(line, which)) texts.push_back(line.*what);
  return texts;
}

}  // namespace

void startJournal() {
  State& s = state();
  const std::lock_guard<std::mutex> lock(s.mutex);
  s.lines.clear();
  s.names.clear();
  s.numbers.clear();
  hooks::recording = true;
}

void stopJournal() {
  hooks::recording = false;
}

std::vector<std::string> journal(Lines which) {
  return linesOf(which, &Line::text);
}

std::vector<std::string> journalNames(Lines which) {
  return linesOf(which, &Line::name);
}

void inject(const CallFault& fault) {
  arm(&State::callFaults, fault);
}

void inject(const CompletionFault& fault) {
  arm(&State::completionFaults, fault);
}

void clearFaults() {
  State& s = state();
  const std::lock_guard<std::mutex> lock(s.mutex);
  s.callFaults.clear();
  s.completionFaults.clear();
  s.hit = 0;
  hooks::faultsArmed = false;
}

unsigned faultsHit() {
  State& s = state();
  const std::lock_guard<std::mutex> lock(s.mutex);
  return s.hit;
}

Census census() {
  Census c;
  int* const fields[] = {&c.coreInits, &c.handles, &c.components, &c.wrappers, &c.enabledPorts,
                         &c.pools,     &c.queues,  &c.buffers,    &c.threads};
  for (std::size_t i = 0; i < counters.size(); ++i) *fields[i] = counters[i];
  return c;
}

std::string describe(const Census& c) {
  const std::pair<const char*, int> rows[] = {{"core inits", c.coreInits},
                                              {"handles", c.handles},
                                              {"components", c.components},
                                              {"wrappers", c.wrappers},
                                              {"enabled ports", c.enabledPorts},
                                              {"pools", c.pools},
                                              {"queues", c.queues},
                                              {"buffers", c.buffers},
                                              {"threads", c.threads}};
  std::ostringstream text;
  for (const auto& [name, number] : rows)
    if (number != 0) text << (text.tellp() > 0 ? ", " : "") << name << ' ' << number;
  return text.tellp() > 0 ? text.str() : "nothing";
}

bool quiet() {
  Watch& w = watch();
  const std::lock_guard<std::mutex> lock(w.mutex);
  return std::all_of(w.workers.begin(), w.workers.end(),
                     [](const hooks::Watched* worker) { return worker->atRest(); });
}

std::uint64_t rests() {
  return rest().times;
}

void awaitQuiet() {
  if (hooks::onWorker) return;
  Rest& r = rest();
  ++r.awaited;
  std::unique_lock<std::mutex> lock(r.mutex);
  for (;;) {
    const std::uint64_t seen = r.times;
    lock.unlock();
    if (quiet()) break;
    lock.lock();
    r.changed.wait(lock, [&] { return r.times != seen; });
  }
  --r.awaited;
}

void setPace(Pace pace) {
  hooks::stepped = pace == Pace::Stepped;
}

namespace hooks {

std::atomic<bool> recording{false};
std::atomic<bool> faultsArmed{false};
std::atomic<bool> stepped{false};

void recordCall(const char* entry, const std::string& arguments, const std::string& result) {
  State& s = state();
  const std::lock_guard<std::mutex> lock(s.mutex);
  s.lines.push_back(
      {entry, std::string(entry) + '(' + arguments + ')' + (result == "void" ? "" : " = " + result),
       false});
}

void recordCompletion(const char* name, const std::string& arguments) {
  State& s = state();
  const std::lock_guard<std::mutex> lock(s.mutex);
  s.lines.push_back({name, std::string("-> ") + name + '(' + arguments + ')', true});
}

bool matchCall(const char* entry, CallFault& fault) {
  State& s = state();
  const std::lock_guard<std::mutex> lock(s.mutex);
  return match(s.callFaults, &CallFault::call, entry, fault, s.hit);
}

bool matchCompletion(const char* name, CompletionFault& fault) {
  State& s = state();
  const std::lock_guard<std::mutex> lock(s.mutex);
  return match(s.completionFaults, &CompletionFault::completion, name, fault, s.hit);
}

std::string nameOf(const void* object, const char* kind) {
  if (object == nullptr) return "null";
  State& s = state();
  const std::lock_guard<std::mutex> lock(s.mutex);
  const auto known = s.names.find(object);
  if (known != s.names.end()) return known->second;
  return s.names[object] = std::string(kind) + '#' + std::to_string(++s.numbers[kind]);
}

void forget(const void* object) {
  State& s = state();
  const std::lock_guard<std::mutex> lock(s.mutex);
  s.names.erase(object);
}

void count(Kind kind, int change) {
  counters[static_cast<std::size_t>(kind)] += change;
}

Watched::Watched(std::function<bool()> atRest) : atRest_(std::move(atRest)) {
  rest();  // its worker may have no memory to make it
  Watch& w = watch();
  const std::lock_guard<std::mutex> lock(w.mutex);
  w.workers.push_back(this);
}

Watched::~Watched() {
  {
    Watch& w = watch();
    const std::lock_guard<std::mutex> lock(w.mutex);
    w.workers.erase(std::find(w.workers.begin(), w.workers.end(), this));
  }
  wentToRest();
}

void wentToRest() {
  Rest& r = rest();
  ++r.times;
  if (r.awaited == 0) return;
  const std::lock_guard<std::mutex> lock(r.mutex);
  r.changed.notify_all();
}

}  // namespace hooks
}  // namespace tessera_platform
