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

// Exit statuses, the same for every command.
constexpr int kExitOk = 0;
constexpr int kExitFailure = 1;        // the camera, the library or the file system said no
constexpr int kExitUsage = 2;          // the command line is wrong, or asks for the impossible
constexpr int kExitInterrupted = 130;  // stopped by Ctrl-C (128 + SIGINT); SIGTERM gives 143

// What ends a command: main prints "talvoro: <message>" as one line (and with --json an error
// object on standard output) and exits with `status`. `result` is the library's code when the
// library refused, else 0.
class ToolError : public std::runtime_error {
  public:
    explicit ToolError(const std::string& message, int status = kExitFailure, int result = 0)
        : std::runtime_error(message), status_(status), result_(result) {}
    int status() const { return status_; }
    int result() const { return result_; }

  private:
    int status_;
    int result_;
};

[[noreturn]] inline void usageError(const std::string& message) {
    throw ToolError(message, kExitUsage);
}

// The name of a result code ("NotSupportedInDataMode"), or "unknown result".
const char* resultName(int result);
// "NotSupportedInDataMode (-23)".
std::string resultText(int result);
// Throws "<what> failed: <result text>", carrying the code, unless result is Ok.
void check(int result, const std::string& what);

// The arguments after the subcommand. Options are taken first (`--name VALUE`, `--name=VALUE`,
// `--name`, and a few one-letter flags such as `-q`), then the positional arguments; finish()
// refuses whatever is left, so an argument beginning with "-" is never taken for a positional
// one. Everything after "--" is kept apart (see rest()).
class Args {
  public:
    explicit Args(std::vector<std::string> arguments);

    // `--name`, or `-l` when `letter` is given.
    bool flag(const std::string& name, char letter = 0);
    std::optional<std::string> option(const std::string& name);
    // A required positional argument, described as `what` in the error.
    std::string positional(const std::string& what);
    std::optional<std::string> optionalPositional();
    // Refuses unknown options and surplus arguments.
    void finish() const;
    // The arguments after "--" (empty without one); hasRest() tells whether "--" was given.
    const std::vector<std::string>& rest() const { return rest_; }
    bool hasRest() const { return hasRest_; }
    // The arguments not taken yet as they were given, "--" and what follows it included.
    std::vector<std::string> words() const;

  private:
    std::vector<std::string> args_;
    std::vector<std::string> rest_;
    bool hasRest_ = false;
};

// A whole decimal (or 0x hexadecimal) number; false for anything else.
bool parseInteger(const std::string& text, int64_t* value);
// A whole decimal (or 0x hexadecimal) number within [min, max]; `what` names it in the error.
int64_t parseNumber(const std::string& text, int64_t min, int64_t max, const std::string& what);

// An absolute form of a path given on the command line, for messages and for commands that
// hand the path to another process.
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
