#include "Command.h"

#include <algorithm>
#include <memory>

#include "TalvoroSDK.h"

namespace talvoro_tool {

namespace {

constexpr std::size_t kWidth = 100;  // of the help text
constexpr std::size_t kIndent = 24;  // of an option's description

// Owned here so that registration from any file's static initialiser finds it constructed.
std::vector<std::unique_ptr<CommandSpec>>& registry() {
    static std::vector<std::unique_ptr<CommandSpec>> specs;
    return specs;
}

// Appends `text` wrapped to kWidth, every line but the first indented by `indent` blanks (the
// caller has written the first line's start, `column` characters long).
void appendWrapped(std::string* out, const std::string& text, std::size_t column,
                   std::size_t indent) {
    std::size_t start = 0;
    while (start < text.size()) {
        std::size_t end = text.find(' ', start);
        if (end == std::string::npos) end = text.size();
        const std::size_t word = end - start;
        if (column > indent && column + 1 + word > kWidth) {
            *out += '\n' + std::string(indent, ' ');
            column = indent;
        } else if (column > indent) {
            *out += ' ';
            ++column;
        }
        out->append(text, start, word);
        column += word;
        start = end + 1;
    }
    *out += '\n';
}

// Paragraphs separated by blank lines, each wrapped; lines beginning with blanks are kept as
// they are (examples).
void appendParagraphs(std::string* out, const std::string& text) {
    std::size_t start = 0;
    std::string paragraph;
    auto flush = [&] {
        if (!paragraph.empty()) appendWrapped(out, paragraph, 0, 0);
        paragraph.clear();
    };
    while (start <= text.size()) {
        std::size_t end = text.find('\n', start);
        if (end == std::string::npos) end = text.size();
        const std::string line = text.substr(start, end - start);
        if (line.empty()) {
            flush();
            *out += '\n';
        } else if (line[0] == ' ') {
            flush();
            *out += line + '\n';
        } else {
            paragraph += (paragraph.empty() ? "" : " ") + line;
        }
        start = end + 1;
    }
    flush();
}

// "  TERM                  text" with the text wrapped beside the term.
void appendEntry(std::string* out, const std::string& term, const std::string& text) {
    std::string line = "  " + term;
    if (line.size() + 1 > kIndent)
        line += "\n" + std::string(kIndent, ' ');
    else
        line.resize(kIndent, ' ');
    *out += line;
    appendWrapped(out, text, kIndent, kIndent);
}

std::string optionTerm(const OptionSpec& o) {
    std::string term = o.name;
    if (o.value) term += std::string(" ") + o.value;
    return term;
}

void appendOptions(std::string* out, const char* heading, const std::vector<OptionSpec>& options) {
    if (options.empty()) return;
    *out += std::string("\n") + heading + ":\n";
    for (const OptionSpec& o : options)
        appendEntry(out, optionTerm(o), o.help);
}

}  // namespace

bool registerCommand(CommandSpec spec) {
    registry().push_back(std::make_unique<CommandSpec>(std::move(spec)));
    return true;
}

std::vector<const CommandSpec*> commands() {
    std::vector<const CommandSpec*> list;
    for (const auto& spec : registry())
        if (!spec->hidden) list.push_back(spec.get());
    std::stable_sort(list.begin(), list.end(), [](const CommandSpec* a, const CommandSpec* b) {
        return a->order < b->order;
    });
    return list;
}

const CommandSpec* findCommand(const std::string& name) {
    for (const auto& spec : registry())
        if (spec->name == name) return spec.get();
    return nullptr;
}

const std::vector<OptionSpec>& commonOptions() {
    static const std::vector<OptionSpec> options = {
        {"--json", nullptr,
         "print the result as JSON on standard output; an error then is a JSON object too "
         "({\"error\": {\"code\", \"name\", \"message\"}}), with the same exit status"},
        {"-q, --quiet", nullptr, "no progress lines on standard error"},
        {"-h, --help", nullptr, "this help"},
    };
    return options;
}

std::string toolHelp() {
    std::string out =
        "usage: talvoro COMMAND [ARGUMENTS] [OPTIONS]\n"
        "       talvoro COMMAND --help\n"
        "       talvoro --version\n\n";
    appendParagraphs(&out,
                     "The command-line tool for Talvoro USB time-of-flight depth cameras, built on "
                     "libTalvoroSDK: lists the cameras, shows and changes their controls, streams "
                     "depth, IR and colour into images and point clouds, and records and replays "
                     "raw frames. A camera is named by its serial number (talvoro list shows "
                     "them).");
    out += "\ncommands:\n";
    for (const CommandSpec* spec : commands())
        appendEntry(&out, spec->name, spec->summary);
    appendOptions(&out, "common options", commonOptions());
    out += "\nexit status:\n";
    appendEntry(&out, "0", "success");
    appendEntry(&out, "1",
                "failure at run time: the camera, the library or the file system said no");
    appendEntry(&out, "2",
                "usage error: the command line is wrong, or asks for something that cannot be "
                "done (a data mode without the images asked for)");
    appendEntry(&out, "130",
                "stopped by Ctrl-C (143: by SIGTERM) after ending cleanly: the camera closed, "
                "a recording complete up to its last frame");
    out += "\nenvironment:\n";
    appendEntry(&out, "TALVORO_DATA_DIR",
                "where the library writes the camera's calibration files; the tool sets it to "
                "$XDG_CACHE_HOME/talvoro (~/.cache/talvoro) unless it is set already");
    out += "\nfiles:\n";
    appendEntry(&out, "~/.cache/talvoro",
                "the calibration files (depth_intrinsic.yml, rgb_intrinsic.yml, "
                "stereo_extrinsic.yml) of the camera opened last");
    return out;
}

std::string commandHelp(const CommandSpec& spec) {
    std::string out = "usage: talvoro " + spec.name;
    if (!spec.arguments.empty()) out += " " + spec.arguments;
    out += "\n\n";
    appendParagraphs(&out, spec.description.empty() ? spec.summary : spec.description);
    appendOptions(&out, "options", spec.options);
    appendOptions(&out, "common options", commonOptions());
    return out;
}

std::string versionText() {
    uint8_t major = 0, minor = 0;
    uint16_t patch = 0;
    Talvoro::GetSDKVersion(&major, &minor, &patch);
    return std::string("talvoro ") + TALVORO_TOOL_VERSION + "\nlibTalvoroSDK " +
           std::to_string(major) + "." + std::to_string(minor) + "." + std::to_string(patch) + "\n";
}

}  // namespace talvoro_tool
