// Terminal behaviour of the long commands: a status line rewritten in place when the output is a
// terminal (one line per update otherwise, or none), and Ctrl-C ending a run cleanly.
#ifndef TALVORO_TOOL_TERMINAL_H
#define TALVORO_TOOL_TERMINAL_H

#include <cstdio>
#include <string>

namespace talvoro_tool {

// From now on SIGINT and SIGTERM only set the flag interrupted() reads: a stream or a recording
// then stops after its current frame, closes the camera and completes its files.
void catchInterrupts();
bool interrupted();

class StatusLine {
  public:
    // `everyLine`: without a terminal, print each update as a line of its own (else nothing).
    StatusLine(std::FILE* out, bool everyLine);
    ~StatusLine();
    StatusLine(const StatusLine&) = delete;
    StatusLine& operator=(const StatusLine&) = delete;

    void update(const std::string& text);
    // Ends a line rewritten in place, so that what follows starts on a line of its own.
    void finish();

  private:
    std::FILE* out_;
    bool terminal_;
    bool everyLine_;
    bool open_ = false;
};

}  // namespace talvoro_tool

#endif
