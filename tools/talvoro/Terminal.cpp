#include "Terminal.h"

#include <signal.h>
#include <unistd.h>

#include <atomic>

namespace talvoro_tool {

namespace {

std::atomic<int> interruptSignal{0};
std::atomic<bool> stopRequested{false};

void onInterrupt(int signal) {
    int none = 0;
    if (!interruptSignal.compare_exchange_strong(none, signal)) {
        // The second Ctrl-C: the user does not want to wait for a clean end.
        ::signal(signal, SIG_DFL);
        ::raise(signal);
    }
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
    return interruptSignal.load() != 0 || stopRequested.load();
}

void interrupt() {
    stopRequested.store(true);
}

int interruptStatus() {
    const int signal = interruptSignal.load();
    return signal ? 128 + signal : 0;
}

Progress::Progress(const Context& context, std::FILE* out)
    : out_(out),
      quiet_(context.quiet),
      terminal_(::isatty(fileno(out)) == 1),
      last_(Clock::now()) {}

Progress::~Progress() {
    finish();
}

void Progress::update(const std::string& text) {
    if (quiet_) return;
    const Clock::time_point now = Clock::now();
    // A terminal is redrawn ten times a second at most; a log gets a line a second.
    if (now - last_ < (terminal_ ? std::chrono::milliseconds(100) : std::chrono::seconds(1)))
        return;
    last_ = now;
    if (terminal_) {
        // Back to the line's start and clear it.
        std::fprintf(out_, "\r%s\033[K", text.c_str());
        open_ = true;
    } else {
        std::fprintf(out_, "%s\n", text.c_str());
    }
    std::fflush(out_);
}

void Progress::finish() {
    if (!open_) return;
    std::fputc('\n', out_);
    std::fflush(out_);
    open_ = false;
}

}  // namespace talvoro_tool
