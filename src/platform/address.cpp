#include "tnef/platform/address.h"

#include <strings.h>

#include <cstdio>
#include <cstring>
#include <string>
#include <string_view>

#include "tnef/platform/os_file.h"

namespace {

constexpr std::string_view kBlanks = " \t\r\n";

std::string_view trim(std::string_view s) {
    const size_t first = s.find_first_not_of(kBlanks);
    if (first == std::string_view::npos) return {};
    return s.substr(first, s.find_last_not_of(kBlanks) - first + 1);
}

std::string normalNode(std::string_view node) {
    node = trim(node);
    if (!node.empty() && node.back() == '.') node.remove_suffix(1);
    return std::string(node);
}

// Position of the last c outside double quotes, or npos.
size_t lastUnquoted(std::string_view s, char c) {
    size_t found = std::string_view::npos;
    bool quoted = false;
    for (size_t i = 0; i < s.size(); ++i) {
        if (s[i] == '"') quoted = !quoted;
        else if (s[i] == c && !quoted) found = i;
    }
    return found;
}

// The text without its parenthesised comments (outside quotes; comments may nest).
std::string withoutComments(std::string_view s) {
    std::string out;
    bool quoted = false;
    int depth = 0;
    for (char c : s) {
        if (depth == 0 && c == '"') quoted = !quoted;
        if (!quoted && c == '(') {
            ++depth;
            continue;
        }
        if (!quoted && depth > 0 && c == ')') {
            --depth;
            continue;
        }
        if (depth == 0) out += c;
    }
    return out;
}

bool startsWithNoCase(std::string_view s, std::string_view prefix) {
    return s.size() >= prefix.size() && ::strncasecmp(s.data(), prefix.data(), prefix.size()) == 0;
}

}  // namespace

int nm_ParseORN(const char* address, NmORName* name, int* status) {
    name->local.clear();
    name->node.clear();
    const std::string_view text = trim(address != nullptr ? address : "");
    const size_t at = lastUnquoted(text, '@');
    if (at == std::string_view::npos) {
        name->local = std::string(text);
    } else {
        name->local = std::string(trim(text.substr(0, at)));
        name->node = std::string(trim(text.substr(at + 1)));
    }
    const int result = name->local.empty() ? 1 : 0;
    if (status != nullptr) *status = result;
    return result;
}

int cl_ReadDefMNode(int which, std::string* node) {
    node->clear();
    if (which != 1) return 0;
    FILE* file = os_fopen("~/sys/mailnode", "r");
    if (file == nullptr) return 0;
    std::string line;
    int c;
    do {
        line.clear();
        while ((c = std::getc(file)) != EOF && c != '\n') line += static_cast<char>(c);
        const std::string_view text = trim(line);
        if (!text.empty() && text.front() != '#') {
            *node = std::string(text);
            break;
        }
    } while (c != EOF);
    std::fclose(file);
    return node->empty() ? 0 : 1;
}

int nm_CompareMailnodes(const char* first, const char* node, int firstKind, int noNodeIsLocal) {
    if (first == nullptr || node == nullptr) return 0;
    const std::string wanted = normalNode(node);
    if (wanted.empty()) return 0;
    std::string other;
    if (firstKind == 2) {
        NmORName parsed;
        nm_ParseORN(first, &parsed, nullptr);
        if (parsed.node.empty()) return noNodeIsLocal == 1 ? 1 : 0;
        other = normalNode(parsed.node);
    } else {
        other = normalNode(first);
    }
    return ::strcasecmp(other.c_str(), wanted.c_str()) == 0 ? 1 : 0;
}

int mim_ArpaToORN(const char* address, char* result, char* scratch, int mode) {
    (void)mode;
    const std::string_view text = trim(address != nullptr ? address : "");
    const std::string plain = withoutComments(text);
    std::memcpy(scratch, plain.c_str(), plain.size() + 1);

    std::string_view inner = plain;
    const size_t open = lastUnquoted(plain, '<');
    if (open != std::string_view::npos) {
        const size_t close = plain.find('>', open);
        inner = std::string_view(plain).substr(open + 1, close == std::string::npos
                                                              ? std::string::npos
                                                              : close - open - 1);
    }
    inner = trim(inner);
    // A source route ("@relay1,@relay2:joe@x") names the way, not the mailbox.
    if (!inner.empty() && inner.front() == '@' && inner.find(':') != std::string_view::npos)
        inner = trim(inner.substr(inner.find(':') + 1));
    if (startsWithNoCase(inner, "SMTP:")) inner = trim(inner.substr(5));
    // An empty view may carry no pointer at all, which memcpy must not see.
    if (!inner.empty()) std::memcpy(result, inner.data(), inner.size());
    result[inner.size()] = '\0';
    return inner.empty() ? 0 : 1;
}

void mim_SetOrgUAddress(char* address, const NmORName* name, int mode) {
    std::string text = name->local;
    if ((mode & 1) == 0 && !name->node.empty()) text += "@" + name->node;
    if (text.size() > std::strlen(address)) return;
    std::memcpy(address, text.c_str(), text.size() + 1);
}
