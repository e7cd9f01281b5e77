// Decodes that die at random moments (SIGKILL) and decodes that run side by side into one
// home: whatever a reader can list must be whole, the same message a quiet decode of the
// same file makes, and a repair must leave nothing that no message references.

#include <fcntl.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <spawn.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <iostream>
#include <cstdlib>
#include <filesystem>
#include <map>
#include <random>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "support/sha256.h"
#include "support/store_checks.h"
#include "support/test_home.h"
#include "support/tnef_builder.h"
#include "tnef/platform/im_items.h"
#include "tnef/platform/msg_store.h"
#include "tnef/platform/tf_msgfile.h"
#include "tool_run.h"

extern char** environ;

namespace {

namespace fs = std::filesystem;
using Clock = std::chrono::steady_clock;

pid_t startDecode(const std::string& home, const std::string& input) {
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_addopen(&actions, 1, "/dev/null", O_WRONLY, 0);
    posix_spawn_file_actions_addopen(&actions, 2, "/dev/null", O_WRONLY, 0);
    std::vector<std::string> args = {TNEF_TOOL_PATH, "--home", home, "decode", input};
    std::vector<char*> argv;
    for (std::string& a : args) argv.push_back(a.data());
    argv.push_back(nullptr);
    pid_t pid = -1;
    EXPECT_EQ(posix_spawn(&pid, TNEF_TOOL_PATH, &actions, nullptr, argv.data(), environ), 0);
    posix_spawn_file_actions_destroy(&actions);
    return pid;
}

// 0 for a decode that ended with status 0, 1 for any other end, 2 for one the signal ended.
int waitFor(pid_t pid) {
    int status = 0;
    ::waitpid(pid, &status, 0);
    if (WIFSIGNALED(status)) return 2;
    return WIFEXITED(status) && WEXITSTATUS(status) == 0 ? 0 : 1;
}

// A message as a reader finds it: its record types, and the digests of its parts and of the
// objects its records name. Reading a damaged message raises, which fails the caller's test.
struct Fingerprint {
    std::string input;  // digest of part 2, the TNEF file the message was built around
    std::string text;
};

Fingerprint fingerprintOf(const std::string& home, const std::string& id) {
    os_SetHome(home);
    MsgOwner msg(Msg_Open(id.c_str()));
    ItemRef fileRef;
    Msg_GetFileRef(msg.get(), &fileRef);
    TfFileOwner tf(tf_OpenFile(fileRef, TF_OPEN_READONLY));
    Fingerprint f;
    for (uint32_t type : storecheck::typesOf(tf.get())) f.text += std::to_string(type) + " ";
    f.text += "parts";
    for (uint32_t n = 1; n <= Msg_GetPartCount(msg.get()); ++n) {
        ItemRef part;
        Msg_GetAttachedFile(msg.get(), &part, n);
        const std::string digest = testsha::sha256OfFile(im_ItemRef2FName(part));
        if (n == 2) f.input = digest;
        f.text += " " + digest;
    }
    for (const auto& text : storecheck::storedTexts(tf.get())) f.text += " " + testsha::sha256Hex(text.bytes);
    return f;
}

// Every input decoded once, quietly, in a home of its own: what a reader must find.
std::map<std::string, std::string> referenceOf(const std::vector<std::string>& inputs) {
    TestHome home;
    std::map<std::string, std::string> reference;
    for (const std::string& input : inputs) {
        if (waitFor(startDecode(home.path(), input)) != 0) continue;
        for (const std::string& id : Msg_List()) {
            const Fingerprint f = fingerprintOf(home.path(), id);
            reference[f.input] = f.text;
        }
        fs::remove_all(home.file("store"));
    }
    return reference;
}

// Each listed message (not yet seen) must equal the reference of its input.
void expectWhole(const std::string& home, const std::map<std::string, std::string>& reference,
                 std::set<std::string>* seen) {
    os_SetHome(home);
    for (const std::string& id : Msg_List()) {
        if (!seen->insert(id).second) continue;
        SCOPED_TRACE("message " + id);
        const Fingerprint f = fingerprintOf(home, id);
        const auto it = reference.find(f.input);
        ASSERT_NE(it, reference.end()) << "a message of no input, or its TNEF part is not whole";
        EXPECT_EQ(f.text, it->second);
    }
}

// After a repair the store holds the published messages and nothing else.
void expectRepairLeavesOnlyMessages(const std::string& home) {
    const ToolRun repair = runTool({"--home", home, "store", "check", "--repair", "--min-age", "0"}, home);
    EXPECT_EQ(repair.status, 0) << repair.out << repair.err;
    const ToolRun again = runTool({"--home", home, "store", "check", "--min-age", "0"}, home);
    EXPECT_EQ(again.status, 0) << again.out;
    EXPECT_EQ(storecheck::filesIn(home + "/store/staging"), std::vector<std::string>{});
    EXPECT_EQ(storecheck::filesIn(home + "/tmp/items"), std::vector<std::string>{});
    for (const std::string& name : storecheck::filesIn(home + "/store/items")) {
        struct stat st;
        ASSERT_EQ(::stat((home + "/store/items/" + name).c_str(), &st), 0);
        EXPECT_GE(st.st_nlink, 2u) << name << " is linked to no message";
    }
}

std::vector<std::string> corpusFiles() {
    std::vector<std::string> files;
    const std::string corpus = corpusDir();
    if (corpus.empty()) return files;
    for (const auto& e : fs::directory_iterator(corpus + "/files")) files.push_back(e.path().string());
    std::sort(files.begin(), files.end());
    return files;
}

int envCount(const char* name, int fallback) {
    const char* v = std::getenv(name);
    return v != nullptr && std::atoi(v) > 0 ? std::atoi(v) : fallback;
}

}  // namespace

// TNEF_KILL_RUNS sets the number of kills (default 100, bounded to about a minute).
TEST(Crash, DecodesKilledAtRandomLeaveWholeMessagesOrNothingARepairKeeps) {
    TestHome scratch;
    std::vector<std::string> inputs;
    for (const std::string& f : corpusFiles())
        if (f.find("christmas") != std::string::npos || f.find("two-files") != std::string::npos ||
            f.find("bug52400-winmail-with-attachments") != std::string::npos)
            inputs.push_back(f);
    // A large attachment, so that kills land inside long copies too.
    std::string big(24u << 20, '\0');
    for (size_t i = 0; i < big.size(); ++i) big[i] = static_cast<char>(i * 131 + 7);
    scratch.write("big.tnef", tnefbuild::Stream()
                                  .header()
                                  .tnefVersion()
                                  .record(2, 0x00069002, std::string(14, '\1'))  // attAttachRenddata
                                  .record(2, 0x0006800F, big)                    // attAttachData
                                  .record(2, 0x00069005,                         // attAttachment
                                          tnefbuild::PropList().string8(0x3707001E, "big.bin").bytes())
                                  .bytes());
    inputs.push_back(scratch.file("big.tnef"));
    const auto reference = referenceOf(inputs);
    ASSERT_EQ(reference.size(), inputs.size());

    // How long each decode takes undisturbed: kills land anywhere in it, and a little after.
    TestHome home;
    std::vector<double> seconds;
    for (const std::string& input : inputs) {
        const auto start = Clock::now();
        waitFor(startDecode(home.path(), input));
        seconds.push_back(std::chrono::duration<double>(Clock::now() - start).count());
    }
    std::set<std::string> seen;
    expectWhole(home.path(), reference, &seen);

    std::mt19937 random(20261124);
    const int runs = envCount("TNEF_KILL_RUNS", 100);
    int killed = 0, finished = 0;
    const auto deadline = Clock::now() + std::chrono::seconds(envCount("TNEF_KILL_SECONDS", 60));
    for (int run = 0; run < runs && Clock::now() < deadline; ++run) {
        const size_t which = static_cast<size_t>(run) % inputs.size();
        const pid_t pid = startDecode(home.path(), inputs[which]);
        std::this_thread::sleep_for(std::chrono::duration<double>(
            std::uniform_real_distribution<double>(0, 1.2 * seconds[which])(random)));
        ::kill(pid, SIGKILL);
        const bool wasKilled = waitFor(pid) == 2;
        (wasKilled ? killed : finished) += 1;
        // On a busy machine decodes take other times than the undisturbed one: aim earlier
        // after a decode that finished first, later after one killed, so kills keep landing.
        seconds[which] *= wasKilled ? 1.05 : 0.8;
        expectWhole(home.path(), reference, &seen);
        if (HasFailure()) break;
    }
    const ToolRun before = runTool({"--home", home.path(), "store", "check", "--min-age", "0"}, home.path());
    std::cout << "kills " << killed << ", decodes that finished first " << finished << ", messages "
              << seen.size() << ", leftovers before repair " << lineCount(before.out) - 1 << "\n";
    EXPECT_GE(killed, (killed + finished) / 4) << "kills should land inside decodes";
    expectRepairLeavesOnlyMessages(home.path());
    expectWhole(home.path(), reference, &seen);
}

// 8 processes, each decoding up to 200 corpus files one after another into one home
// (TNEF_PARALLEL_SECONDS bounds the run, 90 s by default).
TEST(Crash, EightProcessesDecodingIntoOneHomeStoreEveryMessageWhole) {
    const std::vector<std::string> inputs = corpusFiles();
    if (inputs.empty()) GTEST_SKIP() << "no shared corpus beside this checkout (set TNEF_CORPUS)";
    const auto reference = referenceOf(inputs);
    TestHome home;
    constexpr int kProcesses = 8, kDecodesEach = 200;
    const int seconds = envCount("TNEF_PARALLEL_SECONDS", 90);
    std::vector<pid_t> workers;
    for (int p = 0; p < kProcesses; ++p) {
        const pid_t child = ::fork();
        if (child == 0) {
            // The number of decodes that stored a message, as the exit status cannot hold it.
            const auto deadline = Clock::now() + std::chrono::seconds(seconds);
            int stored = 0;
            for (int i = 0; i < kDecodesEach && Clock::now() < deadline; ++i)
                stored += waitFor(startDecode(home.path(), inputs[static_cast<size_t>(p * 7 + i) % inputs.size()])) == 0;
            const std::string count = std::to_string(stored);
            const int fd = ::open((home.path() + "/stored-" + std::to_string(p)).c_str(), O_WRONLY | O_CREAT, 0600);
            const bool written = ::write(fd, count.data(), count.size()) == static_cast<ssize_t>(count.size());
            ::close(fd);
            ::_exit(written ? 0 : 1);
        }
        workers.push_back(child);
    }
    size_t stored = 0;
    for (int p = 0; p < kProcesses; ++p) {
        EXPECT_EQ(waitFor(workers[static_cast<size_t>(p)]), 0);
        stored += std::stoul(home.read("stored-" + std::to_string(p)));
    }
    std::set<std::string> seen;
    expectWhole(home.path(), reference, &seen);
    std::cout << "decodes that stored a message " << stored << "\n";
    EXPECT_EQ(seen.size(), stored);
    EXPECT_GE(stored, 200u);
    expectRepairLeavesOnlyMessages(home.path());
}
