// Builds TNEF streams byte by byte for tests, apart from the codec's own writers, so that a
// test compares the codec against bytes laid out here rather than against itself.
//
// Every method appends exactly the bytes its comment names and validates nothing: a
// malformed stream is as easy to lay out as a good one. All integers are little-endian.
//
//   std::string tnef = tnefbuild::Stream()
//       .header()
//       .tnefVersion()
//       .record(1, 0x00069003, tnefbuild::PropList()      // attMAPIProps
//                                  .long32(0x00170003, 2)    // PR_IMPORTANCE
//                                  .string8(0x0037001E, "Hi") // PR_SUBJECT
//                                  .bytes())
//       .checksum(0xBEEF)  // changes the record written last
//       .bytes();
//
// Embedded NUL bytes: pass std::string ("a\0b"s) or bytesOf({...}), never a bare literal.
#pragma once

#include <gtest/gtest.h>

#include <array>
#include <cstddef>
#include <cstdint>
#include <initializer_list>
#include <string>
#include <string_view>
#include <vector>

namespace tnefbuild {

// A GUID in its stream form (first field and the next two little-endian). The codec's own
// GUID constants have this very type, so they can be passed straight in.
using Guid = std::array<uint8_t, 16>;

inline constexpr uint32_t kSignature = 0x223E9F78;  // bytes 78 9F 3E 22
inline constexpr uint16_t kDefaultKey = 0x04D2;     // what the writer puts; readers ignore it
inline constexpr uint32_t kTnefVersion = 0x00010000;

// Little-endian appenders shared by the builders. Self is the builder itself, so calls
// chain whatever mix of builder and appender methods a test uses.
template <class Self>
class Appender {
public:
    Self& u8(uint8_t v) {
        out_.push_back(static_cast<char>(v));
        return self();
    }
    Self& u16(uint16_t v) { return u8(static_cast<uint8_t>(v)).u8(static_cast<uint8_t>(v >> 8)); }
    Self& u32(uint32_t v) {
        return u16(static_cast<uint16_t>(v)).u16(static_cast<uint16_t>(v >> 16));
    }
    Self& u64(uint64_t v) {
        return u32(static_cast<uint32_t>(v)).u32(static_cast<uint32_t>(v >> 32));
    }
    Self& raw(std::string_view b) {
        out_.append(b);
        return self();
    }
    Self& raw(const Guid& g) {
        return raw(std::string_view(reinterpret_cast<const char*>(g.data()), g.size()));
    }
    Self& zeros(size_t n) {
        out_.append(n, '\0');
        return self();
    }
    // Zero bytes up to the next multiple of 4, counted from the first byte built.
    Self& pad4() { return zeros((4 - out_.size() % 4) % 4); }
    // Keeps only the first n bytes (a stream or list cut short).
    Self& cut(size_t n) {
        if (n < out_.size()) out_.resize(n);
        return self();
    }

    std::string bytes() const { return out_; }
    size_t size() const { return out_.size(); }

protected:
    Self& self() { return static_cast<Self&>(*this); }
    void putU32At(size_t at, uint32_t v) {
        for (int i = 0; i < 4; ++i) out_.at(at + i) = static_cast<char>(v >> (8 * i));
    }
    std::string out_;
};

// A TNEF stream: header, then attribute records (level, id, length, data, checksum).
class Stream : public Appender<Stream> {
public:
    // Signature and key.
    Stream& header(uint16_t key = kDefaultKey) { return headerWithSignature(kSignature, key); }
    // Any signature, for streams a reader must refuse.
    Stream& headerWithSignature(uint32_t signature, uint16_t key = kDefaultKey);

    // level (1) id (4) length (4) data checksum (2); the checksum is the 16-bit wrapping byte
    // sum of the data, and the length the data's size, until a modifier below changes them.
    Stream& record(uint8_t level, uint32_t id, std::string_view data);
    // attTnefVersion at message level, data the 32-bit version.
    Stream& tnefVersion(uint32_t version = kTnefVersion);
    // attOemCodepage at message level: two 32-bit words, the first the code page.
    Stream& oemCodepage(uint32_t codepage, uint32_t secondWord = 0);

    // Modifiers of the record written last; each changes only the field it names.
    Stream& checksum(uint16_t value);     // a wrong checksum
    Stream& lengthField(uint32_t value);  // a length that lies about the data
    Stream& truncateRecord(size_t keep);  // keep its first `keep` bytes (0 = level byte gone)

    size_t lastRecordAt() const;  // offset of the level byte of the record written last

private:
    static constexpr size_t kNone = static_cast<size_t>(-1);
    size_t lastAt_ = kNone;
    size_t lastDataSize_ = 0;
};

// A MAPI property list: the property count, then properties, each a tag, a named-property
// header when one was announced with namedId/namedString, a value count where the layout
// has one, and the values with their padding. The tag is written as given: the method
// picks the layout, not the type bits, so a test can pair any tag with any layout.
class PropList : public Appender<PropList> {
public:
    PropList();  // the count, kept equal to the properties added unless forced
    PropList& count(uint32_t forced);

    // Announce the named-property header that the next property's tag is followed by.
    // Numeric name: set (16), kind 0, the name (4).
    PropList& namedId(const Guid& set, uint32_t lid);
    // String name: set (16), kind, length of the UTF-16LE name plus its 2-byte NUL, the name,
    // the NUL, padding.
    PropList& namedString(const Guid& set, std::string_view utf16leName, uint32_t kind = 1);

    // Fixed-size single values: no value count.
    PropList& i2(uint32_t tag, uint16_t v);      // PT_I2, PT_BOOLEAN: 2 bytes, 2 padding
    PropList& long32(uint32_t tag, uint32_t v);  // PT_LONG, PT_ERROR
    PropList& r4(uint32_t tag, float v);
    PropList& i8(uint32_t tag, uint64_t v);  // PT_I8, PT_CURRENCY, PT_SYSTIME (low word first)
    PropList& r8(uint32_t tag, double v);    // PT_DOUBLE, PT_APPTIME
    PropList& clsid(uint32_t tag, const Guid& v);

    // Variable-size single values: value count 1, then length, bytes, padding.
    PropList& string8(uint32_t tag, std::string_view text);         // adds the NUL
    PropList& unicode(uint32_t tag, std::string_view utf16leText);  // adds the 2-byte NUL
    PropList& binary(uint32_t tag, std::string_view data);
    PropList& object(uint32_t tag, const Guid& iid, std::string_view data);  // length 16 + data

    // Multi-valued: value count, then the values.
    PropList& mvI2(uint32_t tag, const std::vector<uint16_t>& v);    // 2 bytes + 2 padding each
    PropList& mvLong(uint32_t tag, const std::vector<uint32_t>& v);  // PT_MV_LONG, PT_MV_R4 bits
    PropList& mvI8(uint32_t tag, const std::vector<uint64_t>& v);    // every 8-byte MV type
    PropList& mvClsid(uint32_t tag, const std::vector<Guid>& v);
    PropList& mvString8(uint32_t tag, const std::vector<std::string>& texts);         // NUL each
    PropList& mvUnicode(uint32_t tag, const std::vector<std::string>& utf16leTexts);  // NUL each
    PropList& mvBinary(uint32_t tag, const std::vector<std::string>& data);
    // Value count, then each value as length, bytes and padding: how unknown types and
    // several values of a single-valued variable type are laid out.
    PropList& lengthPrefixed(uint32_t tag, const std::vector<std::string>& values);

    // Overwrites the value count of the property written last.
    PropList& valueCount(uint32_t forced);

private:
    static constexpr size_t kNone = static_cast<size_t>(-1);
    PropList& beginProp(uint32_t tag);               // tag and any announced named header
    PropList& counted(uint32_t tag, size_t values);  // tag and value count
    void lengthPrefixedValue(std::string_view v);
    void fixedValue(std::string_view v);  // the bytes, then padding to 4

    uint32_t properties_ = 0;
    bool countForced_ = false;
    std::string pendingNamed_;
    size_t lastValueCountAt_ = kNone;
};

// The data of attRecipTable: row count, then each row a property list.
class RecipTable : public Appender<RecipTable> {
public:
    RecipTable();
    RecipTable& row(const PropList& list);
    RecipTable& rowCount(uint32_t forced);

private:
    uint32_t rows_ = 0;
    bool countForced_ = false;
};

// UTF-16LE bytes of an ASCII text, without a terminator.
std::string utf16le(std::string_view ascii);
// Bytes from a list, so an expected layout can be written as a commented hex table.
std::string bytesOf(std::initializer_list<uint8_t> bytes);
// The record checksum: 16-bit wrapping sum of the bytes.
uint16_t byteSum16(std::string_view data);
// Offset and 16 bytes per line, in hex: "0000: 78 9f 3e 22 ...".
std::string hexDump(std::string_view bytes);
// Equal bytes, or a failure naming the first differing offset and dumping both sides.
testing::AssertionResult sameBytes(std::string_view actual, std::string_view expected);
// Writes the bytes to a file, creating its folders; throws when it cannot.
void writeFile(const std::string& path, std::string_view bytes);

}  // namespace tnefbuild
