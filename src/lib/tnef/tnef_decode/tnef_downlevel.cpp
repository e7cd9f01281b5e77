#include "tnef_decode/tnef_downlevel.h"

#include <array>
#include <cstring>
#include <optional>
#include <string>

#include "tnef/platform/er_escape.h"
#include "tnef/platform/os_file.h"
#include "tnef_decode/tnef_bounded_read.h"
#include "tnef_decode/tnef_records.h"
#include "tnef_decode/tnef_mapiprops.h"
#include "tnef_defs.h"
#include "tnef_propstream.h"

namespace {

void skip(int fd, uint64_t n) {
    if (n != 0) os_lseek64(fd, static_cast<int64_t>(n), 1);
}

// The value count and the first value's length of a string or object value; what a cut
// stream leaves of them is used as it stands.
void readCountAndLength(int fd, uint16_t type, uint32_t& count, uint32_t& length) {
    TnefDecodeSource s{fd};
    tnef_ReadValueCount(s, tnef_PropTypeInfo(type), count);
    s.u32(length);
}

void readDisplayName(int fd, char* nameBuffer, uint32_t nameCapacity) {
    uint32_t count = 0;
    uint32_t length = 0;
    readCountAndLength(fd, PT_STRING8, count, length);
    // The name and its NUL must fit below the capacity, so the buffer always ends in a NUL.
    if (length >= nameCapacity)
        er_TracedEscapeText(ER_GROUP_TNEF, ER_TNEF_TOO_LONG, TNEF_UNIT_DECODE, __LINE__,
                            "attachment display name of " + std::to_string(length) + " bytes");
    const int64_t n = tnef_ReadBounded(fd, nameBuffer, length, nameCapacity);
    nameBuffer[n > 0 ? n : 0] = '\0';
    skip(fd, tnef_Pad4(length));
}

// Copies an attached object from its signature on into a new temporary item. The copy
// stops where the attribute ends, whatever the value's length claims. Returns 1 when the
// object is a TNEF stream.
int copyAttachedObject(int fd, int64_t attrEnd, std::string* fileName, ItemRef* ref) {
    uint32_t count = 0;
    uint32_t length = 0;
    readCountAndLength(fd, PT_OBJECT, count, length);
    ItemRef item{};
    OsFd out(im_CrNewTempItem(&item));
    ImItemOwner owner(item);
    *fileName = im_ItemRef2FName(item);
    int embedded = 0;
    if (length > 20) {
        skip(fd, 16);  // the object's interface identifier
        uint8_t signature[4] = {};
        const int64_t got = os_read(fd, signature, 4);
        os_write(out.get(), signature, got);
        if (got == 4 && tnef_GetU32(signature) == TNEF_SIGNATURE) embedded = 1;
        int64_t left = static_cast<int64_t>(length) - 20;
        const int64_t inAttribute = attrEnd - os_lseek64(fd, 0, 1);
        if (left > inAttribute) left = inAttribute > 0 ? inAttribute : 0;
        std::array<uint8_t, TNEF_COPY_CHUNK> chunk;
        while (left > 0) {
            const int64_t n = os_read(fd, chunk.data(), left < TNEF_COPY_CHUNK ? left : TNEF_COPY_CHUNK);
            if (n <= 0) break;
            os_write(out.get(), chunk.data(), n);
            left -= n;
        }
        skip(fd, left);
    } else {
        skip(fd, length);
    }
    skip(fd, tnef_Pad4(length));
    out.close();
    owner.release();
    *ref = item;
    return embedded;
}

}  // namespace

int tnef_ParseDownLevelMAPIProps(int tnefFd, dstring* mainText, dstring* secondaryText,
                                 int attachPropFd, std::string* objectFileName,
                                 uint32_t attrLength, char* nameBuffer, uint32_t nameCapacity,
                                 ItemRef* objectItem) {
    ErTraceScope trace(TNEF_TRACE_CLASS, "tnef_ParseDownLevelMAPIProps");
    int result = 0;
    // As for a message's texts: an empty text always opens with a set entry.
    if (dstring_length(mainText) == 0) tnefLastSetAttachMain = TNEF_UNSET_SLOT;
    if (dstring_length(secondaryText) == 0) tnefLastSetAttachSecondary = TNEF_UNSET_SLOT;
    const int64_t end = os_lseek64(tnefFd, 0, 1) + attrLength;
    TnefDecodeSource s{tnefFd};
    uint32_t count = 0;
    s.u32(count);
    // The attached object's item is removed again if an escape ends the list.
    std::optional<ImItemOwner> object;
    for (; count != 0 && os_lseek64(tnefFd, 0, 1) < end; --count) {
        uint32_t tag = 0;
        if (!s.u32(tag)) break;
        if (tag == PR_DISPLAY_NAME) {
            readDisplayName(tnefFd, nameBuffer, nameCapacity);
        } else if (tag == PR_ATTACH_DATA_OBJ) {
            // Only the last attached object is handed on; an earlier one would be orphaned.
            object.reset();
            ItemRef ref{};
            result = copyAttachedObject(tnefFd, end, objectFileName, &ref);
            object.emplace(ref);
        } else if (!tnef_AddRoutedProp(attachPropFd, tnefFd, tag, mainText, secondaryText,
                                       tnefLastSetAttachMain.data(),
                                       tnefLastSetAttachSecondary.data(), attrLength)) {
            break;
        }
    }
    if (object) {
        if (objectItem != nullptr) *objectItem = object->ref();
        object->release();
    }
    return result;
}
