// Terminal behaviour of the tool: Ctrl-C ending a command cleanly, and the progress lines of the
// long commands on standard error.
#ifndef TALVORO_TOOL_TERMINAL_H
#define TALVORO_TOOL_TERMINAL_H

#include <chrono>
#include <cstdio>
#include <string>

#include "Command.h"

namespace talvoro_tool {

// From now on SIGINT and SIGTERM only set the flag interrupted() reads: a stream or a recording
// then stops after its current frame, closes the camera and completes its files, and the tool
// exits with 128 + the signal's number. A second signal ends the process at once.
void catchInterrupts();
bool interrupted();
// Ends the run as Ctrl-C would, but without a signal: for a command that stops on its own terms
// (interrupted() turns true, interruptStatus() stays 0).
void interrupt();
// 128 + the number of the signal that interrupted, or 0.
int interruptStatus();

// Progress of long work on standard error: on a terminal one line rewritten in place; otherwise
// (a log, a pipe) a line of its own once a second, so that a run that ends within the first
// second prints none. Nothing with -q.
class Progress {
  public:
    explicit Progress(const Context& context, std::FILE* out = stderr);
    ~Progress();
    Progress(const Progress&) = delete;
    Progress& operator=(const Progress&) = delete;

    void update(const std::string& text);
    // Ends a line rewritten in place, so that what follows starts on a line of its own.
    void finish();

  private:
    using Clock = std::chrono::steady_clock;

    std::FILE* out_;
    bool quiet_;
    bool terminal_;
    bool open_ = false;
    Clock::time_point last_;
};

}  // namespace talvoro_tool

#endif
