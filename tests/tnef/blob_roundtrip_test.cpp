// Extraction and blob writing are each other's inverse: the three texts tnef_GetProp makes
// of a real TNEF file, written back with tnef_WriteBrenvoProps2ObjectFile and extracted again,
// come out the same.
//
// Differences the blob writer makes on purpose, none of which reaches the texts, so the
// texts are compared whole:
// - the code page record: always 1252, whatever the original named; texts carry no code page;
// - named-property ids: renumbered from the blob writer's own counter; texts name a named
//   property by its property set and name, never by its id;
// - attachment attributes without a MAPI tag (attAttachTransportFilename, ...) and message
//   attributes other than attMAPIProps and attRecipTable: never rendered, so never written;
// - record order: the recipient table is written before the message properties, and an
//   attachment's attributes in the order of its row.
// One difference would reach the texts, but no corpus file has it: a property type outside
// the type table is extracted as length-prefixed values and written back as bare bytes.
#include <fcntl.h>
#include <gtest/gtest.h>

#include <cstdint>
#include <cstdlib>
#include <filesystem>
#include <memory>
#include <set>
#include <string>

#include "support/test_home.h"
#include "tnef/platform/os_file.h"
#include "tnef/tnef.h"
#include "tnef_defs.h"

namespace {

struct FreeText {
    void operator()(char* p) const { std::free(p); }
};
using Text = std::unique_ptr<char, FreeText>;

struct Extracted {
    Text props;
    Text recips;
    Text attach;
};

Extracted extract(const std::string& path) {
    OsFd fd(os_open(path.c_str(), O_RDONLY, 0));
    char* props = nullptr;
    char* recips = nullptr;
    char* attach = nullptr;
    tnef_GetProp(fd.get(), "GET-ALL", &props, &recips, &attach, path.c_str());
    return {Text(props), Text(recips), Text(attach)};
}

std::string show(const Text& t) {
    return t ? "\"" + std::string(t.get()) + "\"" : "(null)";
}

uint32_t u32At(const std::string& b, size_t at) {
    return static_cast<uint8_t>(b[at]) | static_cast<uint8_t>(b[at + 1]) << 8 |
           static_cast<uint8_t>(b[at + 2]) << 16 |
           static_cast<uint32_t>(static_cast<uint8_t>(b[at + 3])) << 24;
}

// The rewritten stream is well formed: signature, then records whose lengths tile the file
// and whose checksums are the sums of their data, each one the writer may make.
void expectWellFormed(const std::string& b) {
    static const std::set<uint32_t> kWritten = {
        attTnefVersion,      attOemCodepage,      attRecipTable, attMAPIProps,
        attAttachRenddata,   attAttachTitle,      attAttachData, attAttachMetaFile,
        attAttachCreateDate, attAttachModifyDate, attAttachment};
    ASSERT_GE(b.size(), 6u);
    EXPECT_EQ(u32At(b, 0), TNEF_SIGNATURE);
    size_t at = 6;
    while (at < b.size()) {
        ASSERT_LE(at + 9, b.size()) << "record head at " << at;
        const uint32_t id = u32At(b, at + 1);
        const uint32_t length = u32At(b, at + 5);
        EXPECT_TRUE(kWritten.count(id)) << "attribute " << std::hex << id;
        ASSERT_LE(at + 9 + length + 2, b.size()) << "record at " << at << " overruns";
        uint16_t sum = 0;
        for (size_t i = at + 9; i < at + 9 + length; ++i)
            sum = static_cast<uint16_t>(sum + static_cast<uint8_t>(b[i]));
        const auto stored = static_cast<uint16_t>(static_cast<uint8_t>(b[at + 9 + length]) |
                                                  static_cast<uint8_t>(b[at + 10 + length]) << 8);
        EXPECT_EQ(stored, sum) << "checksum of the record at " << at;
        at += 9 + length + 2;
    }
}

}  // namespace

TEST(BlobRoundTrip, CorpusTextsSurviveWritingBack) {
    const std::string corpus = corpusDir();
    if (corpus.empty()) GTEST_SKIP() << "no corpus beside this checkout (../shared/corpus/files)";
    TestHome home;
    int withText = 0;
    for (const auto& file : std::filesystem::directory_iterator(corpus + "/files")) {
        const std::string name = file.path().filename().string();
        SCOPED_TRACE(name);
        const Extracted first = extract(file.path().string());
        {
            OsFd out(os_open("~/tmp/rewritten.tnef", O_RDWR | O_CREAT | O_TRUNC, 0600));
            tnef_WriteBrenvoProps2ObjectFile(out.get(), -1, first.props.get(), first.attach.get(),
                                             first.recips.get());
        }
        expectWellFormed(home.read("tmp/rewritten.tnef"));
        const Extracted second = extract(home.file("tmp/rewritten.tnef"));
        EXPECT_EQ(show(second.props), show(first.props));
        EXPECT_EQ(show(second.recips), show(first.recips));
        EXPECT_EQ(show(second.attach), show(first.attach));
        if (first.props || first.recips || first.attach) ++withText;
    }
    EXPECT_GT(withText, 0) << "the corpus gave no text at all: nothing was compared";
}
