#include "tnef_prop/tnef_proplog.h"

#include <unistd.h>

#include <cstdarg>
#include <string>

#include "tnef/platform/os_file.h"

int hitTnefEof = 0;
FILE* tnefPropLog = nullptr;

void tnef_OpenPropLog() {
    if (tnefPropLog != nullptr || !os_fexists("~/sys/tnef.dbg")) return;
    const std::string name = "~/tmp/tnef.log." + std::to_string(::getpid());
    tnefPropLog = os_fopen(name.c_str(), "a");
}

void tnef_ClosePropLog() {
    os_fclose(tnefPropLog);
    tnefPropLog = nullptr;
}

void tnef_PropLogf(const char* format, ...) {
    if (tnefPropLog == nullptr) return;
    va_list args;
    va_start(args, format);
    std::vfprintf(tnefPropLog, format, args);
    va_end(args);
}

int tnef_PropRead(int fd, void* buffer, uint32_t length, uint32_t* bytesRead, int* eofFlag) {
    *bytesRead = 0;
    if (*eofFlag) return 0;
    if (length == 0) return 1;
    // A failing read ends the walk like the end of the file does, without an escape.
    const int64_t n = mdc_read(fd, buffer, length);
    if (n < 0) {
        *eofFlag = 1;
        return 0;
    }
    *bytesRead = static_cast<uint32_t>(n);
    if (n == 0) *eofFlag = 1;
    return 1;
}

int64_t tnef_PropSeek(int fd, int64_t offset, int whence, int* eofFlag) {
    if (whence == 0 || whence == 2) *eofFlag = 0;
    if (*eofFlag) return -1;
    const auto u = static_cast<uint64_t>(offset);
    return mdc_lseek(fd, static_cast<uint32_t>(u), static_cast<int32_t>(u >> 32), whence);
}
