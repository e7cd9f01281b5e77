#include <gtest/gtest.h>

#include <fcntl.h>

#include <fstream>
#include <map>
#include <sstream>
#include <string>
#include <vector>

#include "support/test_home.h"
#include "tnef/platform/os_file.h"
#include "tnef/tnef_body.h"
#include "tnef/tnef_reader.h"

using namespace std::string_literals;

namespace {

std::string header(uint32_t compSize, uint32_t rawSize, const char* form, uint32_t crc) {
    std::string h(16, '\0');
    for (int i = 0; i < 4; ++i) {
        h[i] = static_cast<char>(compSize >> (8 * i));
        h[4 + i] = static_cast<char>(rawSize >> (8 * i));
        h[12 + i] = static_cast<char>(crc >> (8 * i));
    }
    h.replace(8, 4, form);
    return h;
}

// A compressed value of the given data, its CRC right.
std::string lzfu(const std::string& data, uint32_t rawSize) {
    return header(static_cast<uint32_t>(data.size() + 12), rawSize, "LZFu",
                  tnef_RtfCrc32(0, data.data(), data.size())) + data;
}

struct Decompressed {
    TnefRtfStatus status;
    std::string rtf;
    uint32_t flags;
};

Decompressed decompress(const std::string& value) {
    Decompressed d{};
    d.status = tnef_DecompressRtf(value.data(), value.size(), &d.rtf, &d.flags);
    return d;
}

// Files named in a corpus manifest with their kind.
std::vector<std::pair<std::string, std::string>> contentFiles(const std::string& corpus) {
    std::vector<std::pair<std::string, std::string>> out;
    std::ifstream manifest(corpus + "/content/MANIFEST.tsv");
    for (std::string line; std::getline(manifest, line);) {
        const size_t kind = line.rfind('\t');
        out.emplace_back(line.substr(0, line.find('\t')), line.substr(kind + 1));
    }
    return out;
}

std::map<std::string, std::string> differences() {
    std::map<std::string, std::string> out;
    std::ifstream tsv(std::string(TNEF_SOURCE_DIR) + "/tests/data/body_differences.tsv");
    for (std::string line; std::getline(tsv, line);) {
        if (line.empty() || line[0] == '#') continue;
        const size_t a = line.find('\t');
        out[line.substr(0, a)] = line.substr(a + 1, line.find('\t', a + 1) - a - 1);
    }
    return out;
}

std::string withoutCr(std::string s) {
    s.erase(std::remove(s.begin(), s.end(), '\r'), s.end());
    return s;
}

std::string latin1ToUtf8(const std::string& s) {
    std::string out;
    for (unsigned char c : s) {
        if (c < 0x80) {
            out += static_cast<char>(c);
        } else {
            out += static_cast<char>(0xC0 | (c >> 6));
            out += static_cast<char>(0x80 | (c & 0x3F));
        }
    }
    return out;
}

// De-encapsulation fed in pieces of the given size, as a body read from a file is.
TnefDeencapsulated streamed(std::string_view rtf, size_t piece) {
    TnefDeencapsulated d;
    TnefDeencapStream stream;
    tnef_DeencapBegin(&stream, TnefByteSink{[](void* c, const char* b, size_t n) {
                                                static_cast<std::string*>(c)->append(b, n);
                                            },
                                            &d.text});
    for (size_t at = 0; at < rtf.size(); at += piece)
        tnef_DeencapFeed(&stream, rtf.data() + at, std::min(piece, rtf.size() - at));
    const TnefDeencapsulated end = tnef_DeencapEnd(&stream);
    d.kind = end.kind;
    d.encapsulated = end.encapsulated;
    return d;
}

}  // namespace

// One line per hostile value: it gives flags or a status, never a fault, and never more
// output than its data makes.
TEST(Body, HostileCompressedValuesGiveFlagsNotFaults) {
    const std::string hello = "\x03\x00\x0a\x00rcpg125B2\x0a\xf3 hel\x09\x00 bw\x05\xb0ld}\x0a\x80\x0f\xa0"s;
    const struct {
        const char* what;
        std::string value;
        TnefRtfStatus status;
        uint32_t flags;
        size_t most;  // output bytes at most
    } cases[] = {
        {"fewer than 16 bytes", "LZFu"s, TNEF_RTF_TOO_SHORT, 0, 0},
        {"an unknown form", header(12, 0, "ABCD", 0), TNEF_RTF_UNKNOWN_FORM, 0, 0},
        {"a header and no data", header(16, 17, "LZFu", 0xFFFFFFFF), TNEF_RTF_OK,
         TNEF_RTF_CUT | TNEF_RTF_SIZE_DIFFERS | TNEF_RTF_BAD_CRC, 0},
        {"raw size 0xFFFFFFFF", lzfu(hello, 0xFFFFFFFF), TNEF_RTF_OK, TNEF_RTF_SIZE_DIFFERS, 64},
        {"compressed size beyond the value", lzfu(hello, 43).substr(0, 30), TNEF_RTF_OK,
         TNEF_RTF_CUT | TNEF_RTF_SIZE_DIFFERS | TNEF_RTF_BAD_CRC, 64},
        {"a CRC that differs", header(static_cast<uint32_t>(hello.size() + 12), 43, "LZFu", 1) + hello,
         TNEF_RTF_OK, TNEF_RTF_BAD_CRC, 43},
        {"references anywhere in the dictionary, no end marker",
         lzfu("\xff\xff\xff\xff\xff\xff\xff\xff\xff\xff\xff\xff\xff\xff\xff\xff\xff"s, 0), TNEF_RTF_OK,
         TNEF_RTF_CUT | TNEF_RTF_SIZE_DIFFERS, 17 * 8},
        {"stored data shorter than its raw size (a stored form without CRC)",
         header(16, 100, "MELA", 0) + "{\\rtf", TNEF_RTF_OK, TNEF_RTF_CUT | TNEF_RTF_SIZE_DIFFERS, 5},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.what);
        const Decompressed d = decompress(c.value);
        EXPECT_EQ(d.status, c.status);
        EXPECT_EQ(d.flags, c.flags);
        EXPECT_LE(d.rtf.size(), c.most);
    }
    EXPECT_EQ(decompress(lzfu(hello, 43)).rtf, "{\\rtf1\\ansi\\ansicpg1252\\pard hello world}\r\n");
}

TEST(Body, CompressionRoundTrips) {
    std::string big;
    for (int i = 0; i < 20000; ++i) big += "{\\par line " + std::to_string(i % 97) + "\\'e9}";
    std::string noise;
    for (uint32_t x = 1; noise.size() < 50000;) noise += static_cast<char>((x = x * 1103515245u + 12345u) >> 24);
    for (const std::string& rtf : {std::string(), "{\\rtf1 a}"s, "aaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaa"s, big, noise}) {
        const std::string packed = tnef_CompressRtf(rtf);
        const Decompressed d = decompress(packed);
        EXPECT_EQ(d.flags, 0u) << rtf.size();
        EXPECT_TRUE(d.rtf == rtf) << rtf.size();
        if (rtf == big) {
            EXPECT_LT(packed.size(), big.size() / 4);
        }
    }
}

TEST(Body, RtfGivesWhatWasEncapsulated) {
    const struct {
        const char* what;
        std::string rtf;
        TnefBodyKind kind;
        std::string text;
    } cases[] = {
        {"html: tags, suppressed RTF, escapes",
         "{\\rtf1\\ansi\\ansicpg1252\\fromhtml1 {\\fonttbl{\\f0 Arial;}}{\\*\\htmltag <p>}\\htmlrtf x\\htmlrtf0 "
         "a\\{\\}\\\\\\'e9\\~{\\*\\mhtmltag <q>}{\\*\\htmltag </p>\\par}}",
         TNEF_BODY_HTML, "<p>a{}\\\xC3\xA9&nbsp;</p>\n"},
        {"text: \\uN and its fallback, \\tab, \\par", "{\\rtf1\\fromtext \\uc1\\u8364?\\tab b\\par}", TNEF_BODY_TEXT,
         "\xE2\x82\xAC\tb\n"},
        {"a font's charset over the document's code page",
         "{\\rtf1\\ansicpg1252\\fromtext{\\fonttbl{\\f1\\fcharset204 X;}}\\f1\\'c0}", TNEF_BODY_TEXT, "\xD0\x90"},
        {"\\ucN skipping past the end", "{\\rtf1\\fromtext\\uc9\\u65 ab", TNEF_BODY_TEXT, "A"},
        {"groups 100,000 deep", "{\\rtf1\\fromtext " + std::string(100000, '{') + "x" + std::string(100000, '}'),
         TNEF_BODY_TEXT, "x"},
        {"not encapsulated: plain text", "{\\rtf1{\\colortbl;}{\\*\\ignored y}Hi\\par there\\'}",
         TNEF_BODY_TEXT, "Hi\nthere"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.what);
        const TnefDeencapsulated d = tnef_DeencapsulateRtf(c.rtf);
        EXPECT_EQ(d.kind, c.kind);
        EXPECT_EQ(d.text, c.text);
        // Fed a piece at a time, cut inside every kind of token, it reads the same.
        for (size_t piece : {1, 2, 3, 7, 4096}) {
            const TnefDeencapsulated s = streamed(c.rtf, piece);
            EXPECT_EQ(s.kind, c.kind) << piece;
            EXPECT_EQ(s.text, c.text) << piece;
        }
    }
}

// Every compressed value, encapsulated RTF and TNEF body of the shared content corpus gives
// its expected output, or test data says why not.
TEST(Body, ContentCorpusGivesItsExpectedOutputs) {
    const std::string corpus = corpusDir();
    if (corpus.empty()) GTEST_SKIP() << "no shared corpus beside this checkout (set TNEF_CORPUS)";
    const std::string dir = corpus + "/content/";
    const auto why = differences();
    size_t compared = 0;
    for (const auto& [file, kind] : contentFiles(corpus)) {
        SCOPED_TRACE(file);
        const std::string in = readFileBytes(dir + "files/" + file);
        if (kind == "rtf-compressed" || kind == "rtf-compressed-invalid") {
            const Decompressed d = decompress(in);
            if (kind == "rtf-compressed-invalid") {
                EXPECT_NE(d.flags & TNEF_RTF_BAD_CRC, 0u);
            } else {
                EXPECT_EQ(d.rtf, readFileBytes(dir + "expected/" + file + ".rtf"));
            }
            ++compared;
        } else if (kind.rfind("rtf-encapsulated", 0) == 0 && why.count(file) == 0) {
            const bool html = kind == "rtf-encapsulated-html";
            const std::string expected = readFileBytes(dir + "expected/" + file + (html ? ".html" : ".txt"));
            EXPECT_EQ(tnef_DeencapsulateRtf(in).text, expected);
            EXPECT_EQ(streamed(in, 5).text, expected);
            ++compared;
        }
    }
    std::ifstream expected(dir + "EXPECTED.tsv");
    for (std::string line; std::getline(expected, line);) {
        std::istringstream row(line);
        std::string file, out;
        std::getline(row, file, '\t');
        std::getline(row, out, '\t');
        if (file.rfind("../files/", 0) != 0 || out == "-") continue;
        SCOPED_TRACE(file);
        const TnefBodyKind want = out.ends_with(".html") ? TNEF_BODY_HTML
                                  : out.ends_with(".txt") ? TNEF_BODY_TEXT : TNEF_BODY_RTF;
        OsFd fd(os_open((dir + file).c_str(), O_RDONLY, 0));
        TnefMessageView view;
        tnef_ReadMessage(fd.get(), &view);
        std::string ours = tnef_MessageBody(fd.get(), view, want).text;
        std::string theirs = readFileBytes(dir + out);
        const std::string how = why.count(file) ? why.at(file) : "bytes";
        if (how != "bytes") ours = withoutCr(ours), theirs = withoutCr(theirs);
        if (how == "lf-latin1") theirs = latin1ToUtf8(theirs);
        EXPECT_EQ(ours, theirs) << how;
        ++compared;
    }
    EXPECT_GE(compared, 25u);
}
