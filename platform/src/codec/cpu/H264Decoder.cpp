#include "codec/cpu/H264Decoder.h"

#include <deque>
#include <new>
#include <utility>
#include <vector>

#include "codec/AccessUnits.h"
#include "codec/H264Bits.h"
#include "codec/ParameterSets.h"
#include "codec/cpu/H264History.h"
#include "codec/cpu/H264Libav.h"

namespace codec {

namespace {

/// After this many pieces in a row that were one access unit each, the caller cuts by access units.
constexpr unsigned alignedEnough = 16;
/// More units than this are not decoded a second time to make sure of the last one's end.
constexpr std::int64_t mostDoubled = 64;
/// A unit of more NAL units leaves a decoder behind that keeps memory for all of them.
constexpr unsigned usualNals = 1024;
constexpr const char* notSupported = "its pictures are not 8-bit 4:2:0";
constexpr const char* cannotOpen = "libavcodec does not open its H.264 decoder";

/// What one feed() or flush() brought.
struct Piece {
  std::uint64_t begin = 0;
  std::uint64_t end = 0;
  bool unitEnds = false;
  bool flush = false;
};

/// Whose time stamp an access unit takes.
struct Origin {
  std::uint64_t begin = 0;
  std::int64_t pts = H264Decoder::noPts;
  bool decodeOnly = false;
};

struct Finished {
  Frame frame;
  std::int64_t pts = H264Decoder::noPts;
  bool decodeOnly = false;
  bool damaged = false;
};

/// What is known of the access unit whose end was not seen yet.
struct Pending {
  bool known = false;  ///< origin is set
  Origin origin;
  bool early = false;  ///< decoded up to `end`, as `serial`
  std::int64_t serial = 0;
  std::uint64_t end = 0;
  bool delivered = false;  ///< its picture has gone out
};

}  // namespace

/// Where an access unit ends shows only at the first bytes of the next. Callers who feed unit by
/// unit must not wait for those, so the bytes at hand are decoded at the end of a piece while the
/// pieces look like access units. The next bytes tell whether that was right. If it was too early,
/// decoding starts over at the last key frame with a fresh decoder, gives out what had not gone out
/// yet, and from then on waits for the ends. A picture that came out damaged waits for those bytes
/// as well: it may merely be one whose end is still to come.
struct H264Decoder::Impl {
  std::unique_ptr<H264Engine> decoder;
  ParameterSets parameterSets;
  std::string error;

  AccessUnits units;
  H264History history;
  std::deque<Piece> pieces;  // fed, not looked at
  std::deque<Origin> origins;
  Piece piece;  // the one that is being looked at
  bool inPiece = false;
  bool atUnitStart = true;  // the next piece begins what the caller calls a unit
  std::uint64_t fed = 0;

  Pending pending;
  Finished withheld;     // the pending unit's picture
  bool trusting = true;  // pieces look like access units
  bool proven = false;   // one was
  unsigned piecesInUnit = 0;
  unsigned aligned = 0;

  int delay = 0;         // what the decoder held back before the last unit
  bool unsound = false;  // the last unit was
  bool tainted = false;  // the decoder has seen one such
  std::deque<Finished> ready;
  Frame shown;

  void reset();
  bool step();
  void beginPiece();
  void endPiece();
  void onUnit(const AccessUnits::Unit& unit);
  ParameterSets::Slice learn(const AccessUnits::Unit& unit);
  Origin originOf(std::uint64_t position);
  void decodeEarly(const AccessUnits::Unit& unit);
  void confirm();
  void startOver();
  void countAligned(const AccessUnits::Unit& unit);
  void decode(const AccessUnits::Unit& unit);
  void decodeNext(const AccessUnits::Unit& unit, std::int64_t serial);
  void send(const std::uint8_t* data, std::size_t size, std::int64_t serial);
  void take(Frame frame);
  bool endsForSure(const AVFrame& picture);
  void renew();
  void drain();
};

void H264Decoder::Impl::reset() {
  decoder->close();
  error.clear();
  units.clear();
  history.clear();
  history.record(true);
  pieces.clear();
  origins.clear();
  inPiece = false;
  atUnitStart = true;
  fed = 0;
  pending = Pending();
  withheld = Finished();
  trusting = true;
  proven = false;
  piecesInUnit = aligned = 0;
  delay = 0;
  tainted = false;
  ready.clear();
}

/// One step of the work that is queued. @return false when there is none
bool H264Decoder::Impl::step() {
  AccessUnits::Unit unit;
  if (inPiece) {
    if (units.take(piece.end, piece.flush, unit))
      onUnit(unit);
    else
      endPiece();
    return true;
  }
  if (pieces.empty()) return false;
  beginPiece();
  return true;
}

void H264Decoder::Impl::beginPiece() {
  piece = pieces.front();
  pieces.pop_front();
  inPiece = true;
  if (piece.flush) return;
  if (atUnitStart && !units.startCodeAt(piece.begin, piece.end)) trusting = false;
  atUnitStart = piece.unitEnds;
  ++piecesInUnit;
}

void H264Decoder::Impl::endPiece() {
  inPiece = false;
  if (piece.flush) {
    drain();
    return;
  }
  const AccessUnits::Unit unit = units.pending(piece.end);
  if (pending.early && !units.onlyZeros(pending.end, unit.end())) startOver();
  // A field's missing rows do not show in its picture: fields wait for their ends.
  if (!pending.early && trusting && piece.unitEnds && unit.picture && !learn(unit).field)
    decodeEarly(unit);
  // What starting over takes is kept no longer than somebody may need it.
  if (!trusting && !pending.early) history.record(false);
}

void H264Decoder::Impl::onUnit(const AccessUnits::Unit& unit) {
  if (unit.endOfSequence) {
    drain();
    return;
  }
  countAligned(unit);
  if (pending.early && units.onlyZeros(pending.end, unit.end())) {
    confirm();
    return;
  }
  if (pending.early) startOver();
  learn(unit);
  decode(unit);
}

/// Takes note of a unit's parameter sets, which stand before its picture. What no decoder takes is
/// hidden from libavcodec, which complains of some of it to the application.
ParameterSets::Slice H264Decoder::Impl::learn(const AccessUnits::Unit& unit) {
  for (std::size_t header = nextNal(unit.data, 0, unit.size); header < unit.size;) {
    const unsigned type = unit.data[header] & 31;
    if (type >= NalType::Slice && type <= NalType::IdrSlice) {
      const ParameterSets::Slice slice =
          parameterSets.lookAt(unit.data + header, unit.size - header);
      if (!slice.supported && !decoder->showsDeepPictures()) error = notSupported;
      return slice;
    }
    const std::size_t next = nextNal(unit.data, header + 1, unit.size);
    const std::size_t end = next < unit.size ? next - 3 : unit.size;
    if (!parameterSets.addUnit(unit.data + header, end - header)) units.hide(unit.begin + header);
    header = next;
  }
  return {};
}

/// The piece that a position lies in; its time stamp goes to the first unit that asks.
Origin H264Decoder::Impl::originOf(std::uint64_t position) {
  while (origins.size() > 1 && origins[1].begin <= position) origins.pop_front();
  if (origins.empty()) return Origin();
  const Origin origin = origins.front();
  origins.front().pts = noPts;
  return origin;
}

void H264Decoder::Impl::decodeEarly(const AccessUnits::Unit& unit) {
  if (!pending.known) pending.origin = originOf(unit.header);
  pending.known = true;
  pending.end = unit.end();
  pending.serial = history.add(unit, pending.origin.pts, pending.origin.decodeOnly);
  pending.early = true;
  decodeNext(unit, pending.serial);
}

/// The pending unit was decoded with all that belongs to it.
void H264Decoder::Impl::confirm() {
  proven = true;
  if (withheld.frame != nullptr) {
    history.find(pending.serial)->delivered = true;
    ready.push_back(std::move(withheld));
  }
  pending = Pending();
}

/// The pending unit was decoded too early: makes the decoder what it was before that.
void H264Decoder::Impl::startOver() {
  trusting = proven = false;
  aligned = 0;
  pending.early = false;
  pending.delivered = history.find(pending.serial)->delivered;
  decoder->recycle(std::move(withheld.frame));
  history.dropLast();
  const H264History::Range range = history.restartable();
  if (range.first == range.end && !history.empty()) return;
  renew();
  for (std::int64_t serial = range.first; serial < range.end; ++serial) {
    const std::vector<std::uint8_t>& bytes = history.find(serial)->bytes;
    send(bytes.data(), bytes.size(), serial);
  }
}

/// Trust comes back when piece after piece turns out to be one access unit.
void H264Decoder::Impl::countAligned(const AccessUnits::Unit& unit) {
  const bool one = piecesInUnit == 2 && unit.end() == piece.begin;
  piecesInUnit = 1;
  aligned = one ? aligned + 1 : 0;
  if (trusting || aligned < alignedEnough) return;
  trusting = proven = true;
  history.record(true);
}

void H264Decoder::Impl::decode(const AccessUnits::Unit& unit) {
  const Origin origin = pending.known ? pending.origin : originOf(unit.header);
  const std::int64_t serial = history.add(unit, origin.pts, origin.decodeOnly);
  history.find(serial)->delivered = pending.delivered;
  pending = Pending();
  decodeNext(unit, serial);
}

void H264Decoder::Impl::decodeNext(const AccessUnits::Unit& unit, std::int64_t serial) {
  // libavcodec carries remains of a damaged picture into the next one, even into a key frame.
  if (unit.keyFrame && tainted) {
    decoder->finish();
    while (Frame frame = decoder->receive()) take(std::move(frame));
    renew();
  }
  send(unit.data, unit.size, serial);
  tainted = tainted || (unit.picture && unsound) || unit.nals > usualNals;
  // A stream that does not say how far its pictures are out of order shows it by its first B-frame.
  // Room for one level of referenced B-frames at once spares losing a picture to the second.
  if (delay == 0 && decoder->delay() == 1 && !unit.parameterSets) decoder->setDelay(2);
  delay = decoder->delay();
}

/// Sends bytes to the decoder and takes what comes out.
void H264Decoder::Impl::send(const std::uint8_t* data, std::size_t size, std::int64_t serial) {
  unsound = !decoder->send(data, size, serial);
  while (Frame frame = decoder->receive()) take(std::move(frame));
}

void H264Decoder::Impl::take(Frame frame) {
  const std::int64_t serial = frame->pts;
  H264History::Entry* entry = history.find(serial);
  const bool supported =
      frame->format == AV_PIX_FMT_YUV420P || frame->format == AV_PIX_FMT_YUVJ420P;
  if (!supported) error = notSupported;
  if (!supported || entry == nullptr || entry->delivered) {
    decoder->recycle(std::move(frame));
    return;
  }
  const bool ofPending = pending.early && serial == pending.serial;
  unsound = unsound || isDamaged(*frame);
  Finished finished{std::move(frame), entry->pts, entry->decodeOnly, unsound};
  if (ofPending && (unsound || !endsForSure(*finished.frame))) {
    withheld = std::move(finished);
  } else {
    entry->delivered = true;
    ready.push_back(std::move(finished));
  }
}

/// Whether the pending unit is known to be whole, as its flawless picture suggests. Only arithmetic
/// coding leaves a doubt: the decoder reads a few bytes past an end without complaint, as zeros.
/// If ones instead of them give the same picture, then so does every other continuation.
bool H264Decoder::Impl::endsForSure(const AVFrame& picture) {
  const H264History::Range range = history.restartable();
  const bool arithmetic = parameterSets.arithmeticCoding();
  if (proven || range.first == range.end || range.end - range.first > mostDoubled ||
      !(arithmetic || !decoder->reportsDamage()))
    return true;
  H264Libav other;
  if (!other.open(parameterSets.annexB())) return true;
  for (std::int64_t serial = range.first; serial < range.end; ++serial) {
    std::vector<std::uint8_t> bytes = history.find(serial)->bytes;
    if (arithmetic && serial == pending.serial) bytes.insert(bytes.end(), 8, 0xff);
    other.send(bytes.data(), bytes.size(), serial);
    while (const Frame frame = other.receive())
      if (frame->pts == pending.serial) return !isDamaged(*frame) && isSame(*frame, picture);
  }
  return false;
}

/// A fresh decoder that knows what the last one knew.
void H264Decoder::Impl::renew() {
  tainted = false;
  if (decoder->open(parameterSets.annexB()))
    decoder->setDelay(delay);
  else if (decoder->failure().empty())
    throw std::bad_alloc();
}

/// Every picture that is held back comes out; what follows is a new stream.
void H264Decoder::Impl::drain() {
  unsound = false;
  decoder->finish();
  while (Frame frame = decoder->receive()) take(std::move(frame));
  renew();
  history.clear();
  pending = Pending();
}

H264Decoder::H264Decoder() : H264Decoder(std::make_unique<H264Libav>()) {}
H264Decoder::H264Decoder(std::unique_ptr<H264Engine> engine) : impl_(std::make_unique<Impl>()) {
  impl_->decoder = std::move(engine);
}
H264Decoder::~H264Decoder() = default;

bool H264Decoder::open(const std::uint8_t* extraData, std::size_t extraDataSize) {
  Impl& impl = *impl_;
  impl.parameterSets.clear();
  if (extraData != nullptr) impl.parameterSets.add(extraData, extraDataSize);
  return reopen();
}

bool H264Decoder::reopen() {
  Impl& impl = *impl_;
  impl.reset();
  if (impl.decoder->open(impl.parameterSets.annexB())) return true;
  impl.error = cannotOpen;
  return false;
}

bool H264Decoder::failed() const {
  const std::string why = impl_->decoder->failure();
  if (!why.empty()) impl_->error = why;
  return !why.empty();
}

void H264Decoder::feed(const std::uint8_t* data, std::size_t size, std::int64_t pts,
                       bool decodeOnly, bool unitEnds) {
  Impl& impl = *impl_;
  if (!impl.decoder->isOpen() || data == nullptr || size == 0) return;
  impl.units.add(data, size);
  impl.origins.push_back({impl.fed, pts, decodeOnly});
  impl.pieces.push_back({impl.fed, impl.fed + size, unitEnds, false});
  impl.fed += size;
}

void H264Decoder::flush() {
  Impl& impl = *impl_;
  if (impl.decoder->isOpen()) impl.pieces.push_back({impl.fed, impl.fed, true, true});
}

bool H264Decoder::next(Picture& picture) {
  Impl& impl = *impl_;
  impl.decoder->recycle(std::move(impl.shown));
  while (impl.ready.empty())
    if (!impl.step()) return false;
  Finished finished = std::move(impl.ready.front());
  impl.ready.pop_front();
  impl.shown = std::move(finished.frame);
  const AVFrame& frame = *impl.shown;
  picture.planes = {frame.data[0], frame.data[1], frame.data[2],
                    static_cast<unsigned>(frame.linesize[0]),
                    static_cast<unsigned>(frame.linesize[1])};
  picture.width = static_cast<unsigned>(frame.width);
  picture.height = static_cast<unsigned>(frame.height);
  picture.pts = finished.pts;
  picture.decodeOnly = finished.decodeOnly;
  picture.damaged = finished.damaged;
  return true;
}

const std::string& H264Decoder::error() const {
  return impl_->error;
}

}  // namespace codec
