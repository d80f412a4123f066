#ifndef TESSERA_TOOLS_OUTPUTFILE_H
#define TESSERA_TOOLS_OUTPUTFILE_H

#include <cstddef>
#include <cstdint>
#include <string>

namespace tool {

/// Where the result goes.
///
/// A regular file is complete or absent: the data goes to a file in the same directory whose name
/// says that it is a part (clip.part-5fT2wq.mkv for clip.mkv). commit() renames it; the destructor
/// and exit() from anywhere remove it. Where the process is killed it stays. Standard output ("-")
/// and what exists without being a regular file (/dev/null, a fifo) are written directly.
///
/// Every failure is a Failure that names the output; a reader that has gone is a BrokenPipe.
class OutputFile {
 public:
  enum class Content {
    Data,  ///< not for terminals
    Text,
  };

  explicit OutputFile(const std::string& name, Content content = Content::Data);
  ~OutputFile();
  OutputFile(const OutputFile&) = delete;
  OutputFile& operator=(const OutputFile&) = delete;

  void write(const void* data, std::size_t size);

  /// Goes to a place of what was written; for files of index structures such as MP4.
  /// @return the new position, or -1 where the output cannot
  std::int64_t seek(std::int64_t offset, int whence);
  bool isSeekable() const { return !part_.empty(); }

  /// Puts the file in its place. Without it the output is as if nothing had been written.
  void commit();

  /// Bytes written; after commit() the file's length.
  std::uint64_t bytes() const { return bytes_; }
  const std::string& name() const { return name_; }

  /// Has exit() remove what was not committed. Call once, at the start.
  static void removeOnExit();

 private:
  void openPart(const std::string& path);
  [[noreturn]] void fail(const std::string& what, int error);

  std::string name_;
  std::string target_;  ///< where commit() moves the file; a link is followed
  std::string part_;    ///< empty when written directly
  int fd_ = -1;
  bool owned_ = false;
  std::uint64_t bytes_ = 0;
};

}  // namespace tool

#endif  // TESSERA_TOOLS_OUTPUTFILE_H
