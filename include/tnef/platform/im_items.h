// Items: the files of the message store, named by four-word references.
//
// An item reference is four 32-bit words. The first word is the kind, which picks the
// folder; the other three name the file within it:
//
//   kind 1  data item        ~/store/items/<w1>-<w2>-<w3>      (w1 seconds, w2 pid, w3 random)
//   kind 2  temporary item   ~/tmp/items/<w1>-<w2>-<w3>
//   kind 3  kept object      ~/store/objects/<w1>-<w2>-<w3>    (stored object files and texts)
//   kind 4  message member   ~/store/messages/<w1><w2>/part-<w3>, or .../msgfile when w3 is 0
//
// (words as eight lower-case hexadecimal digits each). im_ItemRef2FName is the one place
// that turns a reference into a path: moving the store to a shared file system changes it
// and the message folder (msg_FolderPath), nothing else.
//
// New names are taken with O_CREAT|O_EXCL (or link(), which fails the same way), so two
// processes never get the same file: a name already taken is retried with a fresh random
// word. Nothing about names is kept in memory.
//
// Escapes: group 100 (reason errno, the path in the text) when the file system refuses;
// group 103 (ER_GROUP_STORE, reasons below) for a reference or handle the store does not
// know and for damaged store files.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>

// Everything this header declares is part of the library's exported interface.
#pragma GCC visibility push(default)

// Escapes raised by the message store itself.
inline constexpr int ER_GROUP_STORE = 103;
inline constexpr int ER_STORE_BAD_REFERENCE = 1;  // item reference of no known kind
inline constexpr int ER_STORE_BAD_HANDLE = 2;     // message file or message handle not open
inline constexpr int ER_STORE_CORRUPT = 3;        // a message file that does not parse
inline constexpr int ER_STORE_NO_RECORD = 4;      // overwrite without a record last read
inline constexpr int ER_STORE_NO_PART = 5;        // a message part that does not exist
inline constexpr int ER_STORE_NO_OBJECT = 6;      // a stored object the record does not name
inline constexpr int ER_STORE_TOO_MANY = 7;       // every handle of a table is in use
inline constexpr int ER_STORE_BAD_ARGUMENT = 8;   // a mode or selector the store does not know

// Item kinds (the first word of a reference).
inline constexpr uint32_t IM_KIND_DATA = 1;
inline constexpr uint32_t IM_KIND_TEMP = 2;
inline constexpr uint32_t IM_KIND_OBJECT = 3;
inline constexpr uint32_t IM_KIND_MESSAGE = 4;

struct ItemRef {
    uint32_t w[4];
};

inline bool operator==(const ItemRef& a, const ItemRef& b) {
    return a.w[0] == b.w[0] && a.w[1] == b.w[1] && a.w[2] == b.w[2] && a.w[3] == b.w[3];
}

// Creates a new, empty data item and returns a descriptor open for reading and writing on
// it (the caller closes it). *kind, when given, receives the item's kind. Raises 100/errno.
int im_CrNewDataItem(uint32_t* kind, ItemRef* ref);
// The same for a temporary item. The one-argument form serves callers that need no kind.
int im_CrNewTempItem(uint32_t* kind, ItemRef* ref);
int im_CrNewTempItem(ItemRef* ref);
// The same for any kind but IM_KIND_MESSAGE (whose names the message store gives).
int im_CrNewItem(uint32_t kind, ItemRef* ref);

// Stores the path of the item's file, resolved against the server home, in *fileName.
// Raises 103/1 for a reference of no known kind.
void im_ItemRef2FName(const ItemRef& ref, std::string* fileName);
std::string im_ItemRef2FName(const ItemRef& ref);

// Removes the item's name. Other names of the same file (a message part, a kept object)
// stay, and so do its bytes. A name that is already gone is no error.
void im_UnlinkItem(const ItemRef& ref);

// The reference as "kind:w1-w2-w3" in hexadecimal, for logs and dumps.
std::string im_ItemRefText(const ItemRef& ref);

// Owns an item name: removes it on destruction unless released. For temporary items and
// for items that are only kept when the work that fills them succeeds.
class ImItemOwner {
public:
    ImItemOwner() = default;
    explicit ImItemOwner(const ItemRef& ref) : ref_(ref), owned_(true) {}
    ~ImItemOwner();
    ImItemOwner(const ImItemOwner&) = delete;
    ImItemOwner& operator=(const ImItemOwner&) = delete;

    const ItemRef& ref() const { return ref_; }
    void release() { owned_ = false; }
    // Removes the name now (an escape may arise), and owns nothing afterwards.
    void unlink();

private:
    ItemRef ref_{};
    bool owned_ = false;
};

// ---- Item files (sfl_) ----------------------------------------------------------------------

// An item opened for stream reading (or writing). Reads go through os_read, so the
// replaceable system calls of os_file.h reach them.
struct SflFile;

// Opens the item: mode "r" (or "rb") reads, "w" (or "wb") truncates and writes. Raises
// 100/errno when the file cannot be opened and 103/8 for any other mode.
SflFile* sfl_fOpenItem(const ItemRef& ref, const char* mode);
// Reads up to count elements of size bytes, as fread does: returns the whole elements read,
// 0 at the end. Raises 100/errno on a read error.
size_t sfl_fRead(void* buffer, size_t size, size_t count, SflFile* file);
// Writes count elements of size bytes; returns count. Raises 100/errno.
size_t sfl_fWrite(const void* buffer, size_t size, size_t count, SflFile* file);
// Closes the item; a null file is ignored. Raises 100/errno when close fails (the file is
// released all the same).
void sfl_fClose(SflFile* file);

// Closes an item file on destruction without raising.
class SflFileOwner {
public:
    SflFileOwner() = default;
    explicit SflFileOwner(SflFile* file) : file_(file) {}
    ~SflFileOwner();
    SflFileOwner(const SflFileOwner&) = delete;
    SflFileOwner& operator=(const SflFileOwner&) = delete;

    SflFile* get() const { return file_; }
    // Closes now and reports failure.
    void close();

private:
    SflFile* file_ = nullptr;
};

#pragma GCC visibility pop
