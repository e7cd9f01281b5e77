// unwrap as a mail server runs it: real mails of the content corpus and mails made here
// around the repository's sample, each read back with GMime. What a TNEF part held must
// come out byte for byte as extract writes it; what unwrap cannot convert must come out as
// it went in.
#include <gmime/gmime.h>
#include <gtest/gtest.h>

#include <nlohmann/json.hpp>

#include <filesystem>
#include <map>
#include <string>
#include <vector>

#include "support/test_home.h"
#include "tool_run.h"

namespace fs = std::filesystem;

namespace {

struct Leaves {
    std::vector<std::string> contents;  // decoded content of every leaf part, nested ones too
    std::vector<std::string> tnef;      // decoded content of each application/ms-tnef part
};

void collect(GMimeObject* o, Leaves* out) {
    if (GMIME_IS_MULTIPART(o)) {
        for (int i = 0; i < g_mime_multipart_get_count(GMIME_MULTIPART(o)); ++i)
            collect(g_mime_multipart_get_part(GMIME_MULTIPART(o), i), out);
    } else if (GMIME_IS_MESSAGE_PART(o)) {
        GMimeMessage* m = g_mime_message_part_get_message(GMIME_MESSAGE_PART(o));
        if (m && g_mime_message_get_mime_part(m)) collect(g_mime_message_get_mime_part(m), out);
    } else if (GMIME_IS_PART(o) && g_mime_part_get_content(GMIME_PART(o))) {
        GMimeStream* mem = g_mime_stream_mem_new();
        g_mime_data_wrapper_write_to_stream(g_mime_part_get_content(GMIME_PART(o)), mem);
        GByteArray* b = g_mime_stream_mem_get_byte_array(GMIME_STREAM_MEM(mem));
        std::string bytes(reinterpret_cast<const char*>(b->data), b->len);
        g_object_unref(mem);
        const bool tnef = g_mime_content_type_is_type(g_mime_object_get_content_type(o), "application", "ms-tnef");
        (tnef ? out->tnef : out->contents).push_back(std::move(bytes));
    }
}

// The mail's leaves as GMime reads them; a test failure when it is no MIME message.
Leaves parse(const std::string& mail) {
    g_mime_init();
    Leaves out;
    GMimeStream* s = g_mime_stream_mem_new_with_buffer(mail.data(), mail.size());
    GMimeParser* p = g_mime_parser_new_with_stream(s);
    GMimeMessage* m = g_mime_parser_construct_message(p, nullptr);
    EXPECT_TRUE(m && g_mime_message_get_mime_part(m)) << "the output is no MIME message";
    if (m && g_mime_message_get_mime_part(m)) collect(g_mime_message_get_mime_part(m), &out);
    if (m) g_object_unref(m);
    g_object_unref(p);
    g_object_unref(s);
    return out;
}

std::string base64(const std::string& bytes) {
    gchar* b = g_base64_encode(reinterpret_cast<const guchar*>(bytes.data()), bytes.size());
    const std::string flat = b;
    std::string out;
    for (size_t i = 0; i < flat.size(); i += 76) out += flat.substr(i, 76) + "\n";
    g_free(b);
    return out;
}

// A mail whose second part is a TNEF part with this (already encoded) body; closed is
// false for a mail that ends inside that part.
std::string mailAround(const std::string& encoded, bool closed = true) {
    std::string m =
        "From: a@example.org\nTo: b@example.org\nSubject: made\nMIME-Version: 1.0\n"
        "Content-Type: multipart/mixed; boundary=\"b1\"\n\n--b1\nContent-Type: text/plain\n\nsee attached\n"
        "--b1\nContent-Type: application/ms-tnef; name=\"winmail.dat\"\nContent-Transfer-Encoding: base64\n\n" +
        encoded;
    return closed ? m + "--b1--\n" : m;
}

// The files extract writes of a TNEF file (its attachments, not what the tool makes of the
// message), by content.
std::vector<std::string> extracted(const TestHome& home, const std::string& tnefPath, const std::string& dir) {
    const ToolRun run = runTool({"--json", "extract", "-C", home.file(dir), tnefPath}, home.path());
    EXPECT_EQ(run.status, 0) << run.err;
    const nlohmann::json report = nlohmann::json::parse(run.out);
    std::vector<std::string> out;
    for (const auto& f : report["files"])
        for (const auto& e : f["extracted"])
            if (e["kind"] == "file" || e["kind"] == "ole") out.push_back(readFileBytes(e["path"].get<std::string>()));
    return out;
}

constexpr const char* kPythonReads =
    "import email, email.policy, sys\n"
    "m = email.message_from_binary_file(open(sys.argv[1], 'rb'), policy=email.policy.default)\n"
    "bad = [(p.get_content_type(), p.defects) for p in m.walk() if p.defects]\n"
    "[p.get_content() for p in m.walk() if not p.is_multipart() and p.get_content_maintype() != 'message']\n"
    "sys.exit(str(bad) if bad else 0)\n";

struct Case {
    const char* name;
    std::string mail;               // the input
    std::vector<std::string> args;  // after "unwrap IN -o OUT"
    int status;                     // exit status
    bool same;                      // output byte for byte the input
    bool tnefLeft;                  // an application/ms-tnef part is still there
    bool warns;                     // something on stderr
};

void check(const TestHome& home, const Case& c, const std::vector<std::string>& attachments) {
    SCOPED_TRACE(c.name);
    const std::string in = home.file(std::string(c.name) + ".eml"), out = home.file(std::string(c.name) + ".out");
    home.write(std::string(c.name) + ".eml", c.mail);
    std::vector<std::string> args = {"unwrap", in, "-o", out};
    args.insert(args.end(), c.args.begin(), c.args.end());
    const ToolRun run = runTool(args, home.path());
    EXPECT_EQ(run.status, c.status) << run.err;
    EXPECT_EQ(!run.err.empty(), c.warns) << run.err;
    if (c.status == 2) {
        EXPECT_FALSE(fs::exists(out)) << "--strict wrote the mail";
        return;
    }
    const std::string result = readFileBytes(out);
    EXPECT_EQ(result == c.mail, c.same);
    if (c.same) return;
    const Leaves leaves = parse(result);
    EXPECT_EQ(!leaves.tnef.empty(), c.tnefLeft);
    // Python's email package, policy default, must read every part without a defect.
    const ToolRun py = runProgram("/usr/bin/python3", {"-c", kPythonReads, out}, home.path());
    EXPECT_EQ(py.status, 0) << py.out << py.err;
    for (size_t i = 0; i < attachments.size(); ++i)
        EXPECT_NE(std::find(leaves.contents.begin(), leaves.contents.end(), attachments[i]), leaves.contents.end())
            << "attachment " << i << " (" << attachments[i].size() << " bytes) is not in the output";
}

TEST(Unwrap, MadeMailsKeepWhatCannotBeConverted) {
    TestHome home;
    const std::string sample = std::string(TNEF_SOURCE_DIR) + "/samples/winmail.dat";
    const std::string tnef = readFileBytes(sample);
    const std::vector<std::string> attachments = extracted(home, sample, "sample");
    ASSERT_FALSE(attachments.empty());
    const std::string whole = mailAround(base64(tnef));
    // The mail ends inside the stream, after the first attachment's bytes (some 440 of 813 bytes).
    const std::string cut = mailAround(base64(tnef).substr(0, 4 * 150), false);
    const std::string plain = "From: a@example.org\nSubject: none\n\nno MIME here,\r\nmixed line ends\n";
    const std::string broken = mailAround(base64("not a TNEF stream at all"));
    const std::string signedMail =
        "From: a@example.org\nMIME-Version: 1.0\nContent-Type: multipart/signed; boundary=\"s\";"
        " protocol=\"application/pkcs7-signature\"\n\n--s\n" + whole.substr(whole.find("Content-Type: multipart/mixed")) +
        "\n--s\nContent-Type: application/pkcs7-signature\nContent-Transfer-Encoding: base64\n\nAAAA\n--s--\n";
    const Case cases[] = {
        {"converted", whole, {}, 0, false, false, false},
        {"no-tnef", plain + "\n", {}, 0, true, false, false},
        {"not-mime", "\x01\x02 no header\n", {"--on-error", "tempfail"}, 75, true, false, true},
        {"broken-part", broken, {}, 0, true, true, true},
        {"signed", signedMail, {}, 0, true, true, true},  // converting would break the signature
        {"broken-strict", broken, {"--strict"}, 2, false, false, true},
        // base64 cut inside the stream: what it gave, and the part itself beside it
        {"cut-base64", cut, {}, 0, false, true, true},
    };
    for (const Case& c : cases)
        check(home, c, c.mail == whole ? attachments : c.mail == cut ? std::vector{attachments[0]} : std::vector<std::string>{});
}

TEST(Unwrap, ContentCorpusMailsLoseNoAttachment) {
    const std::string corpus = corpusDir();
    if (corpus.empty()) GTEST_SKIP() << "no corpus beside the checkout (../shared/corpus or $TNEF_CORPUS): corpus mails not tried";
    TestHome home;
    size_t mails = 0, compared = 0;
    for (const auto& row : tsvRows(corpus + "/content/MANIFEST.tsv")) {
        if (row.empty() || row.back() != "eml-with-tnef") continue;
        const std::string mail = readFileBytes(corpus + "/content/files/" + row[0]);
        const Leaves before = parse(mail);
        ASSERT_FALSE(before.tnef.empty()) << row[0];
        std::vector<std::string> attachments;
        for (size_t i = 0; i < before.tnef.size(); ++i) {
            const std::string name = row[0] + "." + std::to_string(i) + ".tnef";
            home.write(name, before.tnef[i]);
            for (std::string& a : extracted(home, home.file(name), name + ".d")) attachments.push_back(std::move(a));
        }
        check(home, {row[0].c_str(), mail, {}, 0, false, false, false}, attachments);
        ++mails;
        compared += attachments.size();
    }
    EXPECT_GE(mails, 3u) << "the content corpus lists fewer whole mails than it did";
    EXPECT_GT(compared, 0u) << "no attachment of the corpus mails was compared";
}

}  // namespace
