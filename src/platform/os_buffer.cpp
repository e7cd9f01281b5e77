// Per-descriptor buffers for the length of an I/O batch.
//
// The codec moves a TNEF stream a few bytes at a time (a level, an id, a length, a
// checksum); unbuffered, that is a system call per field. Inside a batch each regular file
// gets a read-ahead window and a run of pending writes, and its position is kept here. The
// kernel's offset follows only when the kernel is next asked for bytes and when the batch
// ends, so between library calls the kernel holds exactly what unbuffered calls would have
// left.
//
// Two rules keep several descriptors on one file (dev, ino) coherent:
// - every read-ahead window (and known size) holds the file as it is with all pending bytes
//   applied: a descriptor's writes update its own window and drop those of the others;
// - at most one descriptor of a file has pending bytes: before another one writes, they are
//   written, so bytes reach the file in the order the caller wrote them.
// Nothing else is assumed to change a file while a batch is open: the platform's own raw
// calls announce themselves (os_SyncFd), and other processes do not write the files a
// library call is working on.
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <exception>
#include <memory>
#include <new>
#include <string>
#include <vector>

#include "os_buffer.h"
#include "tnef/platform/er_escape.h"
#include "tnef/platform/os_file.h"

namespace {

constexpr const char* kUnit = "src/platform/os_buffer";
constexpr int64_t kDefaultBufferSize = 64 * 1024;
// The size later batches take (os_SetIoBufferSize); 0 turns buffering off.
int64_t g_bufferSize = kDefaultBufferSize;
// Every file system takes a seek below 2 GiB on a regular file, so such a position is kept
// without asking; a seek further out goes to the kernel at once, which may refuse it.
constexpr int64_t kTrustedSeekLimit = 0x7FFFFFFF;

// File bytes [start, start + length) held in memory.
struct Window {
    std::unique_ptr<unsigned char[]> bytes;  // the batch's buffer size once allocated
    int64_t start = 0;
    int64_t length = 0;

    int64_t end() const { return start + length; }
    bool holds(int64_t at) const { return at >= start && at < end(); }
};

struct Descriptor {
    int fd = -1;
    std::string path;  // empty for a descriptor opened before the batch
    bool regular = false;
    // No buffers of its own: not a regular file, or appending (the kernel picks the offset).
    bool direct = true;
    bool writable = false;
    bool readable = false;
    // Raw calls may have moved the kernel's offset: read it again before the next use.
    bool relearn = false;
    dev_t dev = 0;
    ino_t ino = 0;
    int64_t pos = 0;         // the logical position
    int64_t kernelPos = -1;  // where the kernel's offset was left, -1 when unknown
    // The file's size with pending bytes counted, -1 when unknown: an end-of-file seek or a
    // size then needs no system call. Another descriptor's write forgets it.
    int64_t size = -1;
    Window ahead;    // read-ahead
    Window pending;  // written here, not yet to the kernel
};

// The open batch: nesting depth, the descriptors used in it, and the first write failure
// that no caller could be told at once. Set up by the outermost OsIoBatch, emptied when it
// ends; outside a batch it is empty and every call is unbuffered.
struct Batch {
    int depth = 0;
    int64_t bufferSize = 0;  // fixed for the batch when the outermost one begins
    uint64_t serial = 0;     // counts outermost batches
    std::vector<std::unique_ptr<Descriptor>> fds;
    osio::Failure deferred;
};
Batch g_batch;

[[noreturn]] void fail(int err, int line, const std::string& what) {
    er_TracedEscapeText(ER_GROUP_IO, err, kUnit, line, what);
}

std::string nameOf(const Descriptor& d) {
    std::string text = "descriptor " + std::to_string(d.fd);
    if (!d.path.empty()) text += " (" + d.path + ")";
    return text;
}

std::string nameOf(int fd) {
    return "descriptor " + std::to_string(fd);
}

// Raises op's failure on the named descriptor, or for the mdc_ variants returns -1 with
// errno kept.
int64_t failedOn(int line, bool raise, const char* op, const std::string& name, int err) {
    if (raise) fail(err, line, std::string(op) + " failed on " + name);
    errno = err;
    return -1;
}
int64_t failed(int line, bool raise, const char* op, const Descriptor& d) {
    const int err = errno;
    return failedOn(line, raise, op, nameOf(d), err);
}
int64_t failed(int line, bool raise, const char* op, int fd) {
    const int err = errno;
    return failedOn(line, raise, op, nameOf(fd), err);
}

bool sameFile(const Descriptor& a, const Descriptor& b) {
    return a.regular && b.regular && a.dev == b.dev && a.ino == b.ino;
}

bool allocate(Window& w) {
    if (!w.bytes) w.bytes.reset(new (std::nothrow) unsigned char[g_batch.bufferSize]);
    return w.bytes != nullptr;
}

Descriptor* find(int fd) {
    for (auto& d : g_batch.fds)
        if (d->fd == fd) return d.get();
    return nullptr;
}

// Learns the kernel's offset; a descriptor that cannot tell it is left unbuffered.
void learnPosition(Descriptor& d) {
    d.relearn = false;
    if (d.direct) return;
    const int64_t at = osio::rawSeek(d.fd, 0, SEEK_CUR);
    if (at < 0) {
        d.direct = true;
        return;
    }
    d.pos = d.kernelPos = at;
}

// One fstat (and the open flags) per descriptor and batch; nullptr when fd is not open, so
// the raw call reports it as it always did.
Descriptor* enroll(int fd, int flags, std::string path, bool atStart) {
    struct stat st;
    if (fd < 0 || ::fstat(fd, &st) != 0) return nullptr;
    auto d = std::make_unique<Descriptor>();
    d->fd = fd;
    d->path = std::move(path);
    d->regular = S_ISREG(st.st_mode);
    d->dev = st.st_dev;
    d->ino = st.st_ino;
    const int access = flags & O_ACCMODE;
    d->writable = access == O_WRONLY || access == O_RDWR;
    d->readable = access == O_RDONLY || access == O_RDWR;
    d->direct = !d->regular || (flags & O_APPEND) != 0;
    d->size = d->regular ? st.st_size : -1;
    for (const auto& o : g_batch.fds)
        if (sameFile(*o, *d) && o->pending.length > 0) d->size = -1;
    if (atStart && !d->direct)
        d->pos = d->kernelPos = 0;
    else
        learnPosition(*d);
    g_batch.fds.push_back(std::move(d));
    return g_batch.fds.back().get();
}

Descriptor* lookup(int fd) {
    if (Descriptor* d = find(fd)) {
        if (d->relearn) learnPosition(*d);
        return d;
    }
    const int flags = fd >= 0 ? ::fcntl(fd, F_GETFL) : -1;
    return flags < 0 ? nullptr : enroll(fd, flags, {}, false);
}

void forget(int fd) {
    auto& fds = g_batch.fds;
    fds.erase(std::remove_if(fds.begin(), fds.end(), [fd](const auto& d) { return d->fd == fd; }),
              fds.end());
}

// Brings the kernel's offset to at. False with errno on failure.
bool placeKernel(Descriptor& d, int64_t at) {
    if (d.kernelPos == at) return true;
    const int64_t r = osio::rawSeek(d.fd, at, SEEK_SET);
    d.kernelPos = r;
    return r >= 0;
}

// After a failed write the file may hold part of it: what this descriptor knew goes.
void lostTrack(Descriptor& d) {
    const int err = errno;
    d.kernelPos = -1;
    d.size = -1;
    d.ahead.length = 0;
    errno = err;
}

// Writes the pending bytes. On failure they are gone, as the bytes of a failed unbuffered
// write would be, and errno says why.
bool flushPending(Descriptor& d) {
    Window& w = d.pending;
    if (w.length == 0) return true;
    const int64_t length = w.length;
    w.length = 0;
    if (placeKernel(d, w.start) && osio::rawWriteFully(d.fd, w.bytes.get(), length) >= 0) {
        d.kernelPos = w.start + length;
        return true;
    }
    lostTrack(d);
    return false;
}

// Writes the pending bytes of every descriptor on d's file; the one that failed, or nullptr.
Descriptor* flushFile(const Descriptor& d) {
    for (auto& o : g_batch.fds)
        if ((o.get() == &d || sameFile(*o, d)) && !flushPending(*o)) return o.get();
    return nullptr;
}

// Writes every pending byte; the first failure (all are tried).
osio::Failure flushAll() {
    osio::Failure first;
    for (auto& d : g_batch.fds)
        if (!flushPending(*d) && first.err == 0) first = {errno, "write failed on " + nameOf(*d)};
    return first;
}

// Before d writes: the others' pending bytes go first and their read-ahead goes stale.
Descriptor* yieldFile(const Descriptor& d) {
    for (auto& o : g_batch.fds) {
        if (o.get() == &d || !sameFile(*o, d)) continue;
        if (!flushPending(*o)) return o.get();
        o->ahead.length = 0;
        o->size = -1;
    }
    return nullptr;
}

// Reads count bytes at the logical position straight into out.
int64_t readThrough(Descriptor& d, unsigned char* out, int64_t count) {
    if (!placeKernel(d, d.pos)) return -1;
    const int64_t n = osio::rawReadFully(d.fd, out, count);
    if (n < 0) {
        d.kernelPos = -1;
        return -1;
    }
    d.pos += n;
    d.kernelPos = d.pos;
    return n;
}

// Fills the read-ahead from the logical position with at least want bytes, fewer at end of
// file. Returns the bytes in it, 0 at end of file, -1 with errno on failure.
int64_t fillAhead(Descriptor& d, int64_t want) {
    Window& w = d.ahead;
    w.start = d.pos;
    w.length = 0;
    if (!placeKernel(d, d.pos)) return -1;
    while (w.length < want) {
        const int64_t n =
            osio::rawReadOnce(d.fd, w.bytes.get() + w.length, g_batch.bufferSize - w.length);
        if (n < 0) {
            w.length = 0;
            d.kernelPos = -1;
            return -1;
        }
        if (n == 0) break;
        w.length += n;
    }
    d.kernelPos = w.end();
    return w.length;
}

int64_t writeThrough(Descriptor& d, const void* in, int64_t count) {
    if (!placeKernel(d, d.pos) || osio::rawWriteFully(d.fd, in, count) < 0) {
        lostTrack(d);
        return -1;
    }
    d.pos += count;
    d.kernelPos = d.pos;
    if (d.size >= 0) d.size = std::max(d.size, d.pos);
    return count;
}

// The part of a write at `at` that falls in the descriptor's own read-ahead.
void updateAhead(Descriptor& d, int64_t at, const unsigned char* in, int64_t count) {
    Window& w = d.ahead;
    const int64_t from = std::max(at, w.start);
    const int64_t to = std::min(at + count, w.end());
    if (from < to) std::memcpy(w.bytes.get() + (from - w.start), in + (from - at), to - from);
}

// A write joins the pending run when it lands inside it or right behind it and the run stays
// within one buffer; otherwise the run is written first.
bool joinsPending(const Descriptor& d, int64_t count) {
    const Window& w = d.pending;
    return w.length == 0 ||
           (d.pos >= w.start && d.pos <= w.end() && d.pos + count - w.start <= g_batch.bufferSize);
}

// Unbuffered calls for descriptors the batch does not buffer (d may be nullptr).
int64_t passRead(int fd, const Descriptor* d, void* buffer, int64_t count, bool raise) {
    const int64_t n = osio::rawReadFully(fd, buffer, count);
    if (n >= 0) return n;
    return d != nullptr ? failed(__LINE__, raise, "read", *d) : failed(__LINE__, raise, "read", fd);
}

int64_t passWrite(int fd, const Descriptor* d, const void* buffer, int64_t count, bool raise) {
    const int64_t n = osio::rawWriteFully(fd, buffer, count);
    if (n >= 0) return n;
    return d != nullptr ? failed(__LINE__, raise, "write", *d)
                        : failed(__LINE__, raise, "write", fd);
}

int64_t passSeek(int fd, const Descriptor* d, int64_t offset, int whence, bool raise) {
    const int64_t n = osio::rawSeek(fd, offset, whence);
    if (n >= 0) return n;
    return d != nullptr ? failed(__LINE__, raise, "seek", *d) : failed(__LINE__, raise, "seek", fd);
}

void endBatch(bool raise) {
    osio::Failure first = g_batch.deferred;
    g_batch.deferred = {};
    for (auto& d : g_batch.fds) {
        if (!flushPending(*d) && first.err == 0) first = {errno, "write failed on " + nameOf(*d)};
        if (!d->direct && !d->relearn && !placeKernel(*d, d->pos) && first.err == 0)
            first = {errno, "seek failed on " + nameOf(*d)};
    }
    g_batch.fds.clear();
    if (raise && first.err != 0) fail(first.err, __LINE__, first.what);
}

std::vector<osio::EndHook>& endHooks() {
    static std::vector<osio::EndHook> hooks;
    return hooks;
}

void leaveBatch(bool raise) {
    if (g_batch.depth == 1 && g_batch.bufferSize > 0)
        for (osio::EndHook hook : endHooks()) osio::defer(hook());
    if (--g_batch.depth > 0) return;
    endBatch(raise);
}

}  // namespace

namespace osio {

bool inBatch() {
    return g_batch.depth > 0 && g_batch.bufferSize > 0;
}

int64_t bufRead(int fd, void* buffer, int64_t count, bool raise) {
    Descriptor* d = lookup(fd);
    if (d == nullptr) return passRead(fd, nullptr, buffer, count, raise);
    if (d->direct) {
        if (Descriptor* f = flushFile(*d)) return failed(__LINE__, raise, "write", *f);
        return passRead(fd, d, buffer, count, raise);
    }
    // The size is known (pending bytes counted): a read at the end needs no call, unless the
    // kernel would refuse it.
    if (d->readable && d->size >= 0 && d->pos >= d->size) return 0;
    auto* out = static_cast<unsigned char*>(buffer);
    int64_t done = 0;
    bool endSeen = false;
    while (done < count && !endSeen) {
        Window& w = d->ahead;
        if (!w.holds(d->pos)) {
            if (Descriptor* f = flushFile(*d)) return failed(__LINE__, raise, "write", *f);
            const int64_t rest = count - done;
            if (rest >= g_batch.bufferSize || !allocate(w)) {
                const int64_t n = readThrough(*d, out + done, rest);
                if (n < 0) return failed(__LINE__, raise, "read", *d);
                return done + n;
            }
            const int64_t n = fillAhead(*d, rest);
            if (n < 0) return failed(__LINE__, raise, "read", *d);
            if (n == 0) break;
            // A short fill met the end of the file: no need to ask again.
            endSeen = n < rest;
        }
        const int64_t take = std::min(count - done, w.end() - d->pos);
        std::memcpy(out + done, w.bytes.get() + (d->pos - w.start), static_cast<size_t>(take));
        done += take;
        d->pos += take;
    }
    return done;
}

int64_t bufWrite(int fd, const void* buffer, int64_t count, bool raise) {
    Descriptor* d = lookup(fd);
    if (d == nullptr) return passWrite(fd, nullptr, buffer, count, raise);
    if (Descriptor* f = yieldFile(*d)) return failed(__LINE__, raise, "write", *f);
    if (d->direct) return passWrite(fd, d, buffer, count, raise);

    const auto* in = static_cast<const unsigned char*>(buffer);
    const int64_t at = d->pos;
    if (!joinsPending(*d, count) && !flushPending(*d)) return failed(__LINE__, raise, "write", *d);
    Window& w = d->pending;
    // Large writes, and writes the kernel would refuse at once (a descriptor opened for
    // reading), go straight through.
    if (count >= g_batch.bufferSize || !d->writable || !allocate(w)) {
        if (!flushPending(*d) || writeThrough(*d, in, count) < 0)
            return failed(__LINE__, raise, "write", *d);
        updateAhead(*d, at, in, count);
        return count;
    }
    updateAhead(*d, at, in, count);
    if (w.length == 0) w.start = d->pos;
    std::memcpy(w.bytes.get() + (d->pos - w.start), in, static_cast<size_t>(count));
    d->pos += count;
    w.length = std::max(w.length, d->pos - w.start);
    if (d->size >= 0) d->size = std::max(d->size, d->pos);
    return count;
}

int64_t bufSeek(int fd, int64_t offset, int whence, bool raise) {
    Descriptor* d = lookup(fd);
    if (d == nullptr) return passSeek(fd, nullptr, offset, whence, raise);
    const bool fromEnd = whence != SEEK_SET && whence != SEEK_CUR;
    // The data and hole forms are the kernel's to tell, as is every seek of an unbuffered
    // descriptor; from the end, once every pending byte of the file is in it.
    if (d->direct || (fromEnd && whence != SEEK_END)) {
        if (fromEnd)
            if (Descriptor* f = flushFile(*d)) return failed(__LINE__, raise, "write", *f);
        const int64_t r = passSeek(fd, d, offset, whence, raise);
        if (!d->direct) d->kernelPos = r;
        if (r >= 0) d->pos = r;
        return r;
    }
    if (whence == SEEK_END && d->size < 0) {
        if (Descriptor* f = flushFile(*d)) return failed(__LINE__, raise, "write", *f);
        d->size = d->kernelPos = osio::rawSeek(fd, 0, SEEK_END);
        if (d->size < 0) return failed(__LINE__, raise, "seek", *d);
    }
    const int64_t base = whence == SEEK_SET ? 0 : whence == SEEK_CUR ? d->pos : d->size;
    int64_t target = 0;
    if (__builtin_add_overflow(base, offset, &target)) target = -1;
    if (target < 0) {
        // What the kernel says to a position before the start (or beyond any offset).
        errno = EINVAL;
        return failed(__LINE__, raise, "seek", *d);
    }
    if (target > kTrustedSeekLimit) {
        const int64_t r = osio::rawSeek(fd, target, SEEK_SET);
        d->kernelPos = r;
        if (r < 0) return failed(__LINE__, raise, "seek", *d);
    }
    d->pos = target;
    return target;
}

void beforeOpen() {
    const Failure f = flushAll();
    if (f.err != 0) fail(f.err, __LINE__, f.what);
}

void afterOpen(int fd, const std::string& path, int flags) {
    forget(fd);
    Descriptor* d = enroll(fd, flags, path, true);
    // Truncation changed the file under the other descriptors' read-ahead (their pending
    // bytes were written before the open).
    if (d != nullptr && (flags & O_TRUNC) != 0)
        for (auto& o : g_batch.fds)
            if (o.get() != d && sameFile(*o, *d)) {
                o->ahead.length = 0;
                o->size = -1;
            }
}

int64_t fileSize(int fd) {
    struct stat st;
    Descriptor* d = lookup(fd);
    if (d == nullptr || d->direct || d->size < 0) {
        if (d != nullptr)
            if (Descriptor* f = flushFile(*d)) failed(__LINE__, true, "write", *f);
        if (::fstat(fd, &st) != 0 || !S_ISREG(st.st_mode)) return -1;
        if (d != nullptr) d->size = st.st_size;
        return st.st_size;
    }
    return d->size;
}

Failure beforeClose(int fd) {
    Failure f;
    if (Descriptor* d = find(fd)) {
        if (!flushPending(*d)) f = {errno, "write failed on " + nameOf(*d)};
        forget(fd);
    }
    return f;
}

uint64_t batchSerial() {
    return inBatch() ? g_batch.serial : 0;
}

void addEndHook(EndHook hook) {
    endHooks().push_back(hook);
}

void defer(const Failure& failure) {
    if (failure.err != 0 && g_batch.deferred.err == 0) g_batch.deferred = failure;
}

void beforeStream(bool writes) {
    defer(flushAll());
    if (!writes) return;
    for (auto& d : g_batch.fds) {
        d->ahead.length = 0;
        d->size = -1;
    }
}

}  // namespace osio

// ---- Public entries -------------------------------------------------------------------------

OsIoBatch::OsIoBatch() : unwinding_(std::uncaught_exceptions()) {
    if (g_batch.depth++ == 0) {
        g_batch.bufferSize = g_bufferSize;
        ++g_batch.serial;
    }
}

OsIoBatch::~OsIoBatch() noexcept(false) {
    if (ended_) return;
    ended_ = true;
    if (std::uncaught_exceptions() <= unwinding_) {
        leaveBatch(true);
        return;
    }
    // An escape is on its way: it wins over anything the last writes report.
    try {
        leaveBatch(false);
    } catch (...) {
    }
}

void OsIoBatch::end() {
    if (ended_) return;
    ended_ = true;
    leaveBatch(true);
}

bool os_InIoBatch() {
    return osio::inBatch();
}

void os_SetIoBufferSize(int64_t bytes) {
    g_bufferSize = bytes < 0 ? kDefaultBufferSize : bytes;
}

int64_t os_IoBufferBytes() {
    int64_t total = 0;
    for (const auto& d : g_batch.fds)
        total +=
            (d->ahead.bytes ? g_batch.bufferSize : 0) + (d->pending.bytes ? g_batch.bufferSize : 0);
    return total;
}

void os_SyncFd(int fd) {
    if (!osio::inBatch()) return;
    Descriptor* d = lookup(fd);
    if (d == nullptr) return;
    osio::Failure f;
    for (auto& o : g_batch.fds) {
        if (o.get() != d && !sameFile(*o, *d)) continue;
        if (!flushPending(*o) && f.err == 0) f = {errno, "write failed on " + nameOf(*o)};
        o->ahead.length = 0;
        o->size = -1;
    }
    if (!d->direct && !placeKernel(*d, d->pos) && f.err == 0)
        f = {errno, "seek failed on " + nameOf(*d)};
    d->relearn = true;
    if (f.err != 0) fail(f.err, __LINE__, f.what);
}

void os_FlushFd(int fd) {
    if (!osio::inBatch()) return;
    if (Descriptor* d = find(fd))
        if (Descriptor* f = flushFile(*d)) failed(__LINE__, true, "write", *f);
}

void os_SyncFiles() {
    if (osio::inBatch()) osio::beforeOpen();
}
