// Internal to the descriptor layer: the raw calls os_file.cpp makes through the system-call
// table, and the per-descriptor buffers os_buffer.cpp keeps while an I/O batch is open.
#pragma once

#include <cstdint>
#include <string>

namespace osio {

// ---- Raw calls (os_file.cpp) --------------------------------------------------------------

// Through the replaceable table with EINTR retried; -1 with errno on failure.
int64_t rawReadFully(int fd, void* buffer, int64_t count);
int64_t rawWriteFully(int fd, const void* buffer, int64_t count);
int64_t rawSeek(int fd, int64_t offset, int whence);
// One read call: what the kernel gives at once, 0 at end of file.
int64_t rawReadOnce(int fd, void* buffer, int64_t count);

// ---- The batch (os_buffer.cpp) ------------------------------------------------------------

// True while an OsIoBatch is open; the calls below are made only then.
bool inBatch();

// Buffered counterparts of os_read, os_write and os_lseek64 (count above 0). With raise an
// error escapes as 100/errno naming the file; without, the result is -1 with errno set.
int64_t bufRead(int fd, void* buffer, int64_t count, bool raise);
int64_t bufWrite(int fd, const void* buffer, int64_t count, bool raise);
int64_t bufSeek(int fd, int64_t offset, int whence, bool raise);

// A write that failed where nobody could be told at once (a close in a destructor).
struct Failure {
    int err = 0;
    std::string what;
};

// Before an open: every pending byte written, so the file is complete by name. Raises.
void beforeOpen();
// After a successful open: the descriptor is known with its path and flags from the start.
void afterOpen(int fd, const std::string& path, int flags);
// os_fsize inside a batch: pending bytes counted. Raises when they had to be written.
int64_t fileSize(int fd);
// Before the descriptor is closed: its pending bytes written and its state dropped (the
// number will be reused). Returns what failed, err 0 when nothing did.
Failure beforeClose(int fd);
// Keeps a failure for the end of the batch, which raises it unless an escape is on its way.
void defer(const Failure& failure);
// A number of the open batch, another for each batch; 0 outside one. What a batch learned
// of configuration files holds until it ends.
uint64_t batchSerial();
// Called when the outermost batch is about to end, before its pending bytes are written:
// a layer above that holds bytes back writes them then, and returns what failed.
using EndHook = Failure (*)();
void addEndHook(EndHook hook);
// Before a standard I/O stream opens a file by name: every pending byte written (a failure
// is kept for the end of the batch), and for a stream that writes, what is known of every
// file forgotten, since it may change one behind the descriptors.
void beforeStream(bool writes);

}  // namespace osio
