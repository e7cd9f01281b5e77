#include "support/tnef_builder.h"

#include <bit>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <stdexcept>

namespace tnefbuild {

namespace {

constexpr uint8_t kLevelMessage = 1;
constexpr uint32_t kAttTnefVersion = 0x00089006;
constexpr uint32_t kAttOemCodepage = 0x00069007;

std::string_view viewOf(const Guid& g) {
    return {reinterpret_cast<const char*>(g.data()), g.size()};
}

std::string le(uint64_t v, int width) {
    std::string s;
    for (int i = 0; i < width; ++i) s.push_back(static_cast<char>(v >> (8 * i)));
    return s;
}

}  // namespace

// ---- Stream --------------------------------------------------------------------------------

Stream& Stream::headerWithSignature(uint32_t signature, uint16_t key) {
    return u32(signature).u16(key);
}

Stream& Stream::record(uint8_t level, uint32_t id, std::string_view data) {
    lastAt_ = size();
    lastDataSize_ = data.size();
    return u8(level).u32(id).u32(static_cast<uint32_t>(data.size())).raw(data).u16(byteSum16(data));
}

Stream& Stream::tnefVersion(uint32_t version) {
    return record(kLevelMessage, kAttTnefVersion, le(version, 4));
}

Stream& Stream::oemCodepage(uint32_t codepage, uint32_t secondWord) {
    return record(kLevelMessage, kAttOemCodepage, le(codepage, 4) + le(secondWord, 4));
}

Stream& Stream::checksum(uint16_t value) {
    // Found by the data actually written, not by a length field that may lie.
    const size_t at = lastRecordAt() + 9 + lastDataSize_;
    if (at + 2 > size()) throw std::logic_error("checksum: the record was truncated");
    out_[at] = static_cast<char>(value);
    out_[at + 1] = static_cast<char>(value >> 8);
    return *this;
}

Stream& Stream::lengthField(uint32_t value) {
    putU32At(lastRecordAt() + 5, value);
    return *this;
}

Stream& Stream::truncateRecord(size_t keep) {
    const size_t at = lastRecordAt();
    if (at + keep > size()) throw std::logic_error("truncateRecord: beyond the record");
    out_.resize(at + keep);
    return *this;
}

size_t Stream::lastRecordAt() const {
    if (lastAt_ == kNone || lastAt_ >= size()) throw std::logic_error("no record to change");
    return lastAt_;
}

// ---- PropList ------------------------------------------------------------------------------

PropList::PropList() {
    u32(0);
}

PropList& PropList::count(uint32_t forced) {
    countForced_ = true;
    putU32At(0, forced);
    return *this;
}

PropList& PropList::namedId(const Guid& set, uint32_t lid) {
    pendingNamed_ = std::string(viewOf(set)) + le(0, 4) + le(lid, 4);
    return *this;
}

PropList& PropList::namedString(const Guid& set, std::string_view utf16leName, uint32_t kind) {
    const size_t length = utf16leName.size() + 2;
    pendingNamed_ = std::string(viewOf(set)) + le(kind, 4) + le(length, 4);
    pendingNamed_.append(utf16leName);
    pendingNamed_.append(2 + (4 - length % 4) % 4, '\0');
    return *this;
}

PropList& PropList::beginProp(uint32_t tag) {
    ++properties_;
    if (!countForced_) putU32At(0, properties_);
    lastValueCountAt_ = kNone;
    u32(tag).raw(pendingNamed_);
    pendingNamed_.clear();
    return *this;
}

PropList& PropList::counted(uint32_t tag, size_t values) {
    beginProp(tag);
    lastValueCountAt_ = size();
    return u32(static_cast<uint32_t>(values));
}

void PropList::fixedValue(std::string_view v) {
    raw(v).zeros((4 - v.size() % 4) % 4);
}

void PropList::lengthPrefixedValue(std::string_view v) {
    u32(static_cast<uint32_t>(v.size()));
    fixedValue(v);
}

PropList& PropList::i2(uint32_t tag, uint16_t v) {
    return beginProp(tag).u16(v).zeros(2);
}
PropList& PropList::long32(uint32_t tag, uint32_t v) {
    return beginProp(tag).u32(v);
}
PropList& PropList::r4(uint32_t tag, float v) {
    return long32(tag, std::bit_cast<uint32_t>(v));
}
PropList& PropList::i8(uint32_t tag, uint64_t v) {
    return beginProp(tag).u64(v);
}
PropList& PropList::r8(uint32_t tag, double v) {
    return i8(tag, std::bit_cast<uint64_t>(v));
}
PropList& PropList::clsid(uint32_t tag, const Guid& v) {
    return beginProp(tag).raw(v);
}

PropList& PropList::string8(uint32_t tag, std::string_view text) {
    return lengthPrefixed(tag, {std::string(text) + '\0'});
}

PropList& PropList::unicode(uint32_t tag, std::string_view utf16leText) {
    return lengthPrefixed(tag, {std::string(utf16leText) + std::string(2, '\0')});
}

PropList& PropList::binary(uint32_t tag, std::string_view data) {
    return lengthPrefixed(tag, {std::string(data)});
}

PropList& PropList::object(uint32_t tag, const Guid& iid, std::string_view data) {
    return lengthPrefixed(tag, {std::string(viewOf(iid)) + std::string(data)});
}

PropList& PropList::mvI2(uint32_t tag, const std::vector<uint16_t>& v) {
    counted(tag, v.size());
    for (uint16_t x : v) u16(x).zeros(2);
    return *this;
}

PropList& PropList::mvLong(uint32_t tag, const std::vector<uint32_t>& v) {
    counted(tag, v.size());
    for (uint32_t x : v) u32(x);
    return *this;
}

PropList& PropList::mvI8(uint32_t tag, const std::vector<uint64_t>& v) {
    counted(tag, v.size());
    for (uint64_t x : v) u64(x);
    return *this;
}

PropList& PropList::mvClsid(uint32_t tag, const std::vector<Guid>& v) {
    counted(tag, v.size());
    for (const Guid& g : v) raw(g);
    return *this;
}

PropList& PropList::mvString8(uint32_t tag, const std::vector<std::string>& texts) {
    counted(tag, texts.size());
    for (const std::string& t : texts) lengthPrefixedValue(t + '\0');
    return *this;
}

PropList& PropList::mvUnicode(uint32_t tag, const std::vector<std::string>& utf16leTexts) {
    counted(tag, utf16leTexts.size());
    for (const std::string& t : utf16leTexts) lengthPrefixedValue(t + std::string(2, '\0'));
    return *this;
}

PropList& PropList::mvBinary(uint32_t tag, const std::vector<std::string>& data) {
    return lengthPrefixed(tag, data);
}

PropList& PropList::lengthPrefixed(uint32_t tag, const std::vector<std::string>& values) {
    counted(tag, values.size());
    for (const std::string& v : values) lengthPrefixedValue(v);
    return *this;
}

PropList& PropList::valueCount(uint32_t forced) {
    if (lastValueCountAt_ == kNone) throw std::logic_error("valueCount: last property has none");
    putU32At(lastValueCountAt_, forced);
    return *this;
}

// ---- RecipTable ----------------------------------------------------------------------------

RecipTable::RecipTable() {
    u32(0);
}

RecipTable& RecipTable::row(const PropList& list) {
    ++rows_;
    if (!countForced_) putU32At(0, rows_);
    return raw(list.bytes());
}

RecipTable& RecipTable::rowCount(uint32_t forced) {
    countForced_ = true;
    putU32At(0, forced);
    return *this;
}

// ---- Helpers -------------------------------------------------------------------------------

std::string utf16le(std::string_view ascii) {
    std::string s;
    for (char c : ascii) s.append({c, '\0'});
    return s;
}

std::string bytesOf(std::initializer_list<uint8_t> bytes) {
    std::string s;
    for (uint8_t b : bytes) s.push_back(static_cast<char>(b));
    return s;
}

uint16_t byteSum16(std::string_view data) {
    uint16_t sum = 0;
    for (char c : data) sum = static_cast<uint16_t>(sum + static_cast<uint8_t>(c));
    return sum;
}

std::string hexDump(std::string_view bytes) {
    std::string s;
    char cell[24];
    for (size_t i = 0; i < bytes.size(); ++i) {
        if (i % 16 == 0) {
            if (i != 0) s += '\n';
            std::snprintf(cell, sizeof cell, "%04zx:", i);
            s += cell;
        }
        std::snprintf(cell, sizeof cell, " %02x", static_cast<uint8_t>(bytes[i]));
        s += cell;
    }
    return s.empty() ? "(empty)" : s;
}

testing::AssertionResult sameBytes(std::string_view actual, std::string_view expected) {
    if (actual == expected) return testing::AssertionSuccess();
    size_t at = 0;
    while (at < actual.size() && at < expected.size() && actual[at] == expected[at]) ++at;
    return testing::AssertionFailure()
           << "bytes differ at offset " << at << " (actual " << actual.size() << " bytes, expected "
           << expected.size() << ")\nactual:\n"
           << hexDump(actual) << "\nexpected:\n"
           << hexDump(expected);
}

void writeFile(const std::string& path, std::string_view bytes) {
    const std::filesystem::path p(path);
    if (p.has_parent_path()) std::filesystem::create_directories(p.parent_path());
    std::ofstream out(p, std::ios::binary | std::ios::trunc);
    out.write(bytes.data(), static_cast<std::streamsize>(bytes.size()));
    if (!out) throw std::runtime_error("writeFile: cannot write " + path);
}

}  // namespace tnefbuild
