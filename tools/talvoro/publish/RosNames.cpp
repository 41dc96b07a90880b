#include "RosNames.h"

#include <cctype>

#include "Cli.h"

namespace talvoro_tool {

namespace {

bool isAlnum(char c) {
    return std::isalnum(static_cast<unsigned char>(c)) != 0;
}

}  // namespace

std::string rosToken(const std::string& serial) {
    std::string token;
    for (const char c : serial) {
        const char out = isAlnum(c) ? c : '_';
        if (out == '_' && !token.empty() && token.back() == '_') continue;
        token += out;
    }
    if (token.empty()) return "no_serial";
    if (std::isdigit(static_cast<unsigned char>(token.front()))) token = "sn" + token;
    return token;
}

std::string rosNamespace(const std::string& text) {
    std::string canonical;
    std::size_t start = 0;
    while (start <= text.size()) {
        std::size_t slash = text.find('/', start);
        if (slash == std::string::npos) slash = text.size();
        const std::string token = text.substr(start, slash - start);
        // Leading and trailing slashes are forgiven; empty tokens in between are not.
        const bool edge = start == 0 || slash == text.size();
        if (token.empty() && !edge)
            usageError("--namespace: '" + text + "' has an empty name between two '/'");
        if (!token.empty()) {
            if (rosToken(token) != token)
                usageError("--namespace: '" + token +
                           "' is not a ROS name (letters, digits and single underscores, not "
                           "starting with a digit)");
            canonical += "/" + token;
        }
        start = slash + 1;
    }
    return canonical.empty() ? "/" : canonical;
}

std::string ddsTopicName(const std::string& ns, const std::string& token,
                         const std::string& suffix) {
    return "rt" + (ns == "/" ? std::string() : ns) + "/" + token + "/" + suffix;
}

std::string rosTypeName(const std::string& ddsTypeName) {
    std::string name = ddsTypeName;
    const std::string dds = "::dds_::";
    const std::size_t at = name.find(dds);
    if (at != std::string::npos) name.replace(at, dds.size(), "::");
    if (!name.empty() && name.back() == '_') name.pop_back();
    for (std::size_t i; (i = name.find("::")) != std::string::npos;)
        name.replace(i, 2, "/");
    return name;
}

std::string frameId(const std::string& token, const std::string& which) {
    return "talvoro_" + token + "_" + which;
}

}  // namespace talvoro_tool
