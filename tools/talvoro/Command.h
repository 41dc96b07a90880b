// The commands of the talvoro tool and what every command shares: its help text (also the source
// of the man page and of bash completion), the common options and the way it reports.
//
// A command lives in a source file of its own and registers itself there:
//
//     const bool registered = registerCommand({"list", "[--json]", "the connected cameras", ...});
//
// main.cpp finds it by name, answers `talvoro NAME --help` from its CommandSpec, takes the common
// options (--json, -q, --help) off the command line and turns what the command throws into the
// exit status and the error report. Nothing else needs to know about a new command.
#ifndef TALVORO_TOOL_COMMAND_H
#define TALVORO_TOOL_COMMAND_H

#include <string>
#include <vector>

#include "Cli.h"

namespace talvoro_tool {

// The common options as the command runs with them.
struct Context {
    bool json = false;   // --json: results (and errors) as JSON on standard output
    bool quiet = false;  // -q, --quiet: no progress lines on standard error
};

// One option of a command, for its help, the man page and completion.
struct OptionSpec {
    const char* name;   // "--mode"
    const char* value;  // "N"; null for a flag
    const char* help;   // one sentence, lower case, no full stop
    // What completes the value: blank-separated words, "@file", "@dir", or null (nothing).
    const char* completion = nullptr;
};

// What the positional arguments are, in order, for completion.
enum class Operand { Serial, Control, ControlValue, File, Topic, Text };

struct CommandSpec {
    std::string name;
    std::string arguments;    // after the name in the usage line: "SERIAL [OPTIONS]"
    std::string summary;      // one line for the command list
    std::string description;  // paragraphs separated by blank lines, wrapped by the help
    std::vector<OptionSpec> options;
    std::vector<Operand> operands;
    // Runs with the arguments after the name (common options already taken); returns the exit
    // status or throws ToolError.
    int (*run)(Args& args, const Context& context) = nullptr;
    int order = 100;  // place in the command list
    bool hidden = false;
    // Takes its arguments as they are: no common options, no --help.
    bool raw = false;
};

// Adds a command; call from a namespace-scope initialiser. Returns true.
bool registerCommand(CommandSpec spec);
// Every visible command, in list order.
std::vector<const CommandSpec*> commands();
// A command by name (hidden ones too); null when there is none.
const CommandSpec* findCommand(const std::string& name);

// The common options, as every command's help lists them.
const std::vector<OptionSpec>& commonOptions();

// `talvoro --help` and `talvoro NAME --help`.
std::string toolHelp();
std::string commandHelp(const CommandSpec& spec);

// The tool's own version and the library's, for --version.
std::string versionText();

}  // namespace talvoro_tool

#endif
