// Writes N generated TNEF files into a folder, for timing the Dask recipe against the tool:
//   tnef_make_archive DIR N
// Each file is a message with a subject, a sender, a body, a recipient and one to three
// attachments of 1 to 8 KiB whose names are unique across the archive (so one folder can
// hold every file's attachments and two extractions compare with diff -r). One in fifty
// files is cut short, as a damaged archive holds some.
#include <cstdio>
#include <cstdlib>
#include <string>

#include "support/tnef_builder.h"

using namespace tnefbuild;
using namespace std::string_literals;

int main(int argc, char** argv) {
    if (argc != 3) {
        std::fprintf(stderr, "usage: tnef_make_archive DIR N\n");
        return 2;
    }
    const std::string dir = argv[1];
    const long count = std::strtol(argv[2], nullptr, 10);
    const std::string rend = bytesOf({1, 0, 0xFF, 0xFF, 0xFF, 0xFF, 0, 0, 0, 0, 0, 0, 0, 0});
    for (long n = 0; n < count; ++n) {
        char stem[32];
        std::snprintf(stem, sizeof stem, "m%06ld", n);
        Stream s;
        s.header().tnefVersion().oemCodepage(1252);
        s.record(1, 0x00018004, "Report " + std::to_string(n) + '\0');  // attSubject
        s.record(1, 0x00069003, PropList()
                                    .string8(0x0C1F001E, "sender" + std::to_string(n % 97) + "@example.com")
                                    .long32(0x00170003, 1)
                                    .string8(0x1000001E, "Body of message " + std::to_string(n) + "\r\n")
                                    .bytes());
        s.record(1, 0x00069004, RecipTable()
                                    .row(PropList().string8(0x3001001E, "Someone").string8(
                                        0x3003001E, "someone@example.com"))
                                    .bytes());
        const int attachments = 1 + static_cast<int>(n % 3);
        for (int a = 0; a < attachments; ++a) {
            const std::string name = std::string(stem) + "-" + std::to_string(a + 1) + (a == 1 ? ".pdf" : ".txt");
            const size_t size = 1024 + static_cast<size_t>((n * 7919 + a * 104729) % (7 * 1024));
            std::string data(size, '\0');
            for (size_t i = 0; i < size; ++i) data[i] = static_cast<char>('a' + (i * 31 + n + a) % 26);
            s.record(2, 0x00069002, rend).record(2, 0x00018010, name + '\0').record(2, 0x0006800F, data);
            s.record(2, 0x00069005, PropList().string8(0x3707001E, name).bytes());
        }
        if (n % 50 == 49) s.cut(s.size() - 600);
        writeFile(dir + "/" + stem + ".tnef", s.bytes());
    }
    return 0;
}
