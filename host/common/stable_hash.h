// FNV-1a: a short hash that stays the same from one run and one machine to
// the next, for names that must be found again (cache entries, volume cache
// folders, control sockets).
#ifndef SKARVO_COMMON_STABLE_HASH_H_
#define SKARVO_COMMON_STABLE_HASH_H_

#include <cstdint>
#include <string_view>

constexpr uint64_t kStableHashStart = 14695981039346656037ull;

// Hashes `text`, continuing from `hash` (a previous result, to hash several
// texts as one).
inline uint64_t StableHash(std::string_view text, uint64_t hash = kStableHashStart) {
    for (const unsigned char c : text) {
        hash ^= c;
        hash *= 1099511628211ull;
    }
    return hash;
}

#endif  // SKARVO_COMMON_STABLE_HASH_H_
