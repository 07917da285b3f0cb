// Cache folders written before the index moved into SQLite keep one text
// record per entry (data/<name>.map) and a text list of them (index). At
// start such records are read one last time and imported into the index.
#ifndef SKARVO_SERVICES_LEGACY_RECORDS_H_
#define SKARVO_SERVICES_LEGACY_RECORDS_H_

#include <cstdint>
#include <string>
#include <vector>

#include "services/cache_records.h"

struct LegacyRecords {
    uint32_t blockSize = 0;  // of the records read; 0: none
    std::vector<EntryRecord> records;
    // Names of the record files that could not be read, or hold another
    // block size: kept as they are, since they may hold written data.
    std::vector<std::string> unreadable;
};

// Reads every record file in `dataDir`.
LegacyRecords ReadLegacyRecords(const std::string& dataDir);

#endif  // SKARVO_SERVICES_LEGACY_RECORDS_H_
