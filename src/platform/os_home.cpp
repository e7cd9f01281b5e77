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

namespace {

// Creates dir, and its missing parents first. A home in use has its folders: trying the
// deepest first costs one call then, not one per level.
void makeDir(const std::string& dir) {
    if (mdc_mkdir(dir.c_str(), 0770) == 0 || errno == EEXIST) return;
    const std::string::size_type slash = dir.rfind('/');
    if (errno != ENOENT || slash == 0 || slash == std::string::npos)
        er_TracedEscapeText(ER_GROUP_IO, errno, "src/platform/os_home", __LINE__,
                            "cannot create folder " + dir);
    makeDir(dir.substr(0, slash));
    if (mdc_mkdir(dir.c_str(), 0770) != 0 && errno != EEXIST)
        er_TracedEscapeText(ER_GROUP_IO, errno, "src/platform/os_home", __LINE__,
                            "cannot create folder " + dir);
}

}  // namespace

void os_MakeParentDirs(const std::string& resolvedPath) {
    const std::string::size_type slash = resolvedPath.rfind('/');
    if (slash == 0 || slash == std::string::npos) return;
    makeDir(resolvedPath.substr(0, slash));
}
