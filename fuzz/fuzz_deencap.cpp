// De-encapsulation: the input as RTF, read for the HTML or text it carries (or its plain
// text when it carries none), whole and a piece at a time; the two readings must agree.
#include <algorithm>
#include <cstdlib>
#include <string>
#include <string_view>

#include "fuzz_support.h"
#include "tnef/tnef_body.h"

namespace {

void append(void* context, const char* bytes, size_t n) {
    static_cast<std::string*>(context)->append(bytes, n);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    const std::string_view rtf(reinterpret_cast<const char*>(data), size);
    const TnefDeencapsulated whole = tnef_DeencapsulateRtf(rtf);
    // The piece size comes from the input, so that every cut is reached.
    const size_t piece = size == 0 ? 1 : data[size - 1] % 64 + 1;
    std::string text;
    TnefDeencapStream stream;
    tnef_DeencapBegin(&stream, TnefByteSink{append, &text});
    for (size_t at = 0; at < size; at += piece) tnef_DeencapFeed(&stream, rtf.data() + at, std::min(piece, size - at));
    const TnefDeencapsulated streamed = tnef_DeencapEnd(&stream);
    if (text != whole.text || streamed.kind != whole.kind || streamed.encapsulated != whole.encapsulated)
        std::abort();
    return 0;
}
