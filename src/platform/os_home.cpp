#include <sys/stat.h>

#include <cerrno>
#include <cstdlib>
#include <string>

#include "tnef/platform/er_escape.h"
#include "tnef/platform/os_file.h"

namespace {

// Set by os_SetHome; empty means "use the environment or the default".
std::string g_home;

}  // namespace

void os_SetHome(const std::string& home) {
    g_home = home;
    while (g_home.size() > 1 && g_home.back() == '/') g_home.pop_back();
}

std::string os_GetHome() {
    if (!g_home.empty()) return g_home;
    const char* env = std::getenv("TNEF_HOME");
    std::string home = (env != nullptr && *env != '\0') ? env : "tnef-home";
    while (home.size() > 1 && home.back() == '/') home.pop_back();
    return home;
}

std::string os_ResolvePath(const std::string& path) {
    if (path.size() >= 2 && path[0] == '~' && path[1] == '/') return os_GetHome() + path.substr(1);
    return path;
}

void os_MakeParentDirs(const std::string& resolvedPath) {
    std::string::size_type slash = resolvedPath.find('/', 1);
    while (slash != std::string::npos) {
        std::string dir = resolvedPath.substr(0, slash);
        if (::mkdir(dir.c_str(), 0770) != 0 && errno != EEXIST)
            er_TracedEscapeText(ER_GROUP_IO, errno, "src/platform/os_home", __LINE__,
                                "cannot create folder " + dir);
        slash = resolvedPath.find('/', slash + 1);
    }
}
