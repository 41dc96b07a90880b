#include "Json.h"

#include <cmath>
#include <cstdio>

namespace talvoro_tool {

void Json::newline() {
    if (oneLine_) return;
    text_ += '\n';
    text_.append(2 * hasElement_.size(), ' ');
}

void Json::beforeValue() {
    if (afterKey_) {
        afterKey_ = false;
        return;
    }
    if (hasElement_.empty()) return;
    if (hasElement_.back()) text_ += oneLine_ ? ", " : ",";
    hasElement_.back() = true;
    newline();
}

Json& Json::open(char bracket) {
    beforeValue();
    text_ += bracket;
    hasElement_.push_back(false);
    return *this;
}

Json& Json::close(char bracket) {
    const bool any = hasElement_.back();
    hasElement_.pop_back();
    if (any) newline();
    text_ += bracket;
    if (hasElement_.empty()) text_ += '\n';
    return *this;
}

Json& Json::key(const std::string& name) {
    value(name);
    text_ += ": ";
    afterKey_ = true;
    return *this;
}

Json& Json::value(const std::string& s) {
    beforeValue();
    text_ += '"';
    for (const char c : s) {
        switch (c) {
            case '"':
                text_ += "\\\"";
                break;
            case '\\':
                text_ += "\\\\";
                break;
            case '\n':
                text_ += "\\n";
                break;
            case '\t':
                text_ += "\\t";
                break;
            default:
                if (static_cast<unsigned char>(c) < 0x20) {
                    char escaped[8];
                    std::snprintf(escaped, sizeof escaped, "\\u%04x", c);
                    text_ += escaped;
                } else {
                    text_ += c;
                }
        }
    }
    text_ += '"';
    return *this;
}

Json& Json::value(int64_t number) {
    beforeValue();
    text_ += std::to_string(number);
    return *this;
}

Json& Json::value(double number) {
    if (!std::isfinite(number)) return null();
    beforeValue();
    char text[32];
    std::snprintf(text, sizeof text, "%.10g", number);
    text_ += text;
    // A whole number keeps a fraction, so that readers take it as a real.
    if (std::string(text).find_first_of(".eE") == std::string::npos) text_ += ".0";
    return *this;
}

Json& Json::value(bool truth) {
    beforeValue();
    text_ += truth ? "true" : "false";
    return *this;
}

Json& Json::null() {
    beforeValue();
    text_ += "null";
    return *this;
}

}  // namespace talvoro_tool
