// The mail filter over whole mails: GMime's parsing and our conversion together. A mail that
// comes out unchanged must be byte for byte the input; a converted one must parse again.
#include <gmime/gmime.h>

#include <cstdlib>
#include <string>

#include "fuzz_support.h"
#include "tnef/tnef_unwrap.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    fuzzsupport::DescriptorCheck descriptors;
    const std::string mail(reinterpret_cast<const char*>(data), size);
    std::string out;
    const TnefUnwrapResult r = tnef_UnwrapBytes(mail, &out);
    if (r.status != TNEF_UNWRAP_CONVERTED) {
        if (out != mail) std::abort();
        return 0;
    }
    GMimeStream* s = g_mime_stream_mem_new_with_buffer(out.data(), out.size());
    GMimeParser* p = g_mime_parser_new_with_stream(s);
    GMimeMessage* m = g_mime_parser_construct_message(p, nullptr);
    if (m == nullptr || g_mime_message_get_mime_part(m) == nullptr) std::abort();
    g_object_unref(m);
    g_object_unref(p);
    g_object_unref(s);
    return 0;
}
