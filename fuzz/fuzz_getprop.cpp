// tnef_GetProp with "GET-ALL" and both tables, then a single-tag request.
#include <cstdlib>

#include "fuzz_support.h"
#include "tnef/tnef.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    static fuzzsupport::ScratchHome home;
    fuzzsupport::DescriptorCheck descriptors;
    const int fd = fuzzsupport::inputFd(home, data, size);
    for (const char* request : {"GET-ALL", "37010102", "#3/8205"}) {
        char* props = nullptr;
        char* recips = nullptr;
        char* attach = nullptr;
        try {
            tnef_GetProp(fd, request, &props, &recips, &attach, "input.tnef");
        } catch (const Escape&) {
        }
        std::free(props);
        std::free(recips);
        std::free(attach);
    }
    ::close(fd);
    return 0;
}
