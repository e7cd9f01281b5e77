#include "tnef_decode/tnef_bounded_read.h"

#include <string>

#include "tnef/platform/er_escape.h"
#include "tnef/platform/os_file.h"
#include "tnef_defs.h"

int64_t tnef_ReadBounded(int fd, void* buffer, uint32_t length, uint32_t capacity) {
    if (length > capacity)
        er_TracedEscapeText(ER_GROUP_TNEF, ER_TNEF_TOO_LONG, TNEF_UNIT_DECODE, __LINE__,
                            "length " + std::to_string(length) + " exceeds buffer of " +
                                std::to_string(capacity));
    return os_read(fd, buffer, length);
}
