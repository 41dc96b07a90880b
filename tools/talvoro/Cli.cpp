#include "Cli.h"

#include <unistd.h>

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <system_error>

namespace talvoro_tool {

const char* resultName(int result) {
    switch (result) {
        case Talvoro::Ok:
            return "Ok";
        case Talvoro::NotInitialized:
            return "NotInitialized";
        case Talvoro::NotDeInitialized:
            return "NotDeInitialized";
        case Talvoro::InvalidFrameType:
            return "InvalidFrameType";
        case Talvoro::NotStreaming:
            return "NotStreaming";
        case Talvoro::AlreadyStreaming:
            return "AlreadyStreaming";
        case Talvoro::InvalidNode:
            return "InvalidNode";
        case Talvoro::CameraNotOpened:
            return "CameraNotOpened";
        case Talvoro::InvalidDeviceIndex:
            return "InvalidDeviceIndex";
        case Talvoro::NoDeviceConnected:
            return "NoDeviceConnected";
        case Talvoro::GetValueFailed:
            return "GetValueFailed";
        case Talvoro::SetValueFailed:
            return "SetValueFailed";
        case Talvoro::SysCallFail:
            return "SysCallFail";
        case Talvoro::InvalidValue:
            return "InvalidValue";
        case Talvoro::HidWriteFail:
            return "HidWriteFail";
        case Talvoro::HidReadFail:
            return "HidReadFail";
        case Talvoro::UVCOpenFailed:
            return "UVCOpenFailed";
        case Talvoro::TimeoutError:
            return "TimeoutError";
        case Talvoro::InvalidFrameBuffer:
            return "InvalidFrameBuffer";
        case Talvoro::CalibrationDataNotFound:
            return "CalibrationDataNotFound";
        case Talvoro::FrameSeparationFailed:
            return "FrameSeparationFailed";
        case Talvoro::FrameCallbackRegistrationFailed:
            return "FrameCallbackRegistrationFailed";
        case Talvoro::CameraAlreadyOpen:
            return "CameraAlreadyOpen";
        case Talvoro::NotSupportedInDataMode:
            return "NotSupportedInDataMode";
        case Talvoro::OperationFailed:
            return "OperationFailed";
        case Talvoro::UnknownError:
            return "UnknownError";
        default:
            return "unknown result";
    }
}

namespace {

// "-q", "--out": an option. A negative number ("-10") is a value.
bool looksLikeOption(const std::string& arg) {
    return arg.size() > 1 && arg[0] == '-' && !std::isdigit(static_cast<unsigned char>(arg[1]));
}

bool isOptionName(const std::string& arg, const std::string& name) {
    return arg == "--" + name || arg.rfind("--" + name + "=", 0) == 0;
}

}  // namespace

std::string resultText(int result) {
    return std::string(resultName(result)) + " (" + std::to_string(result) + ")";
}

void check(int result, const std::string& what) {
    if (result != Talvoro::Ok)
        throw ToolError(what + " failed: " + resultText(result), kExitFailure, result);
}

Args::Args(std::vector<std::string> arguments) {
    const auto dashes = std::find(arguments.begin(), arguments.end(), "--");
    if (dashes != arguments.end()) {
        hasRest_ = true;
        rest_.assign(dashes + 1, arguments.end());
        arguments.erase(dashes, arguments.end());
    }
    args_ = std::move(arguments);
}

std::vector<std::string> Args::words() const {
    std::vector<std::string> all = args_;
    if (hasRest_) {
        all.push_back("--");
        all.insert(all.end(), rest_.begin(), rest_.end());
    }
    return all;
}

bool Args::flag(const std::string& name, char letter) {
    const std::string shortName = letter ? std::string("-") + letter : std::string();
    bool found = false;
    for (auto it = args_.begin(); it != args_.end();) {
        if (*it == "--" + name || (letter && *it == shortName)) {
            it = args_.erase(it);
            found = true;
        } else {
            ++it;
        }
    }
    return found;
}

std::optional<std::string> Args::option(const std::string& name) {
    const auto it = std::find_if(args_.begin(), args_.end(),
                                 [&](const std::string& a) { return isOptionName(a, name); });
    if (it == args_.end()) return std::nullopt;
    std::string value;
    if (it->size() > name.size() + 2) {
        value = it->substr(name.size() + 3);
        args_.erase(it);
    } else {
        if (it + 1 == args_.end()) usageError("--" + name + " needs a value");
        value = *(it + 1);
        args_.erase(it, it + 2);
    }
    if (std::any_of(args_.begin(), args_.end(),
                    [&](const std::string& a) { return isOptionName(a, name); }))
        usageError("--" + name + " is given twice");
    return value;
}

std::string Args::positional(const std::string& what) {
    std::optional<std::string> value = optionalPositional();
    if (!value) usageError("missing " + what);
    return *value;
}

std::optional<std::string> Args::optionalPositional() {
    const auto it = std::find_if(args_.begin(), args_.end(),
                                 [](const std::string& a) { return !looksLikeOption(a); });
    if (it == args_.end()) return std::nullopt;
    std::string value = *it;
    args_.erase(it);
    return value;
}

void Args::finish() const {
    if (args_.empty()) return;
    const std::string& first = args_.front();
    if (looksLikeOption(first)) usageError("unknown option " + first);
    usageError("unexpected argument '" + args_.front() + "'");
}

bool parseInteger(const std::string& text, int64_t* value) {
    if (text.empty() || std::isspace(static_cast<unsigned char>(text.front()))) return false;
    errno = 0;
    char* end = nullptr;
    const bool hex = text.rfind("0x", 0) == 0 || text.rfind("0X", 0) == 0;
    *value = std::strtoll(text.c_str(), &end, hex ? 16 : 10);
    return *end == '\0' && errno != ERANGE;
}

int64_t parseNumber(const std::string& text, int64_t min, int64_t max, const std::string& what) {
    const std::string range = std::to_string(min) + " to " + std::to_string(max);
    int64_t value = 0;
    if (!parseInteger(text, &value))
        usageError(what + ": expected a number from " + range + ", got '" + text + "'");
    if (value < min || value > max)
        usageError(what + ": " + text + " is out of range (" + range + ")");
    return value;
}

std::string absolutePath(const std::string& path) {
    std::error_code ec;
    const std::filesystem::path absolute = std::filesystem::absolute(path, ec);
    if (ec) throw ToolError("cannot resolve '" + path + "': " + ec.message());
    return absolute.lexically_normal().string();
}

void prepareOutputDirectory(const std::string& dir) {
    std::error_code ec;
    std::filesystem::create_directories(dir, ec);
    if (ec) throw ToolError("cannot create '" + dir + "': " + ec.message());
    if (!std::filesystem::is_directory(dir)) throw ToolError("'" + dir + "' is not a directory");
    if (::access(dir.c_str(), W_OK | X_OK) != 0) {
        const int err = errno;
        throw ToolError("cannot write into '" + dir + "': " + std::strerror(err));
    }
}

PendingFile::PendingFile(std::string path) : path_(std::move(path)) {
    std::FILE* f = std::fopen(path_.c_str(), "wb");
    if (!f) {
        const int err = errno;
        throw ToolError("cannot write '" + path_ + "': " + std::strerror(err));
    }
    std::fclose(f);
}

PendingFile::~PendingFile() {
    if (!kept_) std::remove(path_.c_str());
}

}  // namespace talvoro_tool
