#include "Rounds.h"

#include <algorithm>
#include <cstdarg>
#include <cstdio>

namespace bench {
namespace {

/// Of sorted figures; between two of them in proportion.
double quantile(const std::vector<double>& sorted, double share) {
  const double at = static_cast<double>(sorted.size() - 1) * share;
  const auto below = static_cast<std::size_t>(at);
  const std::size_t above = std::min(below + 1, sorted.size() - 1);
  return sorted[below] + (sorted[above] - sorted[below]) * (at - static_cast<double>(below));
}

}  // namespace

Middle middleOf(std::vector<double> figures) {
  std::sort(figures.begin(), figures.end());
  return {quantile(figures, 0.5), quantile(figures, 0.25), quantile(figures, 0.75)};
}

std::string formatted(const char* format, ...) {
  char text[512];
  va_list arguments;
  va_start(arguments, format);
  std::vsnprintf(text, sizeof text, format, arguments);
  va_end(arguments);
  return text;
}

std::string columns(const Middle& ratio) {
  return formatted("%.3f\t%.3f\t%.3f", ratio.median, ratio.low, ratio.high);
}

}  // namespace bench
