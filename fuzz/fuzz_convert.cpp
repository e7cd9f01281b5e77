// The calendar and contact converter: every message of the file (embedded ones too) that
// converts must give an iCalendar that libical reads back without an error.
#include <libical/ical.h>

#include <cstdlib>

#include "fuzz_support.h"
#include "tnef/tnef_convert.h"

namespace {

void convertAll(int fd, const TnefMessageView& view) {
    const TnefConverted c = tnef_ConvertMessage(fd, view);
    if (c.kind == TNEF_CONVERT_ICALENDAR) {
        icalcomponent* cal = icalparser_parse_string(c.text.c_str());
        if (cal == nullptr || icalcomponent_count_errors(cal) != 0) std::abort();
        icalcomponent_free(cal);
    }
    if (c.kind == TNEF_CONVERT_VCARD && c.text.rfind("BEGIN:VCARD\r\nVERSION:4.0\r\n", 0) != 0)
        std::abort();
    for (const TnefMessageView& inner : view.embedded) convertAll(fd, inner);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    static fuzzsupport::ScratchHome home;
    fuzzsupport::DescriptorCheck descriptors;
    const int fd = fuzzsupport::inputFd(home, data, size);
    try {
        TnefMessageView view;
        tnef_ReadMessage(fd, &view);
        convertAll(fd, view);
    } catch (const Escape&) {
    }
    ::close(fd);
    return 0;
}
