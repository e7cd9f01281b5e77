#include "tnef/platform/mp_stored.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <ctime>
#include <optional>
#include <string>
#include <string_view>

#include "store_internal.h"
#include "tnef/platform/er_escape.h"
#include "tnef/platform/mapi_blob.h"
#include "tnef/platform/os_file.h"

namespace {

constexpr const char* kUnit = "src/platform/mp_stored";
constexpr int kNameAttempts = 64;

uint32_t alignUp4(uint32_t offset) { return (offset + 3) & ~3u; }

void putRef(TFREC* record, uint32_t offset, const ItemRef& ref) {
    for (uint32_t i = 0; i < 4; ++i) tf_PutINT32(record, offset + 4 * i, ref.w[i]);
}

ItemRef getRef(const TFREC* record, uint32_t offset) {
    ItemRef ref;
    for (uint32_t i = 0; i < 4; ++i) ref.w[i] = tf_GetINT32(record, offset + 4 * i);
    return ref;
}

// A second name for the file under ~/store/objects/: the store's own link, which keeps the
// bytes whatever becomes of the name the caller holds.
ItemRef linkAsObject(const std::string& source) {
    os_SyncFiles();
    for (int attempt = 0; attempt < kNameAttempts; ++attempt) {
        const ItemRef kept{{IM_KIND_OBJECT, static_cast<uint32_t>(std::time(nullptr)),
                            store::processId(), store::randomWord()}};
        const std::string target = im_ItemRef2FName(kept);
        if (mdc_link(source.c_str(), target.c_str()) == 0) return kept;
        // The objects folder is made with the first object a home keeps.
        if (errno == ENOENT) {
            os_MakeParentDirs(target);
            if (mdc_link(source.c_str(), target.c_str()) == 0) return kept;
        }
        if (errno != EEXIST)
            store::raiseErrno(errno, kUnit, __LINE__, "cannot link " + source + " to " + target);
    }
    store::raiseErrno(EEXIST, kUnit, __LINE__, "no free object name for " + source);
}

[[noreturn]] void notStored(int line, const std::string& what) {
    store::raise(ER_STORE_NO_OBJECT, kUnit, line, what);
}

[[noreturn]] void damaged(int line, const std::string& what) {
    store::raise(ER_STORE_CORRUPT, kUnit, line, what);
}

// Reads exactly length bytes of the item into out.
void readItemText(const ItemRef& ref, char* out, uint32_t length) {
    const std::string path = im_ItemRef2FName(ref);
    OsFd fd(os_open(path.c_str(), O_RDONLY, 0));
    if (os_read(fd.get(), out, length) != static_cast<int64_t>(length))
        damaged(__LINE__, "stored text " + path + " holds fewer than " + std::to_string(length) +
                              " bytes");
}

}  // namespace

void mp_PutObjectFile(const char* name, ItemRef ref, int16_t tf, int keep, int nested) {
    store::tfLookup(tf);
    const std::string source = im_ItemRef2FName(ref);
    os_SyncFiles();
    struct stat st;
    if (::stat(source.c_str(), &st) != 0)
        store::raiseErrno(errno, kUnit, __LINE__, "cannot store object " + source);

    TFREC record;
    tf_InitRecord(&record, TFREC_OBJECT);
    tf_PutINT32(&record, 16, static_cast<uint32_t>(std::min<off_t>(st.st_size, 0xFFFFFFFF)));
    tf_PutINT16(&record, 20, keep != 0 ? 1 : 0);
    tf_PutINT16(&record, 22, nested != 0 ? 1 : 0);
    uint32_t next = 0;
    tf_PutString(&record, 24, &next, name);
    const uint32_t refOffset = alignUp4(next);
    putRef(&record, refOffset, ItemRef{});  // a name too long fails here, before any link

    std::optional<ImItemOwner> keptLink;
    ItemRef stored = ref;
    if (keep != 0) {
        stored = linkAsObject(source);
        keptLink.emplace(stored);
    }
    putRef(&record, refOffset, stored);
    tf_WrapRecord(&record, &record);
    tf_AppendRecord(tf, &record);
    if (keptLink) keptLink->release();
}

void mp_PutMAPIPropsData(uint32_t flags, uint32_t flags2, const dstring* text, int16_t tf,
                         int keep, int nested, int selector) {
    if (selector != 0 && selector != 1)
        store::raise(ER_STORE_BAD_ARGUMENT, kUnit, __LINE__,
                     "property text selector " + std::to_string(selector) + " is not 0 or 1");
    store::MsgFile& file = store::tfLookup(tf);
    const std::string_view bytes = text != nullptr ? std::string_view(text->text) : "";
    if (bytes.size() > 0xFFFFFFFFu)
        er_TracedEscapeText(ER_GROUP_TNEF, ER_TNEF_TOO_LONG, kUnit, __LINE__,
                            "property text of " + std::to_string(bytes.size()) + " bytes");
    const auto length = static_cast<uint32_t>(bytes.size());

    TFREC head;
    tf_InitRecord(&head, selector == 0 ? TFREC_PROPS : TFREC_PROPS2);
    tf_PutINT32(&head, 16, flags);
    tf_PutINT32(&head, 20, flags2);
    tf_PutINT16(&head, 24, keep != 0 ? 1 : 0);
    tf_PutINT16(&head, 26, nested != 0 ? 1 : 0);
    tf_PutINT32(&head, 28, length);
    tf_WrapRecord(&head, &head);

    TFREC data;
    tf_InitRecord(&data, selector == 0 ? TFREC_PROPS_DATA : TFREC_PROPS2_DATA);
    tf_PutINT32(&data, 16, flags);
    tf_PutINT32(&data, 20, length);
    std::optional<ImItemOwner> textItem;
    if (length <= MP_INLINE_TEXT_MAX) {
        tf_PutINT32(&data, 24, MP_WHERE_INLINE);
        // The text may hold NUL bytes, so it is copied rather than put as a string.
        if (length > 0) std::memcpy(data.bytes + 28, bytes.data(), length);
        data.bytes[28 + length] = 0;
        store::putLe32(data.bytes, 28 + length + 1);
    } else if (keep != 0) {
        ItemRef ref;
        OsFd fd(im_CrNewItem(IM_KIND_OBJECT, &ref));
        textItem.emplace(ref);
        os_write(fd.get(), bytes.data(), length);
        fd.close();
        tf_PutINT32(&data, 24, MP_WHERE_ITEM);
        putRef(&data, 28, ref);
    } else {
        er_TracedEscapeText(ER_GROUP_TNEF, ER_TNEF_TOO_LONG, kUnit, __LINE__,
                            "property text of " + std::to_string(length) +
                                " bytes does not fit a record and may not be kept apart");
    }
    tf_WrapRecord(&data, &data);

    const int64_t before = store::tfSize(file);
    tf_AppendRecord(tf, &head);
    try {
        tf_AppendRecord(tf, &data);
    } catch (const Escape&) {
        // A 19500 without its 19510 would make the reader drop the record after it.
        try {
            store::tfTruncate(file, before);
        } catch (const Escape&) {
        }
        throw;
    }
    if (textItem) textItem->release();
}

int mp_BuildObjectFile(int16_t tf, const TFREC* record, int reserved, const char* name,
                       int readOnly) {
    (void)reserved;
    store::tfLookup(tf);
    if (tf_GetType(record) != TFREC_OBJECT)
        notStored(__LINE__, "record of type " + std::to_string(tf_GetType(record)) +
                                " names no stored object");
    uint32_t next = 0;
    const char* stored = tf_GetStrPtr(record, 24, &next);
    if (name == nullptr || std::strcmp(stored, name) != 0)
        notStored(__LINE__, std::string("the stored object is \"") + stored + "\", not \"" +
                                (name != nullptr ? name : "") + "\"");
    const std::string path = im_ItemRef2FName(getRef(record, alignUp4(next)));
    return os_open(path.c_str(), readOnly != 0 ? O_RDONLY : O_RDWR, 0);
}

int mp_BuildMAPIProps(int16_t tf, const TFREC* record, uint32_t recordType, char** buffer,
                      uint32_t* length, uint32_t* flags) {
    store::tfLookup(tf);
    const uint32_t type = tf_GetType(record);
    if ((recordType != TFREC_PROPS_DATA && recordType != TFREC_PROPS2_DATA) || type != recordType)
        notStored(__LINE__, "record of type " + std::to_string(type) + " is not a " +
                                std::to_string(recordType) + " property text record");
    const uint32_t storedFlags = tf_GetINT32(record, 16);
    const uint32_t textLength = tf_GetINT32(record, 20);
    const uint32_t where = tf_GetINT32(record, 24);
    if (where == MP_WHERE_INLINE &&
        (textLength > MP_INLINE_TEXT_MAX || 28 + textLength > tf_GetLength(record)))
        damaged(__LINE__, "inline property text of " + std::to_string(textLength) +
                              " bytes in a record of " + std::to_string(tf_GetLength(record)));
    if (where != MP_WHERE_INLINE && where != MP_WHERE_ITEM)
        damaged(__LINE__, "property text record says it is stored in place " +
                              std::to_string(where));

    void* block = *buffer != nullptr ? os_realloc(*buffer, size_t{textLength} + 1)
                                     : os_malloc(size_t{textLength} + 1);
    if (block == nullptr)
        store::raiseErrno(ENOMEM, kUnit, __LINE__,
                          "no memory for a property text of " + std::to_string(textLength));
    *buffer = static_cast<char*>(block);
    if (where == MP_WHERE_INLINE)
        std::memcpy(*buffer, record->bytes + 28, textLength);
    else
        readItemText(getRef(record, 28), *buffer, textLength);
    (*buffer)[textLength] = '\0';
    *length = textLength;
    if (flags != nullptr) *flags = storedFlags;
    return 1;
}

char* mapi_GetMapiPropsOrigin(const char* text) {
    if (text == nullptr) return nullptr;
    std::string_view rest(text);
    while (!rest.empty()) {
        const size_t entryEnd = rest.find(BLOB_ENTRY_SEP);
        const std::string_view entry = rest.substr(0, entryEnd);
        rest = entryEnd == std::string_view::npos ? std::string_view() : rest.substr(entryEnd + 1);
        const size_t keyEnd = entry.find(BLOB_VALUE_SEP);
        if (keyEnd == std::string_view::npos || entry.empty() || entry.front() != 'C') continue;
        std::string_view value = entry.substr(keyEnd + 1);
        value = value.substr(0, value.find(BLOB_VALUE_SEP));
        dstring decoded;
        dstring_init(&decoded);
        mapi_BlobDecodeToDstring(value.data(), value.size(), &decoded);
        auto* origin = static_cast<char*>(os_malloc(decoded.text.size() + 1));
        if (origin == nullptr)
            store::raiseErrno(ENOMEM, kUnit, __LINE__, "no memory for a property text's origin");
        std::memcpy(origin, decoded.text.c_str(), decoded.text.size() + 1);
        return origin;
    }
    return nullptr;
}
