// Compressed RTF: the 16-byte header (sizes, form, CRC), LZFu's 4096-byte dictionary primed
// with the text every writer primes it with, and the stored form MELA.

#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstring>
#include <vector>

#include "tnef/platform/er_escape.h"
#include "tnef/tnef_body.h"
#include "tnef_defs.h"
#include "tnef_body/tnef_bodyio.h"
#include "tnef_propstream.h"

namespace {

constexpr uint32_t kLzfu = 0x75465A4C;  // "LZFu"
constexpr uint32_t kMela = 0x414C454D;  // "MELA"
constexpr size_t kHeaderSize = 16;
constexpr size_t kDictionarySize = 4096;
constexpr size_t kPiece = 64 * 1024;
constexpr char kPrimer[] =
    "{\\rtf1\\ansi\\mac\\deff0\\deftab720{\\fonttbl;}{\\f0\\fnil \\froman \\fswiss \\fmodern "
    "\\fscript \\fdecor MS Sans SerifSymbolArialTimes New RomanCourier{\\colortbl\\red0\\green0"
    "\\blue0\r\n\\par \\pard\\plain\\f0\\fs20\\b\\i\\u\\tab\\tx";
constexpr size_t kPrimerSize = sizeof kPrimer - 1;
static_assert(kPrimerSize == 207, "every LZFu writer primes the dictionary with these 207 bytes");

constexpr std::array<uint32_t, 256> makeCrcTable() {
    std::array<uint32_t, 256> t{};
    for (uint32_t i = 0; i < 256; ++i) {
        uint32_t c = i;
        for (int k = 0; k < 8; ++k) c = (c & 1) ? 0xEDB88320u ^ (c >> 1) : c >> 1;
        t[i] = c;
    }
    return t;
}
constexpr std::array<uint32_t, 256> kCrcTable = makeCrcTable();

}  // namespace

size_t tnef_BodyReadAt(int fd, uint64_t offset, void* out, size_t n) {
    size_t done = 0;
    while (done < n) {
        const ssize_t got = ::pread(fd, static_cast<char*>(out) + done, n - done, static_cast<off_t>(offset + done));
        if (got < 0 && errno == EINTR) continue;
        if (got < 0)
            er_TracedEscapeText(ER_GROUP_IO, errno, TNEF_UNIT_BODY, __LINE__, "reading a body failed");
        if (got == 0) break;
        done += static_cast<size_t>(got);
    }
    return done;
}

namespace {

// The compressed bytes, read in pieces from memory or from a file; never past `left`.
struct RtfInput {
    const uint8_t* memory = nullptr;
    int fd = -1;
    uint64_t at = 0;    // file offset of the next piece
    uint64_t left = 0;  // bytes not yet taken
    std::vector<uint8_t> buffer;
    size_t pos = 0, size = 0;
    uint32_t crc = 0;

    bool refill() {
        if (left == 0) return false;
        const size_t n = static_cast<size_t>(std::min<uint64_t>(left, kPiece));
        if (memory != nullptr) {
            buffer.assign(memory + at, memory + at + n);
        } else {
            buffer.resize(n);
            if (tnef_BodyReadAt(fd, at, buffer.data(), n) != n) return false;
        }
        crc = tnef_RtfCrc32(crc, buffer.data(), n);
        at += n;
        left -= n;
        pos = 0;
        size = n;
        return true;
    }
    bool next(uint8_t& b) {
        if (pos == size && !refill()) return false;
        b = buffer[pos++];
        return true;
    }
};

// The decompressed bytes, handed to the sink a piece at a time. A piece never holds more
// than the output limit leaves room for, so put() checks one bound per byte.
struct RtfOutput {
    TnefByteSink sink;
    std::vector<char> piece = std::vector<char>(kPiece);
    size_t used = 0;
    size_t room = kPiece;  // bytes this piece may take
    uint64_t total = 0;    // bytes handed on before the piece

    uint64_t size() const { return total + used; }
    bool put(char c) {
        if (used == room) {
            flush();
            if (room == 0) return false;
        }
        piece[used++] = c;
        return true;
    }
    void flush() {
        if (used != 0) sink.write(sink.context, piece.data(), used);
        total += used;
        used = 0;
        room = static_cast<size_t>(std::min<uint64_t>(kPiece, TNEF_RTF_OUTPUT_LIMIT - total));
    }
};

// LZFu: a control byte, then eight items, low bit first: a literal byte, or a 16-bit
// reference (12-bit dictionary offset, 4-bit length less 2). A reference to the write
// position itself ends the data. The output is its own dictionary: the 4096 bytes before the
// write position are what the writer's 4096-byte ring holds (at the start, zeros and then
// the primer), so a reference is a copy from a fixed distance back.
class Inflater {
  public:
    explicit Inflater(RtfOutput& out) : out_(out), buf_(kDictionarySize + kPiece, '\0') {
        std::memcpy(buf_.data() + kDictionarySize - kPrimerSize, kPrimer, kPrimerSize);
    }

    uint32_t run(RtfInput& in) {
        const uint32_t status = items(in);
        flush();
        out_.total = flushed_;
        return status;
    }

  private:
    RtfOutput& out_;
    std::vector<char> buf_;
    size_t w_ = kDictionarySize;      // where the next byte goes
    size_t end_ = kDictionarySize + kPiece;  // no byte goes here or beyond before a flush
    size_t ring_ = kPrimerSize;       // the writer's ring position, for the end marker
    uint64_t flushed_ = 0;

    // Hands the new bytes on and keeps the last 4096 as the dictionary.
    void flush() {
        const size_t n = w_ - kDictionarySize;
        if (n != 0) out_.sink.write(out_.sink.context, buf_.data() + kDictionarySize, n);
        flushed_ += n;
        std::memmove(buf_.data(), buf_.data() + n, kDictionarySize);
        w_ = kDictionarySize;
        end_ = kDictionarySize + static_cast<size_t>(std::min<uint64_t>(kPiece, TNEF_RTF_OUTPUT_LIMIT - flushed_));
    }
    // Room for n more bytes, flushing when the window is full; the bytes that fit under the
    // output limit when fewer do.
    size_t room(size_t n) {
        if (end_ - w_ < n) flush();
        return std::min(n, end_ - w_);
    }

    uint32_t items(RtfInput& in) {
        for (;;) {
            uint8_t control = 0;
            if (!in.next(control)) return TNEF_RTF_CUT;
            for (int bit = 0; bit < 8; ++bit, control >>= 1) {
                uint8_t hi = 0, lo = 0;
                if ((control & 1) == 0) {
                    if (!in.next(lo)) return TNEF_RTF_CUT;
                    if (room(1) == 0) return TNEF_RTF_TOO_LONG;
                    buf_[w_++] = static_cast<char>(lo);
                    ring_ = (ring_ + 1) & (kDictionarySize - 1);
                    continue;
                }
                if (!in.next(hi) || !in.next(lo)) return TNEF_RTF_CUT;
                const size_t from = (static_cast<size_t>(hi) << 4) | (lo >> 4);
                if (from == ring_) return 0;
                const size_t want = (lo & 0xFu) + 2u;
                const size_t n = room(want);
                // Byte by byte: a copy from close behind repeats what it has just written.
                char* to = buf_.data() + w_;
                const char* src = to - ((ring_ - from) & (kDictionarySize - 1));
                for (size_t i = 0; i < n; ++i) to[i] = src[i];
                w_ += n;
                ring_ = (ring_ + n) & (kDictionarySize - 1);
                if (n < want) return TNEF_RTF_TOO_LONG;
            }
        }
    }
};

uint32_t inflate(RtfInput& in, RtfOutput& out) {
    return Inflater(out).run(in);
}

uint32_t copyStored(RtfInput& in, RtfOutput& out, uint32_t rawSize) {
    uint8_t b = 0;
    for (uint32_t i = 0; i < rawSize; ++i) {
        if (!in.next(b)) return TNEF_RTF_CUT;
        if (!out.put(static_cast<char>(b))) return TNEF_RTF_TOO_LONG;
    }
    return 0;
}

// The header, then the data in the form it names; the value holds `length` bytes.
TnefRtfStatus decompress(RtfInput& in, const uint8_t* header, uint64_t length, TnefByteSink sink,
                         uint32_t* flags) {
    *flags = 0;
    const uint32_t compSize = tnef_GetU32(header);
    uint32_t rawSize = tnef_GetU32(header + 4);
    const uint32_t form = tnef_GetU32(header + 8);
    const uint32_t crc = tnef_GetU32(header + 12);
    if (form != kLzfu && form != kMela) return TNEF_RTF_UNKNOWN_FORM;
    // Some writers of the stored form count the 12 header bytes in the raw size as well.
    if (form == kMela && rawSize == compSize && compSize >= 12) rawSize = compSize - 12;
    // The compressed size counts from the raw size on: 12 header bytes and the data.
    const uint64_t data = length - kHeaderSize;
    in.left = compSize < 12 ? 0 : std::min<uint64_t>(compSize - 12u, data);
    if (compSize < 12 || compSize - 12u > data) *flags |= TNEF_RTF_CUT;
    RtfOutput out;
    out.sink = sink;
    *flags |= form == kLzfu ? inflate(in, out) : copyStored(in, out, rawSize);
    out.flush();
    uint8_t rest = 0;
    while (in.next(rest)) {  // the CRC covers the whole data, end marker and tail alike
    }
    if (in.crc != crc && (form == kLzfu || crc != 0)) *flags |= TNEF_RTF_BAD_CRC;
    if (out.size() != rawSize) *flags |= TNEF_RTF_SIZE_DIFFERS;
    return TNEF_RTF_OK;
}

void appendTo(void* context, const char* bytes, size_t n) {
    static_cast<std::string*>(context)->append(bytes, n);
}

// The writer's side of the dictionary: the longest earlier run (2 to 17 bytes) that the
// text continues with, found from the last place each pair of bytes was written.
struct Deflater {
    std::array<char, kDictionarySize> dict{};
    std::array<int32_t, 65536> lastPair{};
    size_t write = kPrimerSize;

    Deflater() {
        std::memcpy(dict.data(), kPrimer, kPrimerSize);
        lastPair.fill(-1);
        for (size_t i = 0; i + 1 < kPrimerSize; ++i) lastPair[pairAt(i)] = static_cast<int32_t>(i);
    }
    uint16_t pairAt(size_t at) const {
        return static_cast<uint16_t>(static_cast<uint8_t>(dict[at]) << 8 |
                                     static_cast<uint8_t>(dict[(at + 1) % kDictionarySize]));
    }
    void put(char c) {
        dict[write] = c;
        const size_t before = (write + kDictionarySize - 1) % kDictionarySize;
        lastPair[pairAt(before)] = static_cast<int32_t>(before);
        write = (write + 1) % kDictionarySize;
    }
    // Offset and length of a match for text at i; length 0 when there is none.
    std::pair<size_t, size_t> match(std::string_view text, size_t i) const {
        if (i + 1 >= text.size()) return {0, 0};
        const int32_t from = lastPair[static_cast<uint16_t>(static_cast<uint8_t>(text[i]) << 8 |
                                                            static_cast<uint8_t>(text[i + 1]))];
        if (from < 0 || static_cast<size_t>(from) == write) return {0, 0};
        size_t n = 0;
        // A match may run into the bytes it is writing, as the reader copies byte by byte;
        // it stays clear of the write position, which would read as the end marker.
        while (n < 17 && i + n < text.size() &&
               (static_cast<size_t>(from) + n) % kDictionarySize != write &&
               dict[(static_cast<size_t>(from) + n) % kDictionarySize] == text[i + n])
            ++n;
        return n >= 2 ? std::pair<size_t, size_t>{static_cast<size_t>(from), n} : std::pair<size_t, size_t>{0, 0};
    }
};

}  // namespace

std::string tnef_CompressRtf(std::string_view rtf) {
    Deflater d;
    std::string data;
    size_t i = 0;
    bool ended = false;
    while (!ended) {
        const size_t controlAt = data.size();
        data.push_back('\0');
        uint8_t control = 0;
        for (int bit = 0; bit < 8 && !ended; ++bit) {
            const auto [from, n] = d.match(rtf, i);
            if (i == rtf.size()) {  // the end marker: a reference to the write position
                control |= static_cast<uint8_t>(1u << bit);
                data.push_back(static_cast<char>(d.write >> 4));
                data.push_back(static_cast<char>((d.write & 0xF) << 4));
                ended = true;
            } else if (n >= 2) {
                control |= static_cast<uint8_t>(1u << bit);
                data.push_back(static_cast<char>(from >> 4));
                data.push_back(static_cast<char>((from & 0xF) << 4 | (n - 2)));
                for (size_t k = 0; k < n; ++k) d.put(rtf[i + k]);
                i += n;
            } else {
                data.push_back(rtf[i]);
                d.put(rtf[i++]);
            }
        }
        data[controlAt] = static_cast<char>(control);
    }
    std::string out(kHeaderSize, '\0');
    auto* h = reinterpret_cast<uint8_t*>(out.data());
    tnef_PutU32(h, static_cast<uint32_t>(data.size() + 12));
    tnef_PutU32(h + 4, static_cast<uint32_t>(rtf.size()));
    tnef_PutU32(h + 8, kLzfu);
    tnef_PutU32(h + 12, tnef_RtfCrc32(0, data.data(), data.size()));
    return out + data;
}

uint32_t tnef_RtfCrc32(uint32_t crc, const void* bytes, size_t n) {
    const auto* p = static_cast<const uint8_t*>(bytes);
    for (size_t i = 0; i < n; ++i) crc = kCrcTable[(crc ^ p[i]) & 0xFF] ^ (crc >> 8);
    return crc;
}

TnefRtfStatus tnef_DecompressRtf(const void* value, size_t size, std::string* out, uint32_t* flags) {
    out->clear();
    *flags = 0;
    if (size < kHeaderSize) return TNEF_RTF_TOO_SHORT;
    RtfInput in;
    in.memory = static_cast<const uint8_t*>(value);
    in.at = kHeaderSize;
    return decompress(in, in.memory, size, TnefByteSink{appendTo, out}, flags);
}

TnefRtfStatus tnef_DecompressRtfFile(int fd, uint64_t offset, uint64_t length, TnefByteSink sink,
                                     uint32_t* flags) {
    *flags = 0;
    uint8_t header[kHeaderSize];
    if (length < kHeaderSize || tnef_BodyReadAt(fd, offset, header, kHeaderSize) != kHeaderSize)
        return TNEF_RTF_TOO_SHORT;
    RtfInput in;
    in.fd = fd;
    in.at = offset + kHeaderSize;
    return decompress(in, header, length, sink, flags);
}
