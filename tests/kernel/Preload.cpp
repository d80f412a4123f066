// Puts the stand-in devices in front of a program: /dev/video50 and its neighbours, for every call
// with which a program may come across them.
#include <dirent.h>
#include <dlfcn.h>
#include <fcntl.h>
#include <linux/media.h>
#include <linux/v4l2-controls.h>
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

namespace {

using standin::Faults;
using standin::Kind;
using standin::Session;

constexpr Kind kinds[] = {{50, "Stand-in H.264 encoder", true, V4L2_PIX_FMT_H264},
                          {51, "Stand-in H.264 decoder", false, V4L2_PIX_FMT_H264},
                          {52, "Stand-in JPEG encoder", true, V4L2_PIX_FMT_JPEG},
                          {53, "Stand-in JPEG decoder", false, V4L2_PIX_FMT_JPEG}};
constexpr unsigned first = 50, count = 4;

std::recursive_mutex& lock() {
  static auto* const mutex = new std::recursive_mutex;
  return *mutex;
}
// Media devices say no more than which function the video device of the same number has.
std::map<int, const Kind*>& mediaDevices() {
  static auto* const all = new std::map<int, const Kind*>;
  return *all;
}

int mediaCall(const Kind& kind, unsigned long request, void* argument) {
  if (request == MEDIA_IOC_DEVICE_INFO) {
    auto& info = *static_cast<media_device_info*>(argument);
    std::memset(&info, 0, sizeof info);
    std::strcpy(info.driver, "stand-in");
    std::strcpy(info.model, "stand-in");
    std::strcpy(info.bus_info, "platform:stand-in");
    info.media_version = info.driver_version = 6 << 16 | 1 << 8;
    return 0;
  }
  if (request != MEDIA_IOC_G_TOPOLOGY) {
    errno = ENOTTY;
    return -1;
  }
  // The coder between what the kernel calls its source and its sink, which the node is for.
  media_v2_entity entities[3] = {};
  const std::uint32_t coder =
      kind.encoder ? MEDIA_ENT_F_PROC_VIDEO_ENCODER : MEDIA_ENT_F_PROC_VIDEO_DECODER;
  const std::uint32_t functions[] = {MEDIA_ENT_F_IO_V4L, coder, MEDIA_ENT_F_IO_V4L};
  const char* const names[] = {"stand-in-source", "stand-in-proc", "stand-in-sink"};
  for (unsigned i = 0; i < 3; ++i) {
    entities[i].id = i + 1;
    std::strcpy(entities[i].name, names[i]);
    entities[i].function = functions[i];
  }
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

std::map<int, std::shared_ptr<Session>>& sessions() {
  static auto* const all = new std::map<int, std::shared_ptr<Session>>;
  return *all;
}
std::map<int, epoll_event>* watched = nullptr;  // by the one epoll descriptor that watches a device
int watcher = -1;
bool gone[count] = {};

template <typename Function>
Function* next(Function*, const char* name) {
  return reinterpret_cast<Function*>(dlsym(RTLD_NEXT, name));
}
#define NEXT(name) next(&name, #name)

Session* sessionOf(int fd) {
  const auto found = sessions().find(fd);
  return found == sessions().end() ? nullptr : found->second.get();
}

Faults faults() {
  Faults all;
  const char* text = std::getenv("TESSERA_STANDIN");
  std::string words = std::string(text != nullptr ? text : "") + ",";
  for (std::size_t at = 0, end; (end = words.find(',', at)) != words.npos; at = end + 1) {
    const std::string word = words.substr(at, end - at), key = word.substr(0, word.find('='));
    const auto value =
        static_cast<unsigned>(std::atoi(word.c_str() + std::min(word.size(), key.size() + 1)));
    if (key == "drop") all.dropEach = value;
    if (key == "delay") all.delayMs = value;
    if (key == "silent") all.silentAfter = value;
    if (key == "gone") all.goneAfter = value;
    if (key == "stride") all.stride = value;
    if (key == "align") all.align = value;
    if (key == "nv12") all.nv12 = true;
    if (key == "mplane") all.multiPlanar = true;
    if (key == "lag") all.lag = true;
    if (key == "plain") all.plain = true;
    if (key == "stubborn") all.stubborn = true;
    if (key == "busy") all.openError = EBUSY;
    if (key == "forbidden") all.openError = EACCES;
  }
  return all;
}

const Kind* kindOf(const char* path, const char* prefix = "/dev/video") {
  char* end = nullptr;
  if (path == nullptr || std::strncmp(path, prefix, 10) != 0) return nullptr;
  const unsigned long number = std::strtoul(path + 10, &end, 10);
  return *end == 0 && number >= first && number < first + count ? &kinds[number - first] : nullptr;
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

int openDevice(const Kind& kind, int flags, bool media) {
  const std::lock_guard<std::recursive_mutex> held(lock());
  if (fails()) return -1;
  if (media) {
    const int fd = memfd_create("stand-in media", MFD_CLOEXEC);
    mediaDevices()[fd] = &kind;
    return fd;
  }
  const Faults wrong = faults();
  bool& isGone = gone[kind.number - first];
  isGone = isGone && wrong.goneAfter != 0;
  errno = isGone ? ENODEV : wrong.openError;
  if (errno != 0) return -1;
  const int fd = memfd_create("stand-in", (flags & O_CLOEXEC) != 0 ? MFD_CLOEXEC : 0);
  if (fd < 0) return fd;
  fcntl(fd, F_SETFL, flags & O_NONBLOCK);
  const auto begin = [&] {
    sessions()[fd] = std::make_shared<Session>(kind, wrong);
    return fd;
  };
  const int answer = work(begin, -1);
  if (answer < 0) NEXT(close)(fd);
  return answer;
}

short look(int fd, short wanted) {
  const std::lock_guard<std::recursive_mutex> held(lock());
  Session* const session = sessionOf(fd);
  if (session == nullptr) return POLLNVAL;
  const int events = work([&] { return session->look(wanted); }, POLLERR);
  if (session->isGone()) gone[session->kind().number - first] = true;
  return static_cast<short>(events);
}

/// The system's, past a program that has clocks of its own.
void nap() {
  const timespec moment = {0, 500000};
  NEXT(nanosleep)(&moment, nullptr);
}

bool anyOfOurs(const pollfd* all, nfds_t size) {
  const std::lock_guard<std::recursive_mutex> held(lock());
  for (nfds_t i = 0; i < size; ++i)
    if (sessionOf(all[i].fd) != nullptr) return true;
  return size == 0 && !sessions().empty();
}

/// When the first of them will have something to tell, if nobody gives it anything before.
std::uint64_t nextDue(const pollfd* all, nfds_t size, std::uint64_t end) {
  const std::lock_guard<std::recursive_mutex> held(lock());
  for (nfds_t i = 0; i < size; ++i) {
    const Session* const session = sessionOf(all[i].fd);
    if (session == nullptr) return 0;
    if (session->due() != 0) end = std::min(end, session->due());
  }
  return end;
}

/// Waiting for nothing is a pause between two looks at a device.
int pollDevices(pollfd* all, nfds_t size, int milliseconds) {
  {
    const std::lock_guard<std::recursive_mutex> held(lock());
    if (size > 0 && fails(sessionOf(all[0].fd))) return -1;
  }
  const std::uint64_t end =
      milliseconds < 0 ? UINT64_MAX : standin::nowMs() + static_cast<unsigned>(milliseconds);
  for (;;) {
    int ready = 0;
    for (nfds_t i = 0; i < size; ++i) {
      pollfd& each = all[i];
      each.revents = look(each.fd, each.events);
      if (each.revents == POLLNVAL) {
        each.revents = 0;
        NEXT(poll)(&each, 1, 0);
      }
      ready += each.revents != 0;
    }
    if (ready > 0 || standin::nowMs() >= end) return ready;
    const std::uint64_t next = nextDue(all, size, end);
    if (next == 0 || next == UINT64_MAX)
      nap();
    else
      standin::skipTo(next);
  }
}

int milliseconds(const timespec* time) {
  return time == nullptr ? -1 : static_cast<int>(time->tv_sec * 1000 + time->tv_nsec / 1000000);
}

bool isMapped(void* pointer) {
  const auto address = reinterpret_cast<std::uintptr_t>(pointer) & ~std::uintptr_t{4095};
  return msync(reinterpret_cast<void*>(address), 1, MS_ASYNC) == 0;
}

template <typename Status>
int statusOf(const Kind& kind, Status* status) {
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
  const Kind* const kind = kindOf(path);
  const Kind* const media = kindOf(path, "/dev/media");
  if (kind != nullptr || media != nullptr)
    return openDevice(kind != nullptr ? *kind : *media, flags, media != nullptr);
  return NEXT(open)(path, flags, mode);
}
SHOWN int open64(const char* path, int flags, ...) {
  va_list list;
  va_start(list, flags);
  const mode_t mode = (flags & (O_CREAT | O_TMPFILE)) != 0 ? va_arg(list, mode_t) : 0;
  va_end(list);
  const Kind* const kind = kindOf(path);
  return kind != nullptr ? openDevice(*kind, flags, false) : NEXT(open64)(path, flags, mode);
}
SHOWN int __open_2(const char* path, int flags) {
  return open(path, flags);
}
SHOWN int __open64_2(const char* path, int flags) {
  return open64(path, flags);
}

SHOWN int dup(int fd) noexcept {
  const std::lock_guard<std::recursive_mutex> held(lock());
  const int copy = NEXT(dup)(fd);
  const auto found = sessions().find(fd);
  if (copy >= 0 && found != sessions().end()) sessions()[copy] = found->second;
  return copy;
}

SHOWN int close(int fd) {
  {
    const std::lock_guard<std::recursive_mutex> held(lock());
    sessions().erase(fd);
    mediaDevices().erase(fd);
    if (fd == watcher) watcher = -1;
  }
  return NEXT(close)(fd);
}

SHOWN int ioctl(int fd, unsigned long request, ...) noexcept {
  va_list list;
  va_start(list, request);
  void* const argument = va_arg(list, void*);
  va_end(list);
  for (;;) {
    {
      const std::lock_guard<std::recursive_mutex> held(lock());
      Session* const session = sessionOf(fd);
      const auto media = mediaDevices().find(fd);
      if (media != mediaDevices().end())
        return mediaCall(*media->second, request & 0xffffffff, argument);
      if (session == nullptr) return NEXT(ioctl)(fd, request, argument);
      if (_IOC_SIZE(request) != 0 && !isMapped(argument)) {
        errno = Session::knows(request & 0xffffffff) ? EFAULT : ENOTTY;
        return -1;
      }
      if (fails(session)) return -1;
      const int answer = work(
          [&] {
            return session->call({fd, request & 0xffffffff, argument});
          },
          -1);
      if (session->isGone()) gone[session->kind().number - first] = true;
      // A call that blocks is asked again until it does not.
      if (answer == 0 || errno != EINTR) return answer;
    }
    nap();
  }
}

SHOWN void* mmap(void* where, std::size_t size, int access, int flags, int fd, off_t at) noexcept {
  if (fd >= 0 && !working) {
    const std::lock_guard<std::recursive_mutex> held(lock());
    Session* const session = sessionOf(fd);
    if (session != nullptr && fails(session)) return MAP_FAILED;
  }
  return NEXT(mmap)(where, size, access, flags, fd, at);
}

SHOWN ssize_t read(int fd, void* to, std::size_t size) {
  {
    const std::lock_guard<std::recursive_mutex> held(lock());
    if (sessionOf(fd) != nullptr) {
      errno = EINVAL;
      return -1;
    }
  }
  return NEXT(read)(fd, to, size);
}
SHOWN ssize_t write(int fd, const void* from, std::size_t size) {
  {
    const std::lock_guard<std::recursive_mutex> held(lock());
    if (sessionOf(fd) != nullptr) {
      errno = EINVAL;
      return -1;
    }
  }
  return NEXT(write)(fd, from, size);
}

SHOWN int poll(pollfd* all, nfds_t size, int timeout) {
  return anyOfOurs(all, size) ? pollDevices(all, size, timeout) : NEXT(poll)(all, size, timeout);
}
SHOWN int __poll_chk(pollfd* all, nfds_t size, int timeout, std::size_t) {
  return poll(all, size, timeout);
}
SHOWN int ppoll(pollfd* all, nfds_t size, const timespec* timeout, const sigset_t* mask) {
  return anyOfOurs(all, size) ? pollDevices(all, size, milliseconds(timeout))
                              : NEXT(ppoll)(all, size, timeout, mask);
}

SHOWN int select(int size, fd_set* in, fd_set* out, fd_set* special, timeval* timeout) {
  std::vector<pollfd> all;
  const auto isIn = [](int fd, const fd_set* set) { return set != nullptr && FD_ISSET(fd, set); };
  for (int fd = 0; fd < size; ++fd) {
    const int events = (isIn(fd, in) ? POLLIN : 0) | (isIn(fd, out) ? POLLOUT : 0) |
                       (isIn(fd, special) ? POLLPRI : 0);
    if (events != 0) all.push_back({fd, static_cast<short>(events), 0});
  }
  if (!anyOfOurs(all.data(), all.size())) return NEXT(select)(size, in, out, special, timeout);
  const timespec limit =
      timeout == nullptr ? timespec() : timespec{timeout->tv_sec, timeout->tv_usec * 1000};
  pollDevices(all.data(), all.size(), timeout == nullptr ? -1 : milliseconds(&limit));
  int ready = 0;
  const auto answer = [&](const pollfd& each, fd_set* set, int events) {
    if (set == nullptr || !FD_ISSET(each.fd, set)) return;
    if ((each.revents & events) != 0)
      ++ready;
    else
      FD_CLR(each.fd, set);
  };
  for (const pollfd& each : all) {
    answer(each, in, POLLIN | POLLERR | POLLHUP);
    answer(each, out, POLLOUT | POLLERR);
    answer(each, special, POLLPRI);
  }
  return ready;
}

SHOWN int epoll_ctl(int epoll, int operation, int fd, epoll_event* event) noexcept {
  const std::lock_guard<std::recursive_mutex> held(lock());
  if (sessionOf(fd) == nullptr) return NEXT(epoll_ctl)(epoll, operation, fd, event);
  if (watched == nullptr) watched = new std::map<int, epoll_event>;
  if (watcher != epoll) watched->clear();
  watcher = epoll;
  if (operation == EPOLL_CTL_DEL)
    watched->erase(fd);
  else
    (*watched)[fd] = *event;
  return 0;
}
SHOWN int epoll_wait(int epoll, epoll_event* events, int most, int timeout) {
  if (epoll != watcher || watched == nullptr) return NEXT(epoll_wait)(epoll, events, most, timeout);
  std::vector<pollfd> all;
  for (const auto& each : *watched)
    all.push_back({each.first, static_cast<short>(each.second.events), 0});
  pollDevices(all.data(), all.size(), timeout);
  int ready = 0;
  for (const pollfd& each : all) {
    if (each.revents == 0 || ready == most) continue;
    events[ready] = (*watched)[each.fd];
    events[ready++].events = static_cast<std::uint32_t>(each.revents);
  }
  return ready;
}

// ---- for the tests in the same process

SHOWN void standin_fail(unsigned nth, int error, bool forGood) {
  const std::lock_guard<std::recursive_mutex> held(lock());
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
  const std::lock_guard<std::recursive_mutex> held(lock());
  Session* const session = sessionOf(fd);
  const auto media = mediaDevices().find(fd);
  if (media != mediaDevices().end()) return statusOf(*media->second, status);
  return session != nullptr ? statusOf(session->kind(), status) : NEXT(fstat)(fd, status);
}
SHOWN int fstat64(int fd, struct stat64* status) noexcept {
  const std::lock_guard<std::recursive_mutex> held(lock());
  Session* const session = sessionOf(fd);
  return session != nullptr ? statusOf(session->kind(), status) : NEXT(fstat64)(fd, status);
}
SHOWN int stat(const char* path, struct stat* status) noexcept {
  const Kind* const kind = kindOf(path);
  return kind != nullptr ? statusOf(*kind, status) : NEXT(stat)(path, status);
}
SHOWN int stat64(const char* path, struct stat64* status) noexcept {
  const Kind* const kind = kindOf(path);
  return kind != nullptr ? statusOf(*kind, status) : NEXT(stat64)(path, status);
}

namespace {

/// What /sys says of a device of ours; null for any other file.
FILE* eventFile(const char* path) {
  unsigned number = 0;
  char rest = 0;
  if (path == nullptr || std::sscanf(path, "/sys/dev/char/81:%u/ueven%c", &number, &rest) != 2 ||
      number < first || number >= first + count)
    return nullptr;
  char text[80];
  const int size =
      std::snprintf(text, sizeof text, "MAJOR=81\nMINOR=%u\nDEVNAME=video%u\n", number, number);
  const int fd = memfd_create("uevent", MFD_CLOEXEC);
  if (write(fd, text, static_cast<std::size_t>(size)) != size) return nullptr;
  lseek(fd, 0, SEEK_SET);
  return fdopen(fd, "r");
}

DIR* devices = nullptr;  // the folder that they are listed in
unsigned listed = 0;
DIR* systemFolder = nullptr;  // what /sys lists of one of them: its media device
unsigned systemNumber = 0;
}  // namespace

SHOWN FILE* fopen(const char* path, const char* mode) {
  FILE* const file = eventFile(path);
  return file != nullptr ? file : NEXT(fopen)(path, mode);
}
SHOWN FILE* fopen64(const char* path, const char* mode) {
  FILE* const file = eventFile(path);
  return file != nullptr ? file : NEXT(fopen64)(path, mode);
}

SHOWN DIR* opendir(const char* path) {
  unsigned number = 0;
  if (std::sscanf(path, "/sys/dev/char/81:%u/device", &number) == 1 && number >= first &&
      number < first + count) {
    systemFolder = NEXT(opendir)("/proc/self/fdinfo");
    systemNumber = number;
    return systemFolder;
  }
  DIR* const folder = NEXT(opendir)(path);
  if (folder == systemFolder) systemFolder = nullptr;
  if (folder == devices) devices = nullptr;
  if (std::strcmp(path, "/dev") == 0 || std::strcmp(path, "/dev/") == 0)
    devices = folder, listed = 0;
  return folder;
}
SHOWN dirent* readdir(DIR* folder) {
  static thread_local dirent ours;
  if (folder == systemFolder) {
    std::snprintf(ours.d_name, sizeof ours.d_name, "media%u", systemNumber);
    return std::exchange(systemNumber, 0) != 0 ? &ours : nullptr;
  }
  dirent* const entry = NEXT(readdir)(folder);
  if (entry != nullptr || folder != devices || listed == count) return entry;
  ours.d_type = DT_CHR;
  std::snprintf(ours.d_name, sizeof ours.d_name, "video%u", kinds[listed++].number);
  return &ours;
}
SHOWN dirent64* readdir64(DIR* folder) {
  dirent64* const entry = NEXT(readdir64)(folder);
  if (entry != nullptr || folder != devices || listed == count) return entry;
  static thread_local dirent64 ours;
  ours.d_type = DT_CHR;
  std::snprintf(ours.d_name, sizeof ours.d_name, "video%u", kinds[listed++].number);
  return &ours;
}
