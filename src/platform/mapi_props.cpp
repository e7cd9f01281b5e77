#include "tnef/platform/mapi_props.h"

#include <array>
#include <cerrno>
#include <cstring>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "tnef/platform/er_escape.h"
#include "tnef/platform/mapi_blob.h"
#include "tnef/platform/os_file.h"

namespace {

constexpr const char* kUnit = "src/platform/mapi_props";
using Guid = std::array<uint8_t, 16>;
constexpr std::string_view kSetId = "GUID";

int hexDigit(char c) {
    if (c >= '0' && c <= '9') return c - '0';
    if (c >= 'a' && c <= 'f') return c - 'a' + 10;
    if (c >= 'A' && c <= 'F') return c - 'A' + 10;
    return -1;
}

// One to eight hex digits and nothing else. Plain tags take lower case only: the other id
// parts of a property text (origin entries, "GUID") begin with upper-case letters.
bool parseHex(std::string_view s, bool lowerOnly, uint32_t& value) {
    if (s.empty() || s.size() > 8) return false;
    value = 0;
    for (char c : s) {
        const int d = hexDigit(c);
        if (d < 0 || (lowerOnly && c >= 'A' && c <= 'F')) return false;
        value = value << 4 | static_cast<uint32_t>(d);
    }
    return true;
}

enum class KeyKind { Other, Plain, Numeric, Set };

struct Key {
    KeyKind kind = KeyKind::Other;
    uint16_t type = 0;
    uint32_t number = 0;  // property id of a plain key, numeric name of a "#" key
};

Key parseKey(std::string_view id) {
    Key key;
    uint32_t value = 0;
    if (id == kSetId) {
        key.kind = KeyKind::Set;
    } else if (!id.empty() && id[0] == '#') {
        const size_t slash = id.find('/');
        uint32_t type = 0;
        if (slash != std::string_view::npos && parseHex(id.substr(1, slash - 1), false, type) &&
            type <= 0xFFFF && parseHex(id.substr(slash + 1), false, value)) {
            key = {KeyKind::Numeric, static_cast<uint16_t>(type), value};
        }
    } else if (parseHex(id, true, value)) {
        key = {KeyKind::Plain, static_cast<uint16_t>(value & 0xFFFF), value >> 16};
    }
    return key;
}

// One entry of a text, with the property set in effect for it (for a "GUID" entry: the set
// it introduces).
struct Entry {
    size_t begin = 0;  // first byte of the id part
    size_t end = 0;    // the entry's 0x1E, or the text's end
    size_t next = 0;   // first byte after the 0x1E
    size_t valueAt = 0;
    bool hasValue = false;  // the entry holds 0x1D
    Key key;
    bool setKnown = false;
    Guid set{};
};

bool decodeGuid(std::string_view value, Guid& set) {
    dstring bytes;
    mapi_BlobDecodeToDstring(value.data(), value.size(), &bytes);
    if (bytes.text.size() != set.size()) return false;
    std::memcpy(set.data(), bytes.text.data(), set.size());
    return true;
}

// The property set in effect after the entries walked so far.
struct SetState {
    bool known = false;
    Guid set{};
};

// Calls visit(entry) for each entry in order, keeping none of them, so a text of a million
// tiny entries costs no more memory than one. visit returns false to stop. Returns the set in
// effect after the last entry walked.
template <class Visit>
SetState walkText(std::string_view text, Visit&& visit) {
    SetState state;
    size_t at = 0;
    while (at < text.size()) {
        Entry e;
        e.begin = at;
        const size_t sep = text.find(BLOB_ENTRY_SEP, at);
        e.end = sep == std::string_view::npos ? text.size() : sep;
        e.next = sep == std::string_view::npos ? text.size() : sep + 1;
        const std::string_view whole = text.substr(e.begin, e.end - e.begin);
        const size_t vsep = whole.find(BLOB_VALUE_SEP);
        e.hasValue = vsep != std::string_view::npos;
        e.valueAt = e.hasValue ? e.begin + vsep + 1 : e.end;
        e.key = parseKey(e.hasValue ? whole.substr(0, vsep) : whole);
        if (e.key.kind == KeyKind::Set) {
            // A set entry that does not hold 16 bytes leaves the entries after it with no set
            // we can tell, rather than with the previous one.
            state.known = e.hasValue &&
                          decodeGuid(text.substr(e.valueAt, e.end - e.valueAt), state.set);
        }
        e.setKnown = state.known;
        e.set = state.set;
        if (!visit(e)) break;
        at = e.next;
    }
    return state;
}

// What an identifier names, in the terms of a parsed text.
struct Target {
    bool named = false;
    Guid set{};
    uint32_t number = 0;
    uint16_t type = 0;  // 0: any type
};

bool matches(const Entry& e, const Target& t) {
    if (!e.hasValue) return false;
    if (t.type != 0 && e.key.type != t.type) return false;
    if (t.named)
        return e.key.kind == KeyKind::Numeric && e.key.number == t.number && e.setKnown &&
               e.set == t.set;
    return e.key.kind == KeyKind::Plain && e.key.number == t.number;
}

std::string_view valueOf(std::string_view text, const Entry& e) {
    return text.substr(e.valueAt, e.end - e.valueAt);
}

bool parseGuidText(std::string_view s, Guid& g) {
    if (s.size() == 38 && s.front() == '{' && s.back() == '}') s = s.substr(1, 36);
    if (s.size() != 36 || s[8] != '-' || s[13] != '-' || s[18] != '-' || s[23] != '-')
        return false;
    // Byte positions of the text's digit pairs, in the order the binary form stores them:
    // the first three fields little-endian, the last eight bytes as written.
    static constexpr int kPairAt[16] = {6, 4, 2, 0, 11, 9, 16, 14, 19, 21, 24, 26, 28, 30, 32, 34};
    Guid out;
    for (size_t i = 0; i < out.size(); ++i) {
        const int hi = hexDigit(s[static_cast<size_t>(kPairAt[i])]);
        const int lo = hexDigit(s[static_cast<size_t>(kPairAt[i]) + 1]);
        if (hi < 0 || lo < 0) return false;
        out[i] = static_cast<uint8_t>(hi << 4 | lo);
    }
    g = out;
    return true;
}

bool targetOf(const BV_MAPI_PROP_ID* id, Target& t) {
    if (id == nullptr) return false;
    t = Target{};
    t.number = id->lid;
    if (id->guid[0] == '\0') return id->lid < 0x8000;
    t.named = true;
    return parseGuidText(std::string_view(id->guid, strnlen(id->guid, MAPI_GUID_TEXT_SIZE)),
                         t.set);
}

void appendHex(std::string& out, uint32_t value) {
    char digits[33];
    int length = 0;
    os_ul2str(value, 16, 1, digits, &length);
    out.append(digits, static_cast<size_t>(length));
}

void appendSetEntry(std::string& out, const Guid& set) {
    out.append(kSetId);
    out.push_back(BLOB_VALUE_SEP);
    dstring escaped;
    mapi_BlobEncodeToDstring(set.data(), set.size(), &escaped);
    out.append(escaped.text);
    out.push_back(BLOB_ENTRY_SEP);
}

// The key alone, without a set entry.
std::string bareKey(const BV_MAPI_PROP_ID* id, const Target& t) {
    std::string key;
    if (t.named) {
        key.push_back('#');
        appendHex(key, id->type);
        key.push_back('/');
        appendHex(key, id->lid);
    } else {
        appendHex(key, id->lid << 16 | id->type);
    }
    return key;
}

char* lookup(const char* text, const Target& t, uint16_t* typeOut, uint16_t preferred) {
    if (text == nullptr) return nullptr;
    const std::string_view view(text);
    bool found = false;
    Entry hit;
    walkText(view, [&](const Entry& e) {
        if (!matches(e, t)) return true;
        if (!found || preferred == 0 || e.key.type == preferred) hit = e;
        found = true;
        return preferred != 0 && e.key.type != preferred;
    });
    if (!found) return nullptr;
    if (typeOut != nullptr) *typeOut = hit.key.type;
    const std::string_view value = valueOf(view, hit);
    return mapi_DupText(value.data(), value.size());
}

}  // namespace

char* mapi_DupText(const char* bytes, size_t length) {
    auto* copy = static_cast<char*>(mdc_malloc(length + 1));
    if (copy == nullptr)
        er_TracedEscapeText(ER_GROUP_IO, ENOMEM, kUnit, __LINE__,
                            "no memory for a value text of " + std::to_string(length) + " bytes");
    if (length != 0) std::memcpy(copy, bytes, length);
    copy[length] = '\0';
    return copy;
}

void mapi_init_BV_MAPI_PROP_ID(BV_MAPI_PROP_ID* id, const uint8_t* set) {
    *id = BV_MAPI_PROP_ID{};
    if (set != nullptr) mapi_Guid2String(set, id->guid);
}

char* mapi_Guid2String(const uint8_t* guid, char* text) {
    static constexpr char kDigits[] = "0123456789ABCDEF";
    static constexpr int kOrder[16] = {3, 2, 1, 0, 5, 4, 7, 6, 8, 9, 10, 11, 12, 13, 14, 15};
    char* p = text;
    *p++ = '{';
    for (int i = 0; i < 16; ++i) {
        if (i == 4 || i == 6 || i == 8 || i == 10) *p++ = '-';
        const uint8_t b = guid[kOrder[i]];
        *p++ = kDigits[b >> 4];
        *p++ = kDigits[b & 0x0F];
    }
    *p++ = '}';
    *p = '\0';
    return text;
}

bool mapi_string_to_MAPI_GUID(const char* text, uint8_t* guid, dstring* error) {
    Guid g;
    if (text == nullptr || !parseGuidText(text, g)) {
        if (error != nullptr) {
            dstring_append1(error, "not a GUID text: ");
            dstring_append1(error, text != nullptr ? text : "(none)");
        }
        return false;
    }
    std::memcpy(guid, g.data(), g.size());
    return true;
}

int mapi_sameAsGuid(const uint8_t* a, const uint8_t* b) {
    return a != nullptr && b != nullptr && std::memcmp(a, b, 16) == 0 ? 1 : 0;
}

char* mapi_BlobValueForPT_LONG(uint32_t value, char* buffer) {
    char digits[33];
    os_ul2str(value, 16, 1, digits, nullptr);
    std::memcpy(buffer, digits, std::strlen(digits) + 1);
    return buffer;
}

char* mapi_getValueFor_guidf_num(const char* text, const uint8_t* set, uint32_t lid,
                                 uint16_t* type) {
    if (set == nullptr) return nullptr;
    Target t;
    t.named = true;
    std::memcpy(t.set.data(), set, t.set.size());
    t.number = lid;
    return lookup(text, t, type, type != nullptr ? *type : 0);
}

char* mapi_getValueFor_id(const char* text, uint16_t propId, uint16_t type) {
    Target t;
    t.number = propId;
    t.type = type;
    return lookup(text, t, nullptr, 0);
}

char* mapi_getValueForBV_MAPI_PROP_ID(const char* text, const BV_MAPI_PROP_ID* id) {
    Target t;
    if (!targetOf(id, t)) return nullptr;
    return lookup(text, t, nullptr, 0);
}

bool mapi_BV_MAPI_PROP_ID_to_blobId(const BV_MAPI_PROP_ID* id, char* lastSet, dstring* key) {
    key->text.clear();
    Target t;
    if (!targetOf(id, t) || id->type == 0) return false;
    if (t.named) {
        Guid last;
        const bool same =
            lastSet != nullptr &&
            parseGuidText(std::string_view(lastSet, strnlen(lastSet, MAPI_GUID_TEXT_SIZE)), last) &&
            last == t.set;
        if (!same) {
            appendSetEntry(key->text, t.set);
            if (lastSet != nullptr) mapi_Guid2String(t.set.data(), lastSet);
        }
    }
    key->text.append(bareKey(id, t));
    return true;
}

bool mapi_replacePropInBlobD(dstring* text, const BV_MAPI_PROP_ID* id, const char* value) {
    Target t;
    if (!targetOf(id, t) || id->type == 0 || value == nullptr) return false;
    std::string& s = text->text;
    std::string entry = bareKey(id, t);
    entry.push_back(BLOB_VALUE_SEP);
    entry.append(value);

    // One walk: the entries for the property, the end of the last set entry for its set, and
    // the set the text ends in.
    bool found = false;
    Entry first;
    std::vector<std::pair<size_t, size_t>> duplicates;  // [begin, next) of later entries
    size_t afterSetEntry = std::string::npos;
    const SetState tail = walkText(s, [&](const Entry& e) {
        if (matches(e, t)) {
            if (!found) first = e;
            else duplicates.emplace_back(e.begin, e.next);
            found = true;
        }
        if (t.named && e.key.kind == KeyKind::Set && e.setKnown && e.set == t.set)
            afterSetEntry = e.next;
        return true;
    });

    if (found) {
        // Later duplicates go first, so the first entry's offsets stay valid.
        for (auto d = duplicates.rbegin(); d != duplicates.rend(); ++d)
            s.erase(d->first, d->second - d->first);
        s.replace(first.begin, first.end - first.begin, entry);
        return true;
    }

    entry.push_back(BLOB_ENTRY_SEP);
    if (t.named && !(tail.known && tail.set == t.set)) {
        if (afterSetEntry != std::string::npos) {
            // Not the text's last entry (else the text would end in the set): it has its 0x1E.
            s.insert(afterSetEntry, entry);
            return true;
        }
        std::string added;
        appendSetEntry(added, t.set);
        added.append(entry);
        if (tail.known) appendSetEntry(added, tail.set);
        entry = added;
    }
    if (!s.empty() && s.back() != BLOB_ENTRY_SEP) s.push_back(BLOB_ENTRY_SEP);
    s.append(entry);
    return true;
}
