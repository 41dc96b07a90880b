// talvoro list --watch: the list, then each camera unplugged and plugged back as it happens,
// until SIGTERM.
// tools.list_watch: WATCH-1; the tool runs beside the test in its launcher run.
#include <gtest/gtest.h>
#include <poll.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <string>

#include "talvoro_vcam.h"

namespace tooltest {
namespace {

// The tool started with its standard output on a pipe, read line by line.
class Watcher {
  public:
    explicit Watcher(bool json) {
        int out[2];
        if (pipe(out) != 0) return;
        pid_ = fork();
        if (pid_ == 0) {
            dup2(out[1], STDOUT_FILENO);
            close(out[0]);
            close(out[1]);
            execl(TALVORO_TOOL, TALVORO_TOOL, "list", "--watch", json ? "--json" : nullptr,
                  nullptr);
            _exit(127);
        }
        close(out[1]);
        fd_ = out[0];
    }
    ~Watcher() {
        if (pid_ > 0) {
            kill(pid_, SIGKILL);
            waitpid(pid_, nullptr, 0);
        }
        if (fd_ >= 0) close(fd_);
    }
    // The next line, without its end; "" after 30 s or at the end of the output.
    std::string line() {
        while (buffer_.find('\n') == std::string::npos) {
            pollfd p{fd_, POLLIN, 0};
            char chunk[256];
            if (poll(&p, 1, 30000) != 1) return "";
            const ssize_t n = read(fd_, chunk, sizeof chunk);
            if (n <= 0) return "";
            buffer_.append(chunk, static_cast<std::size_t>(n));
        }
        const std::size_t end = buffer_.find('\n');
        std::string text = buffer_.substr(0, end);
        buffer_.erase(0, end + 1);
        return text;
    }
    // The exit status after SIGTERM, or -1.
    int stop() {
        int status = 0;
        kill(pid_, SIGTERM);
        const bool ended = waitpid(pid_, &status, 0) == pid_;
        pid_ = -1;
        return ended && WIFEXITED(status) ? WEXITSTATUS(status) : -1;
    }

  private:
    pid_t pid_ = -1;
    int fd_ = -1;
    std::string buffer_;
};

TEST(ListWatch, PrintsDeparturesAndArrivalsUntilTerminated) {
    ASSERT_TRUE(talvoro_vcam::present()) << "run under talvoro-vcam";
    std::string error;
    {
        Watcher watcher(false);
        EXPECT_EQ(watcher.line().rfind("INDEX", 0), 0u);
        EXPECT_EQ(watcher.line().rfind("0      WATCH-1", 0), 0u);
        ASSERT_TRUE(talvoro_vcam::unplug("WATCH-1", &error)) << error;
        EXPECT_EQ(watcher.line(), "left WATCH-1");
        ASSERT_TRUE(talvoro_vcam::plug("WATCH-1", "", &error)) << error;
        EXPECT_EQ(watcher.line(), "arrived WATCH-1");
        EXPECT_EQ(watcher.stop(), 128 + SIGTERM);
    }
    // JSON: the list, then one object per line.
    Watcher watcher(true);
    std::string line;
    while (!(line = watcher.line()).empty() && line != "}") {
    }
    ASSERT_EQ(line, "}");
    ASSERT_TRUE(talvoro_vcam::unplug("WATCH-1", &error)) << error;
    EXPECT_EQ(watcher.line(), R"({"event": "left", "serial": "WATCH-1"})");
    EXPECT_EQ(watcher.stop(), 128 + SIGTERM);
}

}  // namespace
}  // namespace tooltest
