#include "tool_run.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdlib>
#include <cstring>

#include "support/test_home.h"

extern char** environ;

namespace {

// A file the child writes one of its streams into.
class CaptureFile {
  public:
    CaptureFile() {
        char name[] = "/tmp/tnef-tool-run-XXXXXX";
        fd_ = ::mkstemp(name);
        path_ = name;
    }
    ~CaptureFile() {
        if (fd_ >= 0) ::close(fd_);
        ::unlink(path_.c_str());
    }
    CaptureFile(const CaptureFile&) = delete;
    CaptureFile& operator=(const CaptureFile&) = delete;
    const std::string& path() const { return path_; }
    std::string read() const { return readFileBytes(path_); }

  private:
    int fd_ = -1;
    std::string path_;
};

}  // namespace

ToolRun runProgram(const std::string& program, const std::vector<std::string>& args,
                   const std::string& scratchHome) {
    std::vector<std::string> argStore{program};
    argStore.insert(argStore.end(), args.begin(), args.end());
    std::vector<char*> argv;
    for (std::string& a : argStore) argv.push_back(a.data());
    argv.push_back(nullptr);

    std::vector<std::string> envStore{"TNEF_HOME=" + scratchHome};
    for (char** e = environ; *e != nullptr; ++e)
        if (std::strncmp(*e, "TNEF_HOME=", 10) != 0 && std::strncmp(*e, "TNEF_TRACE=", 11) != 0)
            envStore.emplace_back(*e);
    std::vector<char*> envp;
    for (std::string& e : envStore) envp.push_back(e.data());
    envp.push_back(nullptr);

    CaptureFile out;
    CaptureFile err;
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_addopen(&actions, 0, "/dev/null", O_RDONLY, 0);
    posix_spawn_file_actions_addopen(&actions, 1, out.path().c_str(), O_WRONLY | O_TRUNC, 0);
    posix_spawn_file_actions_addopen(&actions, 2, err.path().c_str(), O_WRONLY | O_TRUNC, 0);
    pid_t pid = 0;
    const int spawned =
        posix_spawn(&pid, program.c_str(), &actions, nullptr, argv.data(), envp.data());
    posix_spawn_file_actions_destroy(&actions);
    ToolRun run;
    if (spawned != 0) {
        ADD_FAILURE() << "cannot start " << program << ": " << std::strerror(spawned);
        return run;
    }
    int status = 0;
    while (::waitpid(pid, &status, 0) < 0) {
    }
    run.status = WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
    run.out = out.read();
    run.err = err.read();
    return run;
}

ToolRun runTool(const std::vector<std::string>& args, const std::string& scratchHome) {
    return runProgram(TNEF_TOOL_PATH, args, scratchHome);
}

jsoncheck::Value jsonOf(const ToolRun& run) {
    jsoncheck::Value v;
    std::string error;
    if (!jsoncheck::parse(run.out, &v, &error)) ADD_FAILURE() << error << "\n" << run.out;
    return v;
}

size_t lineCount(const std::string& text) {
    size_t n = 0;
    for (char c : text) n += c == '\n' ? 1 : 0;
    return n;
}
