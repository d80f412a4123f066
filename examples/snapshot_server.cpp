// Serves the latest JPEG of a camera over HTTP:
//
//   /              a page that shows the live picture
//   /snapshot.jpg  the latest JPEG
//   /live          all of them, as multipart/x-mixed-replace
//   /quit          ends the program
//
//   example_snapshot_server PORT        port 0 picks a free one; it is printed
//
// The camera here is a drawing; put your own frames into draw().

#include <httplib.h>
#include <tessera/tessera.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

namespace {

constexpr int width = 640, height = 480;

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

}  // namespace

int main(int argc, char** argv) {
  if (argc != 2) {
    std::fprintf(stderr, "usage: %s PORT\n", argv[0]);
    return 2;
  }
  Latest latest;
  std::atomic<bool> running{true};
  std::thread camera([&] { film(latest, running); });

  httplib::Server server;
  server.Get("/", [](const auto&, auto& response) { response.set_content(page, "text/html"); });
  server.Get("/snapshot.jpg", [&](const auto&, auto& response) {
    unsigned number = 0;
    response.set_content(latest.after(number), "image/jpeg");
  });
  server.Get("/live", [&](const auto&, auto& response) {
    response.set_content_provider(
        "multipart/x-mixed-replace; boundary=frame",
        [&, number = 0u](std::size_t, httplib::DataSink& sink) mutable {
          const std::string jpeg = latest.after(number);
          const std::string head = "--frame\r\nContent-Type: image/jpeg\r\nContent-Length: " +
                                   std::to_string(jpeg.size()) + "\r\n\r\n";
          return running && !jpeg.empty() && sink.write(head.data(), head.size()) &&
                 sink.write(jpeg.data(), jpeg.size()) && sink.write("\r\n", 2);
        });
  });
  server.Get("/quit", [&](const auto&, auto&) { running = false, server.stop(); });

  const int asked = std::atoi(argv[1]);
  const int port = asked == 0 ? server.bind_to_any_port("127.0.0.1")
                              : (server.bind_to_port("127.0.0.1", asked) ? asked : -1);
  if (port > 0) {
    std::fprintf(stderr, "http://127.0.0.1:%d/\n", port);
    server.listen_after_bind();
  } else {
    std::perror("listening");
  }
  running = false;
  camera.join();
  return port > 0 ? 0 : 1;
}
