// Decodes every real TNEF file of the shared corpus: the outcome against the table in
// tests/data/decode_corpus.tsv, nothing left behind, and the attachments against what two
// independent extractors wrote (oracle.tsv), every difference explained in
// tests/data/decode_oracle_differences.tsv and checked against the bytes.
#include <sys/stat.h>

#include <gtest/gtest.h>

#include <algorithm>
#include <cctype>
#include <filesystem>
#include <fstream>
#include <map>
#include <set>
#include <sstream>
#include <string>
#include <string_view>
#include <vector>

#include "support/sha256.h"
#include "support/store_checks.h"
#include "support/test_home.h"
#include "tnef/platform/er_escape.h"
#include "tnef/platform/im_items.h"
#include "tnef/platform/mp_stored.h"
#include "tnef/platform/msg_builder.h"
#include "tnef/platform/msg_store.h"
#include "tnef/platform/os_file.h"
#include "tnef/platform/tf_msgfile.h"
#include "tnef/tnef.h"
#include "tnef_defs.h"

namespace fs = std::filesystem;
using testsha::sha256Hex;

namespace {

// The received message's own parts (body and TNEF file) come first; attachments follow.
constexpr uint32_t kReceivedParts = 2;

// ---- Tables ---------------------------------------------------------------------------------

// Rows of a tab-separated file, without comments ('#') and empty lines.
std::vector<std::vector<std::string>> readTsv(const std::string& path) {
    std::vector<std::vector<std::string>> rows;
    std::ifstream in(path);
    for (std::string line; std::getline(in, line);) {
        if (line.empty() || line[0] == '#') continue;
        std::vector<std::string> cells;
        std::istringstream fields(line);
        for (std::string cell; std::getline(fields, cell, '\t');) cells.push_back(cell);
        rows.push_back(cells);
    }
    return rows;
}

std::string dataFile(const std::string& name) {
    return std::string(TNEF_SOURCE_DIR) + "/tests/data/" + name;
}

struct CorpusRow {
    std::string file;
    std::string outcome;  // "ok" or "group/reason"
    std::string why;
};

void PrintTo(const CorpusRow& row, std::ostream* os) {
    *os << row.file;
}

std::vector<CorpusRow> corpusTable() {
    std::vector<CorpusRow> rows;
    for (const auto& cells : readTsv(dataFile("decode_corpus.tsv")))
        if (cells.size() == 3) rows.push_back({cells[0], cells[1], cells[2]});
    return rows;
}

struct Difference {
    std::string file;
    std::string side;  // "oracle", "decode" or "name"
    std::string name;
    std::string kind;
    std::string why;
};

std::vector<Difference> differencesTable() {
    std::vector<Difference> rows;
    for (const auto& cells : readTsv(dataFile("decode_oracle_differences.tsv")))
        if (cells.size() == 5) rows.push_back({cells[0], cells[1], cells[2], cells[3], cells[4]});
    return rows;
}

struct OracleFile {
    std::string tool;
    std::string name;  // as oracle.tsv writes it: bytes that are not UTF-8 as \xNN
    uint64_t size = 0;
    std::string sha;
};

// The files the extractors wrote for one corpus file (rows naming "-" wrote nothing).
std::vector<OracleFile> oracleFiles(const std::string& corpus, const std::string& file) {
    std::vector<OracleFile> files;
    for (const auto& cells : readTsv(corpus + "/oracle.tsv"))
        if (cells.size() >= 6 && cells[0] == file && cells[3] != "-")
            files.push_back({cells[1], cells[3], std::stoull(cells[4]), cells[5]});
    return files;
}

// ---- An independent walk over TNEF bytes ------------------------------------------------------

uint32_t le32(std::string_view b, size_t at) {
    uint32_t v = 0;
    for (int i = 3; i >= 0; --i) v = v << 8 | static_cast<uint8_t>(b[at + i]);
    return v;
}

// Reads a property list without ever passing its end.
class Cursor {
public:
    explicit Cursor(std::string_view bytes) : bytes_(bytes) {}
    bool u32(uint32_t* v) {
        if (left() < 4) return false;
        *v = le32(bytes_, at_);
        at_ += 4;
        return true;
    }
    bool take(uint64_t n, std::string_view* out) {
        if (left() < n) return false;
        *out = bytes_.substr(at_, n);
        at_ += n;
        return true;
    }
    bool skip(uint64_t n) { return left() >= n && (at_ += n, true); }
    uint64_t left() const { return bytes_.size() - at_; }

private:
    std::string_view bytes_;
    size_t at_ = 0;
};

// A record's data, or a value of an attachment's data property, somewhere in a stream.
struct Blob {
    uint32_t attribute;  // the record's identifier
    uint32_t tag;        // the property tag, 0 for the record's data itself
    int depth;           // 0 in the stream walked, 1 in an embedded stream, ...
    bool isTnef;         // a PR_ATTACH_DATA_OBJ holding a TNEF stream
    std::string sha;
    std::string subject;  // of that stream
};

struct Walk {
    std::vector<Blob> blobs;
    // Attachment names by property tag, and the titles under attAttachTitle.
    std::map<uint32_t, std::set<std::string>> names;
};

std::string uptoNul(std::string_view text) {
    return std::string(text.substr(0, text.find('\0')));
}

// Bytes of one value of a fixed-size type (2-byte values are padded to 4); 0 for the rest.
uint64_t fixedValueSize(uint32_t type) {
    // clang-format off
    switch (type) {
        case PT_I2: case PT_LONG: case PT_R4: case PT_ERROR: case PT_BOOLEAN: return 4;
        case PT_DOUBLE: case PT_CURRENCY: case PT_APPTIME: case PT_I8: case PT_SYSTIME: return 8;
        case PT_CLSID: return 16;
        default: return 0;
    }
    // clang-format on
}

// Types whose values each carry a length and are padded to 4.
bool isVariableType(uint32_t type) {
    return type == PT_STRING8 || type == PT_UNICODE || type == PT_BINARY || type == PT_OBJECT;
}

std::string walkStream(std::string_view stream, int depth, Walk* out);

// The properties of one attAttachment: its data values and its 8-bit names.
void walkAttachment(std::string_view data, int depth, Walk* out) {
    Cursor c(data);
    uint32_t count = 0;
    if (!c.u32(&count)) return;
    for (; count != 0; --count) {
        uint32_t tag = 0;
        if (!c.u32(&tag)) return;
        if ((tag >> 16) >= 0x8000) {  // named: set, kind, then a number or a string
            uint32_t kind = 0;
            uint32_t length = 0;
            if (!c.skip(16) || !c.u32(&kind)) return;
            if (kind == 0 ? !c.skip(4) : !(c.u32(&length) && c.skip(length + (4 - length % 4) % 4)))
                return;
        }
        const uint32_t type = tag & 0xFFFF & ~uint32_t{MV_FLAG};
        const bool multi = (tag & MV_FLAG) != 0;
        if (fixedValueSize(type) != 0) {
            uint32_t values = 1;
            if (multi && !c.u32(&values)) return;
            if (!c.skip(uint64_t{values} * fixedValueSize(type))) return;
            continue;
        }
        if (!isVariableType(type)) return;  // an unknown layout ends the walk of this list
        uint32_t values = 0;
        if (!c.u32(&values)) return;
        for (; values != 0; --values) {
            uint32_t length = 0;
            std::string_view value;
            if (!c.u32(&length) || !c.take(length, &value) || !c.skip((4 - length % 4) % 4)) return;
            if (type == PT_STRING8) out->names[tag].insert(uptoNul(value));
            if (tag != PR_ATTACH_DATA_BIN && tag != PR_ATTACH_DATA_OBJ) continue;
            const bool tnef =
                tag == PR_ATTACH_DATA_OBJ && value.size() > 20 && le32(value, 16) == TNEF_SIGNATURE;
            const std::string subject = tnef ? walkStream(value.substr(16), depth + 1, out) : "";
            out->blobs.push_back({attAttachment, tag, depth, tnef, sha256Hex(value), subject});
        }
    }
}

// Every record of the stream, down into embedded streams; returns the stream's subject.
std::string walkStream(std::string_view stream, int depth, Walk* out) {
    std::string subject;
    if (stream.size() < 6 || le32(stream, 0) != TNEF_SIGNATURE) return subject;
    for (size_t at = 6; stream.size() - at >= 9;) {
        const uint32_t id = le32(stream, at + 1);
        const uint64_t length = le32(stream, at + 5);
        const std::string_view data = stream.substr(at + 9, length);
        out->blobs.push_back({id, 0, depth, false, sha256Hex(data), ""});
        if (id == attSubject) subject = uptoNul(data);
        if (id == attAttachTitle) out->names[attAttachTitle].insert(uptoNul(data));
        if (id == attAttachment) walkAttachment(data, depth, out);
        if (stream.size() - at < 11 + length) break;
        at += 11 + length;
    }
    return subject;
}

// ---- Names ----------------------------------------------------------------------------------

// oracle.tsv's form of a name: \xNN for bytes that are not UTF-8.
std::string unescapeOracleName(const std::string& name) {
    std::string out;
    for (size_t i = 0; i < name.size(); ++i) {
        if (name.compare(i, 2, "\\x") == 0 && i + 3 < name.size() &&
            std::isxdigit(static_cast<unsigned char>(name[i + 2])) &&
            std::isxdigit(static_cast<unsigned char>(name[i + 3]))) {
            out += static_cast<char>(std::stoi(name.substr(i + 2, 2), nullptr, 16));
            i += 3;
        } else {
            out += name[i];
        }
    }
    return out;
}

std::string base64Decode(std::string_view text) {
    static const std::string digits =
        "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
    std::string out;
    uint32_t bits = 0;
    int count = 0;
    for (char ch : text) {
        const size_t v = digits.find(ch);
        if (v == std::string::npos) continue;
        bits = bits << 6 | static_cast<uint32_t>(v);
        if ((count += 6) >= 8) out += static_cast<char>(bits >> (count -= 8));
    }
    return out;
}

// The bytes behind a name the decoder stored: its RFC 2047 words decoded (charset aside,
// they are the stream's own bytes), plain text as it stands.
std::string nameBytes(const std::string& name) {
    std::string out;
    size_t at = 0;
    bool lastWasWord = false;
    while (at < name.size()) {
        const size_t start = name.find("=?", at);
        const size_t q1 = start == std::string::npos ? start : name.find('?', start + 2);
        const size_t q2 = q1 == std::string::npos ? q1 : name.find('?', q1 + 1);
        const size_t end = q2 == std::string::npos ? q2 : name.find("?=", q2 + 1);
        if (end == std::string::npos) {
            out += name.substr(at);
            break;
        }
        const std::string between = name.substr(at, start - at);
        // White space between two encoded words is not part of the text.
        if (!(lastWasWord && between.find_first_not_of(" \t") == std::string::npos)) out += between;
        const char encoding = static_cast<char>(std::toupper(name[q1 + 1]));
        const std::string text = name.substr(q2 + 1, end - q2 - 1);
        if (encoding == 'B') {
            out += base64Decode(text);
        } else {
            for (size_t i = 0; i < text.size(); ++i) {
                if (text[i] == '_') {
                    out += ' ';
                } else if (text[i] == '=' && i + 2 < text.size()) {
                    out += static_cast<char>(std::stoi(text.substr(i + 1, 2), nullptr, 16));
                    i += 2;
                } else {
                    out += text[i];
                }
            }
        }
        lastWasWord = true;
        at = end + 2;
    }
    return out;
}

// ---- Decoding one file ------------------------------------------------------------------------

struct DecodedPart {
    std::string name;  // the second name field of its content-file record
    bool inPackage = false;
    uint64_t size = 0;
    std::string sha;
};

struct CorpusDecode {
    std::string outcome;
    std::string escapeText;
    std::vector<DecodedPart> parts;
    std::vector<std::string> objectFiles;  // every stored "MAPI.ObjectProperties", nested too
    std::vector<std::string> packageSubjects;
    std::string leftBehind;  // one line per thing the decode should not have left
};

std::string readAll(int fd) {
    std::string bytes;
    char chunk[65536];
    for (int64_t n; (n = os_read(fd, chunk, sizeof chunk)) > 0;)
        bytes.append(chunk, static_cast<size_t>(n));
    return bytes;
}

std::string storedObject(int16_t tf, const TFREC& record) {
    const int fd = mp_BuildObjectFile(tf, &record, 0, MP_OBJECT_PROPERTIES, 1);
    std::string bytes = readAll(fd);
    os_close(fd);
    return bytes;
}

void collectParts(int16_t message, int16_t tf, CorpusDecode* d) {
    uint32_t counted = 0;
    int depth = 0;
    for (const TFREC& r : storecheck::recordsOf(tf)) {
        switch (tf_GetType(&r)) {
            case TFREC_START_PACKAGE:
                ++depth;
                d->packageSubjects.push_back(tf_GetStrPtr(&r, 40, nullptr));
                break;
            case TFREC_END_PACKAGE:
                --depth;
                break;
            case TFREC_OBJECT:
                d->objectFiles.push_back(storedObject(tf, r));
                break;
            case TFREC_CONTENT_FILE: {
                if ((tf_GetINT32(&r, 24) & TF_CONTENT_NOT_COUNTED) != 0) break;
                if (++counted <= kReceivedParts) break;
                uint32_t next = 0;
                tf_GetStrPtr(&r, 36, &next);
                ItemRef ref{};
                Msg_GetAttachedFile(message, &ref, counted);
                const std::string path = im_ItemRef2FName(ref);
                d->parts.push_back({tf_GetStrPtr(&r, next, nullptr), depth > 0, fs::file_size(path),
                                    testsha::sha256OfFile(path)});
                break;
            }
            default:
                break;
        }
    }
}

// Every file under the home with a digest of its bytes.
std::map<std::string, std::string> storeSnapshot(const TestHome& home) {
    std::map<std::string, std::string> files;
    for (const auto& e : fs::recursive_directory_iterator(home.path()))
        if (e.is_regular_file())
            files[fs::relative(e.path(), home.path()).string()] = testsha::sha256OfFile(e.path());
    return files;
}

// The files added, removed or changed between two snapshots, one per line.
std::string storeChanges(const std::map<std::string, std::string>& before,
                         const std::map<std::string, std::string>& after) {
    std::string changes;
    for (const auto& [path, sha] : after) {
        const auto it = before.find(path);
        if (it == before.end())
            changes += "  added " + path + "\n";
        else if (it->second != sha)
            changes += "  changed " + path + "\n";
    }
    for (const auto& [path, sha] : before)
        if (after.count(path) == 0) changes += "  removed " + path + "\n";
    return changes;
}

// Data items the decode made that nothing links to: not a message part, not a kept object.
std::string orphanItems(const TestHome& home, const std::vector<std::string>& before,
                        const std::string& keep) {
    std::string orphans;
    for (const std::string& name : storecheck::filesIn(home.file("store/items"))) {
        const std::string path = home.file("store/items/" + name);
        struct stat st {};
        if (std::binary_search(before.begin(), before.end(), name) || path == keep) continue;
        if (::stat(path.c_str(), &st) == 0 && st.st_nlink < 2)
            orphans += "  data item " + name + "\n";
    }
    return orphans;
}

// Decodes the file into a received message. Records in leftBehind what the decode should
// not leave: a descriptor, message file or message handle, a temporary item or an unlinked
// data item; and, on an escape, any change to the store.
CorpusDecode decodeCorpusFile(const TestHome& home, const std::string& path) {
    CorpusDecode d;
    ReceivedMessage received;
    received.tnefPath = path;
    int16_t messageFile = 0;
    MsgOwner message(Msg_BuildReceived(received, &messageFile));
    TfFileOwner receivedFile(messageFile);

    const int fds = storecheck::openFdCount();
    const int messageFiles = tf_OpenHandleCount();
    const int messages = Msg_OpenHandleCount();
    const auto itemsBefore = storecheck::filesIn(home.file("store/items"));
    const auto storeBefore = storeSnapshot(home);
    uint16_t receipt = 0;
    uint32_t reply = 0;
    try {
        tnef_Decode(message.get(), &messageFile, path.c_str(), &receipt, &reply, 0, 0);
        d.outcome = "ok";
    } catch (const Escape& e) {
        d.outcome = std::to_string(e.group) + "/" + std::to_string(e.reason);
        d.escapeText = e.what();
        if (messageFile != receivedFile.get())
            d.leftBehind += "  the caller's message file handle was replaced\n";
        d.leftBehind += storeChanges(storeBefore, storeSnapshot(home));
    }
    if (d.outcome == "ok") {
        TfFileOwner decodedFile(messageFile);
        Msg_Save(message.get(), messageFile);
        collectParts(message.get(), messageFile, &d);
        ItemRef decodedRef{};
        tf_GetRef(messageFile, &decodedRef);
        d.leftBehind += orphanItems(home, itemsBefore, im_ItemRef2FName(decodedRef));
    }
    const auto count = [&](const char* what, int now, int then) {
        if (now != then) d.leftBehind += "  " + std::to_string(now - then) + " " + what + "\n";
    };
    // Publishing the message releases the lock its staged folder held.
    count("descriptors", storecheck::openFdCount() + (d.outcome == "ok" ? 1 : 0), fds);
    count("message file handles", tf_OpenHandleCount(), messageFiles);
    count("message handles", Msg_OpenHandleCount(), messages);
    for (const std::string& name : storecheck::filesIn(home.file("tmp/items")))
        d.leftBehind += "  temporary item " + name + "\n";
    return d;
}

// ---- Explaining the differences ---------------------------------------------------------------

// What the checks of the differences table look at.
struct Evidence {
    const CorpusDecode& decode;
    Walk input;    // the corpus file
    Walk objects;  // the stored object files
};

bool hasBlob(const Walk& w, const std::string& sha, uint32_t tag) {
    return std::any_of(w.blobs.begin(), w.blobs.end(),
                       [&](const Blob& b) { return b.sha == sha && b.tag == tag; });
}

bool isHandledAttribute(uint32_t id) {
    for (uint32_t known :
         {attSubject, attBody, attRequestRes, attPriority, attAidOwner, attMessageClass,
          attTnefVersion, attOemCodepage, attMAPIProps, attRecipTable, attAttachRenddata,
          attAttachTitle, attAttachData, attAttachMetaFile, attAttachCreateDate,
          attAttachModifyDate, attAttachTransportFilename, attAttachment})
        if (id == known) return true;
    return false;
}

// Whether the reason given for an extractor's file that the decode has no part for holds.
testing::AssertionResult oracleSideHolds(const std::string& kind, const OracleFile& o,
                                         const Evidence& ev) {
    const auto& blobs = ev.objects.blobs;
    if (kind == "attach-data-bin") {
        if (hasBlob(ev.objects, o.sha, PR_ATTACH_DATA_BIN)) return testing::AssertionSuccess();
        return testing::AssertionFailure()
               << "no PR_ATTACH_DATA_BIN of these bytes in the object file";
    }
    if (kind == "attach-data-obj") {
        const bool found = std::any_of(blobs.begin(), blobs.end(), [&](const Blob& b) {
            return b.sha == o.sha && b.tag == PR_ATTACH_DATA_OBJ && !b.isTnef;
        });
        if (found) return testing::AssertionSuccess();
        return testing::AssertionFailure()
               << "no PR_ATTACH_DATA_OBJ of these bytes in the object file";
    }
    if (kind == "embedded-message") {
        const auto& packages = ev.decode.packageSubjects;
        for (const Blob& b : blobs) {
            if (b.sha != o.sha || !b.isTnef) continue;
            // The embedded message's subject names its package.
            if (std::find(packages.begin(), packages.end(), b.subject) != packages.end())
                return testing::AssertionSuccess();
            return testing::AssertionFailure() << "no package \"" << b.subject << "\"";
        }
        return testing::AssertionFailure()
               << "no embedded TNEF stream of these bytes in the object file";
    }
    if (kind == "not-in-stream") {
        const bool found = std::any_of(ev.input.blobs.begin(), ev.input.blobs.end(),
                                       [&](const Blob& b) { return b.sha == o.sha; });
        if (!found) return testing::AssertionSuccess();
        return testing::AssertionFailure() << "the stream does hold these bytes";
    }
    if (kind == "unknown-attribute") {
        for (const Blob& b : ev.input.blobs)
            if (b.sha == o.sha && b.tag == 0 && !isHandledAttribute(b.attribute))
                return testing::AssertionSuccess();
        return testing::AssertionFailure()
               << "no record of an unhandled attribute holds these bytes";
    }
    return testing::AssertionFailure() << "unknown kind " << kind;
}

testing::AssertionResult decodeSideHolds(const std::string& kind, const DecodedPart& p,
                                         const Evidence& ev) {
    if (kind == "embedded-body") {
        const bool body =
            std::any_of(ev.input.blobs.begin(), ev.input.blobs.end(), [&](const Blob& b) {
                return b.sha == p.sha && b.attribute == attBody && b.tag == 0 && b.depth > 0;
            });
        if (p.inPackage && p.name == "BDY.TXT" && body) return testing::AssertionSuccess();
        return testing::AssertionFailure() << "not an embedded message's attBody in its package";
    }
    return testing::AssertionFailure() << "unknown kind " << kind;
}

testing::AssertionResult nameDifferenceHolds(const std::string& kind, const std::string& oracleName,
                                             const std::string& partName, const Evidence& ev) {
    const std::string ours = nameBytes(partName);
    if (kind == "display-name") {
        const auto& names = ev.input.names;
        const auto has = [&](uint32_t tag, const std::string& n) {
            const auto it = names.find(tag);
            return it != names.end() && it->second.count(n) != 0;
        };
        const bool theirs = has(PR_ATTACH_LONG_FILENAME, oracleName) ||
                            has(PR_ATTACH_FILENAME, oracleName) || has(attAttachTitle, oracleName);
        if (has(PR_DISPLAY_NAME, ours) && theirs) return testing::AssertionSuccess();
        return testing::AssertionFailure() << "not a display name against a file name or title";
    }
    if (kind == "underscores") {
        std::string underscored = ours;
        std::replace(underscored.begin(), underscored.end(), ' ', '_');
        if (underscored == oracleName) return testing::AssertionSuccess();
        return testing::AssertionFailure() << "not the same name with spaces made underscores";
    }
    return testing::AssertionFailure() << "unknown kind " << kind;
}

// ---- Tests ------------------------------------------------------------------------------------

std::string testNameOf(const testing::TestParamInfo<CorpusRow>& info) {
    std::string name = info.param.file;
    for (char& ch : name)
        if (!std::isalnum(static_cast<unsigned char>(ch))) ch = '_';
    return name;
}

class DecodeCorpus : public testing::TestWithParam<CorpusRow> {
  protected:
    void SetUp() override {
        corpus_ = corpusDir();
        if (corpus_.empty())
            GTEST_SKIP() << "no shared corpus beside this checkout (set TNEF_CORPUS)";
        path_ = corpus_ + "/files/" + GetParam().file;
    }
    std::string corpus_;
    std::string path_;
};

TEST_P(DecodeCorpus, EndsAsTheTableSaysAndLeavesNothingBehind) {
    TestHome home;
    const CorpusDecode d = decodeCorpusFile(home, path_);
    EXPECT_EQ(d.outcome, GetParam().outcome) << GetParam().why << "\n" << d.escapeText;
    EXPECT_TRUE(d.leftBehind.empty())
        << "left behind by the decode" << (d.outcome == "ok" ? ":\n" : ", which escaped:\n")
        << d.leftBehind;
}

TEST_P(DecodeCorpus, AttachmentsMatchTheIndependentExtractors) {
    TestHome home;
    const CorpusDecode d = decodeCorpusFile(home, path_);
    if (d.outcome != "ok") GTEST_SKIP() << "the decode escapes: " << d.escapeText;

    Evidence ev{d, {}, {}};
    walkStream(readFileBytes(path_), 0, &ev.input);
    for (const std::string& object : d.objectFiles) walkStream(object, 0, &ev.objects);

    std::vector<Difference> explained;
    for (const Difference& row : differencesTable())
        if (row.file == GetParam().file) explained.push_back(row);
    std::vector<bool> used(explained.size(), false);
    const auto explanation = [&](const std::string& side,
                                 const std::string& name) -> const Difference* {
        for (size_t i = 0; i < explained.size(); ++i)
            if (explained[i].side == side && explained[i].name == name) {
                used[i] = true;
                return &explained[i];
            }
        return nullptr;
    };

    std::vector<bool> partMatched(d.parts.size(), false);
    for (const OracleFile& o : oracleFiles(corpus_, GetParam().file)) {
        SCOPED_TRACE(o.tool + " wrote \"" + o.name + "\" (" + std::to_string(o.size) + " bytes)");
        // Same bytes first; among parts of the same bytes, one of the same name if any.
        const DecodedPart* same = nullptr;
        for (size_t i = 0; i < d.parts.size(); ++i) {
            if (d.parts[i].sha != o.sha) continue;
            partMatched[i] = true;
            if (same == nullptr || nameBytes(d.parts[i].name) == unescapeOracleName(o.name))
                same = &d.parts[i];
        }
        if (same == nullptr) {
            const Difference* why = explanation("oracle", o.name);
            if (why == nullptr)
                ADD_FAILURE() << "no part of the decode holds these bytes";
            else
                EXPECT_TRUE(oracleSideHolds(why->kind, o, ev)) << why->kind << ": " << why->why;
        } else if (nameBytes(same->name) != unescapeOracleName(o.name)) {
            const Difference* why = explanation("name", o.name);
            if (why == nullptr)
                ADD_FAILURE() << "the decode names these bytes \"" << same->name << "\"";
            else
                EXPECT_TRUE(
                    nameDifferenceHolds(why->kind, unescapeOracleName(o.name), same->name, ev))
                    << why->kind << ": " << why->why;
        }
    }
    for (size_t i = 0; i < d.parts.size(); ++i) {
        if (partMatched[i]) continue;
        const DecodedPart& p = d.parts[i];
        SCOPED_TRACE("the decode's part \"" + p.name + "\" (" + std::to_string(p.size) +
                     " bytes, " + p.sha + ")");
        const Difference* why = explanation("decode", p.name);
        if (why == nullptr)
            ADD_FAILURE() << "no extractor wrote these bytes";
        else
            EXPECT_TRUE(decodeSideHolds(why->kind, p, ev)) << why->kind << ": " << why->why;
    }
    for (size_t i = 0; i < explained.size(); ++i)
        EXPECT_TRUE(used[i]) << "explained difference no longer met: " << explained[i].side << " \""
                             << explained[i].name << "\"";
}

INSTANTIATE_TEST_SUITE_P(Files, DecodeCorpus, testing::ValuesIn(corpusTable()), testNameOf);

TEST(DecodeCorpusTables, NameEveryCorpusFileOnce) {
    const std::string corpus = corpusDir();
    if (corpus.empty()) GTEST_SKIP() << "no shared corpus beside this checkout (set TNEF_CORPUS)";
    std::set<std::string> files;
    for (const auto& e : fs::directory_iterator(corpus + "/files"))
        files.insert(e.path().filename().string());
    std::multiset<std::string> rows;
    for (const CorpusRow& row : corpusTable()) {
        rows.insert(row.file);
        EXPECT_TRUE(row.outcome == "ok" || row.outcome.find('/') != std::string::npos) << row.file;
        EXPECT_FALSE(row.why.empty()) << row.file;
    }
    EXPECT_EQ(std::set<std::string>(rows.begin(), rows.end()), files);
    EXPECT_EQ(rows.size(), files.size()) << "a file named twice";
    for (const Difference& row : differencesTable()) {
        EXPECT_EQ(files.count(row.file), 1u) << row.file;
        EXPECT_TRUE(row.side == "oracle" || row.side == "decode" || row.side == "name") << row.side;
    }
}

}  // namespace
