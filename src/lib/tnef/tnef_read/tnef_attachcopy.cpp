// Copying an attachment's bytes out of the TNEF file that holds them, as a byte range. The
// kernel's in-place copy is the fastest way while source and destination share their offset
// within a page; an attachment's bytes seldom do (they follow an 11-byte-framed record), and
// for those a window of the file mapped into memory and written out copies each byte once.
// A fixed buffer carries the bytes where neither can be used (pipes, files that cannot be
// mapped).

#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <memory>
#include <new>

#include "tnef/platform/er_escape.h"
#include "tnef/tnef_attachments.h"
#include "tnef_defs.h"

namespace {

// copy_file_range moves at most this much per call on some kernels anyway.
constexpr uint64_t kKernelChunk = uint64_t{1} << 30;
// Mapped windows: large enough that mapping costs little, small enough that the pages they
// hold stay a small part of the process.
constexpr uint64_t kMapWindow = TNEF_ATTACH_COPY_BUFFER;
constexpr uint64_t kPageSize = 4096;

[[noreturn]] void copyFailed(int err, int line, const char* what) {
    er_TracedEscapeText(ER_GROUP_IO, err, TNEF_UNIT_PROP, line, what);
}

// The kernel refuses a pair of files it cannot copy between (other file systems on older
// kernels, pipes, files opened for appending): the buffer takes over then.
bool kernelCannotCopy(int err) {
    return err == EXDEV || err == EINVAL || err == ENOSYS || err == EOPNOTSUPP || err == EBADF ||
           err == ETXTBSY || err == EPERM;
}

// Copies with copy_file_range while the kernel accepts the pair; returns the bytes left.
uint64_t copyInKernel(int fd, off_t& offset, uint64_t left, int outFd) {
    while (left > 0) {
        const ssize_t n = ::copy_file_range(fd, &offset, outFd, nullptr,
                                            static_cast<size_t>(std::min(left, kKernelChunk)), 0);
        if (n > 0) {
            left -= static_cast<uint64_t>(n);
            continue;
        }
        if (n == 0) copyFailed(EIO, __LINE__, "the file ends before the attachment's bytes");
        if (errno == EINTR) continue;
        if (kernelCannotCopy(errno)) break;
        copyFailed(errno, __LINE__, "attachment copy failed");
    }
    return left;
}

void writeAll(int outFd, const uint8_t* data, size_t size) {
    while (size > 0) {
        const ssize_t n = ::write(outFd, data, size);
        if (n < 0 && errno == EINTR) continue;
        if (n < 0) copyFailed(errno, __LINE__, "attachment write failed");
        data += n;
        size -= static_cast<size_t>(n);
    }
}

uint64_t fileSize(int fd) {
    struct stat st {};
    if (::fstat(fd, &st) != 0) copyFailed(errno, __LINE__, "attachment copy failed");
    return static_cast<uint64_t>(st.st_size);
}

// Copies through mapped windows of the file; returns the bytes left when the file cannot be
// mapped. The size is checked before each window, so that a file that shrank is an escape
// rather than a fault.
uint64_t copyMapped(int fd, off_t& offset, uint64_t left, int outFd) {
    while (left > 0) {
        const auto from = static_cast<uint64_t>(offset);
        const uint64_t n = std::min(left, kMapWindow);
        if (fileSize(fd) < from + n)
            copyFailed(EIO, __LINE__, "the file ends before the attachment's bytes");
        const uint64_t base = from & ~(kPageSize - 1);
        const size_t mapped = static_cast<size_t>(from - base + n);
        void* window = ::mmap(nullptr, mapped, PROT_READ, MAP_SHARED | MAP_POPULATE, fd,
                              static_cast<off_t>(base));
        if (window == MAP_FAILED) return left;
        try {
            writeAll(outFd, static_cast<const uint8_t*>(window) + (from - base),
                     static_cast<size_t>(n));
        } catch (...) {
            ::munmap(window, mapped);
            throw;
        }
        ::munmap(window, mapped);
        offset += static_cast<off_t>(n);
        left -= n;
    }
    return 0;
}

void copyThroughBuffer(int fd, off_t offset, uint64_t left, int outFd) {
    const size_t capacity = static_cast<size_t>(std::min<uint64_t>(left, TNEF_ATTACH_COPY_BUFFER));
    std::unique_ptr<uint8_t[]> buffer(new (std::nothrow) uint8_t[capacity]);
    if (!buffer) copyFailed(ENOMEM, __LINE__, "no memory for the copy buffer");
    while (left > 0) {
        const size_t want = static_cast<size_t>(std::min<uint64_t>(left, capacity));
        const ssize_t n = ::pread(fd, buffer.get(), want, offset);
        if (n < 0 && errno == EINTR) continue;
        if (n < 0) copyFailed(errno, __LINE__, "attachment read failed");
        if (n == 0) copyFailed(EIO, __LINE__, "the file ends before the attachment's bytes");
        writeAll(outFd, buffer.get(), static_cast<size_t>(n));
        offset += n;
        left -= static_cast<uint64_t>(n);
    }
}

}  // namespace

uint64_t tnef_CopyAttachment(int fd, const TnefAttachInfo* attachment, int outFd) {
    ErTraceScope trace(TNEF_TRACE_CLASS_PROP, "tnef_CopyAttachment");
    off_t offset = static_cast<off_t>(attachment->dataOffset);
    uint64_t left = attachment->dataLength;
    const off_t outAt = ::lseek(outFd, 0, SEEK_CUR);  // -1 for a pipe
    if (outAt >= 0 && offset % kPageSize == static_cast<uint64_t>(outAt) % kPageSize)
        left = copyInKernel(fd, offset, left, outFd);
    if (left > 0 && outAt >= 0) left = copyMapped(fd, offset, left, outFd);
    if (left > 0) copyThroughBuffer(fd, offset, left, outFd);
    return attachment->dataLength;
}
