// SPDX-License-Identifier: Apache-2.0
// Launches: static memory, blocks and warps, and who runs next.
#include "tests/ptx/machine.h"

#include <algorithm>
#include <bit>
#include <set>

namespace korvex::ptx {
namespace {

constexpr std::size_t kResidentBlocks = 4;
constexpr std::uint8_t kJunk = 0xa5;

}  // namespace

Machine::Machine(std::unique_ptr<Module> module) : module_(std::move(module)) {
  for (const Symbol& symbol : module_->symbols) {
    if (symbol.space != Space::kGlobal) {
      continue;
    }
    Region& region = global_.add(symbol.name, symbol.bytes, kWritten, symbol.initial.empty());
    if (region.base != symbol.address) {
      throw Failure("a variable lies elsewhere than the parser said");
    }
    region.is_constant = !symbol.initial.empty();
    region.bytes =
        symbol.initial.empty() ? std::vector<std::uint8_t>(symbol.bytes) : symbol.initial;
  }
  symbols_ = global_.count();
}

Region& Machine::add_array(std::string name, std::uint64_t bytes, State state, bool is_constant,
                           std::uint64_t past_16) {
  Region& region = global_.add(std::move(name), bytes, state, !is_constant, past_16);
  region.is_constant = is_constant;
  return region;
}

void Machine::forget_arrays() { global_.forget_after(symbols_); }

void Machine::forget_variables() {
  for (std::size_t i = 0; i < symbols_; ++i) {
    Region& region = global_.at(i);
    if (!region.is_constant) {
      std::ranges::fill(region.states, kUnwritten);
      std::ranges::fill(region.bytes, kJunk);
    }
  }
}

Region& Machine::variable(std::string_view name) {
  for (std::size_t i = 0; i < symbols_; ++i) {
    if (global_.at(i).name == name) {
      return global_.at(i);
    }
  }
  throw Failure("no variable " + std::string(name));
}

void Machine::clear_variable(std::string_view name) {
  Region& region = variable(name);
  std::ranges::fill(region.states, kWritten);
  std::ranges::fill(region.bytes, std::uint8_t{0});
}

void Machine::find_shared_memory() {
  std::set<const Function*> seen;
  std::set<const Symbol*> shared;
  std::vector<const Function*> open = {entry_};
  while (!open.empty()) {
    const Function* function = open.back();
    open.pop_back();
    if (!seen.insert(function).second) {
      continue;
    }
    if (!function->has_body) {
      throw Failure(function->name + " has no body");
    }
    shared.insert(function->shared.begin(), function->shared.end());
    open.insert(open.end(), function->callees.begin(), function->callees.end());
  }
  shared_symbols_.assign(shared.begin(), shared.end());
}

void Machine::launch(const std::string& kernel, const Shape& shape,
                     const std::vector<std::uint64_t>& arguments, std::uint64_t seed,
                     std::uint64_t most_steps) {
  entry_ = module_->find(kernel);
  if (entry_ == nullptr || !entry_->is_entry) {
    throw Failure("no kernel " + kernel);
  }
  if (arguments.size() != entry_->parameters.size()) {
    throw Failure(kernel + " takes another number of arguments");
  }
  const auto& most = entry_->most_threads;
  if (most[0] != 0 && shape.threads() > static_cast<unsigned>(most[0] * std::max(1, most[1]) *
                                                              std::max(1, most[2]))) {
    throw Failure(kernel + " is compiled for smaller blocks");
  }
  ++figures_.launches;
  shape_ = shape;
  random_ = test::Random(seed);
  steps_left_ = most_steps;
  find_shared_memory();
  clocks_.start_launch(shape.blocks(), shape.threads());
  races_.start_launch();
  try {
    run_resident_blocks(arguments);
  } catch (const Failure& failure) {
    throw Failure(kernel + ": " + failure.what());
  }
}

void Machine::fill_specials(Warp& warp, std::uint32_t block, std::uint32_t first) const {
  const auto set = [&](Operand special, int lane, std::uint64_t value) {
    warp.specials[static_cast<std::size_t>(special - kFirstSpecial)]
                 [static_cast<std::size_t>(lane)] = value;
  };
  const auto& [bx, by, bz] = shape_.block;
  const auto& [gx, gy, gz] = shape_.grid;
  for (int lane = 0; lane < kLanes; ++lane) {
    const std::uint32_t thread = first + static_cast<std::uint32_t>(lane);
    set(kTidX, lane, thread % bx);
    set(kTidY, lane, thread / bx % by);
    set(kTidZ, lane, thread / bx / by);
    set(kNtidX, lane, bx);
    set(kNtidY, lane, by);
    set(kNtidZ, lane, bz);
    set(kCtaidX, lane, block % gx);
    set(kCtaidY, lane, block / gx % gy);
    set(kCtaidZ, lane, block / gx / gy);
    set(kNctaidX, lane, gx);
    set(kNctaidY, lane, gy);
    set(kNctaidZ, lane, gz);
    set(kLaneId, lane, static_cast<std::uint64_t>(lane));
  }
}

std::unique_ptr<Block> Machine::start_block(std::uint32_t index,
                                            const std::vector<std::uint64_t>& arguments) {
  auto block = std::make_unique<Block>();
  block->index = index;
  const std::uint32_t threads = shape_.threads();
  for (std::uint32_t first = 0; first < threads; first += kLanes) {
    auto warp = std::make_unique<Warp>();
    warp->block = block.get();
    warp->first_thread = index * threads + first;
    const std::uint32_t count = std::min<std::uint32_t>(kLanes, threads - first);
    warp->lanes = count == kLanes ? kAllLanes : (1U << count) - 1;
    warp->running = warp->lanes;
    fill_specials(*warp, index, first);
    Frame& frame = make_frame(*warp, *entry_);
    frame.lanes = warp->lanes;
    open_depot(*warp, frame, warp->lanes);
    for (int lane = 0; lane < kLanes; ++lane) {
      const auto at = static_cast<std::size_t>(lane);
      const bool exists = (warp->lanes >> lane & 1) != 0;
      warp->states[at] = exists ? LaneState::kRunning : LaneState::kExited;
      warp->pcs[at] = entry_->begin;
      warp->frames[at] = &frame;
      for (std::size_t i = 0; i < arguments.size(); ++i) {
        const auto place = at * static_cast<std::size_t>(entry_->parameter_bytes) +
                           static_cast<std::size_t>(entry_->parameters[i].offset);
        std::memcpy(frame.parameters.data() + place, &arguments[i], 8);
        std::memset(frame.parameter_states.data() + place, kWritten, 8);
      }
    }
    block->warps.push_back(std::move(warp));
  }
  return block;
}

void Machine::run_resident_blocks(const std::vector<std::uint64_t>& arguments) {
  std::vector<std::uint32_t> waiting(shape_.blocks());
  for (std::uint32_t i = 0; i < waiting.size(); ++i) {
    waiting[i] = i;
  }
  std::vector<std::unique_ptr<Block>> resident;
  std::vector<Warp*> ready;
  for (;;) {
    while (resident.size() < kResidentBlocks && !waiting.empty()) {
      std::swap(waiting[static_cast<std::size_t>(random_.below(static_cast<int>(waiting.size())))],
                waiting.back());
      resident.push_back(start_block(waiting.back(), arguments));
      waiting.pop_back();
    }
    if (resident.empty()) {
      return;
    }
    ready.clear();
    for (const auto& block : resident) {
      for (const auto& warp : block->warps) {
        if (warp->running != 0) {
          ready.push_back(warp.get());
        }
      }
    }
    if (ready.empty()) {
      fail_for_ever(resident);
    }
    // Some turns each, before the list is made anew.
    for (std::size_t turn = 0; turn < ready.size(); ++turn) {
      Warp& warp = *ready[static_cast<std::size_t>(random_.below(static_cast<int>(ready.size())))];
      try {
        run_warp(warp, random_.below(4) == 0 ? random_.between(1, 16) : random_.between(1, 800));
      } catch (const Failure& failure) {
        throw Failure(std::string(failure.what()) + "\n  " + place_of(warp, lane_, pc_));
      }
    }
    std::erase_if(resident, [&](const auto& block) {
      const bool is_over = block->exited == shape_.threads();
      if (is_over) {
        clocks_.end_block(block->index);
      }
      return is_over;
    });
  }
}

void Machine::fail_for_ever(const std::vector<std::unique_ptr<Block>>& resident) const {
  for (const auto& block : resident) {
    for (const auto& warp : block->warps) {
      for (int lane = 0; lane < kLanes; ++lane) {
        const LaneState state = warp->states[static_cast<std::size_t>(lane)];
        if (state == LaneState::kMeeting || state == LaneState::kBarrier) {
          throw Failure("threads wait for others that never come\n  " +
                        place_of(*warp, lane, warp->pcs[static_cast<std::size_t>(lane)]));
        }
      }
    }
  }
  throw Failure("nothing runs and nothing waits");
}

std::string Machine::place_of(const Warp& warp, int lane, std::int32_t pc) const {
  const Instruction& instruction = module_->code[static_cast<std::size_t>(pc)];
  const std::uint32_t thread = warp.first_thread + static_cast<std::uint32_t>(lane);
  std::string place = "at PTX line " + std::to_string(instruction.line) + " (" +
                      instruction.operation->name + ") in " + module_->function_at(pc).name +
                      ", block " + std::to_string(thread / shape_.threads()) + ", thread " +
                      std::to_string(thread % shape_.threads());
  const auto file = static_cast<std::size_t>(instruction.source_file);
  if (instruction.source_line != 0 && file < module_->source_files.size()) {
    place +=
        ", source " + module_->source_files[file] + ":" + std::to_string(instruction.source_line);
  }
  return place;
}

Machine::Place Machine::find(const Group& group, Space space, std::uint64_t address,
                             std::uint32_t bytes, int lane) {
  lane_ = lane;
  if (space == Space::kGeneric) {
    if (address >= kSharedWindow && address < kSharedWindow + kWindowBytes) {
      space = Space::kShared;
      address -= kSharedWindow;
    } else if (address >= kLocalWindow && address < kLocalWindow + kWindowBytes) {
      space = Space::kLocal;
      address -= kLocalWindow;
    } else {
      space = Space::kGlobal;
    }
  }
  if (address % bytes != 0) {
    throw Failure("misaligned address: " + std::to_string(bytes) + " bytes at " +
                  std::to_string(address % 16) + " past a multiple of 16");
  }
  if (space == Space::kLocal) {
    Region& region = group.warp.local[static_cast<std::size_t>(lane)];
    if (!region.holds(address, bytes)) {
      throw Failure("out of bounds: local address " + std::to_string(address));
    }
    return {&region, address, false};
  }
  if (space == Space::kShared) {
    Block& block = *group.warp.block;
    if (block.shared == nullptr) {
      block.shared =
          std::make_unique<Region>("shared memory", 0, module_->shared_bytes, kNothing, true);
      for (const Symbol* symbol : shared_symbols_) {
        std::fill_n(block.shared->states.begin() + static_cast<std::ptrdiff_t>(symbol->address),
                    symbol->bytes, kUnwritten);
      }
    }
    if (!block.shared->holds(address, bytes)) {
      throw Failure("out of bounds: shared address " + std::to_string(address));
    }
    return {block.shared.get(), address, true};
  }
  Region* region = global_.before(address);
  if (region == nullptr) {
    throw Failure("out of bounds: " + std::to_string(address) + " is no address of global memory");
  }
  if (!region->holds(address, bytes)) {
    throw Failure("out of bounds: " + std::to_string(bytes) + " bytes at " +
                  std::to_string(address - region->base) + " of " + region->name + ", which has " +
                  std::to_string(region->bytes.size()));
  }
  return {region, address - region->base, false};
}

}  // namespace korvex::ptx
