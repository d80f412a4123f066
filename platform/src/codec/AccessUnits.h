#ifndef TESSERA_PLATFORM_SRC_CODEC_ACCESSUNITS_H
#define TESSERA_PLATFORM_SRC_CODEC_ACCESSUNITS_H

#include <cstddef>
#include <cstdint>
#include <vector>

namespace codec {

/// Cuts an Annex B stream into access units. Bytes come in any portions; the units are the same.
///
/// A unit ends where parameter sets, SEI or a delimiter follow its picture, or a slice that starts
/// no later in the picture than the one before: so every field is a unit of its own. An end of
/// sequence is a unit by itself. One of more NAL units than any picture needs is cut. Positions
/// count from the first byte since clear().
class AccessUnits {
 public:
  struct Unit {
    const std::uint8_t* data = nullptr;  ///< until the next add()
    std::size_t size = 0;
    std::uint64_t begin = 0;   ///< position of the first byte
    std::uint64_t header = 0;  ///< position of the first NAL unit's header byte
    bool picture = false;      ///< holds a slice
    bool keyFrame = false;     ///< holds a slice of an IDR picture
    bool parameterSets = false;
    bool endOfSequence = false;
    unsigned nals = 0;  ///< NAL units in it

    std::uint64_t end() const { return begin + size; }
  };

  void clear();
  void add(const std::uint8_t* data, std::size_t size);

  /// Takes the next unit that ends before position `limit`; bytes from there on are not looked at.
  /// With `final` the bytes up to the limit are all there is, and what is left is a unit too.
  bool take(std::uint64_t limit, bool final, Unit& unit);

  /// The unit that take() found no end of yet, up to `limit`.
  Unit pending(std::uint64_t limit) const;

  /// Turns the NAL unit whose header byte stands at a position into one that decoders skip.
  void hide(std::uint64_t header);

  /// Whether only zeros lie between two positions that were not taken yet: padding around start
  /// codes.
  bool onlyZeros(std::uint64_t from, std::uint64_t to) const;

  /// Whether the bytes at a position are a start code, with any number of zeros before it.
  bool startCodeAt(std::uint64_t position, std::uint64_t limit) const;

 private:
  enum class Verdict { Belongs, Begins, EndOfSequence, Unknown };

  Verdict judge(std::size_t header, std::size_t limit, bool final);
  Unit cut(std::size_t end);
  std::size_t index(std::uint64_t position) const;

  std::vector<std::uint8_t> bytes_;
  std::uint64_t base_ = 0;    // position of bytes_[0]
  std::size_t begin_ = 0;     // of the current unit in bytes_
  std::size_t scan_ = 0;      // header bytes are looked for from here
  std::uint32_t lastMb_ = 0;  // first macroblock of the current unit's last slice
  Unit current_;              // its flags; header 0: no NAL unit yet
};

}  // namespace codec

#endif  // TESSERA_PLATFORM_SRC_CODEC_ACCESSUNITS_H
