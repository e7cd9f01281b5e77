// Many hostile inputs through decode, extraction and encode in one process and one home, so
// that whatever any of them leaves behind (descriptors, handles, items, message folders,
// memory under the leak checker) adds up and shows.
#include <fcntl.h>
#include <sys/stat.h>

#include <gtest/gtest.h>

#include <algorithm>
#include <filesystem>
#include <string>
#include <vector>

#include "support/store_checks.h"
#include "support/test_home.h"
#include "tnef/platform/dstring.h"
#include "tnef/platform/er_escape.h"
#include "tnef/platform/im_items.h"
#include "tnef/platform/mp_stored.h"
#include "tnef/platform/msg_builder.h"
#include "tnef/platform/msg_store.h"
#include "tnef/platform/os_file.h"
#include "tnef/platform/tf_msgfile.h"
#include "tnef/tnef.h"
#include "tnef/tnef_attachments.h"

namespace fs = std::filesystem;

namespace {

// Regular files of the folders, sorted within each; missing folders give nothing.
std::vector<std::string> filesOf(const std::vector<std::string>& folders) {
    std::vector<std::string> paths;
    for (const std::string& folder : folders)
        for (const std::string& name : storecheck::filesIn(folder))
            if (fs::is_regular_file(folder + "/" + name)) paths.push_back(folder + "/" + name);
    return paths;
}

std::vector<std::string> fuzzInputs(const char* target) {
    const std::string root = std::string(TNEF_SOURCE_DIR) + "/tests/fuzz/" + target;
    return filesOf({root + "/sample", root + "/crashers"});
}

// What the process and the home hold between two inputs.
struct Held {
    int descriptors = 0;
    size_t messageFolders = 0;
    std::vector<std::string> items;
};

Held heldNow(const TestHome& home) {
    return {storecheck::openFdCount(), storecheck::filesIn(home.file("store/messages")).size(),
            storecheck::filesIn(home.file("store/items"))};
}

// What one input left that it should not have, one line each; foldersMade is the number of
// message folders it was meant to keep.
std::string leftBehind(const TestHome& home, const Held& before, size_t foldersMade) {
    const Held now = heldNow(home);
    std::string out;
    if (now.descriptors != before.descriptors)
        out += "  " + std::to_string(now.descriptors - before.descriptors) + " descriptors\n";
    if (tf_OpenHandleCount() != 0)
        out += "  " + std::to_string(tf_OpenHandleCount()) + " message file handles\n";
    if (Msg_OpenHandleCount() != 0)
        out += "  " + std::to_string(Msg_OpenHandleCount()) + " message handles\n";
    if (now.messageFolders != before.messageFolders + foldersMade)
        out += "  " + std::to_string(now.messageFolders - before.messageFolders) +
               " message folders instead of " + std::to_string(foldersMade) + "\n";
    for (const std::string& name : storecheck::filesIn(home.file("tmp/items")))
        out += "  temporary item " + name + "\n";
    // A data item only a message part or a kept object links has a second name.
    for (const std::string& name : now.items) {
        struct stat st {};
        const std::string path = home.file("store/items/" + name);
        if (std::binary_search(before.items.begin(), before.items.end(), name)) continue;
        if (::stat(path.c_str(), &st) == 0 && st.st_nlink < 2)
            out += "  unlinked data item " + name + "\n";
    }
    return out;
}

int openScratch(const TestHome& home, const char* name) {
    return os_open(home.file(std::string("scratch/") + name).c_str(), O_RDWR | O_CREAT | O_TRUNC,
                   0600);
}

// Lists the file's attachments with the streaming reader and copies each one out.
void extract(const TestHome& home, const std::string& path) {
    OsFd in(os_open(path.c_str(), O_RDONLY, 0));
    OsFd out(openScratch(home, "attachments"));
    TnefAttachList list;
    try {
        tnef_ListAttachments(in.get(), &list);
        for (const TnefAttachInfo& a : list.attachments)
            if (a.kind != TNEF_ATTACH_NONE) tnef_CopyAttachment(in.get(), &a, out.get());
    } catch (const Escape&) {
    }
}

// Writes the stored message out again as TNEF, from its own message file.
void encodeStored(const TestHome& home, int16_t message) {
    ItemRef ref{};
    Msg_GetFileRef(message, &ref);
    TfFileOwner stored(tf_OpenFile(ref, TF_OPEN_READONLY));
    OsFd out(openScratch(home, "encoded.tnef"));
    uint32_t word = 0;
    try {
        tnef_Encode(stored.get(), out.get(), 0, &word, message);
    } catch (const Escape&) {
    }
}

// Decodes the file as a received message, keeps the message only when the decode succeeds,
// and then encodes it. The message file copies handed to the caller are the caller's to
// remove. Returns the message folders kept.
size_t decodeAndEncode(const TestHome& home, const std::string& path) {
    ReceivedMessage received;
    received.tnefPath = path;
    int16_t messageFile = 0;
    MsgOwner message(Msg_BuildReceived(received, &messageFile));
    TfFileOwner receivedFile(messageFile);
    receivedFile.discardItem();
    uint16_t receipt = 0;
    uint32_t reply = 0;
    try {
        tnef_Decode(message.get(), &messageFile, path.c_str(), &receipt, &reply, 0, 0);
    } catch (const Escape&) {
        Msg_Delete(message.release());
        return 0;
    }
    {
        TfFileOwner decoded(messageFile);
        decoded.discardItem();
        Msg_Save(message.get(), messageFile);
    }
    encodeStored(home, message.get());
    return 1;
}

// Runs every input through decode, extraction and encode in one home.
void decodeBatch(const std::vector<std::string>& inputs) {
    TestHome home;
    for (const std::string& path : inputs) {
        SCOPED_TRACE(path);
        const Held before = heldNow(home);
        size_t kept = 0;
        try {
            kept = decodeAndEncode(home, path);
            extract(home, path);
        } catch (const Escape& e) {
            ADD_FAILURE() << "escape outside the codec's calls: " << e.what();
        }
        EXPECT_EQ(leftBehind(home, before, kept), "");
    }
}

// Splits at the first two 0xFF bytes from `from` on, as the encode fuzzer's inputs are cut.
size_t splitAt(const std::string& data, size_t from) {
    const size_t at = data.find("\xFF\xFF", std::min(from, data.size()));
    return at == std::string::npos ? data.size() : at;
}

// The encode fuzzer's message: the input's first piece as the object file, the second and
// third as the main and secondary property texts. Returns the message folders made.
size_t encodeInput(const TestHome& home, const std::string& data) {
    const size_t a = splitAt(data, 0);
    const size_t b = splitAt(data, a + 2);
    const auto piece = [&](size_t from, size_t to) {
        return from < to ? data.substr(from, to - from) : std::string();
    };
    ReceivedMessage received;
    received.tnefBytes = piece(0, a);
    int16_t messageFile = 0;
    MsgOwner message(Msg_BuildReceived(received, &messageFile));
    TfFileOwner file(messageFile);
    file.discardItem();
    try {
        ItemRef ref{};
        Msg_GetAttachedFile(message.get(), &ref, 2);
        mp_PutObjectFile(MP_OBJECT_PROPERTIES, ref, messageFile, 1, 0);
        dstring mainText{piece(a + 2, b)};
        dstring secondary{piece(b + 2, data.size())};
        mp_PutMAPIPropsData(1, 0, &mainText, messageFile, 1, 0, 0);
        mp_PutMAPIPropsData(2, 0, &secondary, messageFile, 1, 0, 1);
        OsFd out(openScratch(home, "encoded.tnef"));
        uint32_t word = 0;
        tnef_Encode(messageFile, out.get(), 0, &word, message.get());
    } catch (const Escape&) {
    }
    return 0;  // never saved, so the staged message goes with its handle
}

TEST(Resources, CorpusDecodeExtractEncodeLeavesNothingBehind) {
    const std::string corpus = corpusDir();
    if (corpus.empty()) GTEST_SKIP() << "no shared corpus beside this checkout (set TNEF_CORPUS)";
    decodeBatch(filesOf({corpus + "/files"}));
}

TEST(Resources, FuzzGrownDecodeInputsLeaveNothingBehind) {
    const std::vector<std::string> inputs = fuzzInputs("decode");
    if (inputs.empty())
        GTEST_SKIP() << "no inputs in tests/fuzz/decode/sample or tests/fuzz/decode/crashers";
    decodeBatch(inputs);
}

TEST(Resources, FuzzGrownEncodeInputsLeaveNothingBehind) {
    const std::vector<std::string> inputs = fuzzInputs("encode");
    if (inputs.empty())
        GTEST_SKIP() << "no inputs in tests/fuzz/encode/sample or tests/fuzz/encode/crashers";
    TestHome home;
    for (const std::string& path : inputs) {
        SCOPED_TRACE(path);
        const Held before = heldNow(home);
        size_t made = 0;
        try {
            made = encodeInput(home, readFileBytes(path));
        } catch (const Escape& e) {
            ADD_FAILURE() << "escape outside the codec's calls: " << e.what();
        }
        EXPECT_EQ(leftBehind(home, before, made), "");
    }
}

}  // namespace
