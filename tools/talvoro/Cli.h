// Command-line plumbing of the talvoro tool: the error every command reports with, argument
// parsing and the names of result codes.
#ifndef TALVORO_TOOL_CLI_H
#define TALVORO_TOOL_CLI_H

#include <cstdint>
#include <optional>
#include <stdexcept>
#include <string>
#include <vector>

#include "TalvoroSDK.h"

namespace talvoro_tool {

// Exit statuses.
constexpr int kExitOk = 0;
constexpr int kExitFailure = 1;  // the camera, the library or the file system said no
constexpr int kExitUsage = 2;    // the command line is wrong

// What ends a command: main prints "talvoro: <message>" as one line and exits with `status`.
class ToolError : public std::runtime_error {
  public:
    ToolError(const std::string& message, int status = kExitFailure)
        : std::runtime_error(message), status_(status) {}
    int status() const { return status_; }

  private:
    int status_;
};

[[noreturn]] inline void usageError(const std::string& message) {
    throw ToolError(message, kExitUsage);
}

// "NotSupportedInDataMode (-23)".
std::string resultText(int result);
// Throws "<what> failed: <result text>" unless result is Ok.
void check(int result, const std::string& what);

// The arguments after the subcommand. Options are taken first (`--name VALUE`, `--name=VALUE`,
// `--name`), then the positional arguments; finish() refuses whatever is left. Everything after
// "--" is kept apart (see rest()).
class Args {
  public:
    explicit Args(std::vector<std::string> arguments);

    bool flag(const std::string& name);
    std::optional<std::string> option(const std::string& name);
    // A required positional argument, described as `what` in the error.
    std::string positional(const std::string& what);
    std::optional<std::string> optionalPositional();
    // Refuses unknown options and surplus arguments.
    void finish() const;
    // The arguments after "--" (empty without one); hasRest() tells whether "--" was given.
    const std::vector<std::string>& rest() const { return rest_; }
    bool hasRest() const { return hasRest_; }

  private:
    std::vector<std::string> args_;
    std::vector<std::string> rest_;
    bool hasRest_ = false;
};

// A whole decimal (or 0x hexadecimal) number; false for anything else.
bool parseInteger(const std::string& text, int64_t* value);
// A whole decimal (or 0x hexadecimal) number within [min, max]; `what` names it in the error.
int64_t parseNumber(const std::string& text, int64_t min, int64_t max, const std::string& what);

// An absolute form of a path given on the command line: the tool works in a scratch directory
// while a camera is open.
std::string absolutePath(const std::string& path);

// An output file that is removed again unless the command gets as far as keep(): a failed command
// leaves no empty or partial file. The constructor checks that the file can be created.
class PendingFile {
  public:
    explicit PendingFile(std::string path);
    ~PendingFile();
    PendingFile(const PendingFile&) = delete;
    PendingFile& operator=(const PendingFile&) = delete;
    const std::string& path() const { return path_; }
    void keep() { kept_ = true; }

  private:
    std::string path_;
    bool kept_ = false;
};

// Creates the directory (and its parents) if needed and makes sure files can be written there.
void prepareOutputDirectory(const std::string& dir);

}  // namespace talvoro_tool

#endif
