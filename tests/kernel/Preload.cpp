// Puts the stand-in devices in front of a program: /dev/video50 and its neighbours, for every call
// with which a program may come across them.
#include <dirent.h>
#include <dlfcn.h>
#include <fcntl.h>
#include <linux/media.h>
#include <poll.h>
#include <sys/epoll.h>
#include <sys/ioctl.h>
#include <sys/mman.h>
#include <sys/select.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <unistd.h>

#include <cerrno>
#include <climits>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <memory>
#include <mutex>
#include <new>
#include <utility>

#include "StandIn.h"

#define SHOWN extern "C" __attribute__((visibility("default")))
// On 64-bit systems the large files' calls are the same.
#define SAME(name, other) __asm__(".globl " #name "\n.set " #name ", " #other)
SAME(open64, open);
SAME(__open_2, open);
SAME(__open64_2, open);
SAME(mmap64, mmap);
SAME(stat64, stat);
SAME(fstat64, fstat);
SAME(readdir64, readdir);
SAME(fopen64, fopen);

namespace {

using standin::Faults;
using standin::Kind;
using standin::Session;

constexpr Kind kinds[] = {{50, "Stand-in H.264 encoder", true, V4L2_PIX_FMT_H264},
                          {51, "Stand-in H.264 decoder", false, V4L2_PIX_FMT_H264},
                          {52, "Stand-in JPEG encoder", true, V4L2_PIX_FMT_JPEG},
                          {53, "Stand-in JPEG decoder", false, V4L2_PIX_FMT_JPEG}};
constexpr unsigned first = 50, count = 4;
bool gone[count] = {};

/// A node that somebody has opened. A media device has no session: it says no more than which
/// function the video device of the same number has.
struct Node {
  const Kind& kind;
  std::unique_ptr<Session> session;
};
std::map<int, std::shared_ptr<Node>>& nodes() {
  static auto* const all = new std::map<int, std::shared_ptr<Node>>;
  return *all;
}

struct Locked : std::lock_guard<std::recursive_mutex> {
  Locked() : lock_guard(mutex) {}
  static inline std::recursive_mutex mutex;
};

const Node* nodeOf(int fd) {
  const Locked locked;
  const auto found = nodes().find(fd);
  return found == nodes().end() ? nullptr : found->second.get();
}
Session* sessionOf(int fd) {
  const Node* const node = nodeOf(fd);
  return node == nullptr ? nullptr : node->session.get();
}

template <typename Function>
Function* next(Function*, const char* name) {
  return reinterpret_cast<Function*>(dlsym(RTLD_NEXT, name));
}
#define NEXT(name) next(&name, #name)

int failWith(int error) {
  errno = error;
  return -1;
}

Faults faults() {
  Faults all;
  const std::pair<const char*, unsigned*> words[] = {
      {"drop", &all.dropEach},      {"delay", &all.delayMs},      {"silent", &all.silentAfter},
      {"gone", &all.goneAfter},     {"stride", &all.stride},      {"align", &all.align},
      {"nv12", &all.nv12},          {"mplane", &all.multiPlanar}, {"lag", &all.lag},
      {"plain", &all.plain},        {"stubborn", &all.stubborn},  {"busy", &all.busy},
      {"forbidden", &all.forbidden}};
  const char* at = std::getenv("TESSERA_STANDIN");
  for (; at != nullptr && *at != 0; at += std::strcspn(at, ","), at += *at == ',') {
    const std::size_t length = std::strcspn(at, "=,");
    for (const auto& [name, value] : words)
      if (std::strlen(name) == length && std::strncmp(name, at, length) == 0)
        *value = at[length] == '=' ? static_cast<unsigned>(std::atoi(at + length + 1)) : 1;
  }
  return all;
}

const Kind* kindOf(const char* path, const char* prefix) {
  char* end = nullptr;
  const std::size_t length = std::strlen(prefix);
  if (path == nullptr || std::strncmp(path, prefix, length) != 0) return nullptr;
  const unsigned long number = std::strtoul(path + length, &end, 10);
  return number >= first && number < first + count ? &kinds[number - first] : nullptr;
}

thread_local bool working = false;  // for a device

/// Where a device lacks memory it says so.
template <typename Function>
int work(Function&& function, int otherwise) {
  int answer = otherwise;
  working = true;
  try {
    answer = function();
  } catch (const std::bad_alloc&) {
    errno = ENOMEM;
  }
  working = false;
  return answer;
}

/// Which of the calls on video devices goes wrong, with which error; 0: from then on the device does
/// not answer, -1: its next frame is lost, or all are.
struct {
  unsigned nth = 0;
  int error = 0;
  bool forGood = false;
  unsigned calls = 0;
} failing;

/// @return whether this call is the one, with errno
bool fails(Session* session = nullptr) {
  const unsigned call = ++failing.calls;
  if (failing.nth == 0 || call < failing.nth || (call > failing.nth && !failing.forGood))
    return false;
  if (session != nullptr && failing.error == 0) session->fallSilent();
  if (session != nullptr && failing.error < 0) session->drop(failing.forGood ? UINT_MAX : 1);
  errno = failing.error;
  return failing.error > 0;
}

int openNode(const Kind& kind, int flags, bool media) {
  const Locked locked;
  const Faults wrong = faults();
  if (!media) {
    if (fails()) return -1;
    bool& isGone = gone[kind.number - first];
    isGone = isGone && wrong.goneAfter != 0;
    if (isGone || wrong.busy != 0 || wrong.forbidden != 0)
      return failWith(isGone ? ENODEV : wrong.busy != 0 ? EBUSY : EACCES);
  }
  const int fd = memfd_create("stand-in", (flags & O_CLOEXEC) != 0 ? MFD_CLOEXEC : 0);
  if (fd < 0) return fd;
  fcntl(fd, F_SETFL, flags & O_NONBLOCK);
  const auto begin = [&] {
    auto session = media ? nullptr : std::make_unique<Session>(kind, wrong);
    nodes()[fd] = std::shared_ptr<Node>(new Node{kind, std::move(session)});
    return fd;
  };
  const int answer = work(begin, -1);
  if (answer < 0) NEXT(close)(fd);
  return answer;
}

int mediaCall(const Kind& kind, unsigned long request, void* argument) {
  if (request == MEDIA_IOC_DEVICE_INFO) {
    media_device_info info = {};
    std::strcpy(info.driver, "stand-in");
    std::strcpy(info.model, "stand-in");
    std::strcpy(info.bus_info, "platform:stand-in");
    info.media_version = info.driver_version = 6 << 16 | 1 << 8;
    *static_cast<media_device_info*>(argument) = info;
    return 0;
  }
  if (request != MEDIA_IOC_G_TOPOLOGY) return failWith(ENOTTY);
  // The coder between what the kernel calls its source and its sink, which the node is for.
  const std::uint32_t coder =
      kind.encoder ? MEDIA_ENT_F_PROC_VIDEO_ENCODER : MEDIA_ENT_F_PROC_VIDEO_DECODER;
  const media_v2_entity entities[] = {{1, "stand-in-source", MEDIA_ENT_F_IO_V4L, 0, {}},
                                      {2, "stand-in-proc", coder, 0, {}},
                                      {3, "stand-in-sink", MEDIA_ENT_F_IO_V4L, 0, {}}};
  media_v2_interface interface = {};
  interface.id = 4;
  interface.intf_type = MEDIA_INTF_T_V4L_VIDEO;
  interface.devnode = {81, kind.number};
  const media_v2_pad pads[] = {{5, 1, MEDIA_PAD_FL_SOURCE, 0, {}},
                               {6, 2, MEDIA_PAD_FL_SINK, 0, {}},
                               {7, 2, MEDIA_PAD_FL_SOURCE, 1, {}},
                               {8, 3, MEDIA_PAD_FL_SINK, 0, {}}};
  constexpr std::uint32_t fixed = MEDIA_LNK_FL_IMMUTABLE | MEDIA_LNK_FL_ENABLED;
  const media_v2_link links[] = {{9, 5, 6, fixed, {}},
                                 {10, 7, 8, fixed, {}},
                                 {11, 4, 1, fixed | MEDIA_LNK_FL_INTERFACE_LINK, {}},
                                 {12, 4, 3, fixed | MEDIA_LNK_FL_INTERFACE_LINK, {}}};
  auto& topology = *static_cast<media_v2_topology*>(argument);
  const auto put = [](const auto& values, std::uint64_t where) {
    if (where != 0) std::memcpy(reinterpret_cast<void*>(where), &values, sizeof values);
  };
  put(entities, topology.ptr_entities);
  put(interface, topology.ptr_interfaces);
  put(pads, topology.ptr_pads);
  put(links, topology.ptr_links);
  topology.topology_version = topology.num_interfaces = 1;
  topology.num_entities = 3;
  topology.num_pads = topology.num_links = 4;
  return 0;
}

/// What an ioctl() answers; EINTR where it blocks.
int answer(const Node& node, const standin::Call& call) {
  if (node.session == nullptr) return mediaCall(node.kind, call.request, call.argument);
  const auto address = reinterpret_cast<std::uintptr_t>(call.argument) & ~std::uintptr_t{4095};
  if (_IOC_SIZE(call.request) != 0 && msync(reinterpret_cast<void*>(address), 1, MS_ASYNC) != 0)
    return failWith(Session::knows(call.request) ? EFAULT : ENOTTY);
  if (fails(node.session.get())) return -1;
  const int result = work([&] { return node.session->call(call); }, -1);
  if (node.session->isGone()) gone[node.kind.number - first] = true;
  return result;
}

/// The system's, past a program that has clocks of its own.
void nap() {
  const timespec moment = {0, 500000};
  NEXT(nanosleep)(&moment, nullptr);
}

short look(pollfd& each) {
  const Locked locked;
  const Node* const node = nodeOf(each.fd);
  each.revents = 0;
  if (node == nullptr || node->session == nullptr) return NEXT(poll)(&each, 1, 0) > 0;
  Session& session = *node->session;
  each.revents = static_cast<short>(work([&] { return session.look(each.events); }, POLLERR));
  if (session.isGone()) gone[node->kind.number - first] = true;
  return each.revents != 0;
}

bool anyOfOurs(const pollfd* all, nfds_t size) {
  const Locked locked;
  for (nfds_t i = 0; i < size; ++i)
    if (sessionOf(all[i].fd) != nullptr) return true;
  return size == 0 && !nodes().empty();
}

/// When the first of them will have something to tell, if nobody gives it anything before.
std::uint64_t nextDue(const pollfd* all, nfds_t size, std::uint64_t end) {
  const Locked locked;
  for (nfds_t i = 0; i < size; ++i) {
    const Session* const session = sessionOf(all[i].fd);
    if (session == nullptr) return 0;
    if (session->due() != 0) end = std::min(end, session->due());
  }
  return end;
}

/// Waiting for nothing is a pause between two looks at a device.
int pollDevices(pollfd* all, nfds_t size, int milliseconds) {
  if (const Locked locked; size > 0 && fails(sessionOf(all[0].fd))) return -1;
  const std::uint64_t end =
      milliseconds < 0 ? UINT64_MAX : standin::nowMs() + static_cast<unsigned>(milliseconds);
  for (;;) {
    int ready = 0;
    for (nfds_t i = 0; i < size; ++i) ready += look(all[i]);
    if (ready > 0 || standin::nowMs() >= end) return ready;
    const std::uint64_t next = nextDue(all, size, end);
    if (next == 0 || next == UINT64_MAX)
      nap();
    else
      standin::skipTo(next);
  }
}

int statusOf(const Kind& kind, struct stat* status) {
  std::memset(status, 0, sizeof *status);
  status->st_mode = S_IFCHR | 0660;
  status->st_nlink = 1;
  status->st_rdev = makedev(81, kind.number);
  return 0;
}

}  // namespace

SHOWN int open(const char* path, int flags, ...) {
  va_list list;
  va_start(list, flags);
  const mode_t mode = (flags & (O_CREAT | O_TMPFILE)) != 0 ? va_arg(list, mode_t) : 0;
  va_end(list);
  if (const Kind* const kind = kindOf(path, "/dev/video")) return openNode(*kind, flags, false);
  if (const Kind* const kind = kindOf(path, "/dev/media")) return openNode(*kind, flags, true);
  return NEXT(open)(path, flags, mode);
}

SHOWN int dup(int fd) noexcept {
  const Locked locked;
  const int copy = NEXT(dup)(fd);
  const auto found = nodes().find(fd);
  if (copy >= 0 && found != nodes().end()) nodes()[copy] = found->second;
  return copy;
}

SHOWN int close(int fd) {
  {
    const Locked locked;
    nodes().erase(fd);
  }
  return NEXT(close)(fd);
}

SHOWN int ioctl(int fd, unsigned long request, ...) noexcept {
  va_list list;
  va_start(list, request);
  void* const argument = va_arg(list, void*);
  va_end(list);
  for (;; nap()) {
    const Locked locked;
    const Node* const node = nodeOf(fd);
    if (node == nullptr) return NEXT(ioctl)(fd, request, argument);
    // A call that blocks is asked again until it does not.
    const int result = answer(*node, {fd, request & 0xffffffff, argument});
    if (result == 0 || errno != EINTR) return result;
  }
}

SHOWN void* mmap(void* where, std::size_t size, int access, int flags, int fd, off_t at) noexcept {
  if (fd >= 0 && !working) {
    const Locked locked;
    Session* const session = sessionOf(fd);
    if (session != nullptr && fails(session)) return MAP_FAILED;
  }
  return NEXT(mmap)(where, size, access, flags, fd, at);
}

SHOWN ssize_t read(int fd, void* to, std::size_t size) {
  return sessionOf(fd) != nullptr ? failWith(EINVAL) : NEXT(read)(fd, to, size);
}
SHOWN ssize_t write(int fd, const void* from, std::size_t size) {
  return sessionOf(fd) != nullptr ? failWith(EINVAL) : NEXT(write)(fd, from, size);
}

SHOWN int poll(pollfd* all, nfds_t size, int timeout) {
  return anyOfOurs(all, size) ? pollDevices(all, size, timeout) : NEXT(poll)(all, size, timeout);
}
SHOWN int ppoll(pollfd* all, nfds_t size, const timespec* limit, const sigset_t* mask) {
  if (!anyOfOurs(all, size)) return NEXT(ppoll)(all, size, limit, mask);
  const auto milliseconds = limit == nullptr ? -1 : limit->tv_sec * 1000 + limit->tv_nsec / 1000000;
  return pollDevices(all, size, static_cast<int>(milliseconds));
}

SHOWN int select(int size, fd_set* in, fd_set* out, fd_set* special, timeval* limit) {
  struct Set {
    fd_set* set;
    int wanted, answers;
  };
  const Set sets[] = {{in, POLLIN, POLLIN | POLLERR | POLLHUP},
                      {out, POLLOUT, POLLOUT | POLLERR},
                      {special, POLLPRI, POLLPRI}};
  std::vector<pollfd> all;
  for (int fd = 0; fd < size; ++fd) {
    int events = 0;
    for (const Set& each : sets)
      if (each.set != nullptr && FD_ISSET(fd, each.set)) events |= each.wanted;
    if (events != 0) all.push_back({fd, static_cast<short>(events), 0});
  }
  if (!anyOfOurs(all.data(), all.size())) return NEXT(select)(size, in, out, special, limit);
  const auto milliseconds = limit == nullptr ? -1 : limit->tv_sec * 1000 + limit->tv_usec / 1000;
  pollDevices(all.data(), all.size(), static_cast<int>(milliseconds));
  int ready = 0;
  for (const pollfd& each : all)
    for (const Set& asked : sets) {
      if (asked.set == nullptr || !FD_ISSET(each.fd, asked.set)) continue;
      if ((each.revents & asked.answers) != 0)
        ++ready;
      else
        FD_CLR(each.fd, asked.set);
    }
  return ready;
}

namespace {
std::map<int, epoll_event> watched;  // by the one epoll descriptor that watches a device
int watcher = -1;
}  // namespace

SHOWN int epoll_ctl(int epoll, int operation, int fd, epoll_event* event) noexcept {
  const Locked locked;
  if (sessionOf(fd) == nullptr) return NEXT(epoll_ctl)(epoll, operation, fd, event);
  if (watcher != epoll) watched.clear();
  watcher = epoll;
  if (operation == EPOLL_CTL_DEL)
    watched.erase(fd);
  else
    watched[fd] = *event;
  return 0;
}
SHOWN int epoll_wait(int epoll, epoll_event* events, int most, int timeout) {
  std::vector<pollfd> all;
  for (const auto& each : watched)
    if (epoll == watcher) all.push_back({each.first, static_cast<short>(each.second.events), 0});
  if (!anyOfOurs(all.data(), all.size())) return NEXT(epoll_wait)(epoll, events, most, timeout);
  pollDevices(all.data(), all.size(), timeout);
  int ready = 0;
  for (const pollfd& each : all) {
    if (each.revents == 0 || ready == most) continue;
    events[ready] = watched[each.fd];
    events[ready++].events = static_cast<std::uint32_t>(each.revents);
  }
  return ready;
}

// ---- for the tests in the same process

SHOWN void standin_fail(unsigned nth, int error, bool forGood) {
  const Locked locked;
  failing = {nth, error, forGood, 0};
}
SHOWN unsigned standin_calls() {
  return failing.calls;
}
SHOWN bool standin_works() {
  return working;
}
SHOWN unsigned long long standin_now() {
  return standin::nowMs();
}

// ---- what the devices look like

SHOWN int fstat(int fd, struct stat* status) noexcept {
  const Locked locked;
  const Node* const node = nodeOf(fd);
  return node != nullptr ? statusOf(node->kind, status) : NEXT(fstat)(fd, status);
}
SHOWN int stat(const char* path, struct stat* status) noexcept {
  const Kind* const kind = kindOf(path, "/dev/video");
  return kind != nullptr ? statusOf(*kind, status) : NEXT(stat)(path, status);
}

/// What /sys says of a device.
SHOWN FILE* fopen(const char* path, const char* mode) {
  const Kind* const kind = kindOf(path, "/sys/dev/char/81:");
  if (kind == nullptr || std::strstr(path, "/uevent") == nullptr) return NEXT(fopen)(path, mode);
  // A real descriptor: it is read past the C library.
  FILE* const file = fdopen(memfd_create("uevent", MFD_CLOEXEC), "w+");
  std::fprintf(file, "MAJOR=81\nMINOR=%u\nDEVNAME=video%u\n", kind->number, kind->number);
  std::rewind(file);
  return file;
}

namespace {
DIR* devices = nullptr;  // the folder that they are listed in
unsigned listed = 0;
DIR* systemFolder = nullptr;  // what /sys lists of one of them: its media device
unsigned systemNumber = 0;
}  // namespace

SHOWN DIR* opendir(const char* path) {
  const Kind* const kind = kindOf(path, "/sys/dev/char/81:");
  const bool listsMedia = kind != nullptr && std::strstr(path, "/device") != nullptr;
  DIR* const folder = NEXT(opendir)(listsMedia ? "/proc/self/fdinfo" : path);
  if (folder == systemFolder) systemFolder = nullptr;
  if (folder == devices) devices = nullptr;
  if (listsMedia) systemFolder = folder, systemNumber = kind->number;
  if (std::strcmp(path, "/dev") == 0 || std::strcmp(path, "/dev/") == 0)
    devices = folder, listed = 0;
  return folder;
}
SHOWN dirent* readdir(DIR* folder) {
  static thread_local dirent ours;
  ours.d_type = DT_CHR;
  if (folder == systemFolder) {
    std::snprintf(ours.d_name, sizeof ours.d_name, "media%u", systemNumber);
    return std::exchange(systemNumber, 0) != 0 ? &ours : nullptr;
  }
  dirent* const entry = NEXT(readdir)(folder);
  if (entry != nullptr || folder != devices || listed == count) return entry;
  std::snprintf(ours.d_name, sizeof ours.d_name, "video%u", kinds[listed++].number);
  return &ours;
}
