#include "tnef/platform/tf_msgfile.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <memory>
#include <string>
#include <vector>

#include "os_buffer.h"
#include "store_internal.h"
#include "tnef/platform/er_escape.h"
#include "tnef/platform/os_file.h"

namespace {

constexpr const char* kUnit = "src/platform/tf_msgfile";

store::HandleTable<store::MsgFile>& files() {
    static store::HandleTable<store::MsgFile> table;
    return table;
}

[[noreturn]] void corrupt(const store::MsgFile& file, int line, const std::string& what) {
    store::raise(ER_STORE_CORRUPT, kUnit, line, "message file " + file.path + ": " + what);
}

[[noreturn]] void pastRecord(const TFREC* record, int line, uint32_t offset, size_t bytes) {
    er_TracedEscapeText(ER_GROUP_TNEF, ER_TNEF_TOO_LONG, kUnit, line,
                        "field of " + std::to_string(bytes) + " bytes at offset " +
                            std::to_string(offset) + " of a record of type " +
                            std::to_string(tf_GetType(record)) + " passes its " +
                            std::to_string(TF_RECORD_MAX) + " bytes");
}

// True when bytes at offset stay inside the record; written so that no sum can wrap.
bool fits(uint32_t offset, size_t bytes) {
    return offset <= TF_RECORD_MAX && bytes <= TF_RECORD_MAX - offset;
}

void raiseLength(TFREC* record, uint32_t end) {
    if (end > tf_GetLength(record)) store::putLe32(record->bytes, end);
}

int16_t adopt(const ItemRef& ref, std::string path, OsFd fd, bool readOnly) {
    auto file = std::make_unique<store::MsgFile>();
    file->ref = ref;
    file->path = std::move(path);
    file->fd = std::move(fd);
    file->readOnly = readOnly;
    return files().add(std::move(file), kUnit, "message file");
}

// Length of the text at offset, bounded by the record; -1 when no NUL ends it there.
int64_t textLength(const TFREC* record, uint32_t offset) {
    if (offset >= TF_RECORD_MAX) return -1;
    const void* nul = std::memchr(record->bytes + offset, 0, TF_RECORD_MAX - offset);
    if (nul == nullptr) return -1;
    return static_cast<const unsigned char*>(nul) - (record->bytes + offset);
}

[[noreturn]] void unterminated(const TFREC* record, int line, uint32_t offset) {
    store::raise(ER_STORE_CORRUPT, kUnit, line,
                 "text at offset " + std::to_string(offset) + " of a record of type " +
                     std::to_string(tf_GetType(record)) + " has no end within the record");
}

// Bytes [from, end of file), read whole.
std::string readFrom(store::MsgFile& file, int64_t from) {
    const int64_t end = store::tfSize(file);
    std::string bytes(static_cast<size_t>(end > from ? end - from : 0), '\0');
    os_lseek64(file.fd.get(), from, SEEK_SET);
    if (os_read(file.fd.get(), bytes.data(), static_cast<int64_t>(bytes.size())) !=
        static_cast<int64_t>(bytes.size()))
        corrupt(file, __LINE__, "changed while being rewritten");
    return bytes;
}

// Best effort while another escape is already on its way: its failure must not hide that one.
bool cutBackQuietly(int fd, int64_t size) {
    try {
        os_SyncFd(fd);
    } catch (const Escape&) {
    }
    return mdc_ftruncate(fd, size) == 0;
}

// Appended records wait while a batch is open, up to this many bytes: a decode appends a
// record at a time, and one write for all of them saves a system call per record.
constexpr size_t kAppendBatch = 64 * 1024;

// Writes the waiting records in one call. On failure none of them stays in the file, so
// that the file still reads record by record.
void settle(store::MsgFile& file) {
    if (file.appended.empty()) return;
    std::string bytes;
    bytes.swap(file.appended);
    try {
        os_lseek64(file.fd.get(), file.appendAt, SEEK_SET);
        os_write(file.fd.get(), bytes.data(), static_cast<int64_t>(bytes.size()));
        os_FlushFd(file.fd.get());
    } catch (const Escape&) {
        cutBackQuietly(file.fd.get(), file.appendAt);
        throw;
    }
}

// The records still waiting when a batch ends go then; a failure is reported by the batch.
osio::Failure settleAll() {
    osio::Failure first;
    files().forEach([&](store::MsgFile& file) {
        try {
            settle(file);
        } catch (const Escape& e) {
            if (first.err == 0) first = {e.reason, "write failed on " + file.path};
        }
    });
    return first;
}

void checkOutgoing(const store::MsgFile& file, const TFREC* record, int line) {
    const uint32_t length = tf_GetLength(record);
    if (length < TF_RECORD_HEADER || length > TF_RECORD_MAX)
        corrupt(file, line, "refusing to write a record of length " + std::to_string(length));
}

}  // namespace

namespace store {

MsgFile& tfLookup(int16_t handle) {
    MsgFile& file = files().get(handle, kUnit, __LINE__, "message file");
    settle(file);
    return file;
}

int64_t tfSize(MsgFile& file) { return os_lseek64(file.fd.get(), 0, SEEK_END); }

void tfTruncate(MsgFile& file, int64_t size) {
    os_SyncFd(file.fd.get());
    if (mdc_ftruncate(file.fd.get(), size) != 0)
        raiseErrno(errno, kUnit, __LINE__, "cannot cut back " + file.path);
}

}  // namespace store

// ---- Files ------------------------------------------------------------------------------------

int16_t tf_CreateFile() {
    ItemRef ref;
    OsFd fd(im_CrNewDataItem(nullptr, &ref));
    ImItemOwner item(ref);
    const int16_t tf = adopt(ref, im_ItemRef2FName(ref), std::move(fd), false);
    item.release();
    return tf;
}

int16_t tf_CreateFromItemRef(const ItemRef& ref) {
    std::string path = im_ItemRef2FName(ref);
    OsFd fd(os_open(path.c_str(), O_RDWR | O_CREAT | O_TRUNC, 0660));
    return adopt(ref, std::move(path), std::move(fd), false);
}

int16_t tf_OpenFile(const ItemRef& ref, int mode) {
    if (mode != TF_OPEN_UPDATE && mode != TF_OPEN_READONLY)
        store::raise(ER_STORE_BAD_ARGUMENT, kUnit, __LINE__,
                     "message file open mode " + std::to_string(mode) + " is not supported");
    const bool readOnly = mode == TF_OPEN_READONLY;
    std::string path = im_ItemRef2FName(ref);
    OsFd fd(os_open(path.c_str(), readOnly ? O_RDONLY : O_RDWR, 0));
    return adopt(ref, std::move(path), std::move(fd), readOnly);
}

void tf_UnreadFile(int16_t tf) {
    store::MsgFile& file = store::tfLookup(tf);
    file.cursor = 0;
    file.lastOffset = -1;
    file.lastLength = 0;
}

int tf_ReadRecord(int16_t tf, TFREC* record) {
    store::MsgFile& file = store::tfLookup(tf);
    const int fd = file.fd.get();
    os_lseek64(fd, file.cursor, SEEK_SET);
    const int64_t head = os_read(fd, record->bytes, TF_RECORD_HEADER);
    if (head == 0) return 0;
    const std::string where = " at offset " + std::to_string(file.cursor);
    if (head < TF_RECORD_HEADER) corrupt(file, __LINE__, "file ends inside the record" + where);
    const uint32_t length = tf_GetLength(record);
    if (length < TF_RECORD_HEADER || length > TF_RECORD_MAX)
        corrupt(file, __LINE__, "record" + where + " claims " + std::to_string(length) + " bytes");
    const int64_t rest = length - TF_RECORD_HEADER;
    if (os_read(fd, record->bytes + TF_RECORD_HEADER, rest) != rest)
        corrupt(file, __LINE__,
                "file ends inside the record" + where + " of " + std::to_string(length) + " bytes");
    std::memset(record->bytes + length, 0, TF_RECORD_MAX - length);
    file.lastOffset = file.cursor;
    file.lastLength = length;
    file.cursor += length;
    return 1;
}

void tf_AppendRecord(int16_t tf, const TFREC* record) {
    store::MsgFile& file = files().get(tf, kUnit, __LINE__, "message file");
    checkOutgoing(file, record, __LINE__);
    static const bool hooked = (osio::addEndHook(settleAll), true);
    (void)hooked;
    if (file.appended.empty()) file.appendAt = store::tfSize(file);
    file.appended.append(reinterpret_cast<const char*>(record->bytes), tf_GetLength(record));
    // Outside a batch, or when enough waits, the records go now.
    if (!os_InIoBatch() || file.appended.size() >= kAppendBatch) settle(file);
}

void tf_OverwriteRecord(int16_t tf, const TFREC* record) {
    store::MsgFile& file = store::tfLookup(tf);
    if (file.lastOffset < 0)
        store::raise(ER_STORE_NO_RECORD, kUnit, __LINE__,
                     "message file " + file.path + ": no record was read to overwrite");
    checkOutgoing(file, record, __LINE__);
    const uint32_t length = tf_GetLength(record);
    const int fd = file.fd.get();
    if (length == file.lastLength) {
        os_lseek64(fd, file.lastOffset, SEEK_SET);
        os_write(fd, record->bytes, length);
        return;
    }
    // Another length: the records behind it move. Keep the old bytes so that a failed
    // rewrite can put the file back as it was.
    const std::string old = readFrom(file, file.lastOffset);
    std::string updated(reinterpret_cast<const char*>(record->bytes), length);
    updated.append(old, file.lastLength, std::string::npos);
    try {
        os_lseek64(fd, file.lastOffset, SEEK_SET);
        os_write(fd, updated.data(), static_cast<int64_t>(updated.size()));
        store::tfTruncate(file, file.lastOffset + static_cast<int64_t>(updated.size()));
    } catch (const Escape&) {
        try {
            os_SyncFd(fd);
        } catch (const Escape&) {
        }
        const OsSysCalls& sys = os_GetSysCalls();
        if (sys.lseek(fd, static_cast<off_t>(file.lastOffset), SEEK_SET) >= 0 &&
            sys.write(fd, old.data(), old.size()) == static_cast<ssize_t>(old.size()))
            cutBackQuietly(fd, file.lastOffset + static_cast<int64_t>(old.size()));
        throw;
    }
    file.cursor = file.lastOffset + length;
    file.lastLength = length;
}

void tf_FlushFile(int16_t tf) {
    store::MsgFile& file = store::tfLookup(tf);
    if (file.readOnly) return;
    os_SyncFd(file.fd.get());
    if (mdc_fsync(file.fd.get(), 1) != 0)
        store::raiseErrno(errno, kUnit, __LINE__, "cannot flush " + file.path);
}

void tf_CloseFile(int16_t tf) {
    std::unique_ptr<store::MsgFile> file = files().remove(tf);
    if (!file)
        store::raise(ER_STORE_BAD_HANDLE, kUnit, __LINE__,
                     "message file handle " + std::to_string(tf) + " is not open");
    settle(*file);
    file->fd.close();
}

void tf_GetRef(int16_t tf, ItemRef* ref) { *ref = store::tfLookup(tf).ref; }

std::string tf_GetFileName(int16_t tf) { return store::tfLookup(tf).path; }

int tf_OpenHandleCount() { return files().openCount(); }

// ---- Records ------------------------------------------------------------------------------------

void tf_InitRecord(TFREC* record, uint32_t type) {
    std::memset(record->bytes, 0, sizeof record->bytes);
    store::putLe32(record->bytes, TF_RECORD_HEADER);
    store::putLe32(record->bytes + 4, type);
}

void tf_WrapRecord(const TFREC* record, TFREC* wrapped) {
    if (wrapped != record) std::memcpy(wrapped->bytes, record->bytes, sizeof record->bytes);
    uint32_t length = tf_GetLength(wrapped);
    if (length < TF_RECORD_HEADER) length = TF_RECORD_HEADER;
    // The capacity is a multiple of 4, so rounding up never passes it.
    const uint32_t padded = length > TF_RECORD_MAX ? TF_RECORD_MAX : (length + 3) & ~3u;
    std::memset(wrapped->bytes + length, 0, padded > length ? padded - length : 0);
    store::putLe32(wrapped->bytes, padded);
}

uint32_t tf_GetType(const TFREC* record) { return store::getLe32(record->bytes + 4); }
uint32_t tf_GetLength(const TFREC* record) { return store::getLe32(record->bytes); }

void tf_PutINT16(TFREC* record, uint32_t offset, uint16_t value) {
    if (!fits(offset, 2)) pastRecord(record, __LINE__, offset, 2);
    record->bytes[offset] = static_cast<unsigned char>(value);
    record->bytes[offset + 1] = static_cast<unsigned char>(value >> 8);
    raiseLength(record, offset + 2);
}

void tf_PutINT32(TFREC* record, uint32_t offset, uint32_t value) {
    if (!fits(offset, 4)) pastRecord(record, __LINE__, offset, 4);
    store::putLe32(record->bytes + offset, value);
    raiseLength(record, offset + 4);
}

uint16_t tf_GetINT16(const TFREC* record, uint32_t offset) {
    if (!fits(offset, 2)) pastRecord(record, __LINE__, offset, 2);
    return static_cast<uint16_t>(record->bytes[offset] | record->bytes[offset + 1] << 8);
}

uint32_t tf_GetINT32(const TFREC* record, uint32_t offset) {
    if (!fits(offset, 4)) pastRecord(record, __LINE__, offset, 4);
    return store::getLe32(record->bytes + offset);
}

void tf_PutString(TFREC* record, uint32_t offset, uint32_t* next, const char* text) {
    const size_t length = text != nullptr ? std::strlen(text) : 0;
    if (!fits(offset, length + 1)) pastRecord(record, __LINE__, offset, length + 1);
    if (length > 0) std::memcpy(record->bytes + offset, text, length);
    record->bytes[offset + length] = 0;
    const auto end = static_cast<uint32_t>(offset + length + 1);
    raiseLength(record, end);
    if (next != nullptr) *next = end;
}

uint32_t tf_GetString(const TFREC* record, uint32_t offset, uint32_t* next, char* buffer,
                      uint32_t capacity) {
    const int64_t length = textLength(record, offset);
    if (length < 0) unterminated(record, __LINE__, offset);
    if (static_cast<uint64_t>(length) + 1 > capacity)
        er_TracedEscapeText(ER_GROUP_TNEF, ER_TNEF_TOO_LONG, kUnit, __LINE__,
                            "text of " + std::to_string(length) + " bytes at offset " +
                                std::to_string(offset) + " does not fit a buffer of " +
                                std::to_string(capacity));
    std::memcpy(buffer, record->bytes + offset, static_cast<size_t>(length) + 1);
    if (next != nullptr) *next = offset + static_cast<uint32_t>(length) + 1;
    return static_cast<uint32_t>(length);
}

const char* tf_GetStrPtr(const TFREC* record, uint32_t offset, uint32_t* next) {
    const int64_t length = textLength(record, offset);
    if (length < 0) unterminated(record, __LINE__, offset);
    if (next != nullptr) *next = offset + static_cast<uint32_t>(length) + 1;
    return reinterpret_cast<const char*>(record->bytes + offset);
}

void tf_MakeSubjectRec(TFREC* record, uint32_t type, const char* subject, const char* second,
                       uint32_t n1, uint32_t n2, uint32_t n3, uint32_t n4) {
    tf_InitRecord(record, type);
    uint32_t next = 0;
    tf_PutString(record, 16, &next, subject);
    tf_PutString(record, next, &next, second);
    next = (next + 3) & ~3u;
    for (uint32_t n : {n1, n2, n3, n4}) {
        tf_PutINT32(record, next, n);
        next += 4;
    }
    tf_WrapRecord(record, record);
}

void tf_MakeStartPkgRec(TFREC* record, uint32_t kind, const char* subject, const char* text2,
                        const char* text3, uint32_t n1, uint32_t n2, uint32_t n3, int32_t n4,
                        uint32_t n5) {
    tf_InitRecord(record, TFREC_START_PACKAGE);
    tf_PutINT32(record, 16, kind);
    tf_PutINT32(record, 20, n1);
    tf_PutINT32(record, 24, n2);
    tf_PutINT32(record, 28, n3);
    tf_PutINT32(record, 32, static_cast<uint32_t>(n4));
    tf_PutINT32(record, 36, n5);
    uint32_t next = 0;
    tf_PutString(record, 40, &next, subject);
    tf_PutString(record, next, &next, text2);
    tf_PutString(record, next, &next, text3);
    tf_WrapRecord(record, record);
}

int tf_WhichGroup(uint32_t type) {
    struct Range {
        uint32_t first, last;
        int group;
    };
    static constexpr Range kGroups[] = {
        {1000, 1999, 1},   {10000, 10999, 2}, {11000, 14999, 3}, {15000, 18999, 4},
        {22000, 22999, 4}, {19000, 19999, 5}, {30000, 39999, 6}, {40000, 49999, 7},
    };
    for (const Range& r : kGroups)
        if (type >= r.first && type <= r.last) return r.group;
    return 0;
}

// ---- Content files ------------------------------------------------------------------------------

void tf_initTFREC_content_file(TFREC_content_file* description, uint32_t contentType) {
    *description = TFREC_content_file{};
    description->contentType = contentType;
}

void tf_ContentFileRecFromStruc(TFREC* record, const TFREC_content_file* description) {
    tf_InitRecord(record, TFREC_CONTENT_FILE);
    tf_PutINT32(record, 20, description->contentType & 0xFFFF);
    tf_PutINT32(record, 24, description->flags);
    tf_PutINT32(record, 28, description->size);
    tf_PutINT32(record, 32, 0);
    uint32_t next = 0;
    tf_PutString(record, 36, &next, description->partName.c_str());
    tf_PutString(record, next, &next, description->fileName.c_str());
    tf_PutString(record, next, &next, description->extraText.c_str());
    tf_WrapRecord(record, record);
}

// ---- Ownership --------------------------------------------------------------------------------

TfFileOwner::~TfFileOwner() {
    if (tf_ == 0) return;
    std::unique_ptr<store::MsgFile> file = files().remove(tf_);
    if (!file) return;
    if (discard_) {
        ImItemOwner item(file->ref);  // removes the name when it goes
        return;
    }
    try {
        settle(*file);
    } catch (const Escape& e) {
        // No caller to tell here: the batch reports it when it ends.
        osio::defer({e.reason, "write failed on " + file->path});
    }
    // OsFd closes without raising as file goes.
}

void TfFileOwner::close() {
    const int16_t tf = release();
    if (tf != 0) tf_CloseFile(tf);
}
