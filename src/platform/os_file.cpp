#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <string>

#include "os_buffer.h"
#include "tnef/platform/er_escape.h"
#include "tnef/platform/os_file.h"

namespace {

constexpr const char* kUnit = "src/platform/os_file";

int realOpen(const char* path, int flags, mode_t mode) { return ::open(path, flags, mode); }
int realRename(const char* from, const char* to, unsigned flags) {
    return flags == 0 ? ::rename(from, to) : ::renameat2(AT_FDCWD, from, AT_FDCWD, to, flags);
}
int realSync(int fd, int dataOnly) { return dataOnly != 0 ? ::fdatasync(fd) : ::fsync(fd); }

const OsSysCalls kRealCalls = {realOpen, ::read,   ::write,  ::lseek,   ::close,
                               ::link,   ::unlink, realRename, ::mkdir, ::rmdir,
                               realSync, ::ftruncate};
const OsSysCalls* g_calls = &kRealCalls;
// A replacement table with its empty entries taken from the real one.
OsSysCalls g_replaced{};

template <typename Call>
int retried(Call call) {
    int result;
    do {
        result = call();
    } while (result != 0 && errno == EINTR);
    return result;
}

[[noreturn]] void ioEscape(int err, int line, const std::string& what) {
    er_TracedEscapeText(ER_GROUP_IO, err, kUnit, line, what);
}

std::string fdText(int fd) { return "descriptor " + std::to_string(fd); }

int openRetried(const std::string& path, int flags, int mode) {
    int fd;
    do {
        fd = g_calls->open(path.c_str(), flags | O_CLOEXEC, static_cast<mode_t>(mode));
    } while (fd < 0 && errno == EINTR);
    return fd;
}

int64_t joinOffset(uint32_t low, int32_t high) {
    return static_cast<int64_t>((static_cast<uint64_t>(static_cast<uint32_t>(high)) << 32) | low);
}

}  // namespace

namespace osio {

// Reads until count bytes or end of file; -1 with errno on failure.
int64_t rawReadFully(int fd, void* buffer, int64_t count) {
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

int64_t rawReadOnce(int fd, void* buffer, int64_t count) {
    ssize_t n;
    do {
        n = g_calls->read(fd, buffer, static_cast<size_t>(count));
    } while (n < 0 && errno == EINTR);
    return n;
}

int64_t rawWriteFully(int fd, const void* buffer, int64_t count) {
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

int64_t rawSeek(int fd, int64_t offset, int whence) {
    const off_t pos = g_calls->lseek(fd, static_cast<off_t>(offset), whence);
    return pos < 0 ? -1 : pos;
}

}  // namespace osio

const OsSysCalls& os_GetSysCalls() { return *g_calls; }
void os_SetSysCalls(const OsSysCalls* calls) {
    if (calls == nullptr) {
        g_calls = &kRealCalls;
        return;
    }
    OsSysCalls t = *calls;
    const OsSysCalls& r = kRealCalls;
    if (t.open == nullptr) t.open = r.open;
    if (t.read == nullptr) t.read = r.read;
    if (t.write == nullptr) t.write = r.write;
    if (t.lseek == nullptr) t.lseek = r.lseek;
    if (t.close == nullptr) t.close = r.close;
    if (t.link == nullptr) t.link = r.link;
    if (t.unlink == nullptr) t.unlink = r.unlink;
    if (t.rename == nullptr) t.rename = r.rename;
    if (t.mkdir == nullptr) t.mkdir = r.mkdir;
    if (t.rmdir == nullptr) t.rmdir = r.rmdir;
    if (t.fsync == nullptr) t.fsync = r.fsync;
    if (t.ftruncate == nullptr) t.ftruncate = r.ftruncate;
    g_replaced = t;
    g_calls = &g_replaced;
}

int mdc_link(const char* from, const char* to) {
    return retried([&] { return g_calls->link(from, to); });
}
int mdc_unlink(const char* path) {
    return retried([&] { return g_calls->unlink(path); });
}
int mdc_rename(const char* from, const char* to, unsigned flags) {
    return retried([&] { return g_calls->rename(from, to, flags); });
}
int mdc_mkdir(const char* path, int mode) {
    return retried([&] { return g_calls->mkdir(path, static_cast<mode_t>(mode)); });
}
int mdc_rmdir(const char* path) {
    return retried([&] { return g_calls->rmdir(path); });
}
int mdc_fsync(int fd, int dataOnly) {
    const int result = retried([&] { return g_calls->fsync(fd, dataOnly); });
    return result != 0 && errno == EINVAL ? 0 : result;
}
int mdc_ftruncate(int fd, int64_t size) {
    return retried([&] { return g_calls->ftruncate(fd, static_cast<off_t>(size)); });
}

int os_open(const char* path, int flags, int mode) {
    std::string resolved = os_ResolvePath(path);
    if (osio::inBatch()) osio::beforeOpen();
    int fd = openRetried(resolved, flags, mode);
    // Folders are made only when missing, so the usual open costs one call.
    if (fd < 0 && errno == ENOENT && (flags & O_CREAT)) {
        os_MakeParentDirs(resolved);
        fd = openRetried(resolved, flags, mode);
    }
    if (fd < 0) ioEscape(errno, __LINE__, "cannot open " + resolved);
    if (osio::inBatch()) osio::afterOpen(fd, resolved, flags);
    return fd;
}

int64_t os_read(int fd, void* buffer, int64_t count) {
    if (count <= 0) return 0;
    if (osio::inBatch()) return osio::bufRead(fd, buffer, count, true);
    int64_t n = osio::rawReadFully(fd, buffer, count);
    if (n < 0) ioEscape(errno, __LINE__, "read failed on " + fdText(fd));
    return n;
}

int64_t os_write(int fd, const void* buffer, int64_t count) {
    if (count <= 0) return 0;
    if (osio::inBatch()) return osio::bufWrite(fd, buffer, count, true);
    int64_t n = osio::rawWriteFully(fd, buffer, count);
    if (n < 0) ioEscape(errno, __LINE__, "write failed on " + fdText(fd));
    return n;
}

namespace {

// Below this a kernel copy saves nothing worth its extra calls.
constexpr int64_t kKernelCopyMin = 64 * 1024;
constexpr int64_t kCopyChunk = 8192;

// The kernel refuses pairs it cannot copy between (other file systems on older kernels,
// special files); the buffered loop takes over then.
bool kernelCannotCopy(int err) {
    return err == EXDEV || err == EINVAL || err == ENOSYS || err == EOPNOTSUPP || err == EBADF ||
           err == ETXTBSY || err == EPERM;
}

// Copies in the kernel from both descriptors' offsets; returns the bytes copied, or -1 when
// the kernel will not copy this pair and nothing was copied.
int64_t kernelCopy(int inFd, int outFd, int64_t count) {
    int64_t done = 0;
    while (done < count) {
        const ssize_t n = ::copy_file_range(inFd, nullptr, outFd, nullptr,
                                            static_cast<size_t>(count - done), 0);
        if (n > 0) {
            done += n;
            continue;
        }
        if (n == 0) break;  // end of the input
        if (errno == EINTR) continue;
        if (done == 0 && kernelCannotCopy(errno)) return -1;
        ioEscape(errno, __LINE__, "copy failed from " + fdText(inFd) + " to " + fdText(outFd));
    }
    return done;
}

}  // namespace

int64_t os_CopyRange(int inFd, int outFd, int64_t count) {
    if (count <= 0) return 0;
    // Under a replaced system-call table every byte must pass through it.
    if (count >= kKernelCopyMin && g_calls == &kRealCalls) {
        os_SyncFd(inFd);
        os_SyncFd(outFd);
        const int64_t n = kernelCopy(inFd, outFd, count);
        if (n >= 0) return n;
    }
    char chunk[kCopyChunk];
    int64_t done = 0;
    while (done < count) {
        const int64_t want = count - done < kCopyChunk ? count - done : kCopyChunk;
        const int64_t n = os_read(inFd, chunk, want);
        if (n < 1) break;
        os_write(outFd, chunk, n);
        done += n;
    }
    return done;
}

int64_t os_lseek64(int fd, int64_t offset, int whence) {
    if (osio::inBatch()) return osio::bufSeek(fd, offset, whence, true);
    int64_t pos = osio::rawSeek(fd, offset, whence);
    if (pos < 0) ioEscape(errno, __LINE__, "seek failed on " + fdText(fd));
    return pos;
}

int64_t os_lseek(int fd, uint32_t offsetLow, int32_t offsetHigh, int whence) {
    return os_lseek64(fd, joinOffset(offsetLow, offsetHigh), whence);
}

void os_close(int fd) {
    if (fd < 0) return;
    const osio::Failure unwritten = osio::inBatch() ? osio::beforeClose(fd) : osio::Failure{};
    // The descriptor is released even when close reports an error, so no retry on EINTR.
    const bool closed = g_calls->close(fd) == 0 || errno == EINTR;
    const int closeErr = errno;
    if (unwritten.err != 0) ioEscape(unwritten.err, __LINE__, unwritten.what);
    if (!closed) ioEscape(closeErr, __LINE__, "close failed on " + fdText(fd));
}

int64_t mdc_read(int fd, void* buffer, int64_t count) {
    if (count <= 0) return 0;
    if (osio::inBatch()) return osio::bufRead(fd, buffer, count, false);
    return osio::rawReadFully(fd, buffer, count);
}

int64_t mdc_write(int fd, const void* buffer, int64_t count) {
    if (count <= 0) return 0;
    if (osio::inBatch()) return osio::bufWrite(fd, buffer, count, false);
    return osio::rawWriteFully(fd, buffer, count);
}

int64_t mdc_lseek(int fd, uint32_t offsetLow, int32_t offsetHigh, int whence) {
    const int64_t offset = joinOffset(offsetLow, offsetHigh);
    if (osio::inBatch()) return osio::bufSeek(fd, offset, whence, false);
    return osio::rawSeek(fd, offset, whence);
}

int64_t os_fsize(int fd) {
    if (osio::inBatch()) return osio::fileSize(fd);
    struct stat st;
    if (::fstat(fd, &st) != 0 || !S_ISREG(st.st_mode)) return -1;
    return st.st_size;
}

bool os_fexists(const char* path) {
    if (osio::inBatch()) osio::beforeOpen();
    struct stat st;
    return ::stat(os_ResolvePath(path).c_str(), &st) == 0 && S_ISREG(st.st_mode);
}

FILE* os_fopen(const char* path, const char* mode) {
    std::string resolved = os_ResolvePath(path);
    bool writes = mode[0] == 'w' || mode[0] == 'a';
    const bool updates = writes || std::string(mode).find('+') != std::string::npos;
    if (writes) {
        try {
            os_MakeParentDirs(resolved);
        } catch (const Escape&) {
            return nullptr;
        }
    }
    // No escape here: a failed pending write is reported when the batch ends.
    if (osio::inBatch()) osio::beforeStream(updates);
    return std::fopen(resolved.c_str(), mode);
}

void os_fclose(FILE* file) {
    if (file != nullptr) std::fclose(file);
}

namespace {

// A close that cannot raise: a failed pending write is kept for the end of the batch.
void closeQuietly(int fd) {
    if (fd < 0) return;
    try {
        if (osio::inBatch()) osio::defer(osio::beforeClose(fd));
    } catch (...) {
        // Out of memory for the message; the descriptor is still released.
    }
    g_calls->close(fd);
}

}  // namespace

OsFd::~OsFd() { closeQuietly(fd_); }

OsFd& OsFd::operator=(OsFd&& other) noexcept {
    if (this != &other) {
        closeQuietly(fd_);
        fd_ = other.release();
    }
    return *this;
}

void OsFd::close() { os_close(release()); }
