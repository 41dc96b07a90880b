#include "frame/CalibrationCheck.h"

#include <cmath>
#include <cstring>
#include <exception>
#include <vector>

namespace Talvoro::frame {

namespace {

bool isSide(const cv::FileNode& n) {
    return n.isInt() && static_cast<int>(n) >= 1 && static_cast<int>(n) <= kMaxCalibrationSide;
}

bool isWordChar(char c) {
    return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') || c == '_';
}

bool isScalarChar(char c) {
    return isWordChar(c) || c == '.' || c == '+' || c == '-';
}

// The text's lines without their line ends and trailing spaces.
std::vector<std::string> linesOf(const std::string& text) {
    std::vector<std::string> lines;
    std::size_t start = 0;
    while (start <= text.size()) {
        std::size_t end = text.find('\n', start);
        if (end == std::string::npos) end = text.size();
        std::string line = text.substr(start, end - start);
        while (!line.empty() && (line.back() == ' ' || line.back() == '\r'))
            line.pop_back();
        lines.push_back(std::move(line));
        start = end + 1;
    }
    return lines;
}

// Reads a line's part of a flow sequence of scalars from `pos`; *open says whether the
// sequence's "]" is still to come and *wantValue whether a value must come next.
std::string readFlow(const std::string& line, std::size_t pos, bool* open, bool* wantValue) {
    while (pos < line.size()) {
        const char c = line[pos];
        if (c == ' ') {
            ++pos;
        } else if (!*open) {
            return "text after a sequence";
        } else if (c == ']') {
            *open = false;
            ++pos;
        } else if (c == ',') {
            if (*wantValue) return "a sequence with an empty value";
            *wantValue = true;
            ++pos;
        } else if (isScalarChar(c)) {
            if (!*wantValue) return "values without a comma between them";
            while (pos < line.size() && isScalarChar(line[pos]))
                ++pos;
            *wantValue = false;
        } else {
            return "a sequence of other than numbers";
        }
    }
    return "";
}

// Reads "key: value" from `pos`. *opensMap tells whether the value is empty or a tag, so that
// indented keys may follow; *inFlow whether a sequence goes on over the next lines.
std::string readKeyLine(const std::string& line, std::size_t pos, bool* opensMap, bool* inFlow,
                        bool* wantValue) {
    const std::size_t keyStart = pos;
    while (pos < line.size() && isWordChar(line[pos]))
        ++pos;
    if (pos == keyStart || pos == line.size() || line[pos] != ':') return "a line that is no key";
    ++pos;
    if (pos < line.size() && line[pos] != ' ') return "a line that is no key";
    while (pos < line.size() && line[pos] == ' ')
        ++pos;
    *opensMap = false;
    *inFlow = false;
    if (pos == line.size()) {
        *opensMap = true;
        return "";
    }
    const char c = line[pos];
    if (c == '!') {
        if (line.compare(pos, 2, "!!") != 0) return "an unknown tag";
        pos += 2;
        const std::size_t tagStart = pos;
        while (pos < line.size() && (isWordChar(line[pos]) || line[pos] == '-'))
            ++pos;
        if (pos == tagStart || pos != line.size()) return "an unknown tag";
        *opensMap = true;
        return "";
    }
    if (c == '[') {
        *inFlow = true;
        *wantValue = true;
        return readFlow(line, pos + 1, inFlow, wantValue);
    }
    if (c == '"') {
        const std::size_t close = line.find('"', pos + 1);
        if (close == std::string::npos) return "a string not closed";
        if (line.find('\\', pos + 1) < close) return "an escape in a string";
        pos = close + 1;
    } else {
        // Words may be separated by spaces, as OpenCV writes a string without quotes.
        while (pos < line.size() && (isScalarChar(line[pos]) || line[pos] == ' '))
            ++pos;
    }
    return pos == line.size() ? "" : "a value that is no number, word or string";
}

}  // namespace

std::string checkCalibrationText(const std::string& text) {
    if (text.size() > kMaxCalibrationText) return "text too long";
    for (const char c : text)
        if (c != '\n' && c != '\r' && (c < 0x20 || c > 0x7e)) return "not printable ASCII";
    const std::vector<std::string> lines = linesOf(text);
    if (lines[0] != "%YAML:1.0") return "first line not %YAML:1.0";
    std::size_t i = 1;
    if (i < lines.size() && lines[i] == "---") ++i;

    bool mapMayOpen = false;    // the last key at the margin opened a map
    std::size_t mapIndent = 0;  // its keys' indentation, once the first is seen
    bool inFlow = false, wantValue = false;
    std::size_t flowIndent = 0;  // the indentation of the key whose sequence goes on
    for (; i < lines.size(); ++i) {
        const std::string& line = lines[i];
        const std::size_t indent = line.find_first_not_of(' ');
        if (indent == std::string::npos) continue;
        std::string why;
        if (inFlow) {
            if (indent <= flowIndent)
                return "line " + std::to_string(i + 1) + ": a sequence not closed";
            why = readFlow(line, indent, &inFlow, &wantValue);
        } else if (line[indent] == '#') {
            continue;
        } else {
            bool opensMap = false;
            if (indent == 0) {
                why = readKeyLine(line, 0, &opensMap, &inFlow, &wantValue);
                mapMayOpen = opensMap;
                mapIndent = 0;
            } else if (!mapMayOpen || (mapIndent != 0 && indent != mapIndent)) {
                why = "indentation that opens no map";
            } else {
                mapIndent = indent;
                why = readKeyLine(line, indent, &opensMap, &inFlow, &wantValue);
                if (why.empty() && opensMap) why = "a map nested in a map";
            }
            flowIndent = indent;
        }
        if (!why.empty()) return "line " + std::to_string(i + 1) + ": " + why;
    }
    if (inFlow) return "a sequence not closed";
    return "";
}

std::string checkMatrixNode(const cv::FileNode& node) {
    if (!node.isMap()) return "not a matrix";
    if (!node["sizes"].empty()) return "not a two-dimensional matrix";
    const cv::FileNode dt = node["dt"];
    // One letter: a single channel of u, c, w, s, i, f or d.
    const std::string type = dt.isString() ? dt.string() : std::string();
    if (type.size() != 1 || !std::strchr("ucwsifd", type[0])) return "not a matrix of numbers";
    const cv::FileNode rows = node["rows"], cols = node["cols"];
    if (!isSide(rows) || !isSide(cols))
        return "size out of bounds (at most " + std::to_string(kMaxCalibrationSide) + " x " +
               std::to_string(kMaxCalibrationSide) + ")";
    const cv::FileNode data = node["data"];
    const std::size_t count = std::size_t(int(rows)) * std::size_t(int(cols));
    if (!data.isSeq() || data.size() != count) return "data does not match the size";
    for (const cv::FileNode& v : data)
        if (!v.isInt() && !v.isReal()) return "not a matrix of numbers";
    return "";
}

std::string checkMatrixValues(const cv::Mat& m, CalibrationItem item) {
    if (m.empty() || m.channels() != 1) return "not a matrix of numbers";
    cv::Mat values;
    m.convertTo(values, CV_64F);
    for (auto it = values.begin<double>(); it != values.end<double>(); ++it)
        if (!std::isfinite(*it) || std::fabs(*it) > kMaxCalibrationValue)
            return "value not finite or out of bounds";
    if (item == CalibrationItem::CameraMatrix) {
        if (values.rows < 2 || values.cols < 2) return "not a camera matrix";
        // Undistortion and mapping divide by them.
        if (!(values.at<double>(0, 0) >= 1) || !(values.at<double>(1, 1) >= 1))
            return "focal length below one pixel";
    }
    return "";
}

cv::Mat readCalibrationMatrix(const cv::FileStorage& fs, const char* key, CalibrationItem item,
                              std::string* refused) {
    refused->clear();
    cv::Mat m;
    try {
        // A text whose top is not a map makes even the lookup throw.
        const cv::FileNode node = fs[key];
        if (node.empty()) return cv::Mat();
        *refused = checkMatrixNode(node);
        if (!refused->empty()) return cv::Mat();
        node >> m;
        m.convertTo(m, CV_64F);
    } catch (const std::exception&) {
        return cv::Mat();
    }
    *refused = checkMatrixValues(m, item);
    return refused->empty() ? m : cv::Mat();
}

}  // namespace Talvoro::frame
