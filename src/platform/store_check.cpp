#include "tnef/platform/store_check.h"

#include <dirent.h>
#include <fcntl.h>
#include <signal.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <set>
#include <string>
#include <tuple>
#include <vector>

#include "store_internal.h"
#include "tnef/platform/im_items.h"
#include "tnef/platform/os_file.h"
#include "tnef/platform/tf_msgfile.h"

namespace store {

std::vector<ItemRef> namedItems(const std::string& bytes) {
    std::vector<ItemRef> refs;
    const auto* data = reinterpret_cast<const unsigned char*>(bytes.data());
    auto refAt = [&](size_t pos, uint32_t length, size_t offset) {
        if (offset + 16 > length) return;
        const unsigned char* p = data + pos + offset;
        const ItemRef r{{getLe32(p), getLe32(p + 4), getLe32(p + 8), getLe32(p + 12)}};
        if (r.w[0] == IM_KIND_OBJECT || r.w[0] == IM_KIND_DATA) refs.push_back(r);
    };
    for (size_t pos = 0; bytes.size() - pos >= TF_RECORD_HEADER;) {
        const uint32_t length = getLe32(data + pos);
        if (length < TF_RECORD_HEADER || length > bytes.size() - pos) break;
        const uint32_t type = getLe32(data + pos + 4);
        if (type == TFREC_OBJECT && length > 24) {
            // The reference follows the name, at the next multiple of 4.
            const void* nul = std::memchr(data + pos + 24, 0, length - 24);
            if (nul != nullptr) {
                const size_t end = static_cast<size_t>(static_cast<const unsigned char*>(nul) - (data + pos)) + 1;
                refAt(pos, length, (end + 3) & ~size_t{3});
            }
        } else if ((type == TFREC_PROPS_DATA || type == TFREC_PROPS2_DATA) && length >= 44 &&
                   getLe32(data + pos + 24) == 1) {
            refAt(pos, length, 28);
        }
        pos += length;
    }
    return refs;
}

}  // namespace store

uint32_t StoreCheckReport::remaining() const {
    uint32_t n = 0;
    for (const StoreFinding& f : findings) n += f.removed ? 0 : 1;
    return n;
}

namespace {

std::vector<std::string> namesIn(const std::string& folder) {
    std::vector<std::string> names;
    if (DIR* dir = ::opendir(folder.c_str())) {
        while (const dirent* e = ::readdir(dir))
            if (std::strcmp(e->d_name, ".") != 0 && std::strcmp(e->d_name, "..") != 0)
                names.emplace_back(e->d_name);
        ::closedir(dir);
    }
    return names;
}

int64_t ageOf(const struct stat& st) {
    return static_cast<int64_t>(std::time(nullptr)) - static_cast<int64_t>(st.st_mtime);
}

// The pid in an item's name (<seconds>-<pid>-<random>), 0 when the name is none of ours.
uint32_t ownerOf(const std::string& name) {
    unsigned seconds = 0, pid = 0, random = 0;
    char end = 0;
    if (name.size() != 26 || std::sscanf(name.c_str(), "%8x-%8x-%8x%c", &seconds, &pid, &random, &end) != 3)
        return 0;
    return pid;
}

bool processAlive(uint32_t pid) {
    return pid != 0 && (::kill(static_cast<pid_t>(pid), 0) == 0 || errno == EPERM);
}

// A staged folder whose process still holds it is work under way.
bool heldByItsProcess(const std::string& folder) {
    const int fd = ::open(folder.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    if (fd < 0) return false;
    const bool held = ::flock(fd, LOCK_EX | LOCK_NB) != 0 && errno == EWOULDBLOCK;
    ::close(fd);
    return held;
}

bool removeTree(const std::string& path) {
    struct stat st;
    if (::lstat(path.c_str(), &st) != 0) return errno == ENOENT;
    if (!S_ISDIR(st.st_mode)) return mdc_unlink(path.c_str()) == 0 || errno == ENOENT;
    for (const std::string& name : namesIn(path)) removeTree(path + "/" + name);
    return mdc_rmdir(path.c_str()) == 0 || errno == ENOENT;
}

std::string readAll(const std::string& path, bool* ok) {
    std::string bytes;
    *ok = false;
    const int fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
    if (fd < 0) return bytes;
    char chunk[65536];
    ssize_t n;
    while ((n = ::read(fd, chunk, sizeof chunk)) > 0) bytes.append(chunk, static_cast<size_t>(n));
    *ok = n == 0;
    ::close(fd);
    return bytes;
}

// Whether the bytes are whole records; counts the counted content-file records.
bool wholeRecords(const std::string& bytes, uint32_t* counted) {
    const auto* data = reinterpret_cast<const unsigned char*>(bytes.data());
    *counted = 0;
    for (size_t pos = 0; pos < bytes.size();) {
        if (bytes.size() - pos < TF_RECORD_HEADER) return false;
        const uint32_t length = store::getLe32(data + pos);
        if (length < TF_RECORD_HEADER || length > TF_RECORD_MAX || length > bytes.size() - pos)
            return false;
        if (store::getLe32(data + pos + 4) == TFREC_CONTENT_FILE &&
            (length < 28 || (store::getLe32(data + pos + 24) & TF_CONTENT_NOT_COUNTED) == 0))
            ++*counted;
        pos += length;
    }
    return true;
}

using RefKey = std::tuple<uint32_t, uint32_t, uint32_t, uint32_t>;
RefKey keyOf(const ItemRef& r) { return {r.w[0], r.w[1], r.w[2], r.w[3]}; }

class Checker {
public:
    Checker(bool repair, int64_t minAge) : repair_(repair), minAge_(minAge) {}

    StoreCheckReport run() {
        staging();
        messages();
        items(IM_KIND_OBJECT, "~/store/objects", "object");
        items(IM_KIND_DATA, "~/store/items", "item");
        items(IM_KIND_TEMP, "~/tmp/items", "temporary");
        return report_;
    }

private:
    void add(const std::string& kind, const std::string& path, const std::string& detail,
             bool leftover, const struct stat* st) {
        StoreFinding f{kind, path, detail, false, false};
        if (leftover && st != nullptr && ageOf(*st) < minAge_)
            f.detail += " (younger than " + std::to_string(minAge_) + " s: kept)";
        else
            f.removable = leftover;
        if (f.removable && repair_) f.removed = removeTree(path);
        report_.findings.push_back(std::move(f));
    }

    void staging() {
        const std::string root = os_ResolvePath("~/store/staging");
        for (const std::string& name : namesIn(root)) {
            const std::string path = root + "/" + name;
            struct stat st;
            if (::lstat(path.c_str(), &st) != 0) continue;
            if (S_ISDIR(st.st_mode) && heldByItsProcess(path)) {
                // Work under way: what its message file names is not an orphan.
                bool ok = false;
                for (const ItemRef& r : store::namedItems(readAll(path + "/msgfile", &ok)))
                    referenced_.insert(keyOf(r));
                continue;
            }
            add("staged", path, "a message whose decode never finished", true, &st);
        }
    }

    void messages() {
        const std::string root = os_ResolvePath("~/store/messages");
        for (const std::string& name : namesIn(root)) {
            const std::string folder = root + "/" + name;
            struct stat st;
            if (::lstat(folder.c_str(), &st) != 0) continue;
            if (!S_ISDIR(st.st_mode) || name.size() != 16 ||
                name.find_first_not_of("0123456789abcdef") != std::string::npos) {
                add("stray", folder, "not a message folder", true, &st);
                continue;
            }
            bool ok = false;
            const std::string bytes = readAll(folder + "/msgfile", &ok);
            uint32_t counted = 0;
            if (!ok || !wholeRecords(bytes, &counted)) {
                add("damaged-message", folder,
                    ok ? "its message file does not read record by record" : "no message file", true, &st);
                continue;
            }
            ++report_.messages;
            members(folder, counted);
            for (const ItemRef& r : store::namedItems(bytes)) {
                referenced_.insert(keyOf(r));
                struct stat item;
                if (::stat(im_ItemRef2FName(r).c_str(), &item) != 0)
                    add("missing-object", folder + "/msgfile",
                        "names " + im_ItemRefText(r) + ", which is gone", false, nullptr);
            }
        }
    }

    // Parts run 1, 2, ... without gaps and never beyond what the records count.
    void members(const std::string& folder, uint32_t counted) {
        for (const std::string& name : namesIn(folder)) {
            const std::string path = folder + "/" + name;
            struct stat st;
            if (::lstat(path.c_str(), &st) != 0 || name == "msgfile") continue;
            unsigned long part = 0;
            char* end = nullptr;
            if (name.rfind("part-", 0) == 0) part = std::strtoul(name.c_str() + 5, &end, 10);
            if (part == 0 || end == nullptr || *end != '\0') {
                add("stray", path, "no member of a message", true, &st);
                continue;
            }
            struct stat before;
            const bool gap = part > 1 && ::stat((folder + "/part-" + std::to_string(part - 1)).c_str(), &before) != 0;
            if (part > counted || gap)
                add("unreferenced-part", path,
                    gap ? "a part after a gap" : "no record of the message file counts it", true, &st);
        }
    }

    void items(uint32_t kind, const char* folder, const char* what) {
        const std::string root = os_ResolvePath(folder);
        for (const std::string& name : namesIn(root)) {
            const std::string path = root + "/" + name;
            struct stat st;
            if (::lstat(path.c_str(), &st) != 0) continue;
            const uint32_t owner = ownerOf(name);
            if (owner != 0 && processAlive(owner)) continue;  // its process may still use it
            unsigned w1 = 0, w2 = 0, w3 = 0;
            std::sscanf(name.c_str(), "%8x-%8x-%8x", &w1, &w2, &w3);
            if (referenced_.count({kind, w1, w2, w3}) != 0) continue;
            // Data items stay as long as a message part shares them.
            if (kind == IM_KIND_DATA && st.st_nlink > 1) continue;
            add(what, path,
                kind == IM_KIND_TEMP ? "a temporary item its process left"
                                     : "no message names it", true, &st);
        }
    }

    bool repair_;
    int64_t minAge_;
    StoreCheckReport report_;
    std::set<RefKey> referenced_;
};

}  // namespace

StoreCheckReport store_Check(bool repair, int64_t minAgeSeconds) {
    os_SyncFiles();
    return Checker(repair, minAgeSeconds).run();
}

StoreCheckCounts store_CountAbandoned(int64_t minAgeSeconds) {
    StoreCheckCounts counts;
    for (const char* folder : {"~/store/staging", "~/tmp/items"}) {
        const std::string root = os_ResolvePath(folder);
        for (const std::string& name : namesIn(root)) {
            const std::string path = root + "/" + name;
            struct stat st;
            if (::lstat(path.c_str(), &st) != 0 || ageOf(st) < minAgeSeconds) continue;
            const bool abandoned = S_ISDIR(st.st_mode) ? !heldByItsProcess(path) : !processAlive(ownerOf(name));
            counts.abandoned += abandoned ? 1 : 0;
        }
    }
    return counts;
}
