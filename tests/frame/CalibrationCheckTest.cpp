// The checks a calibration from the camera passes before it is read and used.
#include <gtest/gtest.h>

#include <limits>
#include <string>

#include "frame/CalibrationCheck.h"

using Talvoro::frame::CalibrationItem;
using Talvoro::frame::checkMatrixNode;
using Talvoro::frame::checkMatrixValues;

namespace {

// The check's answer for the node under key "M" of a YAML text.
std::string nodeCheck(const std::string& yaml) {
    cv::FileStorage fs("%YAML:1.0\n---\n" + yaml, cv::FileStorage::READ | cv::FileStorage::MEMORY);
    return checkMatrixNode(fs["M"]);
}

std::string matrix(const std::string& rows, const std::string& cols, const std::string& dt,
                   const std::string& data) {
    return "M: !!opencv-matrix\n   rows: " + rows + "\n   cols: " + cols + "\n   dt: " + dt +
           "\n   data: [ " + data + " ]\n";
}

}  // namespace

TEST(CalibrationCheck, MatricesAreReadOnlyWhenSmallAndConsistent) {
    const std::string nine = "1., 0., 320., 0., 1., 240., 0., 0., 1.";
    EXPECT_EQ(nodeCheck(matrix("3", "3", "d", nine)), "");
    EXPECT_EQ(nodeCheck(matrix("1", "5", "f", "1, 2, 3, 4, 5")), "");
    EXPECT_EQ(nodeCheck(matrix("16", "1", "i", "1,2,3,4,5,6,7,8,9,10,11,12,13,14,15,16")), "");

    const struct {
        std::string yaml, reason;
    } refused[] = {
        // What made OpenCV try to allocate 80 GB before it compared the data with the size.
        {matrix("100000", "100000", "d", nine), "size out of bounds (at most 16 x 16)"},
        {matrix("17", "1", "d", nine), "size out of bounds (at most 16 x 16)"},
        {matrix("0", "3", "d", ""), "size out of bounds (at most 16 x 16)"},
        {matrix("-3", "-3", "d", nine), "size out of bounds (at most 16 x 16)"},
        {matrix("3.5", "3", "d", nine), "size out of bounds (at most 16 x 16)"},
        {matrix("3", "3", "d", "1., 2."), "data does not match the size"},
        {matrix("3", "3", "d", "1., 2., 3., 4., 5., 6., 7., 8., 9., 10."),
         "data does not match the size"},
        {matrix("3", "3", "d", "1., 0., 320., 0., 1., 240., 0., 0., one"),
         "not a matrix of numbers"},
        {matrix("3", "1", "\"3d\"", "1., 2., 3., 4., 5., 6., 7., 8., 9."),
         "not a matrix of numbers"},
        {matrix("3", "3", "x", nine), "not a matrix of numbers"},
        {"M: !!opencv-nd-matrix\n   sizes: [ 100000, 100000, 100000 ]\n   dt: d\n   data: [ 1. ]\n",
         "not a two-dimensional matrix"},
        {"M: [ 1., 2., 3. ]\n", "not a matrix"},
        {"M: 3\n", "not a matrix"},
        {"M:\n   rows: 3\n   cols: 3\n   dt: d\n   data: 7\n", "data does not match the size"},
    };
    for (const auto& r : refused)
        EXPECT_EQ(nodeCheck(r.yaml), r.reason) << r.yaml;
}

TEST(CalibrationCheck, ValuesMustBeFiniteAndFocalLengthsUsable) {
    const double nan = std::numeric_limits<double>::quiet_NaN();
    const double inf = std::numeric_limits<double>::infinity();
    const cv::Mat camera = (cv::Mat_<double>(3, 3) << 440.5, 0, 321.4, 0, 440.5, 238.6, 0, 0, 1);
    EXPECT_EQ(checkMatrixValues(camera, CalibrationItem::CameraMatrix), "");
    EXPECT_EQ(checkMatrixValues(cv::Mat_<float>(1, 5, 0.f), CalibrationItem::Distortion), "");
    EXPECT_EQ(checkMatrixValues(cv::Mat::zeros(3, 3, CV_64F), CalibrationItem::Rotation), "");

    const struct {
        int row, col;
        double value;
        const char* reason;
    } spoiled[] = {
        {0, 0, nan, "value not finite or out of bounds"},
        {1, 1, inf, "value not finite or out of bounds"},
        {0, 2, -inf, "value not finite or out of bounds"},
        {2, 2, 1e7, "value not finite or out of bounds"},
        {0, 0, 0, "focal length below one pixel"},
        {1, 1, 0, "focal length below one pixel"},
        {0, 0, -440.5, "focal length below one pixel"},
        {1, 1, 0.5, "focal length below one pixel"},
    };
    for (const auto& s : spoiled) {
        cv::Mat m = camera.clone();
        m.at<double>(s.row, s.col) = s.value;
        EXPECT_EQ(checkMatrixValues(m, CalibrationItem::CameraMatrix), s.reason)
            << s.row << "," << s.col << " = " << s.value;
    }
    // Only camera matrices have focal lengths; NaN is refused anywhere.
    EXPECT_EQ(checkMatrixValues(cv::Mat::zeros(3, 3, CV_64F), CalibrationItem::Rotation), "");
    EXPECT_EQ(
        checkMatrixValues(cv::Mat(3, 1, CV_64F, cv::Scalar(nan)), CalibrationItem::Translation),
        "value not finite or out of bounds");
    EXPECT_EQ(checkMatrixValues(cv::Mat(), CalibrationItem::Distortion), "not a matrix of numbers");
    EXPECT_EQ(
        checkMatrixValues(cv::Mat(1, 1, CV_64F, cv::Scalar(500)), CalibrationItem::CameraMatrix),
        "not a camera matrix");
}

TEST(CalibrationCheck, ReadingNeverThrowsAndReturnsOnlyAcceptedMatrices) {
    const auto read = [](const std::string& yaml, std::string* refused) {
        cv::FileStorage fs(yaml, cv::FileStorage::READ | cv::FileStorage::MEMORY);
        return Talvoro::frame::readCalibrationMatrix(fs, "M", CalibrationItem::CameraMatrix,
                                                     refused);
    };
    std::string refused;
    const cv::Mat good = read("%YAML:1.0\n---\n" + matrix("3", "3", "f",
                                                          "440, 0, 320, 0, 440, "
                                                          "240, 0, 0, 1"),
                              &refused);
    EXPECT_EQ(refused, "");
    ASSERT_EQ(good.type(), CV_64F);
    EXPECT_EQ(good.at<double>(1, 2), 240.0);
    EXPECT_TRUE(read("%YAML:1.0\n---\n" + matrix("100000", "100000", "d", "1"), &refused).empty());
    EXPECT_EQ(refused, "size out of bounds (at most 16 x 16)");
    // A document whose top is a sequence: OpenCV throws on the key's lookup itself.
    EXPECT_TRUE(read("%YAML:1.0\n---\n- 1\n- 2\n", &refused).empty());
    EXPECT_EQ(refused, "");
    EXPECT_TRUE(read("%YAML:1.0\n---\nN: 1\n", &refused).empty());
    EXPECT_EQ(refused, "");
}

TEST(CalibrationCheck, TextMustKeepTheLayoutOpenCvWrites) {
    using Talvoro::frame::checkCalibrationText;
    // What OpenCV's writer gives passes, long sequences wrapped over lines included.
    cv::FileStorage out(".yml", cv::FileStorage::WRITE | cv::FileStorage::MEMORY);
    const cv::Mat k = (cv::Mat_<double>(3, 3) << 520.25, 0, 319.5, 0, 519.75, 241.125, 0, 0, 1);
    const cv::Mat d = (cv::Mat_<double>(1, 5) << -0.25, 1e-3, 0, 0, 7e+5);
    const cv::Mat t = (cv::Mat_<float>(3, 1) << 25.f, -0.5f, 1.f);
    out << "SCCM_D" << k << "SCCD_D" << d << "T" << t << "big" << cv::Mat::eye(16, 16, CV_64F);
    out << "name"
        << "depth camera"
        << "count" << 3;
    const std::string written = out.releaseAndGetString();
    EXPECT_EQ(checkCalibrationText(written), "") << written;
    EXPECT_EQ(checkCalibrationText("%YAML:1.0\r\n# camera 7\r\nN: 1\r\n\r\n"), "");

    const struct {
        std::string text, reason;
    } refused[] = {
        // OpenCV's reader never returns on this one.
        {"%YAML:1.0\n s:3\n4, -\n\n", "line 2: indentation that opens no map"},
        {"%YAML:1.0\nM: !!opencv-matrix\n   rows: 3\n  cols: 3\n",
         "line 4: indentation that opens no map"},
        {"%YAML:1.0\nM:\n  A:\n    B: 1\n", "line 3: a map nested in a map"},
        {"%YAML:1.0\nM: [ 1, 2,\n3 ]\n", "line 3: a sequence not closed"},
        {"%YAML:1.0\nM: [ 1, 2", "a sequence not closed"},
        {"%YAML:1.0\nM: [ 1,, 2 ]\n", "line 2: a sequence with an empty value"},
        {"%YAML:1.0\nM: [ 1 2 ]\n", "line 2: values without a comma between them"},
        {"%YAML:1.0\nM: [ [1] ]\n", "line 2: a sequence of other than numbers"},
        {"%YAML:1.0\nM: [ 1 ] x\n", "line 2: text after a sequence"},
        {"%YAML:1.0\n- 1\n", "line 2: a line that is no key"},
        {"%YAML:1.0\nM: !tag\n", "line 2: an unknown tag"},
        {"%YAML:1.0\nM: \"open\n", "line 2: a string not closed"},
        {"%YAML:1.0\nM: {a: 1}\n", "line 2: a value that is no number, word or string"},
        {"%YAML:1.0\nM: \t1\n", "not printable ASCII"},
        {"%YAML:1.0\nM: \xff\n", "not printable ASCII"},
        {"%YAML:1.1\nM: 1\n", "first line not %YAML:1.0"},
        {"%YAML:1.0\n" + std::string(Talvoro::frame::kMaxCalibrationText, '#'), "text too long"},
    };
    for (const auto& r : refused)
        EXPECT_EQ(checkCalibrationText(r.text), r.reason) << r.text;
}
