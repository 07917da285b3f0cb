// Draws random operations, fully determined by a seed, on a small pool of
// names, mostly on what exists so that most operations do something.
#pragma once

#include <cstdint>
#include <random>
#include <string>
#include <vector>

#include "engine.h"
#include "ops.h"

namespace difftest {

class Generator {
  public:
    explicit Generator(uint64_t seed, Avoid avoid = {}) : rng_(seed), avoid_(avoid) {}
    Op next(const Engine& engine);

  private:
    size_t below(size_t n) { return std::uniform_int_distribution<size_t>(0, n - 1)(rng_); }
    bool chance(int percent) { return below(100) < size_t(percent); }
    std::string flip_case(std::string name);
    std::string name(bool folder);
    std::string folder(const std::vector<Entry>& entries);
    std::string fresh_path(const std::vector<Entry>& entries, bool folder);
    std::string existing(const std::vector<Entry>& entries, int want_folder);
    int64_t near_boundary(int64_t limit);
    int64_t length();
    Op open(const std::vector<Entry>& entries);
    Op on_slot(Kind kind, const Engine& engine);
    Op rename(const std::vector<Entry>& entries, const Engine& engine);

    std::mt19937_64 rng_;
    Avoid avoid_;
    int next_slot_ = 1;
};

}  // namespace difftest
