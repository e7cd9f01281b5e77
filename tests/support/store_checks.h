// Small checks the store's tests share: open descriptors, folder listings, the records of a
// message file, and a system-call table whose writes fail from the n-th on.
#pragma once

#include <dirent.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <string>
#include <vector>

#include "tnef/platform/er_escape.h"
#include "tnef/platform/mp_stored.h"
#include "tnef/platform/os_file.h"
#include "tnef/platform/tf_msgfile.h"

namespace storecheck {

inline int openFdCount() {
    int count = 0;
    if (DIR* dir = ::opendir("/proc/self/fd")) {
        while (::readdir(dir) != nullptr) ++count;
        ::closedir(dir);
    }
    return count;
}

// Names in a folder, sorted; empty when the folder does not exist.
inline std::vector<std::string> filesIn(const std::string& folder) {
    std::vector<std::string> names;
    if (DIR* dir = ::opendir(folder.c_str())) {
        while (const dirent* e = ::readdir(dir))
            if (std::strcmp(e->d_name, ".") != 0 && std::strcmp(e->d_name, "..") != 0)
                names.emplace_back(e->d_name);
        ::closedir(dir);
    }
    std::sort(names.begin(), names.end());
    return names;
}

// Every record from the first; the file is left rewound.
inline std::vector<TFREC> recordsOf(int16_t tf) {
    std::vector<TFREC> records;
    tf_UnreadFile(tf);
    for (TFREC r; tf_ReadRecord(tf, &r) != 0;) records.push_back(r);
    tf_UnreadFile(tf);
    return records;
}

// The property texts stored in a message file, in file order: main texts (19510) and
// secondary texts (19610) alike, with a flag saying which.
struct StoredText {
    bool secondary;
    std::string bytes;
};
inline std::vector<StoredText> storedTexts(int16_t tf) {
    std::vector<StoredText> texts;
    for (const TFREC& r : recordsOf(tf)) {
        const uint32_t type = tf_GetType(&r);
        if (type != TFREC_PROPS_DATA && type != TFREC_PROPS2_DATA) continue;
        char* buffer = nullptr;
        uint32_t length = tf_GetINT32(&r, 20), flags = 0;
        mp_BuildMAPIProps(tf, &r, type, &buffer, &length, &flags);
        texts.push_back({type == TFREC_PROPS2_DATA, std::string(buffer, length)});
        os_free(buffer);
    }
    return texts;
}

inline std::vector<uint32_t> typesOf(int16_t tf) {
    std::vector<uint32_t> types;
    for (const TFREC& r : recordsOf(tf)) types.push_back(tf_GetType(&r));
    return types;
}

inline std::string bytesOf(const TFREC& r) {
    return std::string(reinterpret_cast<const char*>(r.bytes), tf_GetLength(&r));
}

// A record of the type, length bytes long, its fields filled with fill.
inline TFREC makeRecord(uint32_t type, uint32_t length, unsigned char fill) {
    TFREC r;
    tf_InitRecord(&r, type);
    std::memset(r.bytes + TF_RECORD_HEADER, fill, length - TF_RECORD_HEADER);
    r.bytes[0] = static_cast<unsigned char>(length);
    r.bytes[1] = static_cast<unsigned char>(length >> 8);
    return r;
}

template <typename F>
Escape escapeOf(F work) {
    try {
        work();
    } catch (const Escape& e) {
        return e;
    }
    ADD_FAILURE() << "no escape";
    return Escape(0, 0, "none", 0);
}

// Makes write number failFrom (1 = the next one) and every later one fail with ENOSPC, as a
// full disk would, while it is in scope.
class FailingWrites {
public:
    explicit FailingWrites(int failFrom) {
        failFrom_ = failFrom;
        seen_ = 0;
        calls_ = os_GetSysCalls();
        calls_.write = [](int fd, const void* buffer, size_t count) -> ssize_t {
            if (++seen_ < failFrom_) return ::write(fd, buffer, count);
            errno = ENOSPC;
            return -1;
        };
        os_SetSysCalls(&calls_);
    }
    ~FailingWrites() { os_SetSysCalls(nullptr); }
    FailingWrites(const FailingWrites&) = delete;
    FailingWrites& operator=(const FailingWrites&) = delete;

private:
    static inline int failFrom_ = 0;
    static inline int seen_ = 0;
    OsSysCalls calls_{};
};

}  // namespace storecheck
