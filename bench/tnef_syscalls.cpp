// Counts the system calls of one decode. The file is decoded twice in one process and home,
// as a server decodes one message after another; the second decode is counted, through the
// platform's system-call table (reads, writes, seeks, opens, closes) and, for every other
// call, by strace between two getppid markers (bench/syscalls.sh).
//
//   tnef_syscalls FILE [--unbuffered] [--cold]
//
// --unbuffered turns the descriptor buffers off; --cold counts the first decode instead,
// in a fresh home (folders still to make, character set modules still to load).
#include <stdlib.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cstdio>
#include <cstring>
#include <filesystem>
#include <string>

#include "tnef/platform/er_escape.h"
#include "tnef/platform/msg_builder.h"
#include "tnef/platform/msg_store.h"
#include "tnef/platform/os_file.h"
#include "tnef/platform/tf_msgfile.h"
#include "tnef/tnef.h"

namespace {

int g_counts[5];
OsSysCalls g_real;

OsSysCalls countingCalls() {
    OsSysCalls c = g_real;
    c.open = [](const char* p, int f, mode_t m) { ++g_counts[0]; return g_real.open(p, f, m); };
    c.read = [](int fd, void* b, size_t n) { ++g_counts[1]; return g_real.read(fd, b, n); };
    c.write = [](int fd, const void* b, size_t n) { ++g_counts[2]; return g_real.write(fd, b, n); };
    c.lseek = [](int fd, off_t o, int w) { ++g_counts[3]; return g_real.lseek(fd, o, w); };
    c.close = [](int fd) { ++g_counts[4]; return g_real.close(fd); };
    return c;
}

// Builds the received message and decodes into it; counted when calls is given.
void decodeOnce(const char* path, const OsSysCalls* calls) {
    ReceivedMessage received;
    received.tnefPath = path;
    int16_t messageFile = 0;
    MsgOwner message(Msg_BuildReceived(received, &messageFile));
    uint16_t receipt = 0;
    uint32_t reply = 0;
    if (calls != nullptr) {
        os_SetSysCalls(calls);
        syscall(SYS_getppid);  // marker for strace
    }
    try {
        tnef_Decode(message.get(), &messageFile, path, &receipt, &reply, 0, 0);
    } catch (const Escape& e) {
        std::fprintf(stderr, "escape %d/%d\n", e.group, e.reason);
    }
    if (calls != nullptr) {
        syscall(SYS_getppid);
        os_SetSysCalls(nullptr);
    }
    TfFileOwner(messageFile).discardItem();
}

}  // namespace

int main(int argc, char** argv) {
    if (argc < 2) {
        std::fprintf(stderr, "usage: tnef_syscalls FILE [--unbuffered] [--cold]\n");
        return 2;
    }
    bool cold = false;
    for (int i = 2; i < argc; ++i) {
        if (std::strcmp(argv[i], "--unbuffered") == 0) os_SetIoBufferSize(0);
        if (std::strcmp(argv[i], "--cold") == 0) cold = true;
    }
    char dir[] = "/tmp/tnef-syscalls-XXXXXX";
    if (mkdtemp(dir) == nullptr) return 1;
    os_SetHome(dir);
    g_real = os_GetSysCalls();
    const OsSysCalls counting = countingCalls();
    try {
        if (!cold) decodeOnce(argv[1], nullptr);
        decodeOnce(argv[1], &counting);
    } catch (const Escape& e) {
        std::fprintf(stderr, "escape %d/%d building the message\n", e.group, e.reason);
    }
    std::printf("open %d read %d write %d lseek %d close %d total %d\n", g_counts[0], g_counts[1],
                g_counts[2], g_counts[3], g_counts[4],
                g_counts[0] + g_counts[1] + g_counts[2] + g_counts[3] + g_counts[4]);
    std::error_code ec;
    std::filesystem::remove_all(dir, ec);
    return 0;
}
