// The scan of a TNEF file: the property-list scan behind its attachment scan records.
#pragma once

#include <cstdint>

#include "tnef/tnef.h"

// Longest file name or title value the scan keeps a copy of.
inline constexpr uint32_t TNEF_SCAN_NAME_LIMIT = 1024;

// Most attachment scan records one scan lists. A record without names of its own gets a
// copy of the last transport name or title, so a file of empty attachment lists (15 bytes
// each) could otherwise cost a kilobyte of heap per 15 bytes read. Attachments past the
// limit are still scanned and logged; they only get no record.
inline constexpr uint32_t TNEF_SCAN_RECORD_LIMIT = 65536;

// The found flag: set to 0 by tnef_ScanTnef at every start, and to 1 by tnef_ScanMark at
// the first attribute id or property tag equal to the wanted one. Process-wide, unlocked.
extern int tnefScanFound;

// Scans the property list at fd's position (its property count) of one attAttachment
// record, links a new record at the end of *list and returns it; null when the count could
// not be read (or list is null: the record must have an owner however the scan ends, so
// nothing is read then). A short read or failed seek ends the list quietly; a read error raises
// 100/errno, and running out of memory 100/ENOMEM.
TnefAttachScan* tnef_ScanProps(int fd, uint32_t wantedTag, TnefAttachScan** list);

// ---- Helpers shared by the two halves of the scan ------------------------------------------

// The log mark of one attribute id or property tag: '*' for the first that equals the
// wanted one (which sets the found flag), else ' '.
char tnef_ScanMark(uint32_t value, uint32_t wantedTag);

// Writes to TraceF when it is open, flushing unless told not to.
void tnef_ScanLogf(bool flush, const char* format, ...) __attribute__((format(printf, 2, 3)));

// Reads exactly count bytes: false at end of file (the data is cut short), an escape
// 100/errno when the read fails.
bool tnef_ScanRead(int fd, void* buffer, uint32_t count);
bool tnef_ScanReadU32(int fd, uint32_t& value);
// Moves count bytes on from the current position (possibly past the end, where the next
// read then finds nothing); false when the seek fails.
bool tnef_ScanSkip(int fd, uint64_t count);

// A heap text of length bytes read from fd, with a NUL added after them so that a value
// without its own terminator is still a text; null when the data is cut short.
// length must be at most TNEF_SCAN_NAME_LIMIT. Raises 100/ENOMEM when the heap is full.
char* tnef_ScanReadText(int fd, uint32_t length);
