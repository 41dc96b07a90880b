// talvoro: the command-line tool for Talvoro depth cameras, built on the public interface of
// libTalvoroSDK. Each command registers itself in its own source file (Command.h); this file
// finds it, takes the common options and turns what it throws into the exit status.
#include <algorithm>
#include <cstdio>
#include <exception>
#include <string>
#include <vector>

#include "Command.h"
#include "Json.h"
#include "Terminal.h"

namespace talvoro_tool {

namespace {

const char* errorName(const ToolError& e) {
    if (e.result() != 0) return resultName(e.result());
    if (e.status() == kExitUsage) return "UsageError";
    if (e.status() > 128) return "Interrupted";
    return "Failed";
}

// One line on standard error; with --json also the error object on standard output, which is
// the last line of a command that prints JSON Lines.
int report(const ToolError& e, const Context& context) {
    std::fflush(stdout);
    std::fprintf(stderr, "talvoro: %s\n", e.what());
    if (context.json) {
        Json out(Json::Layout::OneLine);
        out.beginObject()
            .key("error")
            .beginObject()
            .field("code", e.result())
            .field("name", errorName(e))
            .field("message", e.what())
            .field("exit_status", e.status())
            .endObject()
            .endObject();
        std::fputs(out.text().c_str(), stdout);
    }
    return e.status();
}

int run(const std::vector<std::string>& words, Context* context) {
    if (words.empty()) {
        std::fputs(toolHelp().c_str(), stderr);
        return kExitUsage;
    }
    const std::string& name = words.front();
    if (name == "--version" || name == "-V") {
        std::fputs(versionText().c_str(), stdout);
        return kExitOk;
    }
    if (name == "--help" || name == "-h") {
        std::fputs(toolHelp().c_str(), stdout);
        return kExitOk;
    }
    const CommandSpec* spec = findCommand(name);
#if !TALVORO_TOOL_PUBLISH
    if (name == "publish") throw ToolError("this talvoro is built without Cyclone DDS");
#endif
    if (!spec) usageError("unknown command '" + name + "' (see 'talvoro --help')");

    Args args(std::vector<std::string>(words.begin() + 1, words.end()));
    if (spec->raw) return spec->run(args, *context);
    context->json = args.flag("json");
    context->quiet = args.flag("quiet", 'q');
    if (args.flag("help", 'h')) {
        std::fputs(commandHelp(*spec).c_str(), stdout);
        return kExitOk;
    }
    const int status = spec->run(args, *context);
    // A command that ended cleanly after Ctrl-C still says it was stopped.
    if (interruptStatus() != 0) throw ToolError("interrupted", interruptStatus());
    return status;
}

}  // namespace

}  // namespace talvoro_tool

int main(int argc, char** argv) {
    using namespace talvoro_tool;
    catchInterrupts();
    const std::vector<std::string> words(argv + 1, argv + argc);
    Context context;
    // Asked for before the command line is parsed, so that a usage error is JSON too.
    const auto dashes = std::find(words.begin(), words.end(), "--");
    context.json = std::find(words.begin(), dashes, "--json") != dashes;
    try {
        return run(words, &context);
    } catch (const ToolError& e) {
        return report(e, context);
    } catch (const std::exception& e) {
        return report(ToolError(e.what()), context);
    }
}
