// Reads a winmail.dat: its subject, recipients and attachments. No server home, no store.
#include <fcntl.h>
#include <unistd.h>

#include <cstdio>

#include <tnef/platform/er_escape.h>
#include <tnef/tnef_reader.h>

int main(int argc, char** argv) {
    const int fd = open(argc > 1 ? argv[1] : "winmail.dat", O_RDONLY);
    if (fd < 0) return 2;
    try {
        TnefMessageView message;
        tnef_ReadMessage(fd, &message);
        std::printf("subject: %s\n", message.subject.c_str());
        for (const auto& row : message.recipients)
            if (const TnefPropEntry* name = tnef_FindProp(row, 0x3001001E))  // PR_DISPLAY_NAME
                std::printf("to: %s\n", name->texts.at(0).c_str());
        for (const TnefAttachInfo& a : message.attachments)
            std::printf("attachment: %s (%llu bytes)\n", tnef_AttachBestName(a).c_str(),
                        static_cast<unsigned long long>(a.dataLength));
        if (message.flags & TNEF_READ_BAD_CHECKSUM) std::printf("warning: bad checksum\n");
    } catch (const Escape& e) {  // 102/1531: not TNEF; 100/errno: the file cannot be read
        std::fprintf(stderr, "%s\n", e.what());
        return 2;
    }
    close(fd);
}
