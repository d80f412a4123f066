#ifndef TESSERA_BENCH_OTHERS_H
#define TESSERA_BENCH_OTHERS_H

namespace bench {

/// What others, the host among them, take of the processors that this process may run on.
class Others {
 public:
  /// @return their share of the processors' time since this was made, 0 to 1; what this process and the
  ///         children that it waited for used is not theirs
  double share() const;

 private:
  struct Seconds {
    double all;   ///< of all the processors
    double used;  ///< by everybody; the kernel samples it
    double idle;  ///< measured, but what switching costs is missing
    double own;
  };
  static Seconds now();

  Seconds begun_ = now();
};

}  // namespace bench

#endif  // TESSERA_BENCH_OTHERS_H
