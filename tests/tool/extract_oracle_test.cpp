// extract against the corpus of real TNEF files and what two independent extractors wrote
// from them (oracle.tsv): every file either of them wrote is one extract writes too, byte
// for byte, or tests/data/extract_differences.tsv says why not, and the reason is checked
// against the bytes.

#include <gtest/gtest.h>

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <map>
#include <set>
#include <sstream>
#include <string>
#include <vector>

#include "support/sha256.h"
#include "support/test_home.h"
#include "tool_run.h"

namespace fs = std::filesystem;

namespace {

constexpr size_t kInterfaceIdSize = 16;

std::vector<std::vector<std::string>> readTsv(const std::string& path) {
    std::vector<std::vector<std::string>> rows;
    std::ifstream in(path);
    std::string line;
    bool header = true;
    while (std::getline(in, line)) {
        if (line.empty() || line[0] == '#') continue;
        if (std::exchange(header, false)) continue;
        std::vector<std::string> cells;
        std::stringstream s(line);
        for (std::string cell; std::getline(s, cell, '\t');) cells.push_back(cell);
        rows.push_back(cells);
    }
    return rows;
}

struct OracleFile {
    std::string file, tool, name, sha;
};

struct Difference {
    std::string file, tool, sha, kind, why;
    bool seen = false;
};

// What extract wrote for one corpus file: the sha256 of each file, and the listing.
struct Ours {
    std::set<std::string> shas;
    std::map<std::string, uint64_t> offsetOfSha;  // where in the TNEF file its bytes begin
    std::map<std::string, std::string> pathOfSha;
    std::set<std::string> names;  // every listed attachment's name
};

std::map<std::string, Ours> extractAll(const TestHome& home, const std::string& corpus,
                                       const std::vector<std::string>& files) {
    std::vector<std::string> args{"--json", "extract", "--embedded", "-C", home.file("out")};
    std::vector<std::string> listArgs{"--json", "list"};
    for (const std::string& f : files) {
        args.push_back(corpus + "/files/" + f);
        listArgs.push_back(corpus + "/files/" + f);
    }
    const jsoncheck::Value extracted = jsonOf(runTool(args, home.path()));
    const jsoncheck::Value listed = jsonOf(runTool(listArgs, home.path()));
    std::map<std::string, Ours> ours;
    for (size_t i = 0; i < files.size(); ++i) {
        const jsoncheck::Value& e = extracted["files"][i];
        const jsoncheck::Value& l = listed["files"][i]["attachments"];
        EXPECT_FALSE(e.has("error")) << files[i] << ": " << e["error"].text;
        Ours& o = ours[files[i]];
        for (const jsoncheck::Value& a : l.items) o.names.insert(a["name"].text);
        for (const jsoncheck::Value& x : e["extracted"].items) {
            const std::string sha = testsha::sha256OfFile(x["path"].text);
            o.shas.insert(sha);
            o.pathOfSha[sha] = x["path"].text;
            for (const jsoncheck::Value& a : l.items)
                if (a["index"].number == x["index"].number)
                    o.offsetOfSha[sha] = static_cast<uint64_t>(a["offset"].number);
        }
    }
    return ours;
}

// Their file is one of ours with the 16-byte interface identifier that stands in front of
// it in the TNEF file: that identifier, read back from the file, and our bytes.
bool identifierKept(const std::string& tnefPath, const Ours& ours, const std::string& theirSha) {
    const std::string tnef = readFileBytes(tnefPath);
    for (const auto& [sha, offset] : ours.offsetOfSha) {
        if (offset < kInterfaceIdSize || offset > tnef.size()) continue;
        testsha::Sha256 h;
        h.update(std::string_view(tnef).substr(offset - kInterfaceIdSize, kInterfaceIdSize));
        h.update(readFileBytes(ours.pathOfSha.at(sha)));
        if (h.hex() == theirSha) return true;
    }
    return false;
}

}  // namespace

TEST(ToolExtractOracle, EveryExtractorFileIsOursOrExplained) {
    const std::string corpus = corpusDir();
    if (corpus.empty())
        GTEST_SKIP() << "no corpus beside the checkout (../shared/corpus or $TNEF_CORPUS)";
    TestHome home;

    std::vector<OracleFile> oracle;
    for (const auto& c : readTsv(corpus + "/oracle.tsv"))
        if (c.size() >= 6 && c[3] != "-") oracle.push_back({c[0], c[1], c[3], c[5]});
    std::vector<Difference> table;
    for (const auto& c :
         readTsv(std::string(TNEF_SOURCE_DIR) + "/tests/data/extract_differences.tsv")) {
        ASSERT_EQ(c.size(), 5u) << "file, tool, sha256, kind, why";
        table.push_back({c[0], c[1], c[2], c[3], c[4]});
    }
    std::vector<std::string> files;
    for (const auto& e : fs::directory_iterator(corpus + "/files"))
        files.push_back(e.path().filename().string());
    std::sort(files.begin(), files.end());
    const std::map<std::string, Ours> ours = extractAll(home, corpus, files);

    for (const OracleFile& o : oracle) {
        SCOPED_TRACE(o.file + " " + o.tool + " " + o.name);
        const auto it = ours.find(o.file);
        ASSERT_NE(it, ours.end()) << "a corpus file the oracle names is missing";
        if (it->second.shas.count(o.sha) != 0) continue;
        auto why = std::find_if(table.begin(), table.end(), [&](const Difference& d) {
            return d.file == o.file && d.tool == o.tool && d.sha == o.sha;
        });
        if (why == table.end()) {
            ADD_FAILURE()
                << "extract wrote no file with these bytes, and the difference is not in the table";
            continue;
        }
        why->seen = true;
        if (why->kind == "identifier-kept") {
            EXPECT_TRUE(identifierKept(corpus + "/files/" + o.file, it->second, o.sha)) << why->why;
        } else if (why->kind == "rendered-calendar") {
            EXPECT_TRUE(o.name.size() > 4 && o.name.substr(o.name.size() - 4) == ".ics")
                << why->why;
            EXPECT_EQ(it->second.names.count(o.name), 0u) << "it is an attachment after all";
        } else {
            ADD_FAILURE() << "unknown kind " << why->kind;
        }
    }
    for (const Difference& d : table)
        EXPECT_TRUE(d.seen) << "stale row: " << d.file << " " << d.sha;
}
