#include "tnef/platform/cust_flags.h"

#include <sys/stat.h>
#include <strings.h>

#include <fstream>
#include <map>
#include <string>

#include "os_buffer.h"
#include "tnef/platform/os_file.h"

namespace {

enum class FlagValue { NotConfigured, True, False };

// The file's flags, cached with the file's name and modification time; the overrides.
struct FlagCache {
    std::string path;
    struct timespec mtime {};
    bool loaded = false;
    std::map<std::string, std::string> values;
    uint64_t checkedIn = 0;  // the I/O batch that last looked at the file
};
FlagCache g_file;
std::map<std::string, std::string> g_overrides;

std::string trim(const std::string& s) {
    auto first = s.find_first_not_of(" \t\r\n");
    if (first == std::string::npos) return {};
    auto last = s.find_last_not_of(" \t\r\n");
    return s.substr(first, last - first + 1);
}

FlagValue parseValue(const std::string& v) {
    for (const char* t : {"1", "true", "yes", "on"})
        if (strcasecmp(v.c_str(), t) == 0) return FlagValue::True;
    for (const char* f : {"0", "false", "no", "off"})
        if (strcasecmp(v.c_str(), f) == 0) return FlagValue::False;
    return FlagValue::NotConfigured;
}

void refreshFile() {
    std::string path = os_ResolvePath("~/sys/custom.flags");
    // Within one batch (one decode or encode) the file is looked at once.
    const uint64_t batch = osio::batchSerial();
    if (batch != 0 && g_file.checkedIn == batch && g_file.path == path) return;
    struct stat st;
    if (::stat(path.c_str(), &st) != 0) {
        g_file = FlagCache{path, {}, true, {}, batch};
        return;
    }
    g_file.checkedIn = batch;
    if (g_file.loaded && g_file.path == path && g_file.mtime.tv_sec == st.st_mtim.tv_sec &&
        g_file.mtime.tv_nsec == st.st_mtim.tv_nsec)
        return;
    FlagCache fresh{path, st.st_mtim, true, {}, batch};
    std::ifstream in(path);
    std::string line;
    while (std::getline(in, line)) {
        auto hash = line.find('#');
        if (hash != std::string::npos) line.erase(hash);
        auto eq = line.find('=');
        if (eq == std::string::npos) continue;
        std::string name = trim(line.substr(0, eq));
        if (!name.empty()) fresh.values[name] = trim(line.substr(eq + 1));
    }
    g_file = std::move(fresh);
}

FlagValue lookup(const char* name) {
    auto over = g_overrides.find(name);
    if (over != g_overrides.end()) return parseValue(over->second);
    refreshFile();
    auto it = g_file.values.find(name);
    return it == g_file.values.end() ? FlagValue::NotConfigured : parseValue(it->second);
}

}  // namespace

bool cust_PresentAndTrue(const char* name) { return lookup(name) == FlagValue::True; }
bool cust_PresentAndFalse(const char* name) { return lookup(name) == FlagValue::False; }

int cust_GetBoolean(const char* name, int defaultValue, int, int) {
    switch (lookup(name)) {
        case FlagValue::True: return 1;
        case FlagValue::False: return 0;
        case FlagValue::NotConfigured: break;
    }
    return defaultValue;
}

void cust_Set(const char* name, const char* value) { g_overrides[name] = value; }
void cust_Clear(const char* name) { g_overrides.erase(name); }
void cust_ClearAll() { g_overrides.clear(); }
