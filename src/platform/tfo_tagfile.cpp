#include "tnef/platform/tfo_tagfile.h"

#include <string>
#include <string_view>

namespace {

constexpr std::string_view kBlanks = " \t";

// Reads one line without its LF (and without a CR right before it). False at the end of
// the file when nothing was read. getc rather than fgets so that NUL bytes cannot cut a line.
bool readLine(FILE* file, std::string& line) {
    line.clear();
    int c;
    while ((c = std::getc(file)) != EOF && c != '\n') line.push_back(static_cast<char>(c));
    if (c == EOF && (line.empty() || std::ferror(file))) return false;
    if (!line.empty() && line.back() == '\r') line.pop_back();
    return true;
}

std::string_view trimBlanks(std::string_view s) {
    const auto first = s.find_first_not_of(kBlanks);
    if (first == std::string_view::npos) return {};
    return s.substr(first, s.find_last_not_of(kBlanks) - first + 1);
}

}  // namespace

int tfo_FindTagValue(FILE* file, dstring* tag, dstring* value) {
    dstring_set1(tag, "");
    dstring_set1(value, "");
    std::string line;
    while (readLine(file, line)) {
        const std::string_view text = trimBlanks(line);
        if (text.empty() || text.front() == '#') continue;
        const auto eq = text.find('=');
        if (eq == std::string_view::npos) continue;
        const std::string_view name = trimBlanks(text.substr(0, eq));
        if (name.empty()) continue;
        const std::string_view rest = trimBlanks(text.substr(eq + 1));
        dstring_appendN(tag, name.data(), name.size());
        dstring_appendN(value, rest.data(), rest.size());
        return 1;
    }
    return 0;
}
