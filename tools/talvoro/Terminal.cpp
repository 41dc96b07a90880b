#include "Terminal.h"

#include <signal.h>
#include <unistd.h>

#include <atomic>

namespace talvoro_tool {

namespace {

std::atomic<bool> interruptFlag{false};

void onInterrupt(int) {
    interruptFlag.store(true);
}

}  // namespace

void catchInterrupts() {
    struct sigaction action {};
    action.sa_handler = onInterrupt;
    sigemptyset(&action.sa_mask);
    sigaction(SIGINT, &action, nullptr);
    sigaction(SIGTERM, &action, nullptr);
}

bool interrupted() {
    return interruptFlag.load();
}

StatusLine::StatusLine(std::FILE* out, bool everyLine)
    : out_(out), terminal_(::isatty(fileno(out)) == 1), everyLine_(everyLine) {}

StatusLine::~StatusLine() {
    finish();
}

void StatusLine::update(const std::string& text) {
    if (terminal_) {
        // Back to the line's start and clear it.
        std::fprintf(out_, "\r%s\033[K", text.c_str());
        open_ = true;
    } else if (everyLine_) {
        std::fprintf(out_, "%s\n", text.c_str());
    }
    std::fflush(out_);
}

void StatusLine::finish() {
    if (!open_) return;
    std::fputc('\n', out_);
    std::fflush(out_);
    open_ = false;
}

}  // namespace talvoro_tool
