#include "tnef/platform/msg_store.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <cstring>
#include <ctime>
#include <memory>
#include <string>
#include <unordered_map>
#include <vector>

#include "store_internal.h"
#include "tnef/platform/er_escape.h"
#include "tnef/platform/os_file.h"
#include "tnef/platform/store_check.h"
#include "tnef/platform/tf_msgfile.h"

namespace {

constexpr const char* kUnit = "src/platform/msg_store";
constexpr int kNameAttempts = 64;

uint64_t keyOf(uint32_t high, uint32_t low) { return static_cast<uint64_t>(high) << 32 | low; }

// A message this process builds and has not published: its folder lies under
// ~/store/staging/, where no reader looks, locked (flock) so that a sweep can tell it from
// one a dead process left. Its handles resolve its members there until Msg_Save publishes it.
struct Staging {
    std::string folder;
    OsFd lock;
    int handles = 0;
};

// Set by Msg_Create, read by msg_FolderPath, cleared by publishing, deleting or closing the
// last handle of the message.
std::unordered_map<uint64_t, Staging>& stagings() {
    static std::unordered_map<uint64_t, Staging> table;
    return table;
}

void discardStaged(uint64_t key);

struct Message {
    uint32_t high;
    uint32_t low;
    // Parts counted last time: counting resumes there, so attaching n parts costs n checks
    // rather than n * n / 2. Parts have no gaps, so the hint holds while its part exists.
    uint32_t partsSeen = 0;
    bool staged = false;

    Message(uint32_t h, uint32_t l, bool s = false) : high(h), low(l), staged(s) {
        if (staged) ++stagings().at(keyOf(high, low)).handles;
    }
    Message(const Message&) = delete;
    Message& operator=(const Message&) = delete;
    // The last handle of a message never published takes its staged folder with it.
    ~Message() {
        if (!staged) return;
        const auto it = stagings().find(keyOf(high, low));
        if (it != stagings().end() && --it->second.handles == 0) discardStaged(it->first);
    }
};

store::HandleTable<Message>& messages() {
    static store::HandleTable<Message> table;
    return table;
}

Message& lookup(int16_t msg) { return messages().get(msg, kUnit, __LINE__, "message"); }

std::string folderOf(const Message& m) { return msg_FolderPath(m.high, m.low); }

std::string idOf(const Message& m) { return store::hex8(m.high) + store::hex8(m.low); }

ItemRef memberRef(const Message& m, uint32_t part) {
    return ItemRef{{IM_KIND_MESSAGE, m.high, m.low, part}};
}

bool parseId(const char* id, uint32_t* high, uint32_t* low) {
    if (id == nullptr || std::strlen(id) != 16) return false;
    for (const char* p = id; *p != '\0'; ++p)
        if (!std::isxdigit(static_cast<unsigned char>(*p))) return false;
    const std::string text(id);
    *high = static_cast<uint32_t>(std::stoul(text.substr(0, 8), nullptr, 16));
    *low = static_cast<uint32_t>(std::stoul(text.substr(8), nullptr, 16));
    return true;
}

// Size of part n, or -1 when the message has no such part. Sizes above 32 bits read as
// the largest 32-bit value, which is what a 32-bit size field can say.
int64_t partSize(const Message& m, uint32_t part) {
    os_SyncFiles();
    struct stat st;
    if (::stat(im_ItemRef2FName(memberRef(m, part)).c_str(), &st) != 0) return -1;
    return std::min<int64_t>(st.st_size, 0xFFFFFFFF);
}

bool partExists(const Message& m, uint32_t part) { return partSize(m, part) >= 0; }

[[noreturn]] void corrupt(const std::string& path, int line, const std::string& what) {
    store::raise(ER_STORE_CORRUPT, kUnit, line, "message file " + path + ": " + what);
}

std::string readWhole(store::MsgFile& file) {
    const int64_t size = store::tfSize(file);
    std::string bytes(static_cast<size_t>(size), '\0');
    os_lseek64(file.fd.get(), 0, SEEK_SET);
    if (os_read(file.fd.get(), bytes.data(), size) != size)
        corrupt(file.path, __LINE__, "changed while being saved");
    return bytes;
}

struct SizeFill {
    size_t offset;  // of the size field within the file
    uint32_t size;
};

// Walks the records, checks their lengths and collects the sizes to fill in.
std::vector<SizeFill> plannedFills(const Message& m, const std::string& bytes,
                                   const std::string& path) {
    std::vector<SizeFill> fills;
    const auto* data = reinterpret_cast<const unsigned char*>(bytes.data());
    uint32_t counted = 0;
    size_t pos = 0;
    while (pos < bytes.size()) {
        const std::string where = " at offset " + std::to_string(pos);
        if (bytes.size() - pos < TF_RECORD_HEADER)
            corrupt(path, __LINE__, "file ends inside the record" + where);
        const uint32_t length = store::getLe32(data + pos);
        if (length < TF_RECORD_HEADER || length > TF_RECORD_MAX || length > bytes.size() - pos)
            corrupt(path, __LINE__, "record" + where + " claims " + std::to_string(length) + " bytes");
        const uint32_t type = store::getLe32(data + pos + 4);
        // Fields past a record's length read as 0, as tf_ReadRecord gives them.
        if (type == TFREC_CONTENT_FILE) {
            const uint32_t flags = length >= 28 ? store::getLe32(data + pos + 24) : 0;
            if ((flags & TF_CONTENT_NOT_COUNTED) == 0) {
                ++counted;
                if (length >= 32 && store::getLe32(data + pos + 28) == 0) {
                    const int64_t size = partSize(m, counted);
                    if (size > 0) fills.push_back({pos + 28, static_cast<uint32_t>(size)});
                }
            }
        }
        pos += length;
    }
    return fills;
}

bool sameFile(int fd, const std::string& path) {
    struct stat a, b;
    return ::fstat(fd, &a) == 0 && ::stat(path.c_str(), &b) == 0 && a.st_dev == b.st_dev &&
           a.st_ino == b.st_ino;
}

[[noreturn]] void failed(int line, const std::string& what) {
    store::raiseErrno(errno, kUnit, line, what);
}

// Makes what a file or folder holds durable. Through the system-call table, so that a test
// can fail it too.
void syncPath(const std::string& path, bool folder) {
    OsFd fd(os_open(path.c_str(), folder ? O_RDONLY | O_DIRECTORY : O_RDONLY, 0));
    if (mdc_fsync(fd.get(), folder ? 0 : 1) != 0) failed(__LINE__, "cannot make " + path + " durable");
    fd.close();
}

// Writes bytes to a new name in the folder and renames it over target; durable when asked
// (a published message's file), else left to the publication that follows.
void replaceFile(const std::string& folder, const std::string& target, const std::string& bytes,
                 bool durable) {
    for (int attempt = 0; attempt < kNameAttempts; ++attempt) {
        const std::string temp = folder + "/.msgfile-" + store::hex8(store::randomWord());
        int raw;
        try {
            raw = os_open(temp.c_str(), O_WRONLY | O_CREAT | O_EXCL, 0660);
        } catch (const Escape& e) {
            if (e.group == ER_GROUP_IO && e.reason == EEXIST) continue;
            throw;
        }
        OsFd fd(raw);
        try {
            os_write(fd.get(), bytes.data(), static_cast<int64_t>(bytes.size()));
            os_SyncFd(fd.get());
            if (durable && mdc_fsync(fd.get(), 1) != 0) failed(__LINE__, "cannot flush " + temp);
            fd.close();
            if (mdc_rename(temp.c_str(), target.c_str(), 0) != 0)
                failed(__LINE__, "cannot rename " + temp + " to " + target);
        } catch (const Escape&) {
            mdc_unlink(temp.c_str());
            throw;
        }
        if (durable) syncPath(folder, true);
        return;
    }
    store::raiseErrno(EEXIST, kUnit, __LINE__, "no free temporary name in " + folder);
}

std::string stagingRoot() { return store::homePath("~/store/staging"); }
std::string publishedFolder(uint32_t high, uint32_t low) {
    return store::homePath("~/store/messages/" + store::hex8(high) + store::hex8(low));
}

// Removes a folder's files and the folder; nothing raises (a failure leaves what the sweep of
// the store check removes later).
void removeFolder(const std::string& folder) {
    if (DIR* dir = ::opendir(folder.c_str())) {
        while (const dirent* entry = ::readdir(dir)) {
            const std::string name = entry->d_name;
            if (name != "." && name != "..") mdc_unlink((folder + "/" + name).c_str());
        }
        ::closedir(dir);
    }
    mdc_rmdir(folder.c_str());
}

void discardStaged(uint64_t key) {
    auto node = stagings().extract(key);
    if (node.empty()) return;
    removeFolder(node.mapped().folder);
}

// Every file of the staged folder and every object its message file names reaches the disk,
// then the folder itself: only then may a reader find the message.
void makeDurable(const Staging& staging, const std::string& bytes) {
    std::vector<std::string> files;
    if (DIR* dir = ::opendir(staging.folder.c_str())) {
        while (const dirent* entry = ::readdir(dir))
            if (entry->d_name[0] != '.') files.push_back(staging.folder + "/" + entry->d_name);
        ::closedir(dir);
    }
    std::vector<ItemRef> objects = store::namedItems(bytes);
    std::erase_if(objects, [](const ItemRef& r) { return r.w[0] != IM_KIND_OBJECT; });
    for (const ItemRef& r : objects) files.push_back(im_ItemRef2FName(r));
    // Writing starts for every file before the first wait, so the waits overlap.
    std::vector<OsFd> open;
    open.reserve(files.size());
    for (const std::string& f : files) {
        open.emplace_back(os_open(f.c_str(), O_RDONLY, 0));
        ::sync_file_range(open.back().get(), 0, 0, SYNC_FILE_RANGE_WRITE);
    }
    for (size_t i = 0; i < open.size(); ++i) {
        if (mdc_fsync(open[i].get(), 1) != 0) failed(__LINE__, "cannot make " + files[i] + " durable");
        open[i].close();
    }
    if (!objects.empty()) syncPath(store::homePath("~/store/objects"), true);
    if (mdc_fsync(staging.lock.get(), 0) != 0)
        failed(__LINE__, "cannot make " + staging.folder + " durable");
}

// The commit point: one rename makes the whole message visible, never a part of it.
void publish(Message& m, const std::string& bytes) {
    const uint64_t key = keyOf(m.high, m.low);
    Staging& staging = stagings().at(key);
    makeDurable(staging, bytes);
    const std::string target = publishedFolder(m.high, m.low);
    int renamed = mdc_rename(staging.folder.c_str(), target.c_str(), RENAME_NOREPLACE);
    // The messages folder is made with the first message a home publishes.
    if (renamed != 0 && errno == ENOENT) {
        os_MakeParentDirs(target);
        renamed = mdc_rename(staging.folder.c_str(), target.c_str(), RENAME_NOREPLACE);
    }
    if (renamed != 0) {
        // A file system without renameat2's flags: a published folder is never empty, so a
        // plain rename still cannot replace one.
        if (errno != EINVAL || mdc_rename(staging.folder.c_str(), target.c_str(), 0) != 0)
            failed(__LINE__, "cannot publish " + staging.folder + " as " + target);
    }
    stagings().erase(key);
    m.staged = false;
    syncPath(store::homePath("~/store/messages"), true);
}

// Logs, once per process and home, abandoned staged messages that a store check would remove.
void quickCheck() {
    static std::string checkedHome;
    const std::string home = os_GetHome();
    if (home == checkedHome) return;
    checkedHome = home;
    const StoreCheckCounts counts = store_CountAbandoned();
    if (counts.abandoned == 0) return;
    const std::string text = "store " + home + ": " + std::to_string(counts.abandoned) +
                             " abandoned staged message(s) or item(s); a store check removes them";
    er_LogMsg(5, ER_GROUP_IO, 24070, text.c_str(), nullptr);
}

}  // namespace

std::string msg_FolderPath(uint32_t idHigh, uint32_t idLow) {
    if (!stagings().empty()) {
        const auto it = stagings().find(keyOf(idHigh, idLow));
        if (it != stagings().end()) return it->second.folder;
    }
    return publishedFolder(idHigh, idLow);
}

int16_t Msg_Create() {
    quickCheck();
    for (int attempt = 0; attempt < kNameAttempts; ++attempt) {
        const uint32_t high = static_cast<uint32_t>(std::time(nullptr));
        const uint32_t low = store::randomWord();
        const std::string folder = stagingRoot() + "/" + store::hex8(high) + store::hex8(low);
        os_MakeParentDirs(folder);
        if (mdc_mkdir(folder.c_str(), 0770) != 0) {
            if (errno == EEXIST) continue;
            failed(__LINE__, "cannot create message folder " + folder);
        }
        // The staged name is taken; a published message of the same id would still collide.
        struct stat st;
        if (::stat(publishedFolder(high, low).c_str(), &st) == 0) {
            mdc_rmdir(folder.c_str());
            continue;
        }
        const uint64_t key = keyOf(high, low);
        try {
            Staging& staging = stagings()[key];
            staging.folder = folder;
            staging.lock = OsFd(os_open(folder.c_str(), O_RDONLY | O_DIRECTORY, 0));
            if (::flock(staging.lock.get(), LOCK_EX | LOCK_NB) != 0)
                failed(__LINE__, "cannot lock " + folder);
            const std::string file = folder + "/msgfile";
            OsFd(os_open(file.c_str(), O_WRONLY | O_CREAT | O_EXCL, 0660)).close();
            return messages().add(std::make_unique<Message>(high, low, true), kUnit, "message");
        } catch (const Escape&) {
            discardStaged(key);
            throw;
        }
    }
    store::raiseErrno(EEXIST, kUnit, __LINE__, "no free message name");
}

int16_t Msg_Open(const char* id) {
    uint32_t high = 0, low = 0;
    if (!parseId(id, &high, &low))
        store::raise(ER_STORE_BAD_ARGUMENT, kUnit, __LINE__,
                     std::string("\"") + (id != nullptr ? id : "") + "\" is not a message id");
    const std::string folder = msg_FolderPath(high, low);
    struct stat st;
    if (::stat(folder.c_str(), &st) != 0 || !S_ISDIR(st.st_mode))
        store::raiseErrno(ENOENT, kUnit, __LINE__, "no message folder " + folder);
    const bool staged = stagings().count(keyOf(high, low)) != 0;
    return messages().add(std::make_unique<Message>(high, low, staged), kUnit, "message");
}

void Msg_Close(int16_t msg) {
    if (!messages().remove(msg))
        store::raise(ER_STORE_BAD_HANDLE, kUnit, __LINE__,
                     "message handle " + std::to_string(msg) + " is not open");
}

void Msg_Delete(int16_t msg) {
    Message& m = lookup(msg);
    const uint64_t key = keyOf(m.high, m.low);
    if (m.staged) {
        m.staged = false;
        discardStaged(key);
        Msg_Close(msg);
        return;
    }
    const std::string folder = folderOf(m);
    Msg_Close(msg);
    removeFolder(folder);
    struct stat st;
    if (::stat(folder.c_str(), &st) == 0)
        store::raiseErrno(ENOTEMPTY, kUnit, __LINE__, "cannot remove message folder " + folder);
}

std::string Msg_GetId(int16_t msg) { return idOf(lookup(msg)); }

std::vector<std::string> Msg_List() {
    std::vector<std::string> ids;
    const std::string root = store::homePath("~/store/messages");
    DIR* dir = ::opendir(root.c_str());
    if (dir == nullptr) return ids;
    while (const dirent* entry = ::readdir(dir)) {
        uint32_t high = 0, low = 0;
        if (parseId(entry->d_name, &high, &low)) ids.emplace_back(entry->d_name);
    }
    ::closedir(dir);
    std::sort(ids.begin(), ids.end());
    return ids;
}

int Msg_OpenHandleCount() { return messages().openCount(); }

int Msg_AttachFile(int16_t msg, const ItemRef& ref) {
    Message& m = lookup(msg);
    const std::string source = im_ItemRef2FName(ref);
    os_SyncFiles();
    // Another process attaching to the same message takes the number first; link() then
    // fails and the next number is tried. A fresh handle starts at part 1 the same way.
    const uint32_t first = m.partsSeen != 0 && partExists(m, m.partsSeen) ? m.partsSeen + 1 : 1;
    for (uint32_t part = first;; ++part) {
        const std::string target = im_ItemRef2FName(memberRef(m, part));
        if (mdc_link(source.c_str(), target.c_str()) == 0) {
            m.partsSeen = part;
            return static_cast<int>(part);
        }
        if (errno != EEXIST) failed(__LINE__, "cannot link " + source + " to " + target);
    }
}

void Msg_GetAttachedFile(int16_t msg, ItemRef* ref, uint32_t partNumber) {
    const Message& m = lookup(msg);
    if (partNumber == 0 || !partExists(m, partNumber))
        store::raise(ER_STORE_NO_PART, kUnit, __LINE__,
                     "message " + idOf(m) + " has no part " + std::to_string(partNumber));
    *ref = memberRef(m, partNumber);
}

void Msg_DetachFile(int16_t msg, uint32_t partNumber) {
    Message& m = lookup(msg);
    if (partNumber == 0 || !partExists(m, partNumber) || partExists(m, partNumber + 1))
        store::raise(ER_STORE_NO_PART, kUnit, __LINE__,
                     "part " + std::to_string(partNumber) + " is not the last part");
    const std::string link = im_ItemRef2FName(memberRef(m, partNumber));
    if (mdc_unlink(link.c_str()) != 0) failed(__LINE__, "cannot remove " + link);
    m.partsSeen = partNumber - 1;
}

uint32_t Msg_GetPartCount(int16_t msg) {
    Message& m = lookup(msg);
    uint32_t count = m.partsSeen != 0 && partExists(m, m.partsSeen) ? m.partsSeen : 0;
    while (partExists(m, count + 1)) ++count;
    m.partsSeen = count;
    return count;
}

void Msg_GetFileRef(int16_t msg, ItemRef* ref) { *ref = memberRef(lookup(msg), 0); }

int16_t Msg_OpenFile(int16_t msg) {
    ItemRef ref;
    Msg_GetFileRef(msg, &ref);
    return tf_OpenFile(ref, TF_OPEN_UPDATE);
}

namespace store {

void msgSave(int16_t msg, int16_t tf, bool publishIt) {
    Message& m = lookup(msg);
    store::MsgFile& file = store::tfLookup(tf);
    std::string bytes = readWhole(file);
    const std::vector<SizeFill> fills = plannedFills(m, bytes, file.path);
    // The caller's file learns the sizes too (record lengths do not change), so that what
    // it holds and what was saved agree.
    if (!file.readOnly) {
        for (const SizeFill& fill : fills) {
            unsigned char field[4];
            store::putLe32(field, fill.size);
            os_lseek64(file.fd.get(), static_cast<int64_t>(fill.offset), SEEK_SET);
            os_write(file.fd.get(), field, sizeof field);
        }
    }
    for (const SizeFill& fill : fills)
        store::putLe32(reinterpret_cast<unsigned char*>(bytes.data()) + fill.offset, fill.size);
    const std::string target = im_ItemRef2FName(memberRef(m, 0));
    if (!file.readOnly && sameFile(file.fd.get(), target)) {
        if (m.staged) os_SyncFd(file.fd.get()); else tf_FlushFile(tf);
    } else {
        replaceFile(folderOf(m), target, bytes, !m.staged);
    }
    if (m.staged && publishIt) publish(m, bytes);
}

}  // namespace store

void Msg_Save(int16_t msg, int16_t tf) { store::msgSave(msg, tf, true); }

MsgOwner::~MsgOwner() {
    if (msg_ != 0) messages().remove(msg_);
}
