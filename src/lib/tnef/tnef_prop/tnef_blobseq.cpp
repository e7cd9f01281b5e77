#include <array>
#include <cerrno>
#include <cstring>

#include "tnef/platform/er_escape.h"
#include "tnef/platform/mapi_blob.h"
#include "tnef/platform/os_file.h"
#include "tnef/tnef.h"
#include "tnef_defs.h"
#include "tnef_prop/tnef_blobwriter.h"
#include "tnef_prop/tnef_proplog.h"
#include "tnef_propstream.h"
#include "tnef_writers.h"

uint16_t tnefBlobNamedPropId = NAMED_PROP_FIRST_ID;

namespace {

constexpr uint8_t kZeros[4] = {0, 0, 0, 0};
constexpr uint32_t kReadBackChunk = 1024;

void writeU32(int fd, uint32_t v) {
    uint8_t b[4];
    tnef_PutU32(b, v);
    os_write(fd, b, 4);
}

int64_t currentPosition(int fd) {
    return os_lseek64(fd, 0, 1);
}

[[noreturn]] void outOfMemory(int line) {
    er_TracedEscape(ER_GROUP_IO, ENOMEM, TNEF_UNIT_PROP, line);
}

TnefBlobText copyText(const char* begin, size_t length) {
    TnefBlobText copy(static_cast<char*>(mdc_malloc(length + 1)));
    if (!copy) outOfMemory(__LINE__);
    std::memcpy(copy.get(), begin, length);
    copy.get()[length] = '\0';
    return copy;
}

uint16_t typeFromHex(const char* text) {
    return static_cast<uint16_t>(os_str2ul(text, 16));
}

// The named-property header after the tag: the current property set, the kind, and the
// numeric name or the string name with its 2-byte NUL and padding.
void writeNumericName(int fd, const TnefGuid& guid, uint32_t lid) {
    os_write(fd, guid.data(), guid.size());
    writeU32(fd, MNID_ID);
    writeU32(fd, lid);
}

void writeStringName(int fd, const TnefGuid& guid, const uint8_t* name, uint32_t n) {
    os_write(fd, guid.data(), guid.size());
    writeU32(fd, MNID_STRING);
    writeU32(fd, n + 2);
    os_write(fd, name, n);
    os_write(fd, kZeros, 2);
    os_write(fd, kZeros, tnef_Pad4(uint64_t{n} + 2));
}

uint16_t advanceNamedPropId() {
    tnefBlobNamedPropId = tnef_NextNamedPropId(tnefBlobNamedPropId);
    return tnefBlobNamedPropId;
}

// Writes the tag (and the named header) of one entry, gives the tag in *tag and returns true;
// returns false, writing nothing, when the entry names no property: an empty id part, a
// property set entry, or a named id without "/" (which gives no name to write back).
bool writePropertyHead(int fd, const char* id, const char* values, TnefGuid& guid, uint32_t* tag) {
    if (id[0] == '\0') return false;
    if (std::strcmp(id, "GUID") == 0) {
        uint32_t n = 0;
        const uint8_t* bytes = tnef_DecodeBlobText(values, &n);
        std::memcpy(guid.data(), bytes, n < guid.size() ? n : guid.size());
        return false;
    }
    if (id[0] == '#' || id[0] == ':') {
        const char* slash = std::strchr(id, '/');
        if (slash == nullptr) return false;
        const uint16_t type = typeFromHex(id + 1);
        *tag = PROP_TAG(type, advanceNamedPropId());
        writeU32(fd, *tag);
        if (id[0] == '#') {
            writeNumericName(fd, guid, os_str2ul(slash + 1, 16));
        } else {
            uint32_t n = 0;
            const uint8_t* name = tnef_DecodeBlobText(slash + 1, &n);
            writeStringName(fd, guid, name, n);
        }
        return true;
    }
    *tag = os_str2ul(id, 16);
    writeU32(fd, *tag);
    return true;
}

}  // namespace

const uint8_t* tnef_DecodeBlobText(const char* text, uint32_t* lengthOut) {
    size_t n = 0;
    const unsigned char* bytes = os_GraphicToControl2(text, std::strlen(text), &n);
    if (n > TNEF_BLOB_MAX_VALUE)
        er_TracedEscape(ER_GROUP_TNEF, ER_TNEF_TOO_LONG, TNEF_UNIT_PROP, __LINE__);
    *lengthOut = static_cast<uint32_t>(n);
    return bytes;
}

int tnef_GetNextMAPIPropAndValues(const char* text, TnefBlobText* idOut, TnefBlobText* valuesOut,
                                  const char** nextOut) {
    idOut->reset();
    valuesOut->reset();
    *nextOut = nullptr;
    if (text == nullptr) return 0;
    // An empty entry holds nothing to stop at: tnef_GetProp starts an attachment text with
    // an entry separator when no attAttachRenddata opened the row.
    while (*text == BLOB_ENTRY_SEP) ++text;
    const char* entryEnd = std::strchr(text, BLOB_ENTRY_SEP);
    if (entryEnd == nullptr) entryEnd = text + std::strlen(text);
    // Only a value separator inside this entry counts: one further on belongs to another
    // entry, and taking it would glue the two together.
    const void* found = std::memchr(text, BLOB_VALUE_SEP, static_cast<size_t>(entryEnd - text));
    if (found == nullptr) return 0;
    const auto* valueSep = static_cast<const char*>(found);
    *idOut = copyText(text, static_cast<size_t>(valueSep - text));
    *valuesOut = copyText(valueSep + 1, static_cast<size_t>(entryEnd - valueSep - 1));
    *nextOut = *entryEnd == BLOB_ENTRY_SEP ? entryEnd + 1 : nullptr;
    return 1;
}

int tnef_GetNextValueInMulti(char* cursor, char** valueOut, char** nextOut) {
    *valueOut = nullptr;
    *nextOut = nullptr;
    if (cursor == nullptr) return 0;
    *valueOut = cursor;
    char* sep = std::strchr(cursor, BLOB_VALUE_SEP);
    if (sep != nullptr) {
        *sep = '\0';
        *nextOut = sep + 1;
    }
    return 1;
}

int tnef_GetNextRowInTable(char* cursor, char** rowOut, char** nextOut) {
    *rowOut = nullptr;
    *nextOut = nullptr;
    if (cursor == nullptr || *cursor == '\0') return 0;
    *rowOut = cursor;
    char* sep = std::strchr(cursor, BLOB_ROW_SEP);
    if (sep != nullptr) {
        *sep = '\0';
        *nextOut = sep + 1;
    } else {
        *nextOut = cursor + std::strlen(cursor);
    }
    return 1;
}

void tnef_ConvertBlobValue(const char* text, uint16_t type, TnefBlobBytes* bufferOut,
                           uint32_t* lengthOut) {
    const uint16_t base = type & 0x0FFF;
    uint8_t number[4];
    const uint8_t* bytes = number;
    uint32_t n = 0;
    uint32_t nuls = 0;
    if (base == PT_I2 || base == PT_BOOLEAN) {
        tnef_PutU16(number, static_cast<uint16_t>(os_str2ul(text, 16)));
        n = 2;
    } else if (base == PT_LONG || base == PT_R4 || base == PT_ERROR) {
        tnef_PutU32(number, os_str2ul(text, 16));
        n = 4;
    } else {
        bytes = tnef_DecodeBlobText(text, &n);
        // The blob drops the terminators; the stream carries them.
        if (base == PT_STRING8) nuls = 1;
        if (base == PT_UNICODE) nuls = 2;
    }
    TnefBlobBytes buffer(static_cast<uint8_t*>(mdc_malloc(uint64_t{n} + nuls)));
    if (!buffer) outOfMemory(__LINE__);
    std::memcpy(buffer.get(), bytes, n);
    std::memset(buffer.get() + n, 0, nuls);
    *bufferOut = std::move(buffer);
    *lengthOut = n + nuls;
}

void tnef_WriteMapiPropsData(int fd, uint32_t tag, uint32_t length, const uint8_t* bytes,
                             uint32_t* valueIndex, int64_t* countPosition) {
    ++*valueIndex;
    if (tnef_HasValueCount(tag)) {
        if (*valueIndex == 1) {
            *countPosition = currentPosition(fd);
            writeU32(fd, 1);
        } else {
            // The count already in the stream always equals the values written so far.
            const int64_t here = currentPosition(fd);
            os_lseek64(fd, *countPosition, 0);
            writeU32(fd, *valueIndex);
            os_lseek64(fd, here, 0);
        }
        if (tnef_IsVariableSize(tag)) writeU32(fd, length);
    }
    os_write(fd, bytes, length);
    os_write(fd, kZeros, tnef_Pad4(length));
}

void tnef_AddPropSequence(int fd, const char* text) {
    ErTraceScope trace(TNEF_TRACE_CLASS, "tnef_AddPropSequence");
    const int64_t countPosition = currentPosition(fd);
    writeU32(fd, 0);
    uint32_t count = 0;
    TnefGuid guid{};

    TnefBlobText id;
    TnefBlobText values;
    const char* cursor = text;
    // Each step moves the cursor past one entry separator, so the loop ends with the text.
    while (tnef_GetNextMAPIPropAndValues(cursor, &id, &values, &cursor)) {
        tnef_PropLogf("  tnef_AddPropSequence propid=[%s]\n", id.get());
        tnef_PropLogf("  tnef_AddPropSequence values=[%s]\n", values.get());
        uint32_t tag = 0;
        if (!writePropertyHead(fd, id.get(), values.get(), guid, &tag)) continue;
        ++count;
        uint32_t valueIndex = 0;
        int64_t valueCountPosition = 0;
        char* value = nullptr;
        char* rest = values.get();
        while (tnef_GetNextValueInMulti(rest, &value, &rest)) {
            TnefBlobBytes bytes;
            uint32_t n = 0;
            tnef_ConvertBlobValue(value, PROP_TYPE(tag), &bytes, &n);
            tnef_WriteMapiPropsData(fd, tag, n, bytes.get(), &valueIndex, &valueCountPosition);
        }
    }

    const int64_t end = currentPosition(fd);
    os_lseek64(fd, countPosition, 0);
    writeU32(fd, count);
    os_lseek64(fd, end, 0);
}

int64_t tnef_BeginBlobAttribute(int fd, uint8_t level, uint32_t attribute) {
    uint8_t head[5];
    head[0] = level;
    tnef_PutU32(head + 1, attribute);
    os_write(fd, head, sizeof head);
    const int64_t lengthPosition = currentPosition(fd);
    writeU32(fd, 0);
    return lengthPosition;
}

void tnef_EndBlobAttribute(int fd, int64_t lengthPosition) {
    const int64_t end = currentPosition(fd);
    const auto length = static_cast<uint64_t>(end - lengthPosition - 4);
    if (length > UINT32_MAX)
        er_TracedEscape(ER_GROUP_TNEF, ER_TNEF_TOO_LONG, TNEF_UNIT_PROP, __LINE__);
    os_lseek64(fd, lengthPosition, 0);
    writeU32(fd, static_cast<uint32_t>(length));
    // The file now stands at the first data byte.
    const uint16_t sum = tnef_ReadBackChecksum(fd, length);
    os_lseek64(fd, end, 0);
    uint8_t b[2];
    tnef_PutU16(b, sum);
    os_write(fd, b, 2);
}

uint16_t tnef_ReadBackChecksum(int fd, uint64_t n) {
    std::array<uint8_t, kReadBackChunk> chunk;
    uint16_t sum = 0;
    while (n > 0) {
        const uint32_t want = n < chunk.size() ? static_cast<uint32_t>(n) : kReadBackChunk;
        const int64_t got = mdc_read(fd, chunk.data(), want);
        if (got < 1) break;
        sum = static_cast<uint16_t>(sum + tnef_Checksum(chunk.data(), static_cast<int32_t>(got)));
        n -= static_cast<uint64_t>(got);
    }
    return sum;
}
