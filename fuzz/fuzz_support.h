// Shared pieces of the fuzz targets: a scratch server home, input files, leak checks.
#pragma once

#include <dirent.h>
#include <fcntl.h>
#include <unistd.h>

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <string>

#include "tnef/platform/er_escape.h"
#include "tnef/platform/os_file.h"

namespace fuzzsupport {

// A server home in a fresh temporary folder, removed (with all it holds) when it goes.
class ScratchHome {
public:
    ScratchHome() {
        char pattern[] = "/tmp/tnef-fuzz-XXXXXX";
        const char* made = ::mkdtemp(pattern);
        if (made == nullptr) std::abort();
        path_ = made;
        os_SetHome(path_);
    }
    ~ScratchHome() {
        std::error_code ec;
        std::filesystem::remove_all(path_, ec);
    }
    ScratchHome(const ScratchHome&) = delete;
    ScratchHome& operator=(const ScratchHome&) = delete;

    std::string file(const char* name) const { return path_ + "/" + name; }

private:
    std::string path_;
};

inline void writeFile(const std::string& path, const uint8_t* data, size_t size) {
    FILE* f = std::fopen(path.c_str(), "wb");
    if (f == nullptr) std::abort();
    if (size != 0 && std::fwrite(data, 1, size, f) != size) std::abort();
    std::fclose(f);
}

// Opens a file for reading and writing, created empty.
inline int openScratch(const std::string& path) {
    const int fd = ::open(path.c_str(), O_RDWR | O_CREAT | O_TRUNC, 0600);
    if (fd < 0) std::abort();
    return fd;
}

inline int openInput(const std::string& path) {
    const int fd = ::open(path.c_str(), O_RDONLY);
    if (fd < 0) std::abort();
    return fd;
}

// The input as a file of the home, open for reading: what the reading entries take.
inline int inputFd(const ScratchHome& home, const uint8_t* data, size_t size) {
    const std::string path = home.file("input.tnef");
    writeFile(path, data, size);
    return openInput(path);
}

inline int openDescriptors() {
    int n = 0;
    if (DIR* dir = ::opendir("/proc/self/fd")) {
        while (::readdir(dir) != nullptr) ++n;
        ::closedir(dir);
    }
    return n;
}

// A descriptor left open by a run is a leak: stop the campaign on it.
class DescriptorCheck {
public:
    DescriptorCheck() : before_(openDescriptors()) {}
    ~DescriptorCheck() {
        if (openDescriptors() != before_) {
            std::fprintf(stderr, "descriptor leak: %d open before, %d after\n", before_,
                         openDescriptors());
            std::abort();
        }
    }
    DescriptorCheck(const DescriptorCheck&) = delete;
    DescriptorCheck& operator=(const DescriptorCheck&) = delete;

private:
    int before_;
};

// Splits the input at the first occurrence of two 0xFF bytes, the separator the seeds use.
inline size_t splitAt(const uint8_t* data, size_t size, size_t from) {
    for (size_t i = from; i + 1 < size; ++i)
        if (data[i] == 0xFF && data[i + 1] == 0xFF) return i;
    return size;
}

}  // namespace fuzzsupport
