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
std::uint64_t open_of_eight(const std::uint8_t* decided) {
  constexpr std::uint64_t kAllOfEight = ((1 << kLanes) - 1) * std::uint64_t{0x0101010101010101};
  std::uint64_t eight;
  std::memcpy(&eight, decided, sizeof eight);
  return ~eight & kAllOfEight;
}

int open_lanes(const std::uint8_t* decided, int registers) {
  int count = 0;
  for (int first = 0; first < registers; first += 8) {
    count += std::popcount(open_of_eight(decided + first));
  }
  return count;
}

int open_places(const std::uint8_t* decided, int registers, std::uint16_t* places) {
  int count = 0;
  for (int first = 0; first < registers; first += 8) {
    for (auto open = open_of_eight(decided + first); open != 0; open &= open - 1) {
      const int bit = arithmetic::trailing_zeros(open);
      places[count++] = static_cast<std::uint16_t>((first + bit / 8) * kLanes + bit % 8);
    }
  }
  return count;
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

// What a try leaves of one register: a first one its values, a second one those of lanes that the
// first left open.
using Keep = void(double* out, std::uint8_t& decided, const RoundedOf<HostDoubles>& tried);

KORVEX_INLINE void keep_all(double* out, std::uint8_t& decided,
                            const RoundedOf<HostDoubles>& tried) {
  HostLanes::store(out, tried.value);
  decided = arithmetic::lanes_with(tried.is_decided);
}
KORVEX_INLINE void keep_open(double* out, std::uint8_t& decided,
                             const RoundedOf<HostDoubles>& tried) {
  const auto before = arithmetic::flags_of(decided);
  HostLanes::store(out, arithmetic::selected(before, HostLanes::load(out), tried.value));
  decided |= arithmetic::lanes_with(tried.is_decided);
}

// A try of so many registers. Functions of their own, so that no operation moves to where subnormal
// numbers count or do not.
using Pass = void(const double* x, double* out, int registers, std::uint8_t* decided);

template <Keep* Kept, RoundedOf<HostDoubles> (*Try)(HostDoubles)>
__attribute__((noinline)) void in_one_pass(const double* x, double* out, int registers,
                                           std::uint8_t* decided) {
  for (int i = 0; i < registers; ++i) {
    const std::int64_t place = std::int64_t{i} * kLanes;
    Kept(out + place, decided[i], Try(HostLanes::load(x + place)));
  }
}

// Try(x) as End(x, Begin(x)), a few registers at a time. A long chain of operations waits for its
// own results; how many elements a processor works on meanwhile depends on how many operations each
// has. Halves of it have half the chain and twice as many elements.
template <Keep* Kept, auto Begin, auto End>
__attribute__((noinline)) void in_two_passes(const double* x, double* out, int registers,
                                             std::uint8_t* decided) {
  using Half = decltype(Begin(HostDoubles()));
  constexpr int kAtOnce = 16;
  Half halves[kAtOnce];
  for (int first = 0; first < registers; first += kAtOnce) {
    const int members = std::min(kAtOnce, registers - first);
    for (int i = 0; i < members; ++i) {
      // Made in place: g++ 12 copies such a struct by its halves, through other registers.
      ::new (static_cast<void*>(halves + i))
          Half(Begin(HostLanes::load(x + std::int64_t{first + i} * kLanes)));
    }
    for (int i = 0; i < members; ++i) {
      const std::int64_t place = std::int64_t{first + i} * kLanes;
      Kept(out + place, decided[first + i], End(HostLanes::load(x + place), halves[i]));
    }
  }
}

constexpr Pass* kTryExp = in_one_pass<keep_all, arithmetic::quick_exponential>;
// Two passes are slower where a fused multiply-add makes the chain short.
constexpr Pass* kTryLog = arithmetic::kFmaIsFast
                              ? in_one_pass<keep_all, arithmetic::quick_logarithm>
                              : in_two_passes<keep_all, arithmetic::usual_log_argument<HostDoubles>,
                                              arithmetic::quick_logarithm_of<HostDoubles>>;
constexpr Pass* kTrySigmoid = in_two_passes<keep_all, arithmetic::quick_sigmoid_power<HostDoubles>,
                                            arithmetic::quick_sigmoid_of<HostDoubles>>;
constexpr Pass* kTryTanh = in_two_passes<keep_all, arithmetic::quick_tanh_power<HostDoubles>,
                                         arithmetic::quick_tanh_of<HostDoubles>>;

constexpr Pass* kTryExpAgain = in_two_passes<keep_open, arithmetic::any_power<HostDoubles>,
                                             arithmetic::any_exponential_of<HostDoubles>>;
constexpr Pass* kTryLogAgain = in_one_pass<keep_open, arithmetic::any_logarithm>;
constexpr Pass* kTrySigmoidAgain = in_two_passes<keep_open, arithmetic::any_power<HostDoubles>,
                                                 arithmetic::any_sigmoid_of<HostDoubles>>;
// Without a fused multiply-add instruction every lane calls a function: nothing is gained there.
constexpr Pass* kTryTanhAgain =
    arithmetic::ElementLanes::kCount > 1 ? in_one_pass<keep_open, arithmetic::try_tanh> : nullptr;

// Of fewer open elements than this, each is worked out by itself.
constexpr int kLeastTogether = 4;

// Writes the results at these places: by the second try, if there is one, with the lanes of a
// register full, and one by one what that leaves open too.
template <double (*Function)(double)>
__attribute__((noinline)) void finish_open(Pass* again, const double* x, double* out,
                                           const std::uint16_t* places, int count) {
  int done = 0;
  while (again != nullptr && count - done >= kLeastTogether) {
    const int members = std::min(count - done, kLanes);
    double together[kLanes] = {};
    for (int i = 0; i < members; ++i) {
      together[i] = x[places[done + i]];
    }
    double results[kLanes] = {};
    std::uint8_t decided = 0;
    again(together, results, 1, &decided);
    for (int i = 0; i < members; ++i) {
      const bool is_open = (decided >> i & 1) == 0;
      out[places[done + i]] = is_open ? Function(together[i]) : results[i];
    }
    done += members;
  }
  for (; done < count; ++done) {
    out[places[done]] = Function(x[places[done]]);
  }
}

// Where more of a chunk is open, its second try takes all registers, decided or not: of few lanes
// little is gained by that.
constexpr int kQuartersOpen = kLanes > 2 ? 1 : 3;

// Registers whose second try shows whether that of the others is worth it: beside 1, say, it
// decides no logarithm.
constexpr int kRegistersToAsk = 8;

// The second try of all registers: less than gathering where a good part is open. Returns whether
// it decided any of the first few that were open.
bool try_all_again(Pass* again, const double* x, double* out, int registers,
                   std::uint8_t* decided) {
  const int asked = std::min(registers, kRegistersToAsk);
  const int before = open_lanes(decided, asked);
  again(x, out, asked, decided);
  if (before != 0 && open_lanes(decided, asked) == before) {
    return false;
  }
  const std::int64_t place = std::int64_t{asked} * kLanes;
  again(x + place, out + place, registers - asked, decided + asked);
  return true;
}

// A function of which a first try decides most elements, several at a time, for a chunk that x and
// out do not share. What it leaves open is gathered and finished together: a branch for each
// register would be mispredicted where a lane is open, and wait for the try to end.
template <Pass* First, Pass* Again, double (*Function)(double)>
void tried_chunk(const double* x, double* out, int members) {
  std::uint8_t decided[kChunk / kLanes + 7];
  const int registers = members / kLanes;
  {
    const WithoutSubnormals scope;
    First(x, out, registers, decided);
  }
  std::memset(decided + registers, 0xff, 7);  // up to a multiple of 8
  Pass* again = Again;
  if (again != nullptr && open_lanes(decided, registers) > members / 4 * kQuartersOpen &&
      !try_all_again(again, x, out, registers, decided)) {
    again = nullptr;
  }
  std::uint16_t places[kChunk];
  int open = open_places(decided, registers, places);
  for (int i = registers * kLanes; i < members; ++i) {
    places[open++] = static_cast<std::uint16_t>(i);
  }
  if (open != 0) {
    finish_open<Function>(again, x, out, places, open);
  }
}

template <Pass* First, Pass* Again, double (*Function)(double)>
void tried_range(const double* x, double* out, std::int64_t count) {
  double copied[kChunk];
  for (std::int64_t first = 0; first < count; first += kChunk) {
    const auto members = static_cast<int>(std::min<std::int64_t>(count - first, kChunk));
    const double* arguments = x + first;
    if (x == out) {
      std::memcpy(copied, arguments, static_cast<std::size_t>(members) * sizeof(double));
      arguments = copied;
    }
    tried_chunk<First, Again, Function>(arguments, out + first, members);
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
  tried_range<kTryExp, kTryExpAgain, arithmetic::exponential>(x, out, count);
}
void log_range(const double* x, double* out, std::int64_t count) {
  tried_range<kTryLog, kTryLogAgain, arithmetic::logarithm_beside_one>(x, out, count);
}
void sqrt_range(const double* x, double* out, std::int64_t count) {
  for (std::int64_t i = 0; i < count; ++i) {
    out[i] = arithmetic::square_root(x[i]);
  }
}
void sigmoid_range(const double* x, double* out, std::int64_t count) {
  tried_range<kTrySigmoid, kTrySigmoidAgain, arithmetic::sigmoid>(x, out, count);
}
void tanh_range(const double* x, double* out, std::int64_t count) {
  tried_range<kTryTanh, kTryTanhAgain, arithmetic::hyperbolic_tangent>(x, out, count);
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
