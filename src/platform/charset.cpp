#include "tnef/platform/charset.h"

#include <iconv.h>
#include <strings.h>
#include <sys/stat.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <fstream>
#include <string_view>
#include <utility>
#include <vector>

#include "os_buffer.h"
#include "tnef/platform/os_file.h"

namespace {

// ---- The alias map ---------------------------------------------------------------------------

struct AliasEntry {
    std::string alias;
    std::string name;
};

// The map file's entries in file order, cached with the file's name, time and size.
struct AliasCache {
    std::string path;
    struct timespec mtime {};
    off_t size = -1;
    bool loaded = false;
    std::vector<AliasEntry> entries;
    uint64_t checkedIn = 0;  // the I/O batch that last looked at the file
};
AliasCache g_aliases;

std::string trim(std::string_view s) {
    auto first = s.find_first_not_of(" \t\r\n");
    if (first == std::string_view::npos) return {};
    auto last = s.find_last_not_of(" \t\r\n");
    return std::string(s.substr(first, last - first + 1));
}

void refreshAliases() {
    std::string path = os_ResolvePath(CHARSET_ALIAS_PATH);
    // Within one batch (one decode or encode) the file is looked at once.
    const uint64_t batch = osio::batchSerial();
    if (batch != 0 && g_aliases.checkedIn == batch && g_aliases.path == path) return;
    struct stat st;
    if (::stat(path.c_str(), &st) != 0) {
        g_aliases = AliasCache{path, {}, -1, true, {}, batch};
        return;
    }
    g_aliases.checkedIn = batch;
    if (g_aliases.loaded && g_aliases.path == path && g_aliases.size == st.st_size &&
        g_aliases.mtime.tv_sec == st.st_mtim.tv_sec &&
        g_aliases.mtime.tv_nsec == st.st_mtim.tv_nsec)
        return;
    AliasCache fresh{path, st.st_mtim, st.st_size, true, {}, batch};
    std::ifstream in(path);
    std::string line;
    while (std::getline(in, line)) {
        auto hash = line.find('#');
        if (hash != std::string::npos) line.erase(hash);
        auto eq = line.find('=');
        if (eq == std::string::npos) continue;
        std::string alias = trim(std::string_view(line).substr(0, eq));
        std::string name = trim(std::string_view(line).substr(eq + 1));
        // A name that cannot fit the callers' buffers is dropped rather than cut short:
        // a truncated name could select a different character set.
        if (alias.empty() || name.empty() || name.size() >= CHARSET_NAME_CAPACITY) continue;
        fresh.entries.push_back({std::move(alias), std::move(name)});
    }
    g_aliases = std::move(fresh);
}

bool startsWithNoCase(std::string_view s, std::string_view prefix) {
    return s.size() >= prefix.size() && strncasecmp(s.data(), prefix.data(), prefix.size()) == 0;
}

bool equalsNoCase(std::string_view a, std::string_view b) {
    return a.size() == b.size() && strncasecmp(a.data(), b.data(), a.size()) == 0;
}

// "ISO8859_n" and "UTF8", the server's spellings, as iconv and MIME spell them; any other
// name unchanged.
std::string standardSpelling(std::string_view name) {
    if (startsWithNoCase(name, "ISO8859_") && name.size() > 8)
        return "ISO-8859-" + std::string(name.substr(8));
    if (equalsNoCase(name, "UTF8")) return "UTF-8";
    return std::string(name);
}

// ---- iconv -----------------------------------------------------------------------------------

// Owns an iconv conversion descriptor.
class Iconv {
  public:
    Iconv(const std::string& to, const std::string& from)
        : cd_(::iconv_open(to.c_str(), from.c_str())) {}
    ~Iconv() {
        if (ok()) ::iconv_close(cd_);
    }
    Iconv(const Iconv&) = delete;
    Iconv& operator=(const Iconv&) = delete;

    bool ok() const { return cd_ != reinterpret_cast<iconv_t>(-1); }
    iconv_t get() const { return cd_; }

  private:
    iconv_t cd_;
};

// Converts as much of [*in, *in + *inLeft) as iconv will into out, growing out as needed.
// Returns 0 when everything was read, otherwise the errno that stopped iconv (EILSEQ at a
// byte it cannot convert, EINVAL at an incomplete sequence at the end).
int convertRun(iconv_t cd, const char** in, size_t* inLeft, std::string& out) {
    while (true) {
        size_t used = out.size();
        out.resize(used + *inLeft * 4 + 16);
        char* dst = out.data() + used;
        size_t dstLeft = out.size() - used;
        char* src = const_cast<char*>(*in);  // iconv's prototype is not const-correct
        size_t r = ::iconv(cd, &src, inLeft, &dst, &dstLeft);
        int err = r == static_cast<size_t>(-1) ? errno : 0;
        *in = src;
        out.resize(out.size() - dstLeft);
        if (err != E2BIG) return err;
    }
}

// Writes the sequence that returns a stateful target to its initial state.
void finishRun(iconv_t cd, std::string& out) {
    char tail[64];
    char* dst = tail;
    size_t dstLeft = sizeof tail;
    ::iconv(cd, nullptr, nullptr, &dst, &dstLeft);
    out.append(tail, sizeof tail - dstLeft);
}

// Longest byte sequence of one character in any character set iconv offers (GB18030 and
// UTF-8 need 4; escape-driven sets are dealt with apart).
constexpr size_t kLongestCharacter = 8;

}  // namespace

int sdl_MapSysChar(const char* alias, char* mappedOut) {
    if (alias == nullptr || mappedOut == nullptr) return 0;
    refreshAliases();
    for (const AliasEntry& e : g_aliases.entries) {
        if (strcasecmp(e.alias.c_str(), alias) == 0) {
            std::memcpy(mappedOut, e.name.c_str(), e.name.size() + 1);
            return 1;
        }
    }
    return 0;
}

std::string cvc_IconvCharsetName(const char* name) {
    if (name == nullptr) return {};
    char mapped[CHARSET_NAME_CAPACITY];
    if (sdl_MapSysChar(name, mapped) >= 1) return standardSpelling(mapped);
    return standardSpelling(name);
}

bool cvc_iconv_recognised_charset(const char* name) {
    std::string iconvName = cvc_IconvCharsetName(name);
    return !iconvName.empty() && Iconv("UTF-8", iconvName).ok();
}

std::vector<size_t> cvc_CharacterLengths(std::string_view text, const char* charset) {
    std::string iconvName = cvc_IconvCharsetName(charset);
    if (iconvName.empty()) return {};
    Iconv cd("UTF-32LE", iconvName);
    if (!cd.ok()) return {};
    std::vector<size_t> lengths;
    size_t pos = 0;
    while (pos < text.size()) {
        // The shortest prefix that converts whole, from the initial state, is one character.
        size_t step = 1;
        size_t room = std::min(text.size() - pos, kLongestCharacter);
        for (size_t k = 1; k <= room; ++k) {
            ::iconv(cd.get(), nullptr, nullptr, nullptr, nullptr);
            char* src = const_cast<char*>(text.data() + pos);
            size_t srcLeft = k;
            char wide[64];
            char* dst = wide;
            size_t dstLeft = sizeof wide;
            size_t r = ::iconv(cd.get(), &src, &srcLeft, &dst, &dstLeft);
            if (r == static_cast<size_t>(-1) && errno == EINVAL) continue;
            if (r != static_cast<size_t>(-1)) {
                // Bytes read without a character written are a shift sequence.
                if (dstLeft == sizeof wide) return {};
                step = k;
            }
            break;
        }
        lengths.push_back(step);
        pos += step;
    }
    return lengths;
}

std::string cvc_MimeCharsetLabel(const char* name) {
    if (name == nullptr) return {};
    std::string_view n(name);
    if (!startsWithNoCase(n, "CP") || n.size() < 5) return standardSpelling(n);
    std::string_view digits = n.substr(2);
    unsigned cp = 0;
    for (char c : digits) {
        if (c < '0' || c > '9' || cp > 100000) return std::string(n);
        cp = cp * 10 + static_cast<unsigned>(c - '0');
    }
    struct Label {
        unsigned codePage;
        const char* label;
    };
    static constexpr Label kLabels[] = {
        {437, "IBM437"}, {850, "IBM850"}, {852, "IBM852"}, {855, "IBM855"},      {857, "IBM857"},
        {860, "IBM860"}, {861, "IBM861"}, {862, "IBM862"}, {863, "IBM863"},      {864, "IBM864"},
        {865, "IBM865"}, {866, "IBM866"}, {869, "IBM869"}, {874, "windows-874"}, {932, "Shift_JIS"},
        {936, "GBK"},    {949, "EUC-KR"}, {950, "Big5"},   {20866, "KOI8-R"},    {65001, "UTF-8"},
    };
    for (const Label& l : kLabels)
        if (l.codePage == cp) return l.label;
    if (cp >= 1250 && cp <= 1258) return "windows-" + std::to_string(cp);
    if (cp >= 28591 && cp <= 28599) return "ISO-8859-" + std::to_string(cp - 28590);
    return std::string(n);
}

uint16_t cvc_CnvString(int mode, int flags, const char* text, int length, const char* fromCharset,
                       const char* toCharset, dstring* out, int* outLength, int* badBytes,
                       int options) {
    if (mode != CVC_MODE_NAMED || text == nullptr || length < -1) return CVC_ERR_ARGUMENT;
    Iconv cd(cvc_IconvCharsetName(toCharset), cvc_IconvCharsetName(fromCharset));
    if (!cd.ok()) return CVC_ERR_CHARSET;

    const char* in = text;
    size_t inLeft = length == -1 ? std::strlen(text) : static_cast<size_t>(length);
    std::string converted;
    size_t skipped = 0;
    uint16_t status = CVC_OK;
    while (true) {
        int err = convertRun(cd.get(), &in, &inLeft, converted);
        if (err == 0) break;
        if ((flags & CVC_FLAG_SKIP_INVALID) == 0) {
            status = CVC_ERR_INVALID;
            skipped = inLeft;
            break;
        }
        if (err == EINVAL) {  // an incomplete sequence at the end: nothing follows it
            skipped += inLeft;
            break;
        }
        ++in;
        --inLeft;
        ++skipped;
    }
    if (status == CVC_OK && (options & CVC_OUT_FINISH) != 0) finishRun(cd.get(), converted);

    int convertedLength = static_cast<int>(converted.size());
    if (out != nullptr && (options & CVC_OUT_TEXT) != 0) out->text = std::move(converted);
    if (outLength != nullptr && (options & CVC_OUT_LENGTH) != 0) *outLength = convertedLength;
    if (badBytes != nullptr && (options & CVC_OUT_BAD_BYTES) != 0)
        *badBytes = static_cast<int>(skipped);
    return status;
}
