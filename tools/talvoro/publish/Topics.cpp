#include "Topics.h"

#include <chrono>

#include "RosNames.h"

namespace talvoro_tool {

void Topic::publish(const void* message) {
    built_.fetch_add(1);
    if (writer_.write(message)) sent_.fetch_add(1);
}

StaticTransforms::StaticTransforms(dds_entity_t participant)
    : writer_(participant, &tf2_msgs_msg_dds__TFMessage__desc, kTfStaticTopic,
              staticTransformQos().get()) {}

void StaticTransforms::set(const std::string& parent, const std::string& child,
                           const ros::Pose& pose) {
    std::lock_guard<std::mutex> lock(mutex_);
    bool replaced = false;
    for (Entry& e : entries_)
        if (e.parent == parent && e.child == child) e.pose = pose, replaced = true;
    if (!replaced) entries_.push_back({parent, child, pose});

    const uint64_t now =
        static_cast<uint64_t>(std::chrono::duration_cast<std::chrono::nanoseconds>(
                                  std::chrono::system_clock::now().time_since_epoch())
                                  .count());
    std::vector<geometry_msgs_msg_dds__TransformStamped_> transforms(entries_.size());
    for (std::size_t i = 0; i < entries_.size(); ++i) {
        const Entry& e = entries_[i];
        geometry_msgs_msg_dds__TransformStamped_& t = transforms[i];
        ros::setHeader(&t.header, now, e.parent);
        t.child_frame_id = const_cast<char*>(e.child.c_str());
        t.transform.translation = {e.pose.translation[0], e.pose.translation[1],
                                   e.pose.translation[2]};
        t.transform.rotation = {e.pose.rotation[0], e.pose.rotation[1], e.pose.rotation[2],
                                e.pose.rotation[3]};
    }
    tf2_msgs_msg_dds__TFMessage_ message{};
    message.transforms._maximum = message.transforms._length =
        static_cast<uint32_t>(transforms.size());
    message.transforms._buffer = transforms.data();
    message.transforms._release = false;
    writer_.write(&message);
}

}  // namespace talvoro_tool
