// De-encapsulation: the input as RTF, read for the HTML or text it carries (or its plain
// text when it carries none).
#include <string_view>

#include "fuzz_support.h"
#include "tnef/tnef_body.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    (void)tnef_DeencapsulateRtf(std::string_view(reinterpret_cast<const char*>(data), size));
    return 0;
}
