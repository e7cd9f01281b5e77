// The scan dump: walks a TNEF file record by record without decoding it, tells whether a
// wanted attribute id or property tag occurs, lists the attachments for the encoder and,
// while the scan log is open, writes a line per attribute.

#include "tnef_scan/tnef_scan.h"

#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstdarg>
#include <cstring>
#include <ctime>
#include <string>

#include "tnef/platform/er_escape.h"
#include "tnef/platform/os_file.h"
#include "tnef_defs.h"
#include "tnef_propstream.h"

int tnefScanFound = 0;

namespace {

// Offset of the first record: the 4-byte signature and the 2-byte key come first.
constexpr uint32_t kFirstRecordOffset = 6;

int64_t seekTo(int fd, int64_t offset) {
    const auto u = static_cast<uint64_t>(offset);
    return mdc_lseek(fd, static_cast<uint32_t>(u), static_cast<int32_t>(u >> 32), 0);
}

void openScanLog() {
    if (TraceF != nullptr || !os_fexists("~/tmp/tnefout.log")) return;
    const std::string name = "~/tmp/tnefout.log." + std::to_string(::getpid());
    TraceF = os_fopen(name.c_str(), "a");
}

void logScanStart(uint32_t wantedTag) {
    if (TraceF == nullptr) return;
    const std::time_t now = std::time(nullptr);
    char when[64] = "\n";  // ctime's text, newline included
    if (ctime_r(&now, when) == nullptr) std::strcpy(when, "\n");
    tnef_ScanLogf(true, "\nTNEF file scan for 0x%x: %s", wantedTag, when);
}

char* copyText(const char* text) {
    const size_t size = std::strlen(text) + 1;
    auto* copy = static_cast<char*>(os_malloc(size));
    if (copy == nullptr) er_TracedEscape(ER_GROUP_IO, ENOMEM, TNEF_UNIT_SCAN, __LINE__);
    std::memcpy(copy, text, size);
    return copy;
}

// The last transport file name and title seen, kept across attachments and released
// however the scan ends.
struct KeptNames {
    char* transport = nullptr;
    char* title = nullptr;
    KeptNames() = default;
    KeptNames(const KeptNames&) = delete;
    KeptNames& operator=(const KeptNames&) = delete;
    ~KeptNames() {
        os_free(transport);
        os_free(title);
    }
};

// Records linked while the scan runs, and where the next one goes: the tail is remembered
// so that a file of many attachments does not walk the list once per attachment.
struct ScanList {
    TnefAttachScan** tail;
    uint32_t listed = 0;
};

void keepName(int fd, uint32_t length, char*& kept) {
    if (length > TNEF_SCAN_NAME_LIMIT) return;
    char* text = tnef_ScanReadText(fd, length);
    if (text == nullptr) return;  // cut short: the file ends here anyway
    os_free(kept);
    kept = text;
}

// An attachment without names of its own takes the last transport name, else the title.
void fillFallbackName(TnefAttachScan& record, const KeptNames& kept) {
    if (record.longFileName != nullptr || record.fileName != nullptr) return;
    const char* from = kept.transport != nullptr ? kept.transport : kept.title;
    if (from != nullptr) record.longFileName = copyText(from);
}

void scanAttachment(int fd, uint32_t wantedTag, ScanList& list, const KeptNames& kept) {
    if (list.listed >= TNEF_SCAN_RECORD_LIMIT) {
        TnefAttachScan* dropped = nullptr;
        tnef_ScanProps(fd, wantedTag, &dropped);
        tnef_FreeScanList(&dropped);
        return;
    }
    TnefAttachScan* record = tnef_ScanProps(fd, wantedTag, list.tail);
    if (record == nullptr) return;
    list.tail = &record->next;
    ++list.listed;
    fillFallbackName(*record, kept);
}

// Every record is found from its own header, however much of its data was read, and each
// one moves the walk at least 11 bytes on, so the walk ends with the file.
void scanRecords(int fd, uint32_t wantedTag, ScanList& list, KeptNames& kept) {
    if (seekTo(fd, kFirstRecordOffset) < 0) return;
    for (;;) {
        uint8_t level = 0;  // not used
        if (!tnef_ScanRead(fd, &level, 1)) return;
        const int64_t at = mdc_lseek(fd, 0, 0, 1);
        uint8_t head[8];
        if (at < 0 || !tnef_ScanRead(fd, head, sizeof head)) return;
        const uint32_t attribute = tnef_GetU32(head);
        const uint32_t length = tnef_GetU32(head + 4);

        const char mark = tnef_ScanMark(attribute, wantedTag);
        tnef_ScanLogf(true, "%c Attrib: 0x%.8x, Size = %-7d offset = %d\n", mark, attribute,
                      static_cast<int>(length), static_cast<int>(at));
        switch (attribute) {
            case attAttachTransportFilename:
                keepName(fd, length, kept.transport);
                break;
            case attAttachTitle:
                keepName(fd, length, kept.title);
                break;
            case attAttachment:
                scanAttachment(fd, wantedTag, list, kept);
                break;
            default:
                break;
        }
        // Past the data and its 2-byte checksum, which is not verified.
        if (seekTo(fd, at + 8 + static_cast<int64_t>(length) + 2) < 0) return;
    }
}

TnefAttachScan** endOf(TnefAttachScan** list) {
    while (*list != nullptr) list = &(*list)->next;
    return list;
}

}  // namespace

char tnef_ScanMark(uint32_t value, uint32_t wantedTag) {
    if (tnefScanFound != 0 || value != wantedTag) return ' ';
    tnefScanFound = 1;
    return '*';
}

void tnef_ScanLogf(bool flush, const char* format, ...) {
    if (TraceF == nullptr) return;
    va_list args;
    va_start(args, format);
    std::vfprintf(TraceF, format, args);
    va_end(args);
    if (flush) std::fflush(TraceF);
}

bool tnef_ScanRead(int fd, void* buffer, uint32_t count) {
    const int64_t n = mdc_read(fd, buffer, count);
    // End of file and a cut record end the walk quietly; a failing device is an error the
    // caller should hear of.
    if (n < 0) er_TracedEscape(ER_GROUP_IO, errno, TNEF_UNIT_SCAN, __LINE__);
    return n == static_cast<int64_t>(count);
}

bool tnef_ScanReadU32(int fd, uint32_t& value) {
    uint8_t bytes[4];
    if (!tnef_ScanRead(fd, bytes, sizeof bytes)) return false;
    value = tnef_GetU32(bytes);
    return true;
}

bool tnef_ScanSkip(int fd, uint64_t count) {
    if (count == 0) return true;
    return mdc_lseek(fd, static_cast<uint32_t>(count), static_cast<int32_t>(count >> 32), 1) >= 0;
}

char* tnef_ScanReadText(int fd, uint32_t length) {
    if (length > TNEF_SCAN_NAME_LIMIT) return nullptr;
    std::array<char, TNEF_SCAN_NAME_LIMIT + 1> buffer{};
    if (!tnef_ScanRead(fd, buffer.data(), length)) return nullptr;
    auto* text = static_cast<char*>(os_malloc(length + 1));
    if (text == nullptr) er_TracedEscape(ER_GROUP_IO, ENOMEM, TNEF_UNIT_SCAN, __LINE__);
    std::memcpy(text, buffer.data(), length + 1);
    return text;
}

int tnef_ScanTnef(int fd, uint32_t wantedTag, TnefAttachScan** list) {
    ErTraceScope trace(TNEF_TRACE_CLASS_SCAN, "tnef_ScanTnef");
    // Field-by-field I/O is buffered for the call; offsets are exact again on return.
    OsIoBatch ioBatch;
    tnefScanFound = 0;
    openScanLog();
    logScanStart(wantedTag);

    TnefScanList scratch;  // the records of a caller that wants no list
    ScanList into{endOf(list != nullptr ? list : &scratch.head)};
    KeptNames kept;
    try {
        scanRecords(fd, wantedTag, into, kept);
    } catch (Escape& e) {
        tnef_ScanLogf(true, "** Error detected: %d/%d\n", er_GetGroup(e), er_GetReason(e));
        er_Accept(e, 7);
        if (er_GetLive(e)) {
            er_TraceBeforeJump(TNEF_UNIT_SCAN, __LINE__);
            // The records listed so far stay with the caller, who owns the list.
            seekTo(fd, 0);
            throw;
        }
    }
    seekTo(fd, 0);
    return tnefScanFound;
}

void tnef_FreeScanList(TnefAttachScan** list) {
    if (list == nullptr) return;
    while (*list != nullptr) {
        TnefAttachScan* record = *list;
        *list = record->next;
        os_free(record->longFileName);
        os_free(record->fileName);
        os_free(record);
    }
}
