// The reader: the message view, then a raw walk of every record, property and value, with
// every range the cursors hand out checked to lie inside the file.
#include <cstdlib>

#include "fuzz_support.h"
#include "tnef/tnef_reader.h"

namespace {

void require(bool holds) {
    if (!holds) std::abort();
}

void walkProps(TnefPropCursor& pc, uint64_t size) {
    TnefProp p;
    while (tnef_NextProp(&pc, &p)) {
        TnefValue v;
        while (tnef_NextValue(&pc, &v)) {
            require(v.offset <= size && v.length <= size - v.offset);
            (void)tnef_ValueText(pc.records, &v, 4096);
        }
    }
}

void walk(TnefRecordCursor& rc, uint64_t size) {
    TnefRecord r;
    while (tnef_NextRecord(&rc, &r)) {
        require(r.offset <= size && r.available <= size - r.offset);
        TnefPropCursor pc;
        TnefRowCursor rows;
        if ((r.id == 0x00069003 || r.id == 0x00069005) && tnef_OpenProps(&pc, &rc, &r))
            walkProps(pc, size);
        if (r.id == 0x00069004 && tnef_OpenRows(&rows, &rc, &r))
            while (tnef_NextRow(&rows, &pc)) walkProps(pc, size);
    }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    static fuzzsupport::ScratchHome home;
    fuzzsupport::DescriptorCheck descriptors;
    const int fd = fuzzsupport::inputFd(home, data, size);
    try {
        TnefMessageView view;
        tnef_ReadMessage(fd, &view);
        TnefRecordCursor rc;
        tnef_OpenRecords(&rc, fd);
        walk(rc, size);
    } catch (const Escape&) {
    }
    ::close(fd);
    return 0;
}
