#include "tnef/platform/im_items.h"

#include <fcntl.h>
#include <pthread.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <random>
#include <string>

#include "store_internal.h"
#include "tnef/platform/er_escape.h"
#include "tnef/platform/msg_store.h"
#include "tnef/platform/os_file.h"

namespace {

constexpr const char* kUnit = "src/platform/im_items";

// Another process may hold the name we drew; this many draws in a row all taken means
// something other than chance is wrong (a full folder, a broken random source).
constexpr int kNameAttempts = 64;

const char* folderOf(uint32_t kind) {
    switch (kind) {
        case IM_KIND_DATA: return "~/store/items/";
        case IM_KIND_TEMP: return "~/tmp/items/";
        case IM_KIND_OBJECT: return "~/store/objects/";
        default: return nullptr;
    }
}

}  // namespace

namespace store {

void raiseErrno(int err, const char* unit, int line, std::string detail) {
    er_TracedEscapeText(ER_GROUP_IO, err, unit, line, std::move(detail));
}

uint32_t randomWord() {
    // The pid sits in the name beside this word, so a child that inherits the parent's
    // generator state after fork still draws names of its own.
    static std::mt19937 generator = [] {
        std::random_device device;
        std::seed_seq seed{device(), device(), static_cast<unsigned>(::getpid()),
                           static_cast<unsigned>(std::time(nullptr))};
        return std::mt19937(seed);
    }();
    return static_cast<uint32_t>(generator());
}

uint32_t processId() {
    // getpid is a system call per new name; the id only changes in a forked child.
    static pid_t cached = [] {
        ::pthread_atfork(nullptr, nullptr, [] { cached = 0; });
        return ::getpid();
    }();
    if (cached == 0) cached = ::getpid();
    return static_cast<uint32_t>(cached);
}

std::string homePath(const std::string& relative) { return os_ResolvePath(relative); }

std::string hex8(uint32_t value) {
    char text[9];
    std::snprintf(text, sizeof text, "%08x", value);
    return text;
}

}  // namespace store

void im_ItemRef2FName(const ItemRef& ref, std::string* fileName) {
    if (ref.w[0] == IM_KIND_MESSAGE) {
        *fileName = msg_FolderPath(ref.w[1], ref.w[2]) +
                    (ref.w[3] == 0 ? std::string("/msgfile") : "/part-" + std::to_string(ref.w[3]));
        return;
    }
    const char* folder = folderOf(ref.w[0]);
    if (folder == nullptr)
        store::raise(ER_STORE_BAD_REFERENCE, kUnit, __LINE__,
                     "item reference " + im_ItemRefText(ref) + " is of no known kind");
    *fileName = store::homePath(std::string(folder) + store::hex8(ref.w[1]) + "-" +
                                store::hex8(ref.w[2]) + "-" + store::hex8(ref.w[3]));
}

std::string im_ItemRef2FName(const ItemRef& ref) {
    std::string name;
    im_ItemRef2FName(ref, &name);
    return name;
}

std::string im_ItemRefText(const ItemRef& ref) {
    return std::to_string(ref.w[0]) + ":" + store::hex8(ref.w[1]) + "-" + store::hex8(ref.w[2]) +
           "-" + store::hex8(ref.w[3]);
}

int im_CrNewItem(uint32_t kind, ItemRef* ref) {
    if (folderOf(kind) == nullptr)
        store::raise(ER_STORE_BAD_ARGUMENT, kUnit, __LINE__,
                     "items of kind " + std::to_string(kind) + " are not created here");
    for (int attempt = 0; attempt < kNameAttempts; ++attempt) {
        ItemRef candidate{{kind, static_cast<uint32_t>(std::time(nullptr)),
                           store::processId(), store::randomWord()}};
        const std::string path = im_ItemRef2FName(candidate);
        try {
            const int fd = os_open(path.c_str(), O_RDWR | O_CREAT | O_EXCL, 0660);
            *ref = candidate;
            return fd;
        } catch (const Escape& e) {
            if (e.group != ER_GROUP_IO || e.reason != EEXIST) throw;
        }
    }
    store::raiseErrno(EEXIST, kUnit, __LINE__,
                      "no free item name in " + store::homePath(folderOf(kind)) + " after " +
                          std::to_string(kNameAttempts) + " attempts");
}

int im_CrNewDataItem(uint32_t* kind, ItemRef* ref) {
    const int fd = im_CrNewItem(IM_KIND_DATA, ref);
    if (kind != nullptr) *kind = IM_KIND_DATA;
    return fd;
}

int im_CrNewTempItem(uint32_t* kind, ItemRef* ref) {
    const int fd = im_CrNewItem(IM_KIND_TEMP, ref);
    if (kind != nullptr) *kind = IM_KIND_TEMP;
    return fd;
}

int im_CrNewTempItem(ItemRef* ref) { return im_CrNewTempItem(nullptr, ref); }

void im_UnlinkItem(const ItemRef& ref) {
    const std::string path = im_ItemRef2FName(ref);
    if (mdc_unlink(path.c_str()) != 0 && errno != ENOENT)
        store::raiseErrno(errno, kUnit, __LINE__, "cannot remove " + path);
}

ImItemOwner::~ImItemOwner() {
    if (!owned_) return;
    try {
        im_UnlinkItem(ref_);
    } catch (const Escape&) {
        // A destructor runs while another escape may be passing; that one matters more.
    }
}

void ImItemOwner::unlink() {
    if (!owned_) return;
    owned_ = false;
    im_UnlinkItem(ref_);
}

// ---- Item files -------------------------------------------------------------------------------

struct SflFile {
    int fd;
    std::string path;
};

SflFile* sfl_fOpenItem(const ItemRef& ref, const char* mode) {
    const std::string m = mode != nullptr ? mode : "";
    int flags;
    if (m == "r" || m == "rb")
        flags = O_RDONLY;
    else if (m == "w" || m == "wb")
        flags = O_WRONLY | O_CREAT | O_TRUNC;
    else
        store::raise(ER_STORE_BAD_ARGUMENT, kUnit, __LINE__,
                     "item open mode \"" + m + "\" is not supported");
    std::string path = im_ItemRef2FName(ref);
    OsFd fd(os_open(path.c_str(), flags, 0660));
    auto* file = new SflFile{fd.get(), std::move(path)};
    fd.release();
    return file;
}

size_t sfl_fRead(void* buffer, size_t size, size_t count, SflFile* file) {
    if (size == 0 || count == 0) return 0;
    const int64_t got = os_read(file->fd, buffer, static_cast<int64_t>(size * count));
    return static_cast<size_t>(got) / size;
}

size_t sfl_fWrite(const void* buffer, size_t size, size_t count, SflFile* file) {
    if (size == 0 || count == 0) return 0;
    os_write(file->fd, buffer, static_cast<int64_t>(size * count));
    return count;
}

void sfl_fClose(SflFile* file) {
    if (file == nullptr) return;
    const int fd = file->fd;
    delete file;
    os_close(fd);
}

SflFileOwner::~SflFileOwner() {
    if (file_ == nullptr) return;
    OsFd closer(file_->fd);  // closes without raising
    delete file_;
}

void SflFileOwner::close() {
    SflFile* file = file_;
    file_ = nullptr;
    sfl_fClose(file);
}
