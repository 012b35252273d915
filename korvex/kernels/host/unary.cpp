// SPDX-License-Identifier: Apache-2.0
// Shells of the kernels of one operand for the host: one result for each element.
#include "korvex/arithmetic/elementary/unary.h"

#include <algorithm>
#include <bit>
#include <cstdint>
#include <cstring>
#include <new>

#include "korvex/arithmetic/elementary/logarithm.h"
#include "korvex/arithmetic/elementary/logistic.h"
#include "korvex/kernels/host/elements.h"
#include "korvex/kernels/host/lanes.h"
#include "korvex/kernels/host/quick_lanes.h"
#include "korvex/kernels/host/shells.h"
#include "korvex/kernels/host/threads.h"
#include "korvex/kernels/host/unary_ranges.h"

namespace korvex::host {
namespace {

using arithmetic::ElementLanes;
using arithmetic::HostDoubles;
using arithmetic::HostLanes;
using arithmetic::RoundedOf;

constexpr int kLanes = HostLanes::kCount;

// Arguments: x, out, n.
template <double (*Function)(double)>
void run_unary(const Arguments& arguments) {
  for_each_element(arguments.array(0), arguments.array(1), arguments.integer(2),
                   arguments.threads(), [](double x) { return Function(x); });
}

// Elements between two looks at those that a first try has left open.
constexpr int kChunk = 512;

// The lanes left open of eight registers; of each a byte has a bit for each decided lane.
template <int Lanes>
std::uint64_t open_of_eight(const std::uint8_t* decided) {
  constexpr std::uint64_t kAllOfEight = ((1 << Lanes) - 1) * std::uint64_t{0x0101010101010101};
  std::uint64_t eight;
  std::memcpy(&eight, decided, sizeof eight);
  return ~eight & kAllOfEight;
}

template <int Lanes>
int open_lanes(const std::uint8_t* decided, int registers) {
  int count = 0;
  for (int first = 0; first < registers; first += 8) {
    count += std::popcount(open_of_eight<Lanes>(decided + first));
  }
  return count;
}

template <int Lanes>
int open_places(const std::uint8_t* decided, int registers, std::uint16_t* places) {
  int count = 0;
  for (int first = 0; first < registers; first += 8) {
    for (auto open = open_of_eight<Lanes>(decided + first); open != 0; open &= open - 1) {
      const int bit = arithmetic::trailing_zeros(open);
      places[count++] = static_cast<std::uint16_t>((first + bit / 8) * Lanes + bit % 8);
    }
  }
  return count;
}

// Of fewer open elements than this, each is worked out by itself.
constexpr int kLeastTogether = 4;

// Writes the results at these places: by the second try, with the lanes of a register full, and one
// by one what that leaves open too.
template <class Lanes, RoundedOf<typename Lanes::Value> (*Again)(typename Lanes::Value),
          double (*Function)(double)>
__attribute__((noinline)) void finish_open(const double* x, double* out,
                                           const std::uint16_t* places, int count) {
  int done = 0;
  if constexpr (Lanes::kCount > 1) {
    while (count - done >= kLeastTogether) {
      const int members = std::min(count - done, Lanes::kCount);
      double together[Lanes::kCount];
      for (int i = 0; i < Lanes::kCount; ++i) {
        together[i] = x[places[done + std::min(i, members - 1)]];
      }
      const auto tried = Again(Lanes::load(together));
      double results[Lanes::kCount];
      Lanes::store(results, tried.value);
      const int decided = arithmetic::lanes_with(tried.is_decided);
      for (int i = 0; i < members; ++i) {
        out[places[done + i]] = results[i];
      }
      for (int i = 0; decided != (1 << Lanes::kCount) - 1 && i < members; ++i) {
        if ((decided >> i & 1) == 0) {
          out[places[done + i]] = Function(together[i]);
        }
      }
      done += members;
    }
  }
  for (; done < count; ++done) {
    out[places[done]] = Function(x[places[done]]);
  }
}

// While it lives, subnormal operands and results of x86-64 count as zeros, as these processors are
// slow with them. A first try decides nothing by a number that small: it returns
// tiny arguments by their bits, and leaves results below 2^-1021 open.
class WithoutSubnormals {
 public:
#if defined(__x86_64__)
  WithoutSubnormals() : before_(_mm_getcsr()) { _mm_setcsr(before_ | kFlushToZero | kAsZeros); }
  ~WithoutSubnormals() { _mm_setcsr(before_); }

 private:
  static constexpr unsigned kFlushToZero = 0x8000;
  static constexpr unsigned kAsZeros = 0x40;
  unsigned before_;
#else
  WithoutSubnormals() {}
  ~WithoutSubnormals() {}
#endif
  WithoutSubnormals(const WithoutSubnormals&) = delete;
  WithoutSubnormals& operator=(const WithoutSubnormals&) = delete;
};

// A first try of so many registers. Functions of their own, so that no operation moves to where
// subnormal numbers count.
using FirstTry = void(const double* x, double* out, int registers, std::uint8_t* decided);

template <RoundedOf<HostDoubles> (*Try)(HostDoubles)>
__attribute__((noinline)) void in_one_pass(const double* x, double* out, int registers,
                                           std::uint8_t* decided) {
  for (int i = 0; i < registers; ++i) {
    const auto tried = Try(HostLanes::load(x + std::int64_t{i} * kLanes));
    HostLanes::store(out + std::int64_t{i} * kLanes, tried.value);
    decided[i] = arithmetic::lanes_with(tried.is_decided);
  }
}

// Try(x) as End(x, Begin(x)), a few registers at a time. A long chain of operations waits for its
// own results; how many elements a processor works on meanwhile depends on how many operations each
// has. Halves of it have half the chain and twice as many elements.
template <auto Begin, auto End>
__attribute__((noinline)) void in_two_passes(const double* x, double* out, int registers,
                                             std::uint8_t* decided) {
  using Half = decltype(Begin(HostDoubles()));
  constexpr int kAtOnce = 16;
  Half halves[kAtOnce];
  for (int first = 0; first < registers; first += kAtOnce) {
    const int members = std::min(kAtOnce, registers - first);
    const double* const arguments = x + std::int64_t{first} * kLanes;
    double* const results = out + std::int64_t{first} * kLanes;
    for (int i = 0; i < members; ++i) {
      // Made in place: g++ 12 copies such a struct by its halves, through other registers.
      ::new (static_cast<void*>(halves + i))
          Half(Begin(HostLanes::load(arguments + std::int64_t{i} * kLanes)));
    }
    for (int i = 0; i < members; ++i) {
      const std::int64_t place = std::int64_t{i} * kLanes;
      const auto tried = End(HostLanes::load(arguments + place), halves[i]);
      HostLanes::store(results + place, tried.value);
      decided[first + i] = arithmetic::lanes_with(tried.is_decided);
    }
  }
}

constexpr FirstTry* kTryExp = in_one_pass<arithmetic::quick_exponential>;
// Two passes are slower where a fused multiply-add makes the chain short.
constexpr FirstTry* kTryLog = arithmetic::kFmaIsFast
                                  ? in_one_pass<arithmetic::quick_logarithm>
                                  : in_two_passes<arithmetic::usual_log_argument<HostDoubles>,
                                                  arithmetic::quick_logarithm_of<HostDoubles>>;
constexpr FirstTry* kTrySigmoid = in_two_passes<arithmetic::quick_sigmoid_power<HostDoubles>,
                                                arithmetic::quick_sigmoid_of<HostDoubles>>;
constexpr FirstTry* kTryTanh = in_two_passes<arithmetic::quick_tanh_power<HostDoubles>,
                                             arithmetic::quick_tanh_of<HostDoubles>>;

// The second try of all registers of a chunk with an open lane, in place: less than gathering where
// a good part is open.
template <class Lanes, RoundedOf<typename Lanes::Value> (*Again)(typename Lanes::Value)>
__attribute__((noinline)) void try_all_again(const double* x, double* out, int registers,
                                             std::uint8_t* decided) {
  for (int i = 0; i < registers; ++i) {
    const auto tried = Again(Lanes::load(x + std::int64_t{i} * Lanes::kCount));
    double* const results = out + std::int64_t{i} * Lanes::kCount;
    const auto before = arithmetic::flags_of(decided[i]);
    Lanes::store(results, arithmetic::selected(before, Lanes::load(results), tried.value));
    decided[i] |= arithmetic::lanes_with(tried.is_decided);
  }
}

// A function of which a first try decides most elements, several at a time, for a chunk that x and
// out do not share. What it leaves open is gathered and finished together: a branch for each
// register would be mispredicted where a lane is open, and wait for the try to end.
template <FirstTry* First, class LanesAgain,
          RoundedOf<typename LanesAgain::Value> (*Again)(typename LanesAgain::Value),
          double (*Function)(double)>
void tried_chunk(const double* x, double* out, int members) {
  std::uint8_t decided[kChunk / kLanes + 7];
  const int registers = members / kLanes;
  {
    const WithoutSubnormals scope;
    First(x, out, registers, decided);
  }
  std::memset(decided + registers, 0xff, 7);  // up to a multiple of 8
  if constexpr (LanesAgain::kCount > 1) {
    if (open_lanes<kLanes>(decided, registers) > members / 4) {
      try_all_again<LanesAgain, Again>(x, out, registers, decided);
    }
  }
  std::uint16_t places[kChunk];
  int open = open_places<kLanes>(decided, registers, places);
  for (int i = registers * kLanes; i < members; ++i) {
    places[open++] = static_cast<std::uint16_t>(i);
  }
  if (open != 0) {
    finish_open<LanesAgain, Again, Function>(x, out, places, open);
  }
}

template <FirstTry* First, class LanesAgain,
          RoundedOf<typename LanesAgain::Value> (*Again)(typename LanesAgain::Value),
          double (*Function)(double)>
void tried_range(const double* x, double* out, std::int64_t count) {
  double copied[kChunk];
  for (std::int64_t first = 0; first < count; first += kChunk) {
    const auto members = static_cast<int>(std::min<std::int64_t>(count - first, kChunk));
    const double* arguments = x + first;
    if (x == out) {
      std::memcpy(copied, arguments, static_cast<std::size_t>(members) * sizeof(double));
      arguments = copied;
    }
    tried_chunk<First, LanesAgain, Again, Function>(arguments, out + first, members);
  }
}

// Arguments: x, out, n.
template <UnaryRange* Range>
void run_range(const Arguments& arguments) {
  const double* x = arguments.array(0);
  double* out = arguments.array(1);
  for_each_range(
      arguments.integer(2), arguments.threads(),
      [=](std::int64_t begin, std::int64_t end) { Range(x + begin, out + begin, end - begin); });
}

}  // namespace

void run_relu(const Arguments& arguments) { run_unary<arithmetic::relu>(arguments); }
void run_neg(const Arguments& arguments) { run_unary<arithmetic::negated>(arguments); }

void exp_range(const double* x, double* out, std::int64_t count) {
  tried_range<kTryExp, HostLanes, arithmetic::any_exponential, arithmetic::exponential>(x, out,
                                                                                        count);
}
void log_range(const double* x, double* out, std::int64_t count) {
  tried_range<kTryLog, HostLanes, arithmetic::any_logarithm, arithmetic::logarithm_beside_one>(
      x, out, count);
}
void sqrt_range(const double* x, double* out, std::int64_t count) {
  for (std::int64_t i = 0; i < count; ++i) {
    out[i] = arithmetic::square_root(x[i]);
  }
}
void sigmoid_range(const double* x, double* out, std::int64_t count) {
  tried_range<kTrySigmoid, HostLanes, arithmetic::any_sigmoid, arithmetic::sigmoid>(x, out, count);
}
void tanh_range(const double* x, double* out, std::int64_t count) {
  tried_range<kTryTanh, ElementLanes, arithmetic::try_tanh, arithmetic::hyperbolic_tangent>(x, out,
                                                                                            count);
}

void run_exp(const Arguments& arguments) { run_range<exp_range>(arguments); }
void run_log(const Arguments& arguments) { run_range<log_range>(arguments); }
void run_sqrt(const Arguments& arguments) { run_range<sqrt_range>(arguments); }
void run_sigmoid(const Arguments& arguments) { run_range<sigmoid_range>(arguments); }
void run_tanh(const Arguments& arguments) { run_range<tanh_range>(arguments); }

// Arguments: x, negative_slope, out, n.
void run_leaky_relu(const Arguments& arguments) {
  const double slope = arguments.number(1);
  for_each_element(arguments.array(0), arguments.array(2), arguments.integer(3),
                   arguments.threads(),
                   [slope](double x) { return arithmetic::leaky_relu(x, slope); });
}

}  // namespace korvex::host
