// Compressed RTF: the input as a PR_RTF_COMPRESSED value, decompressed; what comes out must
// stay under the stated ceiling and compress back to a value that gives it again.
#include <cstdlib>
#include <string>

#include "fuzz_support.h"
#include "tnef/tnef_body.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    std::string rtf;
    uint32_t flags = 0;
    if (tnef_DecompressRtf(data, size, &rtf, &flags) != TNEF_RTF_OK) return 0;
    if (rtf.size() > TNEF_RTF_OUTPUT_LIMIT) std::abort();
    const std::string again = tnef_CompressRtf(rtf);
    std::string back;
    uint32_t backFlags = 0;
    if (tnef_DecompressRtf(again.data(), again.size(), &back, &backFlags) != TNEF_RTF_OK || back != rtf ||
        backFlags != 0)
        std::abort();
    return 0;
}
