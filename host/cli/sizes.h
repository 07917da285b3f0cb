// Byte counts as users type them and as skarvo prints them.
#ifndef SKARVO_CLI_SIZES_H_
#define SKARVO_CLI_SIZES_H_

#include <cstdint>
#include <string>

#include "common/status.h"

// Reads a size such as "10G", "512m", "1.5T" or "4096" into *bytes. The
// suffixes K, M, G and T (any case, optionally followed by "B" or "iB") are
// powers of 1024; a number without a suffix counts bytes. Fails, saying why,
// for anything else or for a size that does not fit 64 bits.
Status ParseSize(const std::string& text, uint64_t* bytes);

// "512 B", "1.5 KiB", "1.2 GiB": one decimal above a KiB.
std::string FormatBytes(uint64_t bytes);

#endif  // SKARVO_CLI_SIZES_H_
