#include "codec/kernel/Devices.h"

#include <dirent.h>
#include <sys/stat.h>

#include <algorithm>
#include <cstdlib>
#include <memory>
#include <mutex>
#include <set>
#include <tuple>

#include "codec/kernel/M2mDevice.h"

namespace codec::kernel {

namespace {

std::vector<std::string> videoNodes() {
  constexpr const char* prefix = "video";
  constexpr std::size_t letters = 5;
  std::vector<unsigned long> numbers;
  const std::unique_ptr<DIR, int (*)(DIR*)> folder(opendir("/dev"), closedir);
  if (folder == nullptr) return {};
  while (const dirent* const entry = readdir(folder.get())) {
    const std::string name = entry->d_name;
    if (name.compare(0, letters, prefix) != 0 || name.size() == letters) continue;
    if (name.find_first_not_of("0123456789", letters) != std::string::npos) continue;
    numbers.push_back(std::strtoul(name.c_str() + letters, nullptr, 10));
  }
  std::sort(numbers.begin(), numbers.end());
  std::vector<std::string> paths;
  paths.reserve(numbers.size());
  for (const unsigned long number : numbers) paths.push_back("/dev/video" + std::to_string(number));
  return paths;
}

/// Nodes that are known to be something else. Opening a camera may wake it.
class Strangers {
 public:
  bool has(const std::string& path) {
    Key key;
    const std::lock_guard<std::mutex> held(mutex_);
    return keyOf(path, key) && known_.count(key) != 0;
  }
  void add(const std::string& path) {
    Key key;
    const std::lock_guard<std::mutex> held(mutex_);
    if (keyOf(path, key)) known_.insert(key);
  }

 private:
  using Key = std::tuple<std::string, dev_t, ino_t, time_t>;
  static bool keyOf(const std::string& path, Key& key) {
    struct stat status;
    if (stat(path.c_str(), &status) != 0) return false;
    key = Key(path, status.st_rdev, status.st_ino, status.st_ctime);
    return true;
  }

  std::mutex mutex_;
  std::set<Key> known_;
};

Strangers strangers;

Node ask(const std::string& path) {
  Node node;
  node.path = path;
  if (strangers.has(path)) {
    node.passedOver = M2mDevice::stranger;
    return node;
  }
  M2mDevice device;
  if (!device.open(path)) {
    node.passedOver = device.error().substr(path.size() + 2);
    if (node.passedOver == M2mDevice::stranger) strangers.add(path);
    return node;
  }
  node.card = device.card();
  node.driver = device.driver();
  node.in = device.formats(Side::In);
  node.out = device.formats(Side::Out);
  return node;
}

bool has(const std::vector<std::uint32_t>& formats, std::uint32_t fourcc) {
  return std::find(formats.begin(), formats.end(), fourcc) != formats.end();
}

/// @return why the node is not the one; empty, and the offer, where it is
std::string judge(const Node& node, const Work& work, Offer& offer) {
  if (!node.passedOver.empty()) return node.passedOver;
  const std::vector<std::uint32_t>& codedSide = work.encode ? node.out : node.in;
  offer.coded = 0;
  std::string names;
  for (const std::uint32_t each : work.coded) {
    if (offer.coded == 0 && has(codedSide, each)) offer.coded = each;
    names += (names.empty() ? "" : " or ") + nameOf(each);
  }
  if (offer.coded == 0) return std::string("does not ") + (work.encode ? "give " : "take ") + names;
  M2mDevice device;
  if (!device.open(node.path)) return device.error().substr(node.path.size() + 2);
  offer.path = node.path;
  if (!device.largestSize(offer.coded, offer.width, offer.height)) return "";
  if (work.width <= offer.width && work.height <= offer.height) return "";
  return "takes pictures up to " + std::to_string(offer.width) + "x" +
         std::to_string(offer.height) + " only";
}

}  // namespace

std::vector<Node> nodes() {
  std::vector<Node> all;
  for (const std::string& path : videoNodes()) all.push_back(ask(path));
  return all;
}

std::vector<Offer> offersFor(const Work& work, std::vector<std::string>& reasons) {
  std::vector<Offer> offers;
  for (const Node& node : nodes()) {
    Offer offer;
    const std::string reason = judge(node, work, offer);
    if (reason.empty())
      offers.push_back(offer);
    else
      reasons.push_back(node.path + ": " + reason);
  }
  return offers;
}

}  // namespace codec::kernel
