// Names on the ROS 2 side of `talvoro publish`: topic names as rmw_cyclonedds maps them onto DDS
// topics ("rt/" before the ROS name) and the frame ids of a camera.
#ifndef TALVORO_TOOL_PUBLISH_ROS_NAMES_H
#define TALVORO_TOOL_PUBLISH_ROS_NAMES_H

#include <string>

namespace talvoro_tool {

// A serial as one token of a ROS name, which allows letters, digits and single underscores and
// must not start with a digit: every other character becomes '_', runs of '_' shrink to one, a
// leading digit gets "sn" before it, and an empty serial becomes "no_serial".
// "TLV0000001" stays as it is; "LAB-1.a" becomes "LAB_1_a", "0042" becomes "sn0042".
std::string rosToken(const std::string& serial);

// The namespace given with --namespace in its canonical form, "/a/b" ("/" for the root); tokens
// as rosToken accepts them unchanged. Throws a usage error for anything else.
std::string rosNamespace(const std::string& text);

// The DDS topic of the ROS 2 topic <ns>/<token>/<suffix>: "rt/talvoro/TLV0000001/depth/image_raw".
std::string ddsTopicName(const std::string& ns, const std::string& token,
                         const std::string& suffix);

// The DDS topic of /tf_static, a global ROS topic.
constexpr const char kTfStaticTopic[] = "rt/tf_static";

// The ROS 2 name of a DDS type: "sensor_msgs::msg::dds_::Image_" is "sensor_msgs/msg/Image".
std::string rosTypeName(const std::string& ddsTypeName);

// "talvoro_<token>_<which>", the frame id of a camera's depth, color or imu frame.
std::string frameId(const std::string& token, const std::string& which);

}  // namespace talvoro_tool

#endif
