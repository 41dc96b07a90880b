// A small JSON writer for --json output: objects, arrays, strings and numbers, indented, or
// compact for JSON Lines (one document per line). The text is built in memory, so that a command
// that fails half-way prints no half document; every document ends with a newline.
#ifndef TALVORO_TOOL_JSON_H
#define TALVORO_TOOL_JSON_H

#include <cstdint>
#include <string>
#include <vector>

namespace talvoro_tool {

class Json {
  public:
    enum class Layout { Indented, OneLine };
    explicit Json(Layout layout = Layout::Indented) : oneLine_(layout == Layout::OneLine) {}

    Json& beginObject() { return open('{'); }
    Json& endObject() { return close('}'); }
    Json& beginArray() { return open('['); }
    Json& endArray() { return close(']'); }
    // The key of the next value inside an object.
    Json& key(const std::string& name);

    Json& value(const std::string& text);
    Json& value(const char* text) { return value(std::string(text)); }
    Json& value(int64_t number);
    Json& value(int number) { return value(static_cast<int64_t>(number)); }
    Json& value(unsigned number) { return value(static_cast<int64_t>(number)); }
    // Not-a-number and infinities become null, which JSON can carry.
    Json& value(double number);
    Json& value(bool truth);
    Json& null();

    template <typename T>
    Json& field(const std::string& name, const T& v) {
        return key(name).value(v);
    }

    const std::string& text() const { return text_; }

  private:
    Json& open(char bracket);
    Json& close(char bracket);
    void beforeValue();
    void newline();

    bool oneLine_;
    std::string text_;
    // Per open container: whether it has an element yet.
    std::vector<bool> hasElement_;
    bool afterKey_ = false;
};

}  // namespace talvoro_tool

#endif
