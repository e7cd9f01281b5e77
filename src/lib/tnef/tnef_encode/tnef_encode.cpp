// The encode driver: a message held by the server, read twice from its message file, becomes
// a TNEF stream; the attachments come from the kept object file and the message's body parts.
#include <array>
#include <cstring>
#include <string>

#include "tnef/platform/cust_flags.h"
#include "tnef/platform/er_escape.h"
#include "tnef/platform/im_items.h"
#include "tnef/platform/inet_header.h"
#include "tnef/platform/mp_stored.h"
#include "tnef/platform/msg_store.h"
#include "tnef/platform/os_file.h"
#include "tnef/platform/tf_msgfile.h"
#include "tnef/tnef.h"
#include "tnef_defs.h"
#include "tnef_encode/tnef_encode.h"

// Whether the attachments are rebuilt (true) or the object file copied unchanged (false).
// Read from INET_KEEP_TNEF_ATTACH_IN_MIME at the first encode of the process.
static bool tnefDropAttachmentsFromMime = true;
static bool tnefDropSwitchRead = false;
// Whether the message's properties came from a MAPI client; reset by every encode and
// recomputed from the origin of each main property text.
static bool tnefMapiOrigin = true;

namespace {

constexpr uint32_t kRecHeader = 1100;
constexpr uint32_t kRecSubject = 11100;
constexpr uint32_t kRecClass = 11200;
constexpr uint32_t kRecExpiry = 13700;
constexpr uint32_t kRecDeferred = 14100;
constexpr uint32_t kRecObject = 19000;
constexpr uint32_t kRecProps = 19500;
constexpr uint32_t kRecPropsText = 19510;
constexpr uint32_t kRecProps2 = 19600;
constexpr uint32_t kRecProps2Text = 19610;
constexpr uint32_t kRecLevelStart = 30100;
constexpr uint32_t kRecLevelEnd = 39000;
constexpr uint32_t kRecPart = 30500;
constexpr uint32_t kRecReports = 40000;

constexpr const char* kObjectName = "MAPI.ObjectProperties";
constexpr const char* kOofTemplateClass = "IPM.Note.Rules.OofTemplate.Microsoft";
constexpr const char* kTemplateSuffix = ".WKATT";
constexpr size_t kTemplateSuffixLength = 6;
constexpr uint32_t kObjectNameCapacity = 127;

// One candidate body part for an attachment's data, in file order.
struct MimePartEntry {
    MimePartEntry* next;
    uint32_t partNumber;
    uint32_t size;
    uint16_t partType;
    std::string name;
    bool used;
};

// The part list, freed whatever way the driver leaves.
struct MimePartList {
    MimePartEntry* head = nullptr;
    MimePartEntry** tail = &head;
    MimePartList() = default;
    MimePartList(const MimePartList&) = delete;
    MimePartList& operator=(const MimePartList&) = delete;
    ~MimePartList() {
        while (head != nullptr) {
            MimePartEntry* next = head->next;
            delete head;
            head = next;
        }
    }
    void append(MimePartEntry* entry) {
        *tail = entry;
        tail = &entry->next;
    }
};

// The property text buffer of mp_BuildMAPIProps, reused for every text.
struct TextBuffer {
    char* data = nullptr;
    TextBuffer() = default;
    TextBuffer(const TextBuffer&) = delete;
    TextBuffer& operator=(const TextBuffer&) = delete;
    ~TextBuffer() { os_free(data); }
};

struct EncodeState {
    EncodeState(int16_t file, int out, int16_t message)
        : messageFile(file), outFd(out), messageId(message) {}
    int16_t messageFile;
    int outFd;
    int16_t messageId;
    // Pass 1.
    bool oofTemplate = false;
    bool classSeen = false;
    bool propsSeen = false;
    std::array<char, TNEF_TEXT_CAPACITY + 1> messageClass{};
    OsFd object;
    uint32_t objectSize = 0;
    // Pass 2.
    int depth = 0;
    uint32_t partCount = 0;
    bool specialSecondPart = true;
    bool reportsSeen = false;
    MimePartList parts;
    TnefScanList attachments;
    TextBuffer text;
};

void writeU16(int fd, uint32_t attribute, uint16_t value) {
    const uint8_t bytes[2] = {static_cast<uint8_t>(value), static_cast<uint8_t>(value >> 8)};
    tnef_AddMsgAttribute(fd, attribute, 2, bytes);
}

void writePropU16(int fd, uint32_t tag, uint16_t value) {
    const uint8_t bytes[2] = {static_cast<uint8_t>(value), static_cast<uint8_t>(value >> 8)};
    tnef_AddMAPIPropsAttribute(fd, tag, 2, bytes);
}

void writePropU32(int fd, uint32_t tag, uint32_t value) {
    const uint8_t bytes[4] = {static_cast<uint8_t>(value), static_cast<uint8_t>(value >> 8),
                              static_cast<uint8_t>(value >> 16), static_cast<uint8_t>(value >> 24)};
    tnef_AddMAPIPropsAttribute(fd, tag, 4, bytes);
}

void writeText(int fd, uint32_t attribute, const char* text) {
    tnef_AddMsgAttribute(fd, attribute, static_cast<uint32_t>(std::strlen(text) + 1), text);
}

// ---- Pass 1 ------------------------------------------------------------------------------

void takeClass(EncodeState& st, const TFREC& rec) {
    char* cls = st.messageClass.data();
    tf_GetString(&rec, 16, nullptr, cls, static_cast<uint32_t>(st.messageClass.size()));
    // A stored template class carries a marker the MAPI side does not know.
    const size_t length = std::strlen(cls);
    if (length > kTemplateSuffixLength &&
        std::strcmp(cls + length - kTemplateSuffixLength, kTemplateSuffix) == 0)
        cls[length - kTemplateSuffixLength] = '\0';
    if (!cust_PresentAndTrue("UXO_PRESERVE_MAPI_MSG_CLASS")) tnef_OutMapMsgClass(cls);
    st.classSeen = true;
}

void takeObject(EncodeState& st, const TFREC& rec) {
    std::array<char, kObjectNameCapacity> name{};
    tf_GetString(&rec, 24, nullptr, name.data(), kObjectNameCapacity);
    // A second object record of the same name would only leak the first handle.
    if (std::strcmp(name.data(), kObjectName) != 0 || st.object.get() >= 0) return;
    st.object = OsFd(mp_BuildObjectFile(st.messageFile, &rec, 0, name.data(), 1));
    st.objectSize = tf_GetINT32(&rec, 16);
}

void firstPass(EncodeState& st) {
    tf_UnreadFile(st.messageFile);
    TFREC rec;
    while (!(st.classSeen && st.object.get() >= 0 && st.propsSeen) &&
           tf_ReadRecord(st.messageFile, &rec)) {
        switch (tf_GetType(&rec)) {
            case kRecHeader: st.oofTemplate = (tf_GetINT32(&rec, 42) & 1) != 0; break;
            case kRecClass: takeClass(st, rec); break;
            case kRecObject: takeObject(st, rec); break;
            case kRecProps: st.propsSeen = true; break;
            default: break;
        }
    }
}

// Writes the head of the stream; false when the message has nothing for a TNEF.
bool startStream(EncodeState& st) {
    if (st.object.get() >= 0) {
        tnef_ScanTnef(st.object.get(), PR_ATTACH_DATA_OBJ, &st.attachments.head);
        tnef_SetOemCodePage(st.outFd, st.object.get());
    } else if (st.propsSeen) {
        tnef_Create(st.outFd);
    } else if (!st.classSeen && st.oofTemplate) {
        std::strcpy(st.messageClass.data(), kOofTemplateClass);
        tnef_Create(st.outFd);
        writeText(st.outFd, attMessageClass, st.messageClass.data());
        return true;
    } else {
        return false;
    }
    if (st.classSeen) writeText(st.outFd, attMessageClass, st.messageClass.data());
    return true;
}

// ---- Pass 2 ------------------------------------------------------------------------------

void writeHeaderGroup(int fd, uint32_t v) {
    const uint32_t priority = v & 7;
    writeU16(fd, attPriority, priority == 1 ? 3 : priority == 2 ? 1 : 2);
    const uint32_t importance = (v & 0x1C0) >> 6;
    writePropU32(fd, PR_IMPORTANCE, importance == 1 ? 0 : importance == 2 ? 2 : 1);
    const uint32_t sensitivity = (v & 0x38) >> 3;
    writePropU32(fd, PR_SENSITIVITY, sensitivity >= 1 && sensitivity <= 3 ? sensitivity : 0);
    if ((v & 0x1000) != 0) writePropU16(fd, PR_AUTO_FORWARDED, 1);
}

void writeDate(int fd, uint32_t tag, const TFREC& rec) {
    const TnefMapiTime t = tnef_ConvertDate(tf_GetINT32(&rec, 16), tf_GetINT16(&rec, 20));
    uint8_t bytes[8];
    for (int i = 0; i < 4; ++i) {
        bytes[i] = static_cast<uint8_t>(t.low >> (8 * i));
        bytes[4 + i] = static_cast<uint8_t>(t.high >> (8 * i));
    }
    tnef_AddMAPIPropsAttribute(fd, tag, 8, bytes);
}

// A property text record: its text is the next record, which is consumed whatever it is.
void writePropertyText(EncodeState& st, const TFREC& rec, uint32_t textType, bool main) {
    uint32_t length = tf_GetINT32(&rec, 28);
    TFREC textRec;
    if (!tf_ReadRecord(st.messageFile, &textRec) || tf_GetType(&textRec) != textType) return;
    uint32_t flags = 0;
    mp_BuildMAPIProps(st.messageFile, &textRec, textType, &st.text.data, &length, &flags);
    if (main) {
        char* origin = mapi_GetMapiPropsOrigin(st.text.data);
        tnefMapiOrigin = origin == nullptr || std::strcmp(origin, "mapi") == 0;
        os_free(origin);
    }
    tnef_ParseData(st.outFd, st.text.data, length);
}

bool isSpecialPartType(uint16_t type) {
    return type == TNEF_PART_TYPE_TEXT || type == TNEF_PART_TYPE_TEXT_ALT ||
           type == TNEF_PART_TYPE_OTHER;
}

void takePart(EncodeState& st, const TFREC& rec) {
    if ((tf_GetINT32(&rec, 24) & 1) != 0) return;
    // Parts at every depth are counted: a part's number is its place among all of them.
    const uint32_t n = ++st.partCount;
    const auto type = static_cast<uint16_t>(tf_GetINT32(&rec, 20) & 0xFFFF);
    if (st.depth != 0 || n == 1) return;
    if (n == 2) {
        st.specialSecondPart = isSpecialPartType(type);
        if (st.specialSecondPart) return;
    }
    uint32_t next = 0;
    const char* first = tf_GetStrPtr(&rec, 36, &next);
    const char* second = tf_GetStrPtr(&rec, next, &next);
    st.parts.append(new MimePartEntry{nullptr, n, tf_GetINT32(&rec, 28), type,
                                      *second != '\0' ? second : first, false});
}

void writeReports(EncodeState& st, const TFREC& rec) {
    if (st.reportsSeen) return;
    st.reportsSeen = true;
    const uint16_t w = tf_GetINT16(&rec, 16);
    if (cust_PresentAndTrue("UX_PRE_5_20_COMPATIBILITY_MODE"))
        writeU16(st.outFd, attRequestRes, (w & 0xF) > 8 ? 1 : 0);
    writePropU16(st.outFd, PR_ORIGINATOR_DELIVERY_REPORT_REQUESTED,
                 (w & 0xF) > 3 && (w & 0x2000) == 0 ? 1 : 0);
    writePropU16(st.outFd, PR_READ_RECEIPT_REQUESTED, (w & 0xF) > 6 ? 1 : 0);
}

void secondPass(EncodeState& st) {
    tf_UnreadFile(st.messageFile);
    TFREC rec;
    while (tf_ReadRecord(st.messageFile, &rec)) {
        switch (tf_GetType(&rec)) {
            case kRecHeader: writeHeaderGroup(st.outFd, tf_GetINT32(&rec, 24)); break;
            case kRecSubject: {
                std::array<char, TNEF_TEXT_CAPACITY + 1> subject{};
                tf_GetString(&rec, 16, nullptr, subject.data(), static_cast<uint32_t>(subject.size()));
                writeText(st.outFd, attSubject, subject.data());
                break;
            }
            case kRecExpiry: writeDate(st.outFd, PR_EXPIRY_TIME, rec); break;
            case kRecDeferred: writeDate(st.outFd, PR_DEFERRED_DELIVERY_TIME, rec); break;
            case kRecProps: writePropertyText(st, rec, kRecPropsText, true); break;
            case kRecProps2: writePropertyText(st, rec, kRecProps2Text, false); break;
            case kRecLevelStart: ++st.depth; break;
            case kRecLevelEnd: --st.depth; break;
            case kRecPart: takePart(st, rec); break;
            case kRecReports: writeReports(st, rec); break;
            default: break;
        }
    }
}

// ---- Attachment phase ----------------------------------------------------------------------

bool nameMatches(const std::string& wanted, const MimePartEntry& part) {
    if (part.name == wanted) return true;
    if (!inet_is2047Encoded(part.name.c_str())) return false;
    // The decoded form is never longer than the encoded word, so a copy serves as output.
    std::string decoded = part.name;
    mim_DecodeMimeCharStr(part.name.c_str(), decoded.data(), 0);
    return std::strcmp(decoded.c_str(), wanted.c_str()) == 0;
}

MimePartEntry* findPart(MimePartList& parts, const TnefAttachScan& entry) {
    const char* wanted = entry.longFileName != nullptr ? entry.longFileName : entry.fileName;
    if (wanted == nullptr) return nullptr;
    for (MimePartEntry* part = parts.head; part != nullptr; part = part->next)
        if (!part->used && nameMatches(wanted, *part)) return part;
    return nullptr;
}

// The part's content as the attachment's data; a part that cannot be read is skipped.
void addPartData(const EncodeState& st, const MimePartEntry& part) {
    try {
        ItemRef ref{};
        Msg_GetAttachedFile(st.messageId, &ref, part.partNumber);
        const SflFileOwner item(sfl_fOpenItem(ref, "r"));
        tnef_AddAttachment(st.outFd, item.get(), part.size, part.partType);
    } catch (Escape& e) {
        er_Accept(e, ER_SEVERITY_ERROR);
        if (er_GetLive(e)) {
            er_TraceBeforeJump(TNEF_UNIT_ENCODE, __LINE__);
            throw;
        }
    }
}

void logMatch(const MimePartEntry& part) {
    const std::string number = std::to_string(static_cast<int>(part.partNumber) - 2);
    const std::string type = std::to_string(static_cast<int>(part.partType));
    er_LogMsg(9, ER_GROUP_TNEF, 1167, number.c_str(), type.c_str(), part.name.c_str(), nullptr);
}

void mergeAttachments(EncodeState& st) {
    const int objectFd = st.object.get();
    int first = 1;
    if (st.attachments.head == nullptr && st.parts.head != nullptr)
        er_LogMsg(3, ER_GROUP_TNEF, 1169, nullptr);
    for (const TnefAttachScan* entry = st.attachments.head; entry != nullptr; entry = entry->next) {
        const int found = tnef_getPastRendData(st.outFd, objectFd, first);
        first = 0;
        if (found == 0) {
            er_LogMsg(3, ER_GROUP_TNEF, 1169, nullptr);
            break;
        }
        if (entry->hasData != 0) continue;
        MimePartEntry* part = findPart(st.parts, *entry);
        if (part == nullptr) {
            const char* wanted = entry->longFileName != nullptr ? entry->longFileName
                                 : entry->fileName != nullptr   ? entry->fileName
                                                                : "<no_filename>";
            er_LogMsg(3, ER_GROUP_TNEF, 1168, wanted, nullptr);
            break;
        }
        logMatch(*part);
        part->used = true;
        addPartData(st, *part);
    }
    tnef_getPastRendData(st.outFd, objectFd, first);
}

// Returns the result: 0 when the stream is to be dropped.
int attachmentPhase(EncodeState& st) {
    if (!tnefDropAttachmentsFromMime) {
        tnef_ParseObject(st.outFd, st.object.get(), st.objectSize);
    } else if (tnefMapiOrigin && st.attachments.head == nullptr && !st.specialSecondPart &&
               cust_GetBoolean("INET_DROP_NO_ATT_TABLE_TNEF", 1, 0, 0) != 0) {
        return 0;
    } else if (tnefMapiOrigin) {
        mergeAttachments(st);
    }
    return 1;
}

}  // namespace

int tnef_Encode(int16_t messageFile, int outFd, uint32_t /*reserved*/, uint32_t* resultWord,
                int16_t messageId) {
    ErTraceScope trace(TNEF_TRACE_CLASS, "tnef_Encode");
    // Field-by-field I/O is buffered for the call; offsets are exact again on return.
    OsIoBatch ioBatch;
    *resultWord = 0;
    tnefMapiOrigin = true;
    if (!tnefDropSwitchRead) {
        tnefDropAttachmentsFromMime = !cust_PresentAndTrue("INET_KEEP_TNEF_ATTACH_IN_MIME");
        tnefDropSwitchRead = true;
    }
    EncodeState st(messageFile, outFd, messageId);
    firstPass(st);
    if (!startStream(st)) return 0;
    secondPass(st);
    if (st.object.get() < 0) return 1;
    return attachmentPhase(st);
}
