// Runs the talvoro tool (or the virtual camera's launcher) as a child process and collects its
// exit status and output.
#ifndef TALVORO_TESTS_TOOLS_TOOL_RUNNER_H
#define TALVORO_TESTS_TOOLS_TOOL_RUNNER_H

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <ostream>
#include <string>
#include <vector>

namespace tooltest {

struct ToolRun {
    int status = -1;  // exit status; 128 + signal number when killed
    std::string out;
    std::string err;
};

inline std::ostream& operator<<(std::ostream& os, const ToolRun& r) {
    return os << "status " << r.status << "\n--- stdout\n" << r.out << "--- stderr\n" << r.err;
}

// Runs argv[0] with the arguments in `dir` (empty: the current directory). With `interruptAfter`,
// the program gets SIGINT once its standard output holds that text.
inline ToolRun runProgram(const std::vector<std::string>& argv, const std::string& dir = "",
                          const std::string& interruptAfter = "") {
    ToolRun run;
    int out[2], err[2];
    if (pipe2(out, O_CLOEXEC) != 0) return run;
    if (pipe2(err, O_CLOEXEC) != 0) {
        close(out[0]);
        close(out[1]);
        return run;
    }
    const pid_t pid = fork();
    if (pid == 0) {
        dup2(out[1], STDOUT_FILENO);
        dup2(err[1], STDERR_FILENO);
        if (!dir.empty() && chdir(dir.c_str()) != 0) _exit(126);
        std::vector<char*> args;
        for (const std::string& a : argv)
            args.push_back(const_cast<char*>(a.c_str()));
        args.push_back(nullptr);
        execv(args[0], args.data());
        _exit(127);
    }
    close(out[1]);
    close(err[1]);
    pollfd fds[2] = {{out[0], POLLIN, 0}, {err[0], POLLIN, 0}};
    std::string* text[2] = {&run.out, &run.err};
    int open = 2;
    bool signalled = interruptAfter.empty();
    while (open > 0 && pid > 0) {
        if (!signalled && run.out.find(interruptAfter) != std::string::npos) {
            kill(pid, SIGINT);
            signalled = true;
        }
        if (poll(fds, 2, -1) < 0) {
            if (errno == EINTR) continue;
            break;
        }
        for (int i = 0; i < 2; ++i) {
            if (fds[i].fd < 0 || !(fds[i].revents & (POLLIN | POLLHUP | POLLERR))) continue;
            char buffer[4096];
            const ssize_t n = read(fds[i].fd, buffer, sizeof buffer);
            if (n > 0) {
                text[i]->append(buffer, static_cast<std::size_t>(n));
            } else if (n == 0 || errno != EINTR) {
                close(fds[i].fd);
                fds[i].fd = -1;
                --open;
            }
        }
    }
    for (const pollfd& f : fds)
        if (f.fd >= 0) close(f.fd);
    int status = 0;
    if (pid > 0 && waitpid(pid, &status, 0) == pid)
        run.status = WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
    return run;
}

// The tool with these arguments (under the launcher when the test runs under it).
inline ToolRun runTool(const std::vector<std::string>& args, const std::string& dir = "") {
    std::vector<std::string> argv = {TALVORO_TOOL};
    argv.insert(argv.end(), args.begin(), args.end());
    return runProgram(argv, dir);
}

// `talvoro-vcam run OPTIONS -- talvoro ARGS`.
inline ToolRun runToolWithCameras(const std::vector<std::string>& options,
                                  const std::vector<std::string>& args,
                                  const std::string& dir = "") {
    std::vector<std::string> argv = {TALVORO_VCAM_LAUNCHER, "run"};
    argv.insert(argv.end(), options.begin(), options.end());
    argv.push_back("--");
    argv.push_back(TALVORO_TOOL);
    argv.insert(argv.end(), args.begin(), args.end());
    return runProgram(argv, dir);
}

// Whether `text` is JSON as a strict parser (Python's) reads it: one document, or with `lines`
// one document per line (JSON Lines). `why` gets the parser's complaint.
inline bool isJson(const std::string& text, bool lines, std::string* why) {
    char path[] = "/tmp/talvoro-json-XXXXXX";
    const int fd = mkstemp(path);
    if (fd < 0) return false;
    const bool written = write(fd, text.data(), text.size()) == static_cast<ssize_t>(text.size());
    close(fd);
    const ToolRun r = runProgram({"/usr/bin/python3", "-c",
                                  "import json, sys\n"
                                  "text = open(sys.argv[1]).read()\n"
                                  "docs = text.splitlines() if sys.argv[2] == 'lines' else [text]\n"
                                  "assert docs, 'no JSON at all'\n"
                                  "[json.loads(d) for d in docs]\n",
                                  path, lines ? "lines" : "document"});
    unlink(path);
    *why = r.err;
    return written && r.status == 0;
}

// Whether a failed run said so in one line of its own: "talvoro: ...".
inline bool oneLineError(const ToolRun& r) {
    return r.err.rfind("talvoro: ", 0) == 0 && r.err.find('\n') == r.err.size() - 1;
}

}  // namespace tooltest

#endif
