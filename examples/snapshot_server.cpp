// Serves the latest JPEG of a camera over HTTP:
//
//   /              a page that shows the live picture
//   /snapshot.jpg  the latest JPEG
//   /live          all of them, as multipart/x-mixed-replace
//   /quit          ends the program, when asked from this machine
//
//   example_snapshot_server PORT [ADDRESS]
//
// Port 0 picks a free one; it is printed. ADDRESS is where to listen: 127.0.0.1, this machine
// alone, unless told otherwise; 0.0.0.0 is every network of this machine.
//
// The camera here is a drawing; put your own frames into draw().

#include <arpa/inet.h>
#include <httplib.h>
#include <sys/socket.h>
#include <tessera/tessera.h>

#include <atomic>
#include <cerrno>
#include <charconv>
#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <cstring>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

namespace {

constexpr int width = 640, height = 480;
// Every viewer keeps one thread of the server; the rest of them serve everybody else.
constexpr int mostViewers = 64, threads = mostViewers + 8;

/// The latest JPEG, and a way to wait for the one after it.
class Latest {
 public:
  void put(std::string jpeg) {
    {
      const std::lock_guard<std::mutex> lock(mutex_);
      jpeg_ = std::move(jpeg);
      ++number_;
    }
    changed_.notify_all();
  }
  /// The first one newer than `number`, which becomes its number; empty after two seconds without.
  std::string after(unsigned& number) {
    std::unique_lock<std::mutex> lock(mutex_);
    if (!changed_.wait_for(lock, std::chrono::seconds(2), [&] { return number_ > number; }))
      return {};
    number = number_;
    return jpeg_;
  }

 private:
  std::mutex mutex_;
  std::condition_variable changed_;
  std::string jpeg_;
  unsigned number_ = 0;
};

/// A disc that circles over bands of colour, as YUYV.
void draw(std::vector<unsigned char>& frame, int t) {
  for (int y = 0; y < height; ++y)
    for (int x = 0; x < width; ++x) {
      const int dx = x - 320 - (t * 7 % 400 - 200), dy = y - 240;
      const bool disc = dx * dx + dy * dy < 90 * 90;
      unsigned char* const p = &frame[(static_cast<std::size_t>(y) * width + x) * 2];
      p[0] = static_cast<unsigned char>(disc ? 220 : 60 + y / 4);
      p[1] = static_cast<unsigned char>(x % 2 == 0 ? (disc ? 90 : 80 + x / 8)      // blue
                                                   : (disc ? 200 : 190 - x / 8));  // red
    }
}

void film(Latest& latest, const std::atomic<bool>& running) {
  const std::unique_ptr<IJPEGEncoder, int (*)(IJPEGEncoder*)> encoder(CreateEncoderJPEG(),
                                                                      ReleaseEncoderJPEG);
  std::vector<unsigned char> frame(width * height * 2), jpeg(width * height * 2);
  for (int t = 0; running; ++t) {
    draw(frame, t);
    unsigned size = 0;
    if (encoder->EncodeYUYV(frame.data(), static_cast<unsigned>(frame.size()), width, height,
                            jpeg.data(), static_cast<unsigned>(jpeg.size()), size) == 1)
      latest.put(std::string(jpeg.begin(), jpeg.begin() + size));
    std::this_thread::sleep_for(std::chrono::milliseconds(40));
  }
}

const char page[] =
    "<!doctype html><title>Live</title><style>body{background:#222;color:#eee;font:16px sans-serif;"
    "text-align:center}img{border:4px solid #eee}</style><h1>Live picture</h1>"
    "<img src=/live width=640 height=480 alt=camera>";

/// Streams every JPEG to one viewer, as long as there is room for one more.
void live(Latest& latest, const std::atomic<bool>& running, std::atomic<int>& viewers,
          httplib::Response& response) {
  if (++viewers > mostViewers) {
    --viewers;
    response.status = 503;
    return;
  }
  response.set_content_provider(
      "multipart/x-mixed-replace; boundary=frame",
      [&latest, &running, number = 0u](std::size_t, httplib::DataSink& sink) mutable {
        const std::string jpeg = latest.after(number);
        const std::string head = "--frame\r\nContent-Type: image/jpeg\r\nContent-Length: " +
                                 std::to_string(jpeg.size()) + "\r\n\r\n";
        return running && !jpeg.empty() && sink.write(head.data(), head.size()) &&
               sink.write(jpeg.data(), jpeg.size()) && sink.write("\r\n", 2);
      },
      [&viewers](bool) { --viewers; });
}

void route(httplib::Server& server, Latest& latest, std::atomic<bool>& running,
           std::atomic<int>& viewers) {
  server.Get("/", [](const auto&, auto& response) { response.set_content(page, "text/html"); });
  server.Get("/snapshot.jpg", [&](const auto&, auto& response) {
    unsigned number = 0;
    const std::string jpeg = latest.after(number);
    if (jpeg.empty()) response.status = 503;
    response.set_content(jpeg, "image/jpeg");
  });
  server.Get("/live",
             [&](const auto&, auto& response) { live(latest, running, viewers, response); });
  server.Get("/quit", [&](const auto& request, auto& response) {
    if (request.remote_addr != "127.0.0.1" && request.remote_addr != "::1") {
      response.status = 403;
      return;
    }
    running = false;
    server.stop();
  });
}

/// The port that the server listens on from now on, or -1 after a line on standard error.
int listenOn(httplib::Server& server, const std::string& address, int port) {
  server.new_task_queue = [] { return new httplib::ThreadPool(threads); };
  server.set_keep_alive_max_count(1);  // an idle connection would keep its thread
  // The library's own choice lets a second server take a port that is in use.
  server.set_socket_options([](int socket) {
    const int yes = 1;
    setsockopt(socket, SOL_SOCKET, SO_REUSEADDR, &yes, sizeof yes);
  });
  errno = 0;
  const int bound = port == 0 ? server.bind_to_any_port(address)
                              : (server.bind_to_port(address, port) ? port : -1);
  if (bound < 0)
    std::fprintf(stderr, "cannot listen on %s, port %d: %s\n", address.c_str(), port,
                 std::strerror(errno));
  return bound;
}

/// The port that `text` names, or -1.
int portOf(const std::string& text) {
  int port = -1;
  const char* const end = text.data() + text.size();
  const auto [rest, error] = std::from_chars(text.data(), end, port);
  return error == std::errc() && rest == end && port >= 0 && port <= 65535 ? port : -1;
}

bool isAddress(const char* text) {
  unsigned char binary[sizeof(in6_addr)];
  return inet_pton(AF_INET, text, binary) == 1 || inet_pton(AF_INET6, text, binary) == 1;
}

}  // namespace

int main(int argc, char** argv) {
  const std::string address = argc > 2 ? argv[2] : "127.0.0.1";
  const int asked = argc > 1 ? portOf(argv[1]) : -1;
  if (argc < 2 || argc > 3 || asked < 0 || !isAddress(address.c_str())) {
    if (argc > 1 && asked < 0)
      std::fprintf(stderr, "'%s' is no port: 0 to 65535\n", argv[1]);
    else if (argc > 2)
      std::fprintf(stderr, "'%s' is no address, such as 127.0.0.1\n", argv[2]);
    std::fprintf(stderr, "usage: %s PORT [ADDRESS]\n", argv[0]);
    return 2;
  }
  httplib::Server server;
  const int port = listenOn(server, address, asked);
  if (port < 0) return 1;

  Latest latest;
  std::atomic<bool> running{true};
  std::atomic<int> viewers{0};
  route(server, latest, running, viewers);
  std::thread camera([&] { film(latest, running); });
  const bool six = address.find(':') != std::string::npos;
  std::fprintf(stderr, "http://%s%s%s:%d/\n", six ? "[" : "", address.c_str(), six ? "]" : "",
               port);
  server.listen_after_bind();
  running = false;
  camera.join();
  return 0;
}
