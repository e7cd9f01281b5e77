#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <string>

#include "tnef/platform/er_escape.h"
#include "tnef/platform/os_file.h"

namespace {

constexpr const char* kUnit = "src/platform/os_file";

int realOpen(const char* path, int flags, mode_t mode) { return ::open(path, flags, mode); }

const OsSysCalls kRealCalls = {realOpen, ::read, ::write, ::lseek, ::close};
const OsSysCalls* g_calls = &kRealCalls;

[[noreturn]] void ioEscape(int err, int line, const std::string& what) {
    er_TracedEscapeText(ER_GROUP_IO, err, kUnit, line, what);
}

std::string fdText(int fd) { return "descriptor " + std::to_string(fd); }

// Reads until count bytes or end of file; -1 with errno on failure.
int64_t readFully(int fd, void* buffer, int64_t count) {
    auto* out = static_cast<unsigned char*>(buffer);
    int64_t done = 0;
    while (done < count) {
        ssize_t n = g_calls->read(fd, out + done, static_cast<size_t>(count - done));
        if (n < 0) {
            if (errno == EINTR) continue;
            return -1;
        }
        if (n == 0) break;
        done += n;
    }
    return done;
}

int64_t writeFully(int fd, const void* buffer, int64_t count) {
    const auto* in = static_cast<const unsigned char*>(buffer);
    int64_t done = 0;
    while (done < count) {
        ssize_t n = g_calls->write(fd, in + done, static_cast<size_t>(count - done));
        if (n < 0) {
            if (errno == EINTR) continue;
            return -1;
        }
        if (n == 0) {
            errno = ENOSPC;
            return -1;
        }
        done += n;
    }
    return done;
}

int64_t joinOffset(uint32_t low, int32_t high) {
    return static_cast<int64_t>((static_cast<uint64_t>(static_cast<uint32_t>(high)) << 32) | low);
}

}  // namespace

const OsSysCalls& os_GetSysCalls() { return *g_calls; }
void os_SetSysCalls(const OsSysCalls* calls) { g_calls = calls != nullptr ? calls : &kRealCalls; }

int os_open(const char* path, int flags, int mode) {
    std::string resolved = os_ResolvePath(path);
    if (flags & O_CREAT) os_MakeParentDirs(resolved);
    int fd;
    do {
        fd = g_calls->open(resolved.c_str(), flags | O_CLOEXEC, static_cast<mode_t>(mode));
    } while (fd < 0 && errno == EINTR);
    if (fd < 0) ioEscape(errno, __LINE__, "cannot open " + resolved);
    return fd;
}

int64_t os_read(int fd, void* buffer, int64_t count) {
    if (count <= 0) return 0;
    int64_t n = readFully(fd, buffer, count);
    if (n < 0) ioEscape(errno, __LINE__, "read failed on " + fdText(fd));
    return n;
}

int64_t os_write(int fd, const void* buffer, int64_t count) {
    if (count <= 0) return 0;
    int64_t n = writeFully(fd, buffer, count);
    if (n < 0) ioEscape(errno, __LINE__, "write failed on " + fdText(fd));
    return n;
}

int64_t os_lseek64(int fd, int64_t offset, int whence) {
    off_t pos = g_calls->lseek(fd, static_cast<off_t>(offset), whence);
    if (pos < 0) ioEscape(errno, __LINE__, "seek failed on " + fdText(fd));
    return pos;
}

int64_t os_lseek(int fd, uint32_t offsetLow, int32_t offsetHigh, int whence) {
    return os_lseek64(fd, joinOffset(offsetLow, offsetHigh), whence);
}

void os_close(int fd) {
    if (fd < 0) return;
    // The descriptor is released even when close reports an error, so no retry on EINTR.
    if (g_calls->close(fd) != 0 && errno != EINTR)
        ioEscape(errno, __LINE__, "close failed on " + fdText(fd));
}

int64_t mdc_read(int fd, void* buffer, int64_t count) {
    if (count <= 0) return 0;
    return readFully(fd, buffer, count);
}

int64_t mdc_write(int fd, const void* buffer, int64_t count) {
    if (count <= 0) return 0;
    return writeFully(fd, buffer, count);
}

int64_t mdc_lseek(int fd, uint32_t offsetLow, int32_t offsetHigh, int whence) {
    off_t pos = g_calls->lseek(fd, static_cast<off_t>(joinOffset(offsetLow, offsetHigh)), whence);
    return pos < 0 ? -1 : pos;
}

int64_t os_fsize(int fd) {
    struct stat st;
    if (::fstat(fd, &st) != 0 || !S_ISREG(st.st_mode)) return -1;
    return st.st_size;
}

bool os_fexists(const char* path) {
    struct stat st;
    return ::stat(os_ResolvePath(path).c_str(), &st) == 0 && S_ISREG(st.st_mode);
}

FILE* os_fopen(const char* path, const char* mode) {
    std::string resolved = os_ResolvePath(path);
    bool writes = mode[0] == 'w' || mode[0] == 'a';
    if (writes) {
        try {
            os_MakeParentDirs(resolved);
        } catch (const Escape&) {
            return nullptr;
        }
    }
    return std::fopen(resolved.c_str(), mode);
}

void os_fclose(FILE* file) {
    if (file != nullptr) std::fclose(file);
}

OsFd::~OsFd() {
    if (fd_ >= 0) g_calls->close(fd_);
}

OsFd& OsFd::operator=(OsFd&& other) noexcept {
    if (this != &other) {
        if (fd_ >= 0) g_calls->close(fd_);
        fd_ = other.release();
    }
    return *this;
}

void OsFd::close() { os_close(release()); }
