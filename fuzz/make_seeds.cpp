// Writes the fuzz targets' seed inputs: real files from the shared corpus, what the codec makes
// of them (property texts, blob texts), streams laid out by the test builder, and mails that
// carry those streams (for the mail filter).
//
//   tnef_fuzz_seeds OUT_DIR [CORPUS_FILES_DIR]
//
// Each target gets OUT_DIR/<target>/; inputs are named by their origin.
#include <fcntl.h>
#include <glib.h>

#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <string>
#include <vector>

#include "support/calendar_builder.h"
#include "support/store_checks.h"
#include "support/test_home.h"
#include "support/tnef_builder.h"
#include "tnef/platform/er_escape.h"
#include "tnef/platform/mp_stored.h"
#include "tnef/platform/msg_builder.h"
#include "tnef/platform/msg_store.h"
#include "tnef/platform/os_file.h"
#include "tnef/platform/tf_msgfile.h"
#include "tnef/tnef.h"
#include "tnef/tnef_body.h"

namespace fs = std::filesystem;
using namespace tnefbuild;
using namespace std::string_literals;

namespace {

const std::string kSeparator = "\xff\xff";

void put(const fs::path& out, const std::string& target, const std::string& name,
         const std::string& bytes) {
    writeFile((out / target / name).string(), bytes);
}

// Streams a reader must take apart: attachments both ways round, named and multi-valued
// properties, a recipient table, an embedded message.
std::vector<std::pair<std::string, std::string>> builderStreams() {
    const Guid set{0x08, 0x20, 0x06, 0, 0, 0, 0, 0, 0xC0, 0, 0, 0, 0, 0, 0, 0x46};
    const std::string rend = "\x01\0"s + std::string(12, '\0');
    PropList props;
    props.string8(0x0037001E, "subject").long32(0x00170003, 2).i2(0x0063000B, 1);
    props.namedId(set, 0x8205).long32(0x80000003, 2);
    props.namedString(set, utf16le("Keywords")).mvString8(0x8001101E, {"a", "b"});
    props.mvLong(0x10001003, {1, 2, 3}).binary(0x10090102, "rtf").long32(0x00620003, 7);
    Stream simple;
    simple.header().tnefVersion().oemCodepage(1252).record(1, 0x00078008, "IPM.Note\0"s);
    simple.record(1, 0x00069003, props.bytes());
    simple.record(1, 0x00069003 + 1, RecipTable().row(PropList().string8(0x3001001E, "To Someone")).bytes());
    simple.record(2, 0x00069002, rend).record(2, 0x00018010, "a.txt\0"s);
    simple.record(2, 0x0006800F, "hello\r\n");
    simple.record(2, 0x00069005, PropList().string8(0x3707001E, "a.txt").binary(0x0FF90102, "key").bytes());
    simple.record(2, 0x00069002, rend);
    simple.record(2, 0x00069005, PropList().binary(0x37010102, "data").string8(0x3704001E, "B.BIN").bytes());

    Stream inner;
    inner.header().tnefVersion().record(1, 0x00018004, "inner\0"s).record(1, 0x0004800D, "\x01\0"s);
    inner.record(2, 0x00069002, rend).record(2, 0x0006800F, "x");
    Stream nested;
    const Guid iid{0x0B, 0x03, 0x02, 0, 0, 0, 0, 0, 0xC0, 0, 0, 0, 0, 0, 0, 0x46};
    nested.header().tnefVersion().record(2, 0x00069002, "\x01\0"s + std::string(12, '\0'));
    nested.record(2, 0x00069005, PropList().object(0x3701000D, iid, inner.bytes()).bytes());
    return {{"builder-simple", simple.bytes()}, {"builder-nested", nested.bytes()}};
}


// The two property texts the decoder stores for a stream; empty when it escapes.
std::pair<std::string, std::string> decodedTexts(const std::string& path) {
    ReceivedMessage received;
    received.tnefPath = path;
    int16_t file = 0;
    const int16_t message = Msg_BuildReceived(received, &file);
    const int16_t receivedFile = file;
    std::pair<std::string, std::string> texts;
    try {
        uint16_t receipt = 0;
        uint32_t reply = 0;
        tnef_Decode(message, &file, path.c_str(), &receipt, &reply, 0, 0);
        for (const auto& text : storecheck::storedTexts(file))
            (text.secondary ? texts.second : texts.first) = text.bytes;
    } catch (const Escape&) {
    }
    if (file != receivedFile) tf_CloseFile(file);
    tf_CloseFile(receivedFile);
    Msg_Close(message);
    return texts;
}

std::string blobTexts(const std::string& path) {
    const int fd = ::open(path.c_str(), O_RDONLY);
    if (fd < 0) return {};
    char* props = nullptr;
    char* recips = nullptr;
    char* attach = nullptr;
    std::string out;
    try {
        tnef_GetProp(fd, "GET-ALL", &props, &recips, &attach, path.c_str());
        out = std::string(props ? props : "") + kSeparator + (attach ? attach : "") + kSeparator +
              (recips ? recips : "");
    } catch (const Escape&) {
    }
    std::free(props);
    std::free(recips);
    std::free(attach);
    ::close(fd);
    return out;
}

void seedsFrom(const fs::path& out, const std::string& name, const std::string& bytes,
               const std::string& home) {
    for (const char* target : {"decode", "getprop", "scan", "oemcodepage", "read", "convert"})
        put(out, target, name, bytes);
    const std::string path = home + "/seed.tnef";
    writeFile(path, bytes);
    const auto [mainText, secondaryText] = decodedTexts(path);
    if (!mainText.empty()) put(out, "parsedata", name + "-main", mainText);
    if (!secondaryText.empty()) put(out, "parsedata", name + "-secondary", secondaryText);
    put(out, "encode", name, bytes + kSeparator + mainText + kSeparator + secondaryText);
    const std::string blobs = blobTexts(path);
    if (!blobs.empty()) put(out, "writeblob", name, blobs);
}

}  // namespace

// A TNEF stream as the winmail.dat part of a mail, base64 as mail systems send it.
std::string mailAround(const std::string& tnef) {
    gchar* b = g_base64_encode(reinterpret_cast<const guchar*>(tnef.data()), tnef.size());
    const std::string flat = b;
    g_free(b);
    std::string mail =
        "From: a@example.org\r\nSubject: seed\r\nMIME-Version: 1.0\r\n"
        "Content-Type: multipart/mixed; boundary=\"b\"\r\n\r\n--b\r\nContent-Type: text/plain\r\n\r\n\r\n--b\r\n"
        "Content-Type: application/ms-tnef; name=\"winmail.dat\"\r\nContent-Transfer-Encoding: base64\r\n\r\n";
    for (size_t i = 0; i < flat.size(); i += 76) mail += flat.substr(i, 76) + "\r\n";
    return mail + "--b--\r\n";
}

int main(int argc, char** argv) {
    if (argc < 2) {
        std::fprintf(stderr, "usage: %s OUT_DIR [CORPUS_FILES_DIR]\n", argv[0]);
        return 2;
    }
    const fs::path out = argv[1];
    char pattern[] = "/tmp/tnef-seeds-XXXXXX";
    const std::string home = ::mkdtemp(pattern);
    os_SetHome(home);
    for (const auto& [name, bytes] : builderStreams()) {
        seedsFrom(out, name, bytes, home);
        put(out, "unwrap", name, mailAround(bytes));
    }
    const std::string html =
        "{\\rtf1\\ansi\\ansicpg1251\\fromhtml1{\\fonttbl{\\f0\\fcharset204 A;}}{\\*\\htmltag <b>}"
        "\\htmlrtf x\\htmlrtf0 \\'c0\\u8364?\\~{\\*\\mhtmltag y}\\par}";
    put(out, "rtf", "lzfu-html", tnef_CompressRtf(html));
    put(out, "deencap", "rtf-html", html);
    for (const auto& [name, bytes] : calbuild::calendarSeeds()) put(out, "convert", name, bytes);
    if (argc > 2) {
        for (const auto& entry : fs::directory_iterator(argv[2])) {
            const std::string bytes = readFileBytes(entry.path().string());
            seedsFrom(out, entry.path().filename().string(), bytes, home);
            put(out, "unwrap", entry.path().filename().string(), mailAround(bytes));
        }
        const fs::path content = fs::path(argv[2]) / ".." / "content" / "files";
        std::error_code ec;
        for (const auto& entry : fs::directory_iterator(content, ec)) {
            const std::string bytes = readFileBytes(entry.path().string());
            put(out, bytes.rfind("{\\rtf", 0) == 0 ? "deencap" : "rtf", entry.path().filename().string(), bytes);
            put(out, "convert", entry.path().filename().string(), bytes);
            if (entry.path().extension() == ".eml") put(out, "unwrap", entry.path().filename().string(), bytes);
        }
    }
    fs::remove_all(home);
    return 0;
}
