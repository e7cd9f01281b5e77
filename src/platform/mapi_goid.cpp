#include <cerrno>
#include <cstring>
#include <string>

#include "tnef/platform/er_escape.h"
#include "tnef/platform/mapi_calendar.h"
#include "tnef/platform/os_file.h"

namespace {

constexpr const char* kUnit = "src/platform/mapi_goid";

// Offsets in the fixed part.
constexpr size_t kYearAt = 16;
constexpr size_t kMonthAt = 18;
constexpr size_t kDayAt = 19;
constexpr size_t kCreationAt = 20;
constexpr size_t kReservedAt = 28;
constexpr size_t kSizeAt = 36;

uint32_t getU32(const uint8_t* p) {
    return uint32_t{p[0]} | uint32_t{p[1]} << 8 | uint32_t{p[2]} << 16 | uint32_t{p[3]} << 24;
}

void putU32(uint8_t* p, uint32_t v) {
    for (int i = 0; i < 4; ++i) p[i] = static_cast<uint8_t>(v >> (8 * i));
}

}  // namespace

void mapi_init_MAPI_GLOBAL_OBJECT_ID(MAPI_GLOBAL_OBJECT_ID* id) { *id = MAPI_GLOBAL_OBJECT_ID{}; }

void mapi_free_MAPI_GLOBAL_OBJECT_ID(MAPI_GLOBAL_OBJECT_ID* id) {
    mdc_free(id->data);
    *id = MAPI_GLOBAL_OBJECT_ID{};
}

bool mapi_raw_GlobalObjectIdToStruc(const uint8_t* bytes, size_t length,
                                    MAPI_GLOBAL_OBJECT_ID* id) {
    mapi_free_MAPI_GLOBAL_OBJECT_ID(id);
    if (bytes == nullptr || length < MAPI_GOID_FIXED_SIZE) return false;
    const uint32_t size = getU32(bytes + kSizeAt);
    if (size > length - MAPI_GOID_FIXED_SIZE) return false;

    std::memcpy(id->classId, bytes, sizeof id->classId);
    id->year = static_cast<uint16_t>(bytes[kYearAt] << 8 | bytes[kYearAt + 1]);
    id->month = bytes[kMonthAt];
    id->day = bytes[kDayAt];
    id->creationTime = uint64_t{getU32(bytes + kCreationAt)} |
                       uint64_t{getU32(bytes + kCreationAt + 4)} << 32;
    std::memcpy(id->reserved, bytes + kReservedAt, sizeof id->reserved);
    if (size != 0) {
        id->data = static_cast<uint8_t*>(mdc_malloc(size));
        if (id->data == nullptr)
            er_TracedEscapeText(ER_GROUP_IO, ENOMEM, kUnit, __LINE__,
                                "no memory for an object identifier of " + std::to_string(size) +
                                    " bytes");
        std::memcpy(id->data, bytes + MAPI_GOID_FIXED_SIZE, size);
    }
    id->dataSize = size;
    return true;
}

bool mapi_raw_GlobalObjectIdFromStruc(const MAPI_GLOBAL_OBJECT_ID* id, dstring* out) {
    if (id->dataSize != 0 && id->data == nullptr) return false;
    uint8_t fixed[MAPI_GOID_FIXED_SIZE];
    std::memcpy(fixed, id->classId, sizeof id->classId);
    fixed[kYearAt] = static_cast<uint8_t>(id->year >> 8);
    fixed[kYearAt + 1] = static_cast<uint8_t>(id->year);
    fixed[kMonthAt] = id->month;
    fixed[kDayAt] = id->day;
    putU32(fixed + kCreationAt, static_cast<uint32_t>(id->creationTime));
    putU32(fixed + kCreationAt + 4, static_cast<uint32_t>(id->creationTime >> 32));
    std::memcpy(fixed + kReservedAt, id->reserved, sizeof id->reserved);
    putU32(fixed + kSizeAt, id->dataSize);
    dstring_appendN(out, reinterpret_cast<const char*>(fixed), sizeof fixed);
    if (id->dataSize != 0)
        dstring_appendN(out, reinterpret_cast<const char*>(id->data), id->dataSize);
    return true;
}
