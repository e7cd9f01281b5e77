// The store check: what interrupted work left in a server home, and its removal.
//
// A process that dies (killed, out of power) in the middle of a decode leaves only files no
// reader looks at: a staged message under ~/store/staging/, data and temporary items, and,
// when it died between storing its objects and publishing its message, kept objects that
// no message file names. The check finds those and damage from elsewhere (a message folder
// without a readable message file, parts no record counts, files that are no member of a
// message, records that name a missing object) and, asked to repair, removes the leftovers
// that no message references. A leftover is removed only when its owner is gone: a staged
// folder its process no longer holds locked, an item or object whose creating process (the
// pid in its name) has ended; and only when it is older than the age given, so that work
// under way on another machine sharing the store is never touched.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

// Everything this header declares is part of the library's exported interface.
#pragma GCC visibility push(default)

inline constexpr int64_t STORE_CHECK_DEFAULT_AGE = 3600;  // seconds

struct StoreFinding {
    std::string kind;    // staged, item, temporary, object, damaged-message, unreferenced-part,
                         // stray, missing-object
    std::string path;
    std::string detail;  // what is wrong, in a few words
    bool removable = false;  // a leftover old enough whose owner is gone
    bool removed = false;
};

struct StoreCheckReport {
    uint32_t messages = 0;  // published messages read
    std::vector<StoreFinding> findings;
    // Findings that still stand (not removed).
    uint32_t remaining() const;
};

// Reads the whole store; with repair, removes every removable finding. Raises 100/errno only
// when the home cannot be read at all; a file that cannot be removed stays a finding.
StoreCheckReport store_Check(bool repair, int64_t minAgeSeconds);

// The cheap part, for a process about to write: staged messages whose process is gone, and
// temporary items of ended processes, older than the age. Reads two folders, no message file.
struct StoreCheckCounts {
    uint32_t abandoned = 0;
};
StoreCheckCounts store_CountAbandoned(int64_t minAgeSeconds = STORE_CHECK_DEFAULT_AGE);

#pragma GCC visibility pop
