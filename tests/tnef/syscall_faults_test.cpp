// Every system call of a decode, an encode, a property extraction and a blob write made to
// fail in turn (N = 1, 2, ... until the work makes fewer than N calls), as a failing disk,
// a full one, a signal or a partial transfer would. After each: no descriptor, handle or
// item left; an escape only for a real error, and then the store as it was before; success
// only with the result and the store of an undisturbed run.

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <filesystem>
#include <functional>
#include <iostream>
#include <regex>
#include <string>
#include <vector>

#include "support/sha256.h"
#include "support/store_checks.h"
#include "support/test_home.h"
#include "tnef/platform/er_escape.h"
#include "tnef/platform/im_items.h"
#include "tnef/platform/msg_builder.h"
#include "tnef/platform/msg_store.h"
#include "tnef/platform/os_file.h"
#include "tnef/platform/tf_msgfile.h"
#include "tnef/tnef.h"

namespace {

namespace fs = std::filesystem;

enum class Fault { Eio, Enospc, Eintr, ShortWrite, ShortRead };
struct FaultKind {
    Fault fault;
    const char* name;
};
constexpr FaultKind kFaults[] = {{Fault::Eio, "EIO"},
                                 {Fault::Enospc, "ENOSPC"},
                                 {Fault::Eintr, "EINTR"},
                                 {Fault::ShortWrite, "short write"},
                                 {Fault::ShortRead, "short read"}};

// The injector: call number g_target of the table gets the fault, every other call is real.
Fault g_fault;
long g_target = 0, g_calls = 0;
bool g_fired = false;
std::string g_refused;  // a name whose removal the fault refused
const OsSysCalls* g_real = nullptr;

// Whether this call is the one to fail, and the errno it fails with (0: no fault here).
const char* g_what = "";  // the call that got the fault
int faultHere(const char* what, bool allocates) {
    if (++g_calls != g_target) return 0;
    g_what = what;
    switch (g_fault) {
        case Fault::Eio: return EIO;
        case Fault::Enospc: return allocates ? ENOSPC : 0;
        case Fault::Eintr: return EINTR;
        default: return 0;
    }
}

template <typename F>
int failOr(int err, F real) {
    if (err == 0) return real();
    g_fired = true;
    errno = err;
    return -1;
}

OsSysCalls injectingCalls() {
    OsSysCalls c{};
    c.open = [](const char* p, int f, mode_t m) {
        return failOr(faultHere("open", (f & O_CREAT) != 0), [&] { return g_real->open(p, f, m); });
    };
    c.read = [](int fd, void* b, size_t n) -> ssize_t {
        const bool shortNow = g_calls + 1 == g_target && g_fault == Fault::ShortRead && n > 1;
        if (const int err = faultHere("read", false)) return failOr(err, [] { return 0; });
        if (shortNow) g_fired = true;
        return g_real->read(fd, b, shortNow ? n / 2 : n);
    };
    c.write = [](int fd, const void* b, size_t n) -> ssize_t {
        const bool shortNow = g_calls + 1 == g_target && g_fault == Fault::ShortWrite && n > 1;
        if (const int err = faultHere("write", true)) return failOr(err, [] { return 0; });
        if (shortNow) g_fired = true;
        return g_real->write(fd, b, shortNow ? n / 2 : n);
    };
    c.lseek = [](int fd, off_t o, int w) -> off_t {
        if (const int err = faultHere("lseek", false)) return failOr(err, [] { return 0; });
        return g_real->lseek(fd, o, w);
    };
    // Linux releases the descriptor whatever close reports.
    c.close = [](int fd) {
        const int err = faultHere("close", false);
        const int result = g_real->close(fd);
        return failOr(err, [&] { return result; });
    };
    c.link = [](const char* a, const char* b) { return failOr(faultHere("link", true), [&] { return g_real->link(a, b); }); };
    c.rename = [](const char* a, const char* b, unsigned f) {
        return failOr(faultHere("rename", true), [&] { return g_real->rename(a, b, f); });
    };
    c.mkdir = [](const char* p, mode_t m) { return failOr(faultHere("mkdir", true), [&] { return g_real->mkdir(p, m); }); };
    c.unlink = [](const char* p) {
        const int err = faultHere("unlink", false);
        if (err != 0 && err != EINTR) g_refused = p;
        return failOr(err, [&] { return g_real->unlink(p); });
    };
    c.rmdir = [](const char* p) {
        const int err = faultHere("rmdir", false);
        if (err != 0 && err != EINTR) g_refused = p;
        return failOr(err, [&] { return g_real->rmdir(p); });
    };
    // Durability is not under test here: a sync that does not fail costs nothing.
    c.fsync = [](int, int) { return failOr(faultHere("fsync", true), [] { return 0; }); };
    c.ftruncate = [](int fd, off_t s) { return failOr(faultHere("ftruncate", true), [&] { return g_real->ftruncate(fd, s); }); };
    return c;
}

// The store as names (ids and item names masked, as every run draws its own) and contents
// (a message file by its size: it holds item references).
std::vector<std::string> storeState(const TestHome& home) {
    static const std::regex ids("[0-9a-f]{8}-[0-9a-f]{8}-[0-9a-f]{8}|[0-9a-f]{16}");
    std::vector<std::string> state;
    for (const char* top : {"store", "tmp/items"}) {
        std::error_code ec;
        for (const auto& e : fs::recursive_directory_iterator(home.file(top), ec)) {
            std::string line = std::regex_replace(e.path().string().substr(home.path().size()), ids, "*");
            // The store's own folders are made on demand and stay; a message's are counted.
            if (e.is_directory() && std::count(line.begin(), line.end(), '/') < 3) continue;
            if (e.is_regular_file())
                line += e.path().filename() == "msgfile" ? " " + std::to_string(e.file_size())
                                                          : " " + testsha::sha256OfFile(e.path().string());
            state.push_back(line);
        }
    }
    std::sort(state.begin(), state.end());
    return state;
}

struct Outcome {
    bool escaped = false;
    int group = 0, reason = 0;
    std::string result;  // what the work produced
};

// One kind of work on one file, run once with the table in place.
using Work = std::function<std::string(const TestHome&, const std::string& input)>;

std::string decodeWork(const TestHome&, const std::string& input) {
    const StoreUndoScope undo;
    ReceivedMessage received;
    received.tnefPath = input;
    int16_t messageFile = 0;
    MsgOwner message(Msg_BuildReceived(received, &messageFile));
    TfFileOwner receivedFile(messageFile);
    receivedFile.discardItem();
    try {
        uint16_t receipt = 0;
        uint32_t reply = 0;
        tnef_Decode(message.get(), &messageFile, input.c_str(), &receipt, &reply, 0, 0);
        TfFileOwner decoded(messageFile);
        decoded.discardItem();
        Msg_Save(message.get(), decoded.get());
        return std::to_string(receipt) + "/" + std::to_string(reply);
    } catch (const Escape&) {
        Msg_Delete(message.release());
        throw;
    }
}

std::string outputOf(const TestHome& home) { return readFileBytes(home.file("out/result.tnef")); }

OsFd freshOutput(const TestHome& home) {
    fs::create_directories(home.file("out"));
    return OsFd(::open(home.file("out/result.tnef").c_str(), O_RDWR | O_CREAT | O_TRUNC | O_CLOEXEC, 0600));
}

std::string encodeWork(const TestHome& home, const std::string&) {
    MsgOwner message(Msg_Open(Msg_List().front().c_str()));
    ItemRef ref;
    Msg_GetFileRef(message.get(), &ref);
    TfFileOwner tf(tf_OpenFile(ref, TF_OPEN_READONLY));
    OsFd out = freshOutput(home);
    uint32_t word = 1;
    const int sent = tnef_Encode(tf.get(), out.get(), 0, &word, message.get());
    return std::to_string(sent) + outputOf(home);
}

struct Blobs {
    char* props = nullptr;
    char* recips = nullptr;
    char* attach = nullptr;
    Blobs() = default;
    Blobs(const Blobs&) = delete;
    Blobs& operator=(const Blobs&) = delete;
    ~Blobs() { clear(); }
    void clear() {
        std::free(props);
        std::free(recips);
        std::free(attach);
        props = recips = attach = nullptr;
    }
    void take(const std::string& input) {
        clear();
        OsFd fd(::open(input.c_str(), O_RDONLY | O_CLOEXEC));
        tnef_GetProp(fd.get(), "GET-ALL", &props, &recips, &attach, "in");
    }
    std::string text() const {
        const auto s = [](const char* p) { return p != nullptr ? std::string(p) : std::string("-"); };
        return s(props) + "|" + s(recips) + "|" + s(attach);
    }
};

std::string getPropWork(const TestHome&, const std::string& input) {
    Blobs b;
    b.take(input);
    return b.text();
}

// The blob writer's input: what a clean extraction of the file gives.
Blobs g_blobs;

std::string blobWriteWork(const TestHome& home, const std::string&) {
    OsFd out = freshOutput(home);
    tnef_WriteBrenvoProps2ObjectFile(out.get(), -1, g_blobs.props, g_blobs.attach, g_blobs.recips);
    return outputOf(home);
}

using Setup = void (*)(const TestHome&, const std::string&);
void noSetup(const TestHome&, const std::string&) {}
void storeDecoded(const TestHome& home, const std::string& input) { decodeWork(home, input); }
void takeBlobs(const TestHome&, const std::string& input) { g_blobs.take(input); }

struct Entry {
    const char* name;
    Setup setup;          // without faults, before the work
    Work work;
    // The codec's rules let its own handlers accept an I/O escape, or let a failed write go
    // unnoticed (the blob writer): a real error may then change the result without an escape.
    bool acceptsErrors;
};

Outcome runOnce(const Entry& entry, const TestHome& home, const std::string& input, const OsSysCalls* calls) {
    Outcome o;
    os_SetSysCalls(calls);
    try {
        o.result = testsha::sha256Hex(entry.work(home, input));
    } catch (const Escape& e) {
        o.escaped = true;
        o.group = e.group;
        o.reason = e.reason;
    }
    os_SetSysCalls(nullptr);
    return o;
}

// The real calls but for syncs, which cost time and are not under test: for the setup and
// the undisturbed runs.
const OsSysCalls* quickCalls() {
    static const OsSysCalls quick = [] {
        OsSysCalls c{};
        c.fsync = [](int, int) { return 0; };
        return c;
    }();
    return &quick;
}

void setUp(const Entry& entry, const TestHome& home, const std::string& input) {
    os_SetSysCalls(quickCalls());
    entry.setup(home, input);
    os_SetSysCalls(nullptr);
}

// Runs f in a child process, so that every run starts from the same process-wide state (the
// codec keeps named-property counters from call to call), and returns what it printed.
template <typename F>
std::string inChild(F f) {
    int pipeFds[2];
    if (::pipe(pipeFds) != 0) return "no pipe";
    const pid_t child = ::fork();
    if (child == 0) {
        ::close(pipeFds[0]);
        const std::string text = f();
        const bool written = ::write(pipeFds[1], text.data(), text.size()) == static_cast<ssize_t>(text.size());
        ::_exit(written ? 0 : 1);
    }
    ::close(pipeFds[1]);
    std::string text;
    char chunk[4096];
    for (ssize_t n; (n = ::read(pipeFds[0], chunk, sizeof chunk)) > 0;) text.append(chunk, static_cast<size_t>(n));
    ::close(pipeFds[0]);
    ::waitpid(child, nullptr, 0);
    return text;
}

std::string joined(const std::vector<std::string>& lines) {
    std::string text;
    for (const std::string& l : lines) text += l + "\n";
    return text;
}

// One point, judged in the child: "<calls made>\n" then what went wrong, if anything.
std::string onePoint(const Entry& entry, const std::string& input, const FaultKind& kind,
                     const Outcome& clean, const std::vector<std::string>& cleanState) {
    static const OsSysCalls injecting = injectingCalls();
    TestHome home;
    setUp(entry, home, input);
    const auto before = storeState(home);
    const int fds = storecheck::openFdCount();
    g_calls = 0;
    g_fired = false;
    g_refused.clear();
    g_fault = kind.fault;
    const Outcome o = runOnce(entry, home, input, &injecting);
    std::string faults;
    const auto expect = [&](bool ok, const std::string& what) {
        if (!ok) faults += "  " + what + "\n";
    };
    expect(storecheck::openFdCount() == fds, "descriptors left open");
    expect(tf_OpenHandleCount() == 0 && Msg_OpenHandleCount() == 0, "handles left open");
    // A name whose removal was refused stays for the store check's sweep; here it goes by
    // hand, with the staged folder it was in.
    if (!g_refused.empty()) {
        std::error_code ec;
        const fs::path refused = g_refused;
        fs::remove_all(refused.parent_path().parent_path().filename() == "staging" ? refused.parent_path() : refused, ec);
    }
    const bool realError = g_fired && (kind.fault == Fault::Eio || kind.fault == Fault::Enospc);
    const auto state = storeState(home);
    if (o.escaped) {
        expect(realError && o.group == ER_GROUP_IO && o.reason == (kind.fault == Fault::Eio ? EIO : ENOSPC),
               "escape " + std::to_string(o.group) + "/" + std::to_string(o.reason));
        expect(state == before, "store changed:\n" + joined(state) + "instead of\n" + joined(before));
    } else if (!(realError && entry.acceptsErrors && o.result != clean.result)) {
        expect(o.result == clean.result, "a result other than an undisturbed run's");
        expect(state == cleanState, "store:\n" + joined(state) + "instead of\n" + joined(cleanState));
    }
    return std::to_string(g_calls) + "\n" + (faults.empty() ? "" : std::string(g_what) + ": " + faults);
}

// Tries every call point of the work on the input; returns the number of points tried.
long everyPoint(const Entry& entry, const std::string& input, const FaultKind& kind) {
    static const OsSysCalls real = os_GetSysCalls();
    g_real = &real;
    Outcome clean;
    std::vector<std::string> cleanState;
    const std::string reference = inChild([&] {
        TestHome home;
        setUp(entry, home, input);
        const Outcome o = runOnce(entry, home, input, quickCalls());
        return o.result + "\n" + joined(storeState(home));
    });
    clean.result = reference.substr(0, reference.find('\n'));
    for (size_t at = reference.find('\n') + 1; at < reference.size();) {
        const size_t end = reference.find('\n', at);
        cleanState.push_back(reference.substr(at, end - at));
        at = end + 1;
    }
    long points = 0;
    for (g_target = 1;; ++g_target) {
        const std::string report = inChild([&] { return onePoint(entry, input, kind, clean, cleanState); });
        const size_t newline = report.find('\n');
        if (newline == std::string::npos || std::stol(report.substr(0, newline)) < g_target) break;
        ++points;
        EXPECT_EQ(report.substr(newline + 1), "")
            << entry.name << " of " << fs::path(input).filename().string() << ", " << kind.name
            << " at call " << g_target;
        if (::testing::Test::HasFailure()) break;
    }
    return points;
}

}  // namespace

TEST(SystemCallFaults, EveryFailingCallLeavesNothingBehindAndTheStoreBeforeOrAfter) {
    const std::string corpus = corpusDir();
    if (corpus.empty()) GTEST_SKIP() << "no shared corpus beside this checkout (set TNEF_CORPUS)";
    const std::vector<Entry> entries = {{"decode", noSetup, decodeWork, false},
                                        {"encode", storeDecoded, encodeWork, true},
                                        {"extraction", noSetup, getPropWork, true},
                                        {"blob write", takeBlobs, blobWriteWork, true}};
    long total = 0;
    // One file by default; TNEF_FAULT_FILES=3 runs all three (some minutes).
    const char* const files[] = {"tnef__tests__files__datafiles__two-files.tnef",
                                 "tnefparse__tests__examples__IPM-DistList.tnef",
                                 "tnef__tests__files__datafiles__data-before-name.tnef"};
    const char* chosen = std::getenv("TNEF_FAULT_FILES");
    const size_t count = chosen != nullptr ? std::min<size_t>(std::strtoul(chosen, nullptr, 10), 3) : 1;
    for (size_t f = 0; f < count; ++f) {
        const char* file = files[f];
        for (const Entry& entry : entries) {
            long points = 0;
            for (const FaultKind& kind : kFaults) points += everyPoint(entry, corpus + "/files/" + file, kind);
            std::cout << entry.name << " of " << file << ": " << points << " failing calls\n";
            total += points;
            if (HasFailure()) return;
        }
    }
    std::cout << "failing calls tried: " << total << "\n";
}
