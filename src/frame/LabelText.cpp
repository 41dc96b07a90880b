#include "frame/LabelText.h"

#include <array>
#include <cstring>
#include <string>

#include <opencv2/imgproc.hpp>

namespace Talvoro::frame {

namespace {

constexpr int kFont = cv::FONT_HERSHEY_SIMPLEX;
constexpr double kScale = 0.5;
constexpr char kCharacters[] = "0123456789 -m";
constexpr int kMaxPixels = 160;

struct Glyph {
    int advance = 0;  // whole pixels: every glyph here is an even number of font units wide
    int count = 0;
    std::array<cv::Point, kMaxPixels> pixels;  // relative to the pen on the baseline
};

struct Font {
    std::array<Glyph, sizeof kCharacters - 1> glyphs;
    bool ok = true;  // false: some glyph did not fit, and cv::putText draws everything
};

int textWidth(const std::string& text) {
    int baseline = 0;
    return cv::getTextSize(text, kFont, kScale, 1, &baseline).width;
}

const Font& font() {
    static const Font font = [] {
        Font f;
        constexpr int kPen = 32;
        for (std::size_t i = 0; i + 1 < sizeof kCharacters; ++i) {
            const std::string c(1, kCharacters[i]);
            cv::Mat canvas(64, 64, CV_8UC1, cv::Scalar(0));
            cv::putText(canvas, c, cv::Point(kPen, kPen), kFont, kScale, cv::Scalar(255), 1,
                        cv::LINE_8);
            Glyph& g = f.glyphs[i];
            g.advance = textWidth(c + c) - textWidth(c);
            for (int y = 0; y < canvas.rows; ++y)
                for (int x = 0; x < canvas.cols; ++x) {
                    if (!canvas.at<uint8_t>(y, x)) continue;
                    if (g.count == kMaxPixels) {
                        f.ok = false;
                        continue;
                    }
                    g.pixels[g.count++] = cv::Point(x - kPen, y - kPen);
                }
        }
        return f;
    }();
    return font;
}

// The glyph of c, or null when c has none here.
const Glyph* glyphOf(const Font& f, char c) {
    const char* at = c ? std::strchr(kCharacters, c) : nullptr;
    return at ? &f.glyphs[std::size_t(at - kCharacters)] : nullptr;
}

}  // namespace

void drawLabel(cv::Mat& image, const char* text, cv::Point origin, const cv::Scalar& colour) {
    const Font& f = font();
    // Where the text runs off the image, OpenCV clips each stroke before drawing it, which can
    // move the pixels inside: that is left to OpenCV, as are characters without a glyph here.
    const cv::Rect bounds(0, 0, image.cols, image.rows);
    bool stamp = f.ok && image.type() == CV_8UC3;
    cv::Point pen = origin;
    for (const char* c = text; stamp && *c; ++c) {
        const Glyph* g = glyphOf(f, *c);
        stamp = g != nullptr;
        for (int i = 0; stamp && i < g->count; ++i)
            stamp = bounds.contains(pen + g->pixels[i]);
        if (g) pen.x += g->advance;
    }
    if (!stamp) {
        cv::putText(image, text, origin, kFont, kScale, colour, 1, cv::LINE_8);
        return;
    }
    const cv::Vec3b value(cv::saturate_cast<uint8_t>(colour[0]),
                          cv::saturate_cast<uint8_t>(colour[1]),
                          cv::saturate_cast<uint8_t>(colour[2]));
    pen = origin;
    for (const char* c = text; *c; ++c) {
        const Glyph& g = *glyphOf(f, *c);
        for (int i = 0; i < g.count; ++i)
            image.at<cv::Vec3b>(pen + g.pixels[i]) = value;
        pen.x += g.advance;
    }
}

}  // namespace Talvoro::frame
