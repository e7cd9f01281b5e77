#include "support/test_home.h"

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <stdexcept>

#include "tnef/platform/cust_flags.h"
#include "tnef/platform/os_file.h"

namespace fs = std::filesystem;

TestHome::TestHome() {
    std::string templ = (fs::temp_directory_path() / "tnef-test-XXXXXX").string();
    if (::mkdtemp(templ.data()) == nullptr) throw std::runtime_error("mkdtemp failed");
    path_ = templ;
    os_SetHome(path_);
    cust_ClearAll();
}

TestHome::~TestHome() {
    os_SetHome("");
    std::error_code ec;
    fs::remove_all(path_, ec);
}

void TestHome::write(const std::string& relative, const std::string& bytes) const {
    fs::path p = file(relative);
    fs::create_directories(p.parent_path());
    std::ofstream out(p, std::ios::binary | std::ios::trunc);
    out.write(bytes.data(), static_cast<std::streamsize>(bytes.size()));
}

std::string TestHome::read(const std::string& relative) const { return readFileBytes(file(relative)); }

std::string readFileBytes(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    std::ostringstream s;
    s << in.rdbuf();
    return s.str();
}

std::string corpusDir() {
    fs::path dir = fs::path(TNEF_SOURCE_DIR) / ".." / "shared" / "corpus";
    if (const char* env = std::getenv("TNEF_CORPUS")) dir = env;
    std::error_code ec;
    return fs::is_directory(dir / "files", ec) ? fs::canonical(dir).string() : std::string();
}

std::vector<std::vector<std::string>> tsvRows(const std::string& path) {
    std::vector<std::vector<std::string>> rows;
    std::ifstream in(path);
    for (std::string line; std::getline(in, line);) {
        if (line.empty() || line[0] == '#') continue;
        std::vector<std::string> cells;
        std::istringstream fields(line);
        for (std::string cell; std::getline(fields, cell, '\t');) cells.push_back(cell);
        rows.push_back(cells);
    }
    return rows;
}
