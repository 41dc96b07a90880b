// talvoro __complete WORD... : the candidates for bash completion (tools/completion/talvoro.bash).
// The words are the command line after "talvoro" up to the cursor, the last one the word being
// completed. Prints one candidate per line, or "@file", "@dir" or "@command" for the shell to
// complete names itself. Everything comes from the command specs, so a new command completes
// without touching the completion script.
#include <cstdio>
#include <set>
#include <string>
#include <vector>

#include "Command.h"
#include "Controls.h"
#include "TalvoroSDK.h"

namespace talvoro_tool {

namespace {

using namespace Talvoro;

void print(const std::vector<std::string>& words) {
    for (const std::string& w : words)
        std::printf("%s\n", w.c_str());
}

// The serial numbers of the connected cameras, without opening them.
std::vector<std::string> serials() {
    SetLogging(0);
    SetLogLevel(3);
    std::vector<std::string> out;
    uint32_t count = 0;
    if (Initialize() == Ok && GetDeviceCount(&count) == Ok) {
        for (uint32_t i = 0; i < count; ++i) {
            DeviceInfo info{};
            if (GetDeviceInfo(i, &info) == Ok) out.push_back(info.serialNo);
        }
    }
    DeInitialize();
    return out;
}

std::vector<std::string> optionNames(const CommandSpec& spec) {
    std::vector<std::string> names;
    for (const OptionSpec& o : spec.options)
        names.push_back(o.name);
    for (const char* common : {"--json", "--quiet", "-q", "--help", "-h"})
        names.push_back(common);
    return names;
}

const OptionSpec* optionNamed(const CommandSpec& spec, const std::string& name) {
    for (const OptionSpec& o : spec.options)
        if (name == o.name) return &o;
    return nullptr;
}

// The words of a completion list ("0 1 2", "@file").
std::vector<std::string> split(const char* list) {
    std::vector<std::string> words;
    std::string word;
    for (const char* p = list;; ++p) {
        if (*p == ' ' || *p == '\0') {
            if (!word.empty()) words.push_back(word);
            word.clear();
            if (!*p) break;
        } else {
            word += *p;
        }
    }
    return words;
}

std::vector<std::string> operandCandidates(Operand operand, const std::vector<std::string>& given) {
    switch (operand) {
        case Operand::Serial:
            return serials();
        case Operand::Control: {
            std::vector<std::string> names;
            for (const Control& c : controls())
                names.push_back(c.name);
            return names;
        }
        case Operand::ControlValue: {
            // The value names of the control given before (set SERIAL CONTROL VALUE).
            std::vector<std::string> names;
            const Control* c = given.size() >= 2 ? findControl(given[1]) : nullptr;
            if (c && !c->inputs().empty())
                for (const Choice& choice : c->inputs().front().choices)
                    names.push_back(choice.name);
            return names;
        }
        case Operand::File:
            return {"@file"};
        case Operand::Topic: {
            std::vector<std::string> names = {"controls"};
            for (const CommandSpec* spec : commands())
                names.push_back(spec->name);
            return names;
        }
        case Operand::Text:
            break;
    }
    return {};
}

int completeCommand(Args& args, const Context&) {
    // Every word counts here, options and "--" included.
    std::vector<std::string> words = args.words();
    if (words.empty()) words.push_back("");
    const std::string& current = words.back();

    if (words.size() == 1) {
        std::vector<std::string> names = {"--help", "--version"};
        for (const CommandSpec* spec : commands())
            names.push_back(spec->name);
        print(names);
        return kExitOk;
    }
    const CommandSpec* spec = findCommand(words.front());
    if (!spec) return kExitOk;
    const std::vector<std::string> before(words.begin() + 1, words.end() - 1);
    for (const std::string& w : before)
        if (w == "--") {
            print({"@command"});
            return kExitOk;
        }
    if (!before.empty())
        if (const OptionSpec* o = optionNamed(*spec, before.back()); o && o->value) {
            if (o->completion) print(split(o->completion));
            return kExitOk;
        }
    if (!current.empty() && current[0] == '-') {
        print(optionNames(*spec));
        return kExitOk;
    }
    // The positional arguments so far: words that are neither options nor their values.
    std::vector<std::string> given;
    for (std::size_t i = 0; i < before.size(); ++i) {
        if (before[i].size() > 1 && before[i][0] == '-') {
            const OptionSpec* o = optionNamed(*spec, before[i]);
            if (o && o->value) ++i;
            continue;
        }
        given.push_back(before[i]);
    }
    if (given.size() < spec->operands.size())
        print(operandCandidates(spec->operands[given.size()], given));
    return kExitOk;
}

const bool registered = registerCommand({
    "__complete",
    "WORD...",
    "candidates for bash completion",
    "",
    {},
    {},
    completeCommand,
    1000,
    true,
    true,
});

}  // namespace

}  // namespace talvoro_tool
