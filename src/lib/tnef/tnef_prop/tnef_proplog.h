// The prop log and the guarded reads and seeks that property extraction and the blob
// writer use on a TNEF file.
#pragma once

#include <cstdint>
#include <cstdio>

// 1 once a read of the TNEF file returned end of file or failed; cleared by every absolute
// seek and at the start and end of tnef_GetProp. Process-wide.
extern int hitTnefEof;
// The prop log: open only while an extraction or blob write runs and "~/sys/tnef.dbg"
// exists; null otherwise. Process-wide.
extern FILE* tnefPropLog;

// Opens "~/tmp/tnef.log.<pid>" for appending when "~/sys/tnef.dbg" exists.
void tnef_OpenPropLog();
// Closes the prop log if it is open and forgets it.
void tnef_ClosePropLog();
// printf to the prop log when it is open.
void tnef_PropLogf(const char* format, ...) __attribute__((format(printf, 1, 2)));

// Reads up to length bytes unless the end flag is set. Returns 1 on success (a short read
// too; *bytesRead tells how much, and 0 bytes sets the flag) and 0 when the flag was
// already set or the read failed (which sets it).
int tnef_PropRead(int fd, void* buffer, uint32_t length, uint32_t* bytesRead, int* eofFlag);
// Seeks; an absolute seek (whence 0 or 2) clears the flag first. While the flag is set a
// relative seek returns -1 without moving. Returns the new position or -1.
int64_t tnef_PropSeek(int fd, int64_t offset, int whence, int* eofFlag);
