// SPDX-License-Identifier: Apache-2.0
// Vector clocks, and the check of each access against those before it.
#include "tests/ptx/clocks.h"

#include <algorithm>
#include <bit>
#include <string>

namespace korvex::ptx {

// --- Clocks

void Clocks::start_launch(std::uint32_t blocks, std::uint32_t threads_per_block) {
  const std::size_t threads = std::size_t{blocks} * threads_per_block;
  before_launch_ = latest_;
  ++latest_;
  threads_per_block_ = threads_per_block;
  clocks_.assign(threads, latest_);
  at_barrier_.assign(threads, 0);
  warps_.clear();
  warps_.resize(std::size_t{blocks} * ((threads_per_block + kLanes - 1) / kLanes));
  knowledge_.assign(threads, Knowledge());
  left_at_.clear();
}

bool Clocks::is_ordered(std::uint32_t self, std::uint32_t thread, Clock clock) const {
  if (thread == self || clock <= before_launch_) {
    return true;
  }
  const std::uint32_t block = self / threads_per_block_;
  if (const Shared& outside = knowledge_[self].outside; outside != nullptr) {
    const OfBlock& known = (*outside)[thread / threads_per_block_];
    if (known != nullptr && clock <= (*known)[thread % threads_per_block_]) {
      return true;
    }
  }
  if (thread / threads_per_block_ != block) {
    return false;
  }
  if (clock <= at_barrier_[thread]) {
    return true;
  }
  const std::uint32_t own = self % threads_per_block_;
  const std::uint32_t other = thread % threads_per_block_;
  if (own / kLanes != other / kLanes) {
    return false;
  }
  const std::uint32_t warps_of_block = (threads_per_block_ + kLanes - 1) / kLanes;
  const auto& table = warps_[std::size_t{block} * warps_of_block + own / kLanes];
  return table != nullptr && clock <= (*table)[own % kLanes][other % kLanes];
}

void Clocks::join(OfBlock& into, const OfBlock& more) {
  if (more == nullptr || more == into) {
    return;
  }
  const auto is_below = [](Clock a, Clock b) { return a <= b; };
  if (into == nullptr || std::ranges::equal(*into, *more, is_below)) {
    into = more;
  } else if (!std::ranges::equal(*more, *into, is_below)) {
    auto joined = std::make_shared<std::vector<Clock>>(*into);
    std::ranges::transform(*joined, *more, joined->begin(),
                           [](Clock a, Clock b) { return std::max(a, b); });
    into = std::move(joined);
  }
}

void Clocks::join(Shared& into, const Shared& more) {
  if (more == nullptr || more == into) {
    return;
  }
  if (into == nullptr) {
    into = more;
    return;
  }
  auto joined = std::make_shared<Vector>(*into);
  for (std::size_t i = 0; i < joined->size(); ++i) {
    join((*joined)[i], (*more)[i]);
  }
  into = std::move(joined);
}

// All of them know what each of them knew.
void Clocks::join_all(const std::vector<std::uint32_t>& threads) {
  Knowledge all;
  for (const std::uint32_t thread : threads) {
    join(all.outside, knowledge_[thread].outside);
    join(all.fenced, knowledge_[thread].fenced);
    join(all.pending, knowledge_[thread].pending);
  }
  for (const std::uint32_t thread : threads) {
    knowledge_[thread] = all;
  }
}

void Clocks::barrier(std::uint32_t block) {
  std::vector<std::uint32_t> threads(threads_per_block_);
  for (std::uint32_t i = 0; i < threads_per_block_; ++i) {
    const std::uint32_t thread = block * threads_per_block_ + i;
    threads[i] = thread;
    at_barrier_[thread] = clocks_[thread]++;
    latest_ = std::max(latest_, clocks_[thread]);
  }
  join_all(threads);
}

void Clocks::meet(std::uint32_t first_of_warp, std::uint32_t lanes) {
  const std::uint32_t warps_of_block = (threads_per_block_ + kLanes - 1) / kLanes;
  const std::uint32_t block = first_of_warp / threads_per_block_;
  auto& slot =
      warps_[std::size_t{block} * warps_of_block + first_of_warp % threads_per_block_ / kLanes];
  if (slot == nullptr) {
    slot = std::make_unique<WarpTable>();
  }
  std::array<Clock, kLanes> known{};
  std::vector<std::uint32_t> threads;
  for (std::uint32_t lane = 0; lane < kLanes; ++lane) {
    if ((lanes >> lane & 1) == 0) {
      continue;
    }
    threads.push_back(first_of_warp + lane);
    for (std::uint32_t other = 0; other < kLanes; ++other) {
      known[other] = std::max(known[other], (*slot)[lane][other]);
    }
    known[lane] = std::max(known[lane], clocks_[first_of_warp + lane]);
  }
  for (const std::uint32_t thread : threads) {
    (*slot)[thread - first_of_warp] = known;
    latest_ = std::max(latest_, ++clocks_[thread]);
  }
  join_all(threads);
}

Clocks::Vector Clocks::all_known_to(std::uint32_t thread) const {
  const Shared& outside = knowledge_[thread].outside;
  Vector all = outside != nullptr ? *outside : Vector(clocks_.size() / threads_per_block_);
  OfBlock& of_block = all[thread / threads_per_block_];
  std::vector<Clock> known =
      of_block != nullptr ? *of_block : std::vector<Clock>(threads_per_block_);
  const std::uint32_t first = thread / threads_per_block_ * threads_per_block_;
  for (std::uint32_t i = 0; i < threads_per_block_; ++i) {
    known[i] = std::max(known[i], at_barrier_[first + i]);
  }
  const std::uint32_t own = thread - first;
  const std::uint32_t warps_of_block = (threads_per_block_ + kLanes - 1) / kLanes;
  const auto& table =
      warps_[std::size_t{thread / threads_per_block_} * warps_of_block + own / kLanes];
  for (std::uint32_t lane = 0; table != nullptr && lane < kLanes; ++lane) {
    const std::uint32_t other = own / kLanes * kLanes + lane;
    if (other < threads_per_block_) {
      known[other] = std::max(known[other], (*table)[own % kLanes][lane]);
    }
  }
  known[own] = clocks_[thread];
  of_block = std::make_shared<const std::vector<Clock>>(std::move(known));
  return all;
}

void Clocks::end_block(std::uint32_t block) {
  for (std::uint32_t i = 0; i < threads_per_block_; ++i) {
    knowledge_[block * threads_per_block_ + i] = Knowledge();
  }
}

void Clocks::fence(std::uint32_t thread) {
  Knowledge& own = knowledge_[thread];
  join(own.outside, own.pending);
  own.pending = nullptr;
  join(own.fenced, std::make_shared<const Vector>(all_known_to(thread)));
  latest_ = std::max(latest_, ++clocks_[thread]);
}

void Clocks::atomic(std::uint32_t thread, std::uint64_t address) {
  Knowledge& own = knowledge_[thread];
  const auto found = left_at_.find(address);
  if (found != left_at_.end()) {
    join(own.pending, found->second);
  }
  if (own.fenced != nullptr) {
    join(left_at_[address], own.fenced);
  }
}

// --- Races

namespace {

// Calls body(cell, bits of the bytes touched) for each cell of an access.
template <class Body>
void for_each_cell(std::vector<Cell>& cells, std::uint64_t offset, std::uint32_t bytes,
                   const Body& body) {
  const std::uint64_t end = offset + bytes;
  for (std::uint64_t at = offset; at < end;) {
    const std::uint64_t next = std::min(end, (at / 4 + 1) * 4);
    const unsigned touched = ((1U << (next - at)) - 1) << (at % 4);
    body(cells[at / 4], static_cast<std::uint8_t>(touched));
    at = next;
  }
}

}  // namespace

void Races::check(const Cell::Mark& mark, const Access& access, const char* what) const {
  if (mark.thread == Cell::kMany) {
    for (const Cell::Mark& one : lists_[mark.clock]) {
      check(one, access, what);
    }
    return;
  }
  if (mark.thread == Cell::kNobody || clocks_->is_ordered(access.thread, mark.thread, mark.clock)) {
    return;
  }
  throw Failure("race: " + std::string(what) + " of thread " + std::to_string(mark.thread) +
                " at line " + std::to_string(mark.line) + " is not ordered with this access");
}

// The access joins those of the mark that do not come before it.
void Races::add(Cell::Mark& mark, const Access& access) {
  constexpr std::size_t kLongList = 2048;
  const Cell::Mark own = {access.thread, clocks_->now(access.thread), access.line};
  if (mark.thread == Cell::kMany) {
    Marks& marks = lists_[mark.clock];
    if (marks.back().thread == own.thread) {
      marks.back() = own;
      return;
    }
    if (marks.size() >= kLongList) {
      std::erase_if(marks, [&](const Cell::Mark& old) {
        return clocks_->is_ordered(access.thread, old.thread, old.clock);
      });
    }
    marks.push_back(own);
  } else if (mark.thread == Cell::kNobody ||
             clocks_->is_ordered(access.thread, mark.thread, mark.clock)) {
    mark = own;
  } else {
    lists_.push_back({mark, own});
    mark = {Cell::kMany, static_cast<Clock>(lists_.size() - 1), launch_};
  }
}

void Races::drop_of_launches_before(Cell& cell) const {
  if (cell.read.thread == Cell::kMany && cell.read.line != launch_) {
    cell.read = Cell::Mark();
    cell.read_bytes = 0;
  }
  if (cell.atomic.thread == Cell::kMany && cell.atomic.line != launch_) {
    cell.atomic = Cell::Mark();
  }
}

void Races::read(std::vector<Cell>& cells, const Access& access) {
  for_each_cell(cells, access.offset, access.bytes, [&](Cell& cell, std::uint8_t bytes) {
    drop_of_launches_before(cell);
    if ((cell.write_bytes & bytes) != 0) {
      check(cell.write, access, "the write");
    }
    check(cell.atomic, access, "the atomic operation");
    add(cell.read, access);
    cell.read_bytes |= bytes;
  });
}

void Races::write(std::vector<Cell>& cells, const Access& access) {
  for_each_cell(cells, access.offset, access.bytes, [&](Cell& cell, std::uint8_t bytes) {
    drop_of_launches_before(cell);
    if ((cell.write_bytes & bytes) != 0) {
      check(cell.write, access, "the write");
    }
    check(cell.atomic, access, "the atomic operation");
    if ((cell.read_bytes & bytes) != 0) {
      check(cell.read, access, "the read");
    }
    if ((cell.read_bytes & ~bytes) == 0) {
      cell.read = Cell::Mark();
      cell.read_bytes = 0;
    }
    cell.atomic = Cell::Mark();
    cell.write = {access.thread, clocks_->now(access.thread), access.line};
    cell.write_bytes = bytes;
  });
}

void Races::atomic(std::vector<Cell>& cells, const Access& access, AtomicKind kind, bool observes) {
  for_each_cell(cells, access.offset, access.bytes, [&](Cell& cell, std::uint8_t bytes) {
    drop_of_launches_before(cell);
    if ((cell.write_bytes & bytes) != 0) {
      check(cell.write, access, "the write");
    }
    if ((cell.read_bytes & bytes) != 0) {
      check(cell.read, access, "the read");
    }
    if (cell.atomic_kind != kind || kind == kAtomicOther) {
      check(cell.atomic, access, "the atomic operation of another kind");
      cell.atomic = Cell::Mark();
    }
    if (observes) {
      cell.atomic = Cell::Mark();
    }
    add(cell.atomic, access);
    cell.atomic_kind = kind;
  });
}

}  // namespace korvex::ptx
