#include "run_program.h"

#include <fcntl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <sstream>

namespace {
std::string slurp(const std::string& path) {
    std::ifstream in(path);
    std::ostringstream s;
    s << in.rdbuf();
    return s.str();
}
std::string quote(const std::string& s) {
    std::string q = "'";
    for (char c : s) q += c == '\'' ? std::string("'\\''") : std::string(1, c);
    return q + "'";
}
}  // namespace

ProgramRun run_torvkern(const std::vector<std::string>& args, const std::string& input) {
    char dir[] = "/tmp/torvkern-run-XXXXXX";
    if (!mkdtemp(dir)) std::abort();
    const std::string base(dir);
    {
        std::ofstream(base + "/in") << input;
    }
    std::string cmd = quote(TORVKERN_PATH);
    for (const auto& a : args) cmd += " " + quote(a);
    cmd += " <" + base + "/in >" + base + "/out 2>" + base + "/err";
    const int status = std::system(cmd.c_str());
    ProgramRun r{WIFEXITED(status) ? WEXITSTATUS(status) : -1, slurp(base + "/out"), slurp(base + "/err")};
    std::system(("rm -rf " + base).c_str());
    return r;
}

TimedRun run_torvkern_waiting(const std::vector<std::string>& args, double limit_seconds) {
    int fds[2];
    if (pipe(fds) != 0) std::abort();
    const auto start = std::chrono::steady_clock::now();
    const pid_t pid = fork();
    if (pid == 0) {
        dup2(fds[0], 0);
        close(fds[1]);
        const int null = open("/dev/null", O_WRONLY);
        dup2(null, 1);
        dup2(null, 2);
        std::vector<char*> argv = {const_cast<char*>(TORVKERN_PATH)};
        for (const auto& a : args) argv.push_back(const_cast<char*>(a.c_str()));
        argv.push_back(nullptr);
        execv(TORVKERN_PATH, argv.data());
        _exit(127);
    }
    close(fds[0]);
    int status = 0;
    int code = -1;
    for (;;) {
        const pid_t done = waitpid(pid, &status, WNOHANG);
        const double seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
        if (done == pid) {
            code = WIFEXITED(status) ? WEXITSTATUS(status) : -1;
            close(fds[1]);
            return {code, seconds};
        }
        if (seconds > limit_seconds) {
            kill(pid, SIGKILL);
            waitpid(pid, &status, 0);
            close(fds[1]);
            return {-1, seconds};
        }
        usleep(20000);
    }
}
