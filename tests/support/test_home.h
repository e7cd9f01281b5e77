// A server home of its own for one test, in a fresh temporary folder removed afterwards.
#pragma once

#include <string>
#include <vector>

class TestHome {
public:
    TestHome();
    ~TestHome();
    TestHome(const TestHome&) = delete;
    TestHome& operator=(const TestHome&) = delete;

    const std::string& path() const { return path_; }
    // Absolute path of a name under the home ("sys/custom.flags").
    std::string file(const std::string& relative) const { return path_ + "/" + relative; }
    // Writes bytes to a file under the home, creating its folders.
    void write(const std::string& relative, const std::string& bytes) const;
    std::string read(const std::string& relative) const;

private:
    std::string path_;
};

// The shared corpus folder, or an empty text when this checkout has none beside it.
std::string corpusDir();
std::string readFileBytes(const std::string& path);
// Rows of a tab-separated file, without comment lines ('#') and empty lines.
std::vector<std::vector<std::string>> tsvRows(const std::string& path);
