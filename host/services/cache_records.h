// The cache's on-disk records: one per entry (its key, size and block map)
// and the index that lists the entries from least to most recently used.
#ifndef SKARVO_SERVICES_CACHE_RECORDS_H_
#define SKARVO_SERVICES_CACHE_RECORDS_H_

#include <cstdint>
#include <string>
#include <vector>

// What is saved of one entry next to its data file.
struct EntryRecord {
    std::string key;
    std::string extra;  // the protocol's text given with the last rekey
    uint32_t blockSize = 0;
    int64_t size = 0;
    int64_t fetchLimit = 0;  // bytes from here on are never fetched
    std::string blocks;      // BlockMap::Encode
};

struct IndexEntry {
    std::string name;  // file name stem of the entry's data and record
    std::string key;
};

// The list of entries, least recently used first.
struct IndexRecord {
    uint32_t blockSize = 0;
    std::vector<IndexEntry> entries;
};

std::string EncodeEntryRecord(const EntryRecord& record);
bool DecodeEntryRecord(const std::string& text, EntryRecord* record);

std::string EncodeIndexRecord(const IndexRecord& record);
bool DecodeIndexRecord(const std::string& text, IndexRecord* record);

// Whether `name` is a name the cache itself could have given an entry, and so
// safe to use as a file name stem.
bool IsValidEntryName(const std::string& name);

#endif  // SKARVO_SERVICES_CACHE_RECORDS_H_
