// talvoro publish under the virtual camera, read by this test and by the dds_subscribe example
// over loopback DDS. tools.publish: DDS-A plays a one-frame recording (every frame the same),
// DDS-B shows the synthetic room. tools.publish_unplug: DDS-U is unplugged and plugged back
// while DDS-V goes on.
#include <gtest/gtest.h>

#include <cmath>
#include <cstring>
#include <regex>
#include <sstream>

#include "DdsTestSupport.h"
#include "Messages.h"
#include "RosNames.h"
#include "TalvoroSDK.h"
#include "talvoro_vcam.h"

namespace publishtest {
namespace {

using namespace Talvoro;

uint64_t wallNs() {
    return static_cast<uint64_t>(std::chrono::duration_cast<std::chrono::nanoseconds>(
                                     std::chrono::system_clock::now().time_since_epoch())
                                     .count());
}

uint64_t stampNs(const std_msgs_msg_dds__Header_& h) {
    return uint64_t(h.stamp.sec) * 1000000000u + h.stamp.nanosec;
}

// A camera's topic; its serial with '-' as '_', which ROS names cannot carry.
std::string topic(const std::string& token, const std::string& suffix) {
    return "rt/talvoro/" + token + "/" + suffix;
}

struct TopicKind {
    const char* suffix;
    const dds_topic_descriptor_t* type;
};

// Data mode 4 without --map: every kind of topic.
const TopicKind kTopics[] = {
    {"depth/image_raw", &sensor_msgs_msg_dds__Image__desc},
    {"depth/camera_info", &sensor_msgs_msg_dds__CameraInfo__desc},
    {"ir/image_raw", &sensor_msgs_msg_dds__Image__desc},
    {"color/image_raw", &sensor_msgs_msg_dds__Image__desc},
    {"color/camera_info", &sensor_msgs_msg_dds__CameraInfo__desc},
    {"points", &sensor_msgs_msg_dds__PointCloud2__desc},
    {"imu", &sensor_msgs_msg_dds__Imu__desc},
};

std::vector<std::string> publishArgs(std::vector<std::string> args) {
    args.insert(args.begin(), {TALVORO_TOOL, "publish"});
    return args;
}

// The count in the final report's line "<what>: <n> <unit>".
long long reported(const std::string& out, const std::string& what, const std::string& unit) {
    std::smatch m;
    const std::regex line(std::regex_replace(what, std::regex(R"([.^$|()\[\]{}*+?\\])"), R"(\$&)") +
                          ": (\\d+) " + unit);
    return std::regex_search(out, m, line) ? std::stoll(m[1]) : -1;
}

// What the library itself makes of the cameras: calibration, and one depth image of DDS-A.
struct Reference {
    CalibrationParams calibration[2]{};
    std::vector<uint16_t> depthA;
};

Reference readThroughTheLibrary() {
    Reference ref;
    EXPECT_EQ(Initialize(), Ok);
    const char* serials[2] = {"DDS-A", "DDS-B"};
    for (int i = 0; i < 2; ++i) {
        uint32_t count = 0;
        EXPECT_EQ(GetDeviceCount(&count), Ok);
        std::vector<DeviceInfo> list(count);
        EXPECT_EQ(GetDeviceListInfo(count, list.data()), Ok);
        DeviceHandle h{};
        for (const DeviceInfo& info : list)
            if (std::strcmp(info.serialNo, serials[i]) == 0) {
                EXPECT_EQ(OpenDevice(info, &h), Ok);
            }
        EXPECT_EQ(SetDataMode(h, Depth_IR_RGB_VGA_Mode), Ok);
        EXPECT_EQ(GetDeviceCalibrationParams(h, &ref.calibration[i]), Ok);
        if (i == 0) {
            ToFFrame depth{};
            for (int tries = 0; tries < 100 && ref.depthA.empty(); ++tries) {
                if (GetNextFrame(h) != Ok || GetToFFrame(h, RawDepth, &depth) != Ok) continue;
                const auto* p = reinterpret_cast<const uint16_t*>(depth.frame_data);
                ref.depthA.assign(p, p + depth.width * depth.height);
            }
        }
        EXPECT_EQ(CloseDevice(h), Ok);
    }
    EXPECT_EQ(DeInitialize(), Ok);
    return ref;
}

void expectCameraInfo(const sensor_msgs_msg_dds__CameraInfo_& info, const CameraIntrinsics& in,
                      const std::string& frame) {
    EXPECT_EQ(info.header.frame_id, frame);
    EXPECT_EQ(info.width, 640u);
    EXPECT_EQ(info.height, 480u);
    EXPECT_STREQ(info.distortion_model, "plumb_bob");
    EXPECT_EQ(info.k[0], in.fx);
    EXPECT_EQ(info.k[2], in.cx);
    EXPECT_EQ(info.k[4], in.fy);
    EXPECT_EQ(info.k[5], in.cy);
    EXPECT_EQ(info.p[0], in.fx);
    ASSERT_EQ(info.d._length, 5u);
    for (int i = 0; i < 5; ++i)
        EXPECT_EQ(info.d._buffer[i], in.distortion[i]);
}

class Publish : public ::testing::Test {
  protected:
    static void SetUpTestSuite() { useLoopbackDds(); }
    void SetUp() override { ASSERT_TRUE(talvoro_vcam::present()) << "run under talvoro-vcam"; }
};

TEST_F(Publish, EveryTopicReachesRos2ReadersAndTheExample) {
    const Reference ref = readThroughTheLibrary();
    ASSERT_EQ(ref.depthA.size(), 640u * 480u);
    const int domain = 150;
    Child example({DDS_SUBSCRIBE, "--domain", std::to_string(domain)});
    const uint64_t start = wallNs();
    Child publisher(publishArgs({"--domain", std::to_string(domain), "--mode", "4"}));

    Participant dds(domain);
    ASSERT_TRUE(dds.ok());
    std::vector<std::string> names = {talvoro_tool::kTfStaticTopic};
    for (const char* token : {"DDS_A", "DDS_B"})
        for (const TopicKind& k : kTopics)
            names.push_back(topic(token, k.suffix));
    // A ROS 2 reader matches on the type name and the QoS.
    ASSERT_TRUE(dds.until([&] { return dds.publications().size() >= names.size(); }))
        << publisher.out();
    for (const std::string& name : names) {
        ASSERT_EQ(dds.publications().count(name), 1u) << name;
        const Endpoint& w = dds.publications().at(name);
        EXPECT_EQ(w.representations, std::vector<dds_data_representation_id_t>{0}) << name;
        if (name == talvoro_tool::kTfStaticTopic) {
            EXPECT_EQ(w.type, "tf2_msgs::msg::dds_::TFMessage_");
            EXPECT_EQ(w.reliability, DDS_RELIABILITY_RELIABLE);
            EXPECT_EQ(w.durability, DDS_DURABILITY_TRANSIENT_LOCAL);
            continue;
        }
        EXPECT_EQ(w.reliability, DDS_RELIABILITY_BEST_EFFORT) << name;
        EXPECT_EQ(w.durability, DDS_DURABILITY_VOLATILE) << name;
        EXPECT_EQ(w.history, DDS_HISTORY_KEEP_LAST) << name;
        EXPECT_EQ(w.depth, 5) << name;
    }
    for (const TopicKind& k : kTopics)
        EXPECT_EQ(dds.publications().at(topic("DDS_A", k.suffix)).type, k.type->m_typename);

    std::map<std::string, Reader*> readers;
    for (const char* token : {"DDS_A", "DDS_B"})
        for (const TopicKind& k : kTopics)
            readers[topic(token, k.suffix)] = dds.read(k.type, topic(token, k.suffix));
    Reader* tf = dds.read(&tf2_msgs_msg_dds__TFMessage__desc, talvoro_tool::kTfStaticTopic, true);
    ASSERT_TRUE(dds.until([&] {
        for (const auto& [name, r] : readers)
            if (r->count() == 0) return false;
        return tf->count() > 0 && tf->last<tf2_msgs_msg_dds__TFMessage_>().transforms._length == 2;
    })) << publisher.out();
    const uint64_t end = wallNs();

    for (int c = 0; c < 2; ++c) {
        const std::string serial = c == 0 ? "DDS_A" : "DDS_B";
        const std::string depthFrame = "talvoro_" + serial + "_depth";
        const std::string colourFrame = "talvoro_" + serial + "_color";
        SCOPED_TRACE(serial);
        const auto& depth =
            readers[topic(serial, "depth/image_raw")]->last<sensor_msgs_msg_dds__Image_>();
        const auto& ir =
            readers[topic(serial, "ir/image_raw")]->last<sensor_msgs_msg_dds__Image_>();
        const auto& colour =
            readers[topic(serial, "color/image_raw")]->last<sensor_msgs_msg_dds__Image_>();
        const struct {
            const sensor_msgs_msg_dds__Image_& image;
            const char* encoding;
            uint32_t step;
            std::string frame;
        } images[] = {{depth, "16UC1", 1280, depthFrame},
                      {ir, "mono16", 1280, depthFrame},
                      {colour, "rgb8", 1920, colourFrame}};
        for (const auto& i : images) {
            EXPECT_STREQ(i.image.encoding, i.encoding);
            EXPECT_EQ(i.image.width, 640u);
            EXPECT_EQ(i.image.height, 480u);
            EXPECT_EQ(i.image.step, i.step);
            EXPECT_EQ(i.image.is_bigendian, 0);
            EXPECT_EQ(i.image.data._length, i.step * 480);
            EXPECT_EQ(i.image.header.frame_id, i.frame);
            // The capture time.
            EXPECT_GE(stampNs(i.image.header), start);
            EXPECT_LE(stampNs(i.image.header), end);
        }
        if (c == 0) {
            // The replayed frame, as the library processes it.
            ASSERT_EQ(depth.data._length, ref.depthA.size() * 2);
            EXPECT_EQ(std::memcmp(depth.data._buffer, ref.depthA.data(), depth.data._length), 0);
        }
        expectCameraInfo(
            readers[topic(serial, "depth/camera_info")]->last<sensor_msgs_msg_dds__CameraInfo_>(),
            ref.calibration[c].depth, depthFrame);
        expectCameraInfo(
            readers[topic(serial, "color/camera_info")]->last<sensor_msgs_msg_dds__CameraInfo_>(),
            ref.calibration[c].rgb, colourFrame);

        // At rest: 1 g up the camera's y axis, and the gyroscope's bias.
        const auto& imu = readers[topic(serial, "imu")]->last<sensor_msgs_msg_dds__Imu_>();
        EXPECT_EQ(imu.header.frame_id, "talvoro_" + serial + "_imu");
        EXPECT_NEAR(imu.linear_acceleration.x, -0.020 * 9.80665, 0.01);
        EXPECT_NEAR(imu.linear_acceleration.y, 1.000 * 9.80665, 0.01);
        EXPECT_NEAR(imu.linear_acceleration.z, 0.035 * 9.80665, 0.01);
        EXPECT_NEAR(imu.angular_velocity.x, 1.5 * M_PI / 180, 1e-3);
        EXPECT_NEAR(imu.angular_velocity.y, -0.75 * M_PI / 180, 1e-3);
        EXPECT_EQ(imu.orientation_covariance[0], -1);

        {
            const auto& cloud =
                readers[topic(serial, "points")]->last<sensor_msgs_msg_dds__PointCloud2_>();
            EXPECT_EQ(cloud.header.frame_id, depthFrame);
            ASSERT_EQ(cloud.fields._length, 4u);
            const char* names[] = {"x", "y", "z", "rgb"};
            for (uint32_t f = 0; f < 4; ++f) {
                EXPECT_STREQ(cloud.fields._buffer[f].name, names[f]);
                EXPECT_EQ(cloud.fields._buffer[f].offset, 4 * f);
                EXPECT_EQ(cloud.fields._buffer[f].datatype, 7);
                EXPECT_EQ(cloud.fields._buffer[f].count, 1u);
            }
            EXPECT_EQ(cloud.point_step, 16u);
            EXPECT_EQ(cloud.height, 1u);
            EXPECT_EQ(cloud.row_step, 16 * cloud.width);
            EXPECT_EQ(cloud.data._length, cloud.row_step);
            // Most of the room is measured; every point lies in front of the camera and within the
            // room (z forward, metres; a dark pixel's noise may bring it close).
            EXPECT_GT(cloud.width, 640u * 480 / 2);
            for (uint32_t p = 0; p < cloud.width; p += 97) {
                float z;
                std::memcpy(&z, cloud.data._buffer + p * 16 + 8, 4);
                EXPECT_GT(z, 0.0f);
                EXPECT_LT(z, 6.5f);
            }
        }
    }

    // Where the colour camera sits: 25 mm to the right of the depth camera.
    const auto& transforms = tf->last<tf2_msgs_msg_dds__TFMessage_>().transforms;
    for (uint32_t i = 0; i < transforms._length; ++i) {
        const geometry_msgs_msg_dds__TransformStamped_& t = transforms._buffer[i];
        const std::string serial = i == 0 ? "DDS_A" : "DDS_B";
        EXPECT_EQ(t.header.frame_id, "talvoro_" + serial + "_depth");
        EXPECT_EQ(std::string(t.child_frame_id), "talvoro_" + serial + "_color");
        EXPECT_NEAR(t.transform.translation.x, 0.025, 0.002);
        EXPECT_NEAR(t.transform.translation.y, 0, 0.002);
        EXPECT_NEAR(t.transform.rotation.w, 1, 1e-3);
    }

    // The example sees every topic too, and the back wall 2.4 m behind the image centre.
    auto exampleSaw = [&](const std::string& name) {
        std::istringstream lines(example.out());
        for (std::string line; std::getline(lines, line);)
            if (line.rfind(name + ": ", 0) == 0 && line.find("nothing yet") == std::string::npos)
                return true;
        return false;
    };
    EXPECT_TRUE(dds.until([&] {
        for (const auto& [name, r] : readers)
            if (!exampleSaw(name)) return false;
        return exampleSaw(talvoro_tool::kTfStaticTopic);
    })) << example.out();
    example.signal(SIGINT);
    const tooltest::ToolRun exampleRun = example.wait();
    EXPECT_EQ(exampleRun.status, 0) << exampleRun;
    EXPECT_TRUE(std::regex_search(exampleRun.out,
                                  std::regex("summary rt/talvoro/DDS_A/depth/image_raw: "
                                             "[1-9][0-9]* messages.*centre 2[34][0-9][0-9] mm")))
        << exampleRun;

    // Ctrl-C ends it as it ends every command: the report, then status 130.
    publisher.signal(SIGINT);
    const tooltest::ToolRun run = publisher.wait();
    ASSERT_EQ(run.status, 130) << run;
    for (const auto& [name, r] : readers)
        EXPECT_GE(reported(run.out, name, "built"), 1) << name << "\n" << run.out;
}

TEST_F(Publish, BuildsOnlyWhatIsReadAndKeepsOnPastAStoppedReader) {
    const int domain = 151;
    const std::string depth = topic("DDS_B", "depth/image_raw");
    {
        // Frames arrive while nobody reads: they are left unprocessed. Then a reader of the depth
        // image alone: only that topic is built.
        Child publisher(publishArgs({"DDS-B", "--domain", std::to_string(domain)}));
        Participant dds(domain);
        ASSERT_TRUE(dds.until([&] {
            return publisher.out().find("camera DDS-B: frames arriving") != std::string::npos;
        })) << publisher.out();
        Reader* reader = dds.read(&sensor_msgs_msg_dds__Image__desc, depth);
        ASSERT_TRUE(dds.until([&] { return reader->count() >= 5; })) << publisher.out();
        publisher.signal(SIGINT);
        const tooltest::ToolRun run = publisher.wait();
        ASSERT_EQ(run.status, 130) << run;
        std::smatch m;
        ASSERT_TRUE(
            std::regex_search(run.out, m, std::regex("DDS-B: (\\d+) frames, (\\d+) processed")))
            << run.out;
        EXPECT_GT(std::stoll(m[1]), std::stoll(m[2])) << run.out;
        EXPECT_GE(reported(run.out, depth, "built"), 5) << run.out;
        for (const TopicKind& k : kTopics) {
            const std::string other = topic("DDS_B", k.suffix);
            if (other == depth) continue;
            EXPECT_EQ(reported(run.out, other, "built"), 0) << run.out;
        }
    }

    // A reader that stops (SIGSTOP) holds nothing up: the others keep getting frames.
    Child stopped({DDS_SUBSCRIBE, "--domain", std::to_string(domain)});
    Child publisher(publishArgs({"DDS-B", "--domain", std::to_string(domain)}));
    Participant dds(domain);
    Reader* reader = dds.read(&sensor_msgs_msg_dds__Image__desc, depth);
    ASSERT_TRUE(dds.until([&] { return reader->count() > 0 && dds.subscribers(depth) >= 2; }))
        << publisher.out();
    stopped.signal(SIGSTOP);
    const uint64_t before = reader->count();
    EXPECT_TRUE(dds.until([&] { return reader->count() >= before + 30; })) << publisher.out();
    publisher.signal(SIGINT);
    const tooltest::ToolRun run = publisher.wait();
    EXPECT_EQ(run.status, 130) << run;
    stopped.signal(SIGCONT);
}

class PublishUnplug : public Publish {};

TEST_F(PublishUnplug, TheUnpluggedCameraGoesQuietTheOtherGoesOnAndItComesBack) {
    const int domain = 152;
    Child publisher(publishArgs({"--domain", std::to_string(domain)}));
    Participant dds(domain);
    Reader* gone = dds.read(&sensor_msgs_msg_dds__Image__desc, topic("DDS_U", "depth/image_raw"));
    Reader* stays = dds.read(&sensor_msgs_msg_dds__Image__desc, topic("DDS_V", "depth/image_raw"));
    auto said = [&](const std::string& text) {
        return publisher.out().find(text) != std::string::npos;
    };
    ASSERT_TRUE(dds.until([&] { return gone->count() > 0 && stays->count() > 0; }))
        << publisher.out();
    std::string error;
    ASSERT_TRUE(talvoro_vcam::unplug("DDS-U", &error)) << error;
    ASSERT_TRUE(dds.until([&] { return said("camera DDS-U unplugged"); })) << publisher.out();
    // Frames in flight at the unplug may still arrive; after that DDS-U is quiet.
    uint64_t mark = stays->count();
    ASSERT_TRUE(dds.until([&] { return stays->count() >= mark + 10; }));
    const uint64_t quiet = gone->count();
    mark = stays->count();
    ASSERT_TRUE(dds.until([&] { return stays->count() >= mark + 20; }));
    EXPECT_EQ(gone->count(), quiet);

    // Plugged back, it is found within a second or so and publishes on the same topics.
    ASSERT_TRUE(talvoro_vcam::plug("DDS-U", "", &error)) << error;
    EXPECT_TRUE(dds.until([&] { return said("camera DDS-U is back") && gone->count() > quiet; }))
        << publisher.out();

    publisher.signal(SIGINT);
    const tooltest::ToolRun run = publisher.wait();
    EXPECT_EQ(run.status, 130) << run;
    EXPECT_TRUE(
        std::regex_search(run.out, std::regex("DDS-U: \\d+ frames, \\d+ processed, 1 unplug\n")))
        << run.out;
}

}  // namespace
}  // namespace publishtest
