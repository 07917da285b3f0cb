// Which blocks of one cached file are held, and where each came from.
#ifndef SKARVO_SERVICES_BLOCK_MAP_H_
#define SKARVO_SERVICES_BLOCK_MAP_H_

#include <cstdint>
#include <string>
#include <utility>
#include <vector>

enum class BlockState : uint8_t {
    kAbsent = 0,   // not held: read from the remote or as zeros
    kFetched = 1,  // a copy of the remote content; may be dropped again
    kWritten = 2,  // written locally and not yet stored remotely
};

// A run of blocks [first, end).
using BlockRun = std::pair<uint64_t, uint64_t>;

// One state per block, with counts kept up to date so that usage is cheap to
// ask for. Not thread safe: its owner locks.
class BlockMap {
  public:
    // Blocks needed to hold `bytes`.
    static uint64_t BlocksFor(uint64_t bytes, uint32_t blockSize);

    uint64_t Count() const { return states_.size(); }
    // kAbsent for any block past Count().
    BlockState Get(uint64_t block) const;
    // Sets blocks [first, end), growing the map when needed.
    void Set(uint64_t first, uint64_t end, BlockState state);
    // Drops blocks from `count` on, or adds absent blocks up to it.
    void Resize(uint64_t count);
    // Shrinks to `count` blocks or to just past the last held one, whichever
    // is more.
    void TrimAbsentTail(uint64_t count);
    // Every block in state `from` becomes `to`.
    void Replace(BlockState from, BlockState to);

    uint64_t CountOf(BlockState state) const { return counts_[static_cast<int>(state)]; }
    // The runs of consecutive blocks in `state`.
    std::vector<BlockRun> RunsOf(BlockState state) const;
    // Whether any block from `first` on is in `state`.
    bool AnyFrom(uint64_t first, BlockState state) const;
    // The absent blocks of [first, end) grouped into runs of consecutive
    // blocks, each at most `maxRun` blocks long.
    std::vector<BlockRun> AbsentRuns(uint64_t first, uint64_t end, uint64_t maxRun) const;

    // A compact text form ("f12 a3 w1"), and back. Decode rejects anything
    // that Encode would not have written, and maps of more than `maxBlocks`.
    std::string Encode() const;
    static bool Decode(const std::string& text, uint64_t maxBlocks, BlockMap* out);

  private:
    std::vector<BlockState> states_;
    uint64_t counts_[3] = {0, 0, 0};
};

#endif  // SKARVO_SERVICES_BLOCK_MAP_H_
