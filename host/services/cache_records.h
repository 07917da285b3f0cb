// What the cache keeps of one entry across restarts: its key, size, block
// map and where its content belongs.
#ifndef SKARVO_SERVICES_CACHE_RECORDS_H_
#define SKARVO_SERVICES_CACHE_RECORDS_H_

#include <cstdint>
#include <string>

// Where an entry's content belongs, as the library last said, so that data
// written and never uploaded can be uploaded after skarvo died.
struct EntryOrigin {
    bool known = false;  // false: never said
    std::string path;    // in the volume, "/Docs/a.txt"; empty: the file was
                         // deleted and its data belongs nowhere
    std::string remote;  // identity of the remote holding the file
    bool based = false;  // whether the remote had a copy when the change began
    int64_t baseSize = 0;
    std::string baseModifyTime;  // RFC 3339
    std::string baseExtra;       // the protocol's text, such as an ETag

    // The file was deleted: its data must never be uploaded.
    bool BelongsNowhere() const { return known && path.empty(); }
    // The file's path in the volume: the noted one, or, when none was
    // noted, the one the entry's key spells (lower case).
    std::string VolumePath(const std::string& key) const;

    bool operator==(const EntryOrigin& other) const;
};

// One entry's row in the cache's index.
struct EntryRecord {
    std::string name;  // stem of the data file's name
    std::string key;
    std::string extra;  // the protocol's text given with the last rekey
    // The remote content the fetched blocks hold (ICacheObj::CheckVersion);
    // "": unknown.
    std::string cleanVersion;
    int64_t size = 0;
    int64_t fetchLimit = 0;  // bytes from here on are never fetched
    std::string blocks;      // BlockMap::Encode
    uint64_t unsent = 0;     // bytes written and not committed
    EntryOrigin origin;
    uint64_t lastUse = 0;  // larger is more recent
    // When the row was saved before the data file was synced: the boot of
    // the machine it was saved in (/proc/sys/kernel/random/boot_id). The
    // data survived if the machine has not restarted since, since only a
    // power cut or a crash of the kernel loses what the kernel was given;
    // after a restart it may be incomplete. "": the data was synced first.
    std::string unsyncedBoot;
};

// Whether `name` is a name the cache itself could have given an entry, and so
// safe to use as a file name stem.
bool IsValidEntryName(const std::string& name);

#endif  // SKARVO_SERVICES_CACHE_RECORDS_H_
