#ifndef TESSERA_TOOLS_INPUTFILE_H
#define TESSERA_TOOLS_INPUTFILE_H

#include <atomic>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace tool {

/// A file or standard input, read in order. Every failure is a Failure that names the input.
class InputFile {
 public:
  /// @param name  a path, or "-" for standard input
  explicit InputFile(const std::string& name);
  ~InputFile();
  InputFile(const InputFile&) = delete;
  InputFile& operator=(const InputFile&) = delete;

  /// Reads until `size` bytes are there or the input ends. @return the bytes read
  std::size_t read(void* data, std::size_t size);

  /// Reads what is there, at least one byte. @return 0 at the end
  std::size_t readSome(void* data, std::size_t size);

  /// Waits until there is something to read, or the end. @return false when there was neither in
  /// time
  bool waitForData(std::chrono::milliseconds limit);

  /// The next bytes without taking them, fewer than `size` only where the input ends.
  const std::vector<std::uint8_t>& peek(std::size_t size);

  /// Goes to a place of a seekable input. @return false when the input cannot
  bool seek(std::uint64_t position);

  /// Length in bytes, known for regular files only.
  std::optional<std::uint64_t> length() const { return length_; }
  std::uint64_t position() const { return position_; }

  /// Ends every read, also one that waits for data, as if the input ended there; an Interrupt does
  /// the same. The one operation that may be called while another thread reads.
  void cancel();

  /// How far the reading has come, 0 to 1; empty when the length is not known.
  std::optional<double> fraction() const;

  /// How messages call it: the path, or "standard input".
  const std::string& name() const { return name_; }

  /// Whether a path leads to the file that this reads.
  bool isSameAs(const std::string& path) const;

 private:
  bool mayRead();

  std::string name_;
  int fd_;
  int cancelled_ = -1;  ///< an event descriptor; readable once reading is to end
  std::optional<std::uint64_t> length_;
  std::atomic<std::uint64_t> position_{0};  ///< progress is shown from another thread
  std::vector<std::uint8_t> peeked_;        ///< read ahead by peek(), not yet taken
};

}  // namespace tool

#endif  // TESSERA_TOOLS_INPUTFILE_H
