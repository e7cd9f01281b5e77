// Small checks the store's tests share: open descriptors, folder listings, whole message
// files, and a system-call table whose n-th write fails.
#pragma once

#include <dirent.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <string>
#include <vector>

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

// Names in a folder, sorted, without "." and ".."; empty when the folder does not exist.
inline std::vector<std::string> filesIn(const std::string& folder) {
    std::vector<std::string> names;
    if (DIR* dir = ::opendir(folder.c_str())) {
        while (const dirent* e = ::readdir(dir)) {
            const std::string name = e->d_name;
            if (name != "." && name != "..") names.push_back(name);
        }
        ::closedir(dir);
    }
    std::sort(names.begin(), names.end());
    return names;
}

// Every record of the message file from the first, as byte strings of their lengths.
inline std::vector<std::string> recordsOf(int16_t tf) {
    std::vector<std::string> records;
    tf_UnreadFile(tf);
    TFREC record;
    while (tf_ReadRecord(tf, &record) != 0)
        records.emplace_back(reinterpret_cast<const char*>(record.bytes), tf_GetLength(&record));
    tf_UnreadFile(tf);
    return records;
}

inline std::vector<uint32_t> typesOf(int16_t tf) {
    std::vector<uint32_t> types;
    for (const std::string& r : recordsOf(tf)) {
        TFREC record;
        std::memcpy(record.bytes, r.data(), r.size());
        types.push_back(tf_GetType(&record));
    }
    return types;
}

// A record of the type, length bytes long, its fields filled with fill.
inline TFREC makeRecord(uint32_t type, uint32_t length, unsigned char fill) {
    TFREC record;
    tf_InitRecord(&record, type);
    std::memset(record.bytes + TF_RECORD_HEADER, fill, length - TF_RECORD_HEADER);
    record.bytes[0] = static_cast<unsigned char>(length);
    record.bytes[1] = static_cast<unsigned char>(length >> 8);
    return record;
}

// Makes the write with the given number (1 = the next one) and every later one fail with
// ENOSPC, as a full disk would, until it goes out of scope.
class FailingWrites {
public:
    explicit FailingWrites(int failFrom) {
        failFrom_ = failFrom;
        seen_ = 0;
        calls_ = os_GetSysCalls();
        calls_.write = [](int fd, const void* buffer, size_t count) -> ssize_t {
            if (++seen_ >= failFrom_) {
                errno = ENOSPC;
                return -1;
            }
            return ::write(fd, buffer, count);
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
