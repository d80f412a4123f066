#include "Ending.h"

#include "Interrupt.h"

namespace tool {

bool Ending::isEarly() const {
  return Interrupt::signal() != 0 || !why_.empty();
}

void Ending::fail(const std::string& kept) const {
  // A signal often ends what feeds the input too, which then breaks off somewhere.
  if (Interrupt::signal() != 0) throw Failure("interrupted" + kept, 128 + Interrupt::signal());
  throw Failure(why_ + kept);
}

void Ending::check(std::uint64_t frames) const {
  if (isEarly() && frames == 0) fail("; nothing was written");
}

void Ending::tell(std::uint64_t frames, const std::string& output) const {
  if (isEarly())
    fail("; " + output + " holds the " +
         (frames == 1 ? "frame" : std::to_string(frames) + " frames") + " that came before");
}

}  // namespace tool
