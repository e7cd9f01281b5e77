// Pieces the store's source files share and callers never see: the handle tables, the open
// message file, raw access for Msg_Save and the dump, and the store's escapes.
#pragma once

#include <array>
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "tnef/platform/er_escape.h"
#include "tnef/platform/im_items.h"
#include "tnef/platform/os_file.h"

namespace store {

[[noreturn]] inline void raise(int reason, const char* unit, int line, std::string detail) {
    er_TracedEscapeText(ER_GROUP_STORE, reason, unit, line, std::move(detail));
}

[[noreturn]] void raiseErrno(int err, const char* unit, int line, std::string detail);

// A fresh random word for new names. Seeded per process from the system's entropy.
uint32_t randomWord();
// This process's id, asked of the kernel once (and again in a forked child).
uint32_t processId();
// "~/..." resolved against the server home.
std::string homePath(const std::string& relative);
std::string hex8(uint32_t value);

inline uint32_t getLe32(const unsigned char* p) {
    return static_cast<uint32_t>(p[0]) | static_cast<uint32_t>(p[1]) << 8 |
           static_cast<uint32_t>(p[2]) << 16 | static_cast<uint32_t>(p[3]) << 24;
}
inline void putLe32(unsigned char* p, uint32_t v) {
    p[0] = static_cast<unsigned char>(v);
    p[1] = static_cast<unsigned char>(v >> 8);
    p[2] = static_cast<unsigned char>(v >> 16);
    p[3] = static_cast<unsigned char>(v >> 24);
}

// Handles are 16-bit: the low 10 bits pick a slot, the next 5 count the slot's reuses, so a
// handle kept after its close is refused instead of reaching whatever took the slot next.
// Handles are never 0 or negative.
template <typename T>
class HandleTable {
public:
    static constexpr int kSlots = 1024;

    int16_t add(std::unique_ptr<T> item, const char* unit, const char* what) {
        for (int i = 0; i < kSlots; ++i) {
            const int slot = (next_ + i) % kSlots;
            if (slots_[slot].item) continue;
            Slot& s = slots_[slot];
            s.generation = static_cast<uint16_t>(s.generation % 31 + 1);
            s.item = std::move(item);
            next_ = (slot + 1) % kSlots;
            return static_cast<int16_t>(s.generation << 10 | slot);
        }
        raise(ER_STORE_TOO_MANY, unit, __LINE__,
              std::string("all ") + std::to_string(kSlots) + " " + what + " handles are open");
    }

    T* find(int16_t handle) {
        if (handle <= 0) return nullptr;
        Slot& s = slots_[handle & (kSlots - 1)];
        if (!s.item || s.generation != (handle >> 10)) return nullptr;
        return s.item.get();
    }

    T& get(int16_t handle, const char* unit, int line, const char* what) {
        if (T* item = find(handle)) return *item;
        raise(ER_STORE_BAD_HANDLE, unit, line,
              std::string(what) + " handle " + std::to_string(handle) + " is not open");
    }

    std::unique_ptr<T> remove(int16_t handle) {
        if (find(handle) == nullptr) return nullptr;
        return std::move(slots_[handle & (kSlots - 1)].item);
    }

    template <typename F>
    void forEach(F f) {
        for (Slot& s : slots_)
            if (s.item) f(*s.item);
    }

    int openCount() const {
        int n = 0;
        for (const Slot& s : slots_) n += s.item ? 1 : 0;
        return n;
    }

private:
    struct Slot {
        std::unique_ptr<T> item;
        uint16_t generation = 0;
    };
    std::array<Slot, kSlots> slots_{};
    int next_ = 0;
};

// An open message file.
struct MsgFile {
    ItemRef ref{};
    std::string path;
    OsFd fd;
    bool readOnly = false;
    int64_t cursor = 0;       // where the next tf_ReadRecord starts
    int64_t lastOffset = -1;  // the record last read, for tf_OverwriteRecord
    uint32_t lastLength = 0;
    // Records appended inside an I/O batch, not yet written, and where they go.
    std::string appended;
    int64_t appendAt = 0;
};

// The open message file behind a handle, with every appended record in the file; raises
// 103/2 for a handle that is not open.
MsgFile& tfLookup(int16_t handle);
// The items a message file's records name: stored objects (19000) and property texts kept
// apart (19510, 19610), of kinds 1 and 3. Stops quietly at the first damaged record.
std::vector<ItemRef> namedItems(const std::string& bytes);

// Msg_Save's work; publishIt false writes a staged message's file and leaves it staged
// (the received-message builder: the decode that follows publishes it).
void msgSave(int16_t msg, int16_t tf, bool publishIt);

// Cuts the file back to size (undoing appends that must not stay half done).
void tfTruncate(MsgFile& file, int64_t size);
// The current size of the file.
int64_t tfSize(MsgFile& file);

}  // namespace store
