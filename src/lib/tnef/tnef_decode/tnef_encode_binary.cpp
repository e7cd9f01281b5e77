#include "tnef/platform/mapi_blob.h"
#include "tnef/tnef.h"

// The decoder's property texts use the platform's blob escaping, so either side reads what
// the other writes.
int32_t tnef_EncodeBinary(char* destination, const void* source, int32_t length) {
    if (length <= 0) return 0;
    return static_cast<int32_t>(
        mapi_BlobEncodeBytes(destination, source, static_cast<size_t>(length)));
}
