// Operating-system wrappers: the server home, files, memory and number texts.
//
// Every path that begins with "~/" is resolved against the server home: the directory set
// with os_SetHome, else $TNEF_HOME, else "tnef-home" in the current directory. Folders on
// the way to a file that is created are made on demand.
//
// Descriptors are plain POSIX descriptors. The os_ operations raise an escape of group 100
// (reason = errno, the path or descriptor in the detail) when the system call fails; the
// mdc_ variants report failure in their result instead. End of file is no error: a read
// there returns 0.
//
// Inside an I/O batch (OsIoBatch, below) reads and writes on regular files are buffered;
// outside one every call is the system call itself.
#pragma once

#include <sys/types.h>

#include <cstdint>
#include <cstdio>
#include <string>

// Everything this header declares is part of the library's exported interface.
#pragma GCC visibility push(default)

// ---- The server home ---------------------------------------------------------------------

// Sets the home for this process (an empty text returns to the default).
void os_SetHome(const std::string& home);
// The home in effect, without a trailing slash.
std::string os_GetHome();
// "~/x" becomes "<home>/x"; any other path is returned unchanged.
std::string os_ResolvePath(const std::string& path);
// Creates every missing folder above the resolved path.
void os_MakeParentDirs(const std::string& resolvedPath);

// ---- Descriptors ---------------------------------------------------------------------------

// Opens a file (flags and mode as POSIX open); creates missing parent folders when O_CREAT
// is given. Raises 100/errno on failure.
int os_open(const char* path, int flags, int mode);
// Reads up to count bytes, retrying short reads until count bytes or end of file.
// Returns the bytes read (0 at end of file). Raises 100/errno on failure.
int64_t os_read(int fd, void* buffer, int64_t count);
// Writes all count bytes. Raises 100/errno on failure.
int64_t os_write(int fd, const void* buffer, int64_t count);
// Seeks to the 64-bit offset given as low and high halves; whence 0 from the start, 1 from
// the current position, 2 from the end. Returns the new position. Raises 100/errno.
int64_t os_lseek(int fd, uint32_t offsetLow, int32_t offsetHigh, int whence);
// The same with a 64-bit offset.
int64_t os_lseek64(int fd, int64_t offset, int whence);
// Closes the descriptor; a negative descriptor is ignored. Raises 100/errno.
void os_close(int fd);

// mdc_ variants: no escape. mdc_read returns below 1 at end of file or on failure;
// mdc_lseek returns all ones (-1) on failure; mdc_write returns the bytes written or -1.
int64_t mdc_read(int fd, void* buffer, int64_t count);
int64_t mdc_write(int fd, const void* buffer, int64_t count);
int64_t mdc_lseek(int fd, uint32_t offsetLow, int32_t offsetHigh, int whence);

// Size of the open file in bytes, or -1 when it cannot be told (a pipe).
int64_t os_fsize(int fd);

// True when the (resolved) path names an existing file.
bool os_fexists(const char* path);
// Standard I/O stream on the resolved path; nullptr on failure (no escape: the callers'
// log files are optional). Folders are created for modes that write.
FILE* os_fopen(const char* path, const char* mode);
void os_fclose(FILE* file);

// Replaceable system calls, so tests can make the n-th call fail (as an exhausted disk or a
// failing device would) and check that nothing leaks or stays half-written.
// The store's names (link, rename, mkdir, unlink, rmdir) and its durability calls (fsync,
// ftruncate) pass through the same table, so a test can fail any call the store makes.
struct OsSysCalls {
    int (*open)(const char* path, int flags, mode_t mode);
    ssize_t (*read)(int fd, void* buffer, size_t count);
    ssize_t (*write)(int fd, const void* buffer, size_t count);
    off_t (*lseek)(int fd, off_t offset, int whence);
    int (*close)(int fd);
    int (*link)(const char* from, const char* to);
    int (*unlink)(const char* path);
    int (*rename)(const char* from, const char* to, unsigned flags);  // renameat2's flags
    int (*mkdir)(const char* path, mode_t mode);
    int (*rmdir)(const char* path);
    int (*fsync)(int fd, int dataOnly);  // fdatasync when dataOnly, else fsync
    int (*ftruncate)(int fd, off_t size);
};
// The table in use; os_SetSysCalls(nullptr) restores the real system calls. Entries left
// null in a replacement are the real calls.
const OsSysCalls& os_GetSysCalls();
void os_SetSysCalls(const OsSysCalls* calls);

// The table's other calls, without escapes: 0, or -1 with errno. EINTR is retried; paths are
// used as given ("~/" is not resolved). mdc_fsync counts EINVAL (a descriptor that cannot be
// synced, such as a pipe) as done. Inside an I/O batch, callers write pending bytes first
// (os_SyncFiles, os_SyncFd).
int mdc_link(const char* from, const char* to);
int mdc_unlink(const char* path);
int mdc_rename(const char* from, const char* to, unsigned flags);
int mdc_mkdir(const char* path, int mode);
int mdc_rmdir(const char* path);
int mdc_fsync(int fd, int dataOnly);
int mdc_ftruncate(int fd, int64_t size);

// Copies up to count bytes from inFd's position to outFd's position, advancing both, and
// returns the bytes copied (fewer only when inFd ends). Large copies between regular files run
// in the kernel, with no buffer in the process; others go through an 8 KiB buffer. Raises
// 100/errno.
int64_t os_CopyRange(int inFd, int outFd, int64_t count);

// ---- I/O batches ----------------------------------------------------------------------------
//
// While a batch is open, os_read, os_write, os_lseek(64) and the mdc_ variants keep a 64 KiB
// read-ahead and up to 64 KiB of pending writes per regular file, and the position each
// descriptor is at. Every result (positions, bytes read back, end of file) is what the
// system calls would give. What differs:
// - a write error may surface later: at the next read or end-of-file seek of that file, at
//   its close, at an open or a flush (below), or when the batch ends; the escape is still
//   100/errno and names the descriptor (and the path when it was opened inside the batch);
// - between os_ calls the kernel's offset and the file's bytes may lag. The platform's own
//   calls that reach a file by name first write every pending byte (os_open, os_fexists,
//   os_fopen, the store's link, rename and stat); raw calls on a descriptor need os_SyncFd.
// When the outermost batch ends, pending bytes are written, every kernel offset is put at
// its descriptor's position and the buffers are freed, whether it ends normally or by an
// escape. Descriptors that share one open file (dup) must not both be used in one batch.
// Pipes, terminals and descriptors opened for appending are never buffered. Not for use by
// several threads at once.
class OsIoBatch {
public:
    OsIoBatch();
    // Ends the batch if end() did not. On a normal exit a failed pending write raises
    // 100/errno from here; while an escape unwinds, it is dropped (the escape in flight wins).
    ~OsIoBatch() noexcept(false);
    OsIoBatch(const OsIoBatch&) = delete;
    OsIoBatch& operator=(const OsIoBatch&) = delete;
    // Ends the batch (the outermost writes everything and raises 100/errno on failure).
    void end();

private:
    int unwinding_;  // escapes in flight when the batch began
    bool ended_ = false;
};

// True while a batch is open and buffering.
bool os_InIoBatch();
// Size of each buffer for batches that begin later: 0 turns buffering off (a test that
// makes one read at one offset fail needs the calls as the codec makes them), a negative
// value restores the default of 64 KiB.
void os_SetIoBufferSize(int64_t bytes);
// Bytes of buffer memory held by the open batch (0 outside one).
int64_t os_IoBufferBytes();
// Before raw system calls on fd inside a batch (ftruncate, fdatasync, a raw write): writes
// the file's pending bytes, puts the kernel's offset at the descriptor's position and drops
// every read-ahead of the file; the next os_ call takes the kernel's offset as it finds it.
// Does nothing outside a batch. Raises 100/errno when a pending write fails.
void os_SyncFd(int fd);
// Writes the pending bytes of fd's file now, so that a write error shows here (where the
// caller can undo its record) rather than later. Does nothing outside a batch. Raises
// 100/errno.
void os_FlushFd(int fd);
// Writes every pending byte of the batch, so every file is complete by name. Raises
// 100/errno. Does nothing outside a batch.
void os_SyncFiles();

// Owns a descriptor: closes it on destruction without throwing; close() reports failure.
class OsFd {
public:
    OsFd() = default;
    explicit OsFd(int fd) : fd_(fd) {}
    ~OsFd();
    OsFd(OsFd&& other) noexcept : fd_(other.release()) {}
    OsFd& operator=(OsFd&& other) noexcept;
    OsFd(const OsFd&) = delete;
    OsFd& operator=(const OsFd&) = delete;

    int get() const { return fd_; }
    int release() {
        int fd = fd_;
        fd_ = -1;
        return fd;
    }
    void close();

private:
    int fd_ = -1;
};

// ---- Memory ---------------------------------------------------------------------------------

// Allocation returns nullptr on failure, as C does; callers check. Zero bytes give a valid,
// unique block.
void* os_malloc(size_t bytes);
void* os_realloc(void* block, size_t bytes);
void os_free(void* block);
void* mdc_malloc(size_t bytes);
void* mdc_calloc(size_t count, size_t bytes);
void mdc_free(void* block);

// ---- Number texts ---------------------------------------------------------------------------

// Writes value in base (2 to 36) without leading zeros into text (at least 33 bytes);
// lowerCase 1 gives lower-case digits, 0 upper case. Stores the length in *lengthOut when
// given. Returns text.
char* os_ul2str(uint32_t value, int base, int lowerCase, char* text, int* lengthOut);
char* mdc_ul2str(uint32_t value, int base, int lowerCase, char* text, int* lengthOut);

// Reads an unsigned number as strtoul does (leading blanks, an optional sign, "0x" in base
// 16, base 0 guesses) and stops at the first byte that is not a digit of the base. Values
// above 0xFFFFFFFF give 0xFFFFFFFF. *end, when given, receives the first unread byte.
uint32_t mdc_strtoul(const char* text, char** end, int base);
uint32_t os_str2ul(const char* text, int base);
// Like mdc_strtoul, but tell whether the text held a number at all: 1 when at least one
// digit was read (the value is stored in *result), 0 otherwise (*result is 0).
int mdc_string2ul(const char* text, uint32_t* result, int base);
int mdc_string2unsigned(const char* text, unsigned* result, int base);
// First byte of text that is in set, or nullptr.
const char* mdc_strpbrk(const char* text, const char* set);
char* mdc_strpbrk(char* text, const char* set);

#pragma GCC visibility pop
