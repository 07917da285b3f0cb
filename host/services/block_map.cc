#include "services/block_map.h"

#include <algorithm>
#include <cstdlib>

namespace {

char StateLetter(BlockState state) {
    switch (state) {
        case BlockState::kFetched:
            return 'f';
        case BlockState::kWritten:
            return 'w';
        default:
            return 'a';
    }
}

bool LetterState(char letter, BlockState* state) {
    switch (letter) {
        case 'a':
            *state = BlockState::kAbsent;
            return true;
        case 'f':
            *state = BlockState::kFetched;
            return true;
        case 'w':
            *state = BlockState::kWritten;
            return true;
        default:
            return false;
    }
}

}  // namespace

uint64_t BlockMap::BlocksFor(uint64_t bytes, uint32_t blockSize) {
    return (bytes + blockSize - 1) / blockSize;
}

BlockState BlockMap::Get(uint64_t block) const {
    return block < states_.size() ? states_[block] : BlockState::kAbsent;
}

void BlockMap::Set(uint64_t first, uint64_t end, BlockState state) {
    if (end > states_.size()) Resize(end);
    for (uint64_t block = first; block < end; ++block) {
        --counts_[static_cast<int>(states_[block])];
        states_[block] = state;
        ++counts_[static_cast<int>(state)];
    }
}

void BlockMap::Resize(uint64_t count) {
    for (uint64_t block = count; block < states_.size(); ++block) {
        --counts_[static_cast<int>(states_[block])];
    }
    if (count > states_.size()) counts_[0] += count - states_.size();
    states_.resize(count, BlockState::kAbsent);
}

void BlockMap::TrimAbsentTail(uint64_t count) {
    uint64_t keep = states_.size();
    while (keep > count && states_[keep - 1] == BlockState::kAbsent)
        --keep;
    Resize(std::max(keep, count));
}

void BlockMap::Replace(BlockState from, BlockState to) {
    if (from == to || CountOf(from) == 0) return;
    for (BlockState& state : states_) {
        if (state == from) state = to;
    }
    counts_[static_cast<int>(to)] += counts_[static_cast<int>(from)];
    counts_[static_cast<int>(from)] = 0;
}

std::vector<BlockRun> BlockMap::RunsOf(BlockState state) const {
    std::vector<BlockRun> runs;
    uint64_t block = 0;
    while (block < states_.size()) {
        if (states_[block] != state) {
            ++block;
            continue;
        }
        const uint64_t start = block;
        while (block < states_.size() && states_[block] == state)
            ++block;
        runs.emplace_back(start, block);
    }
    return runs;
}

bool BlockMap::AnyFrom(uint64_t first, BlockState state) const {
    for (uint64_t block = first; block < states_.size(); ++block) {
        if (states_[block] == state) return true;
    }
    return false;
}

std::vector<BlockRun> BlockMap::AbsentRuns(uint64_t first, uint64_t end, uint64_t maxRun) const {
    std::vector<BlockRun> runs;
    if (maxRun == 0) maxRun = 1;
    uint64_t block = first;
    while (block < end) {
        if (Get(block) != BlockState::kAbsent) {
            ++block;
            continue;
        }
        const uint64_t start = block;
        while (block < end && block - start < maxRun && Get(block) == BlockState::kAbsent) {
            ++block;
        }
        runs.emplace_back(start, block);
    }
    return runs;
}

std::string BlockMap::Encode() const {
    std::string text;
    uint64_t index = 0;
    while (index < states_.size()) {
        const BlockState state = states_[index];
        uint64_t length = 0;
        while (index < states_.size() && states_[index] == state) {
            ++index;
            ++length;
        }
        if (!text.empty()) text += ' ';
        text += StateLetter(state);
        text += std::to_string(length);
    }
    return text;
}

bool BlockMap::Decode(const std::string& text, uint64_t maxBlocks, BlockMap* out) {
    BlockMap map;
    size_t pos = 0;
    while (pos < text.size()) {
        BlockState state;
        if (!LetterState(text[pos], &state)) return false;
        ++pos;
        const size_t digits = text.find(' ', pos);
        const std::string number =
            text.substr(pos, digits == std::string::npos ? std::string::npos : digits - pos);
        if (number.empty() || number.find_first_not_of("0123456789") != std::string::npos ||
            number.size() > 15) {
            return false;
        }
        const uint64_t length = std::strtoull(number.c_str(), nullptr, 10);
        if (length == 0 || length > maxBlocks - map.Count()) return false;
        map.Set(map.Count(), map.Count() + length, state);
        if (digits == std::string::npos) break;
        pos = digits + 1;
        if (pos == text.size()) return false;  // a trailing blank
    }
    *out = std::move(map);
    return true;
}
