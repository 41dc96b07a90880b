// The topics `talvoro publish` writes: one camera topic with its counts, and /tf_static.
#ifndef TALVORO_TOOL_PUBLISH_TOPICS_H
#define TALVORO_TOOL_PUBLISH_TOPICS_H

#include <atomic>
#include <cstdint>
#include <mutex>
#include <string>
#include <vector>

#include "Dds.h"
#include "Messages.h"

namespace talvoro_tool {

// A sensor-data topic and what went through it.
class Topic {
  public:
    Topic(dds_entity_t participant, const dds_topic_descriptor_t* type, const std::string& name,
          const dds_qos_t* qos)
        : writer_(participant, type, name, qos) {}

    bool watched() const { return writer_.watched(); }
    // Counts a message built for the topic and writes it.
    void publish(const void* message);

    const std::string& name() const { return writer_.topic(); }
    const char* typeName() const { return writer_.typeName(); }
    // Messages built (work done for readers) and written.
    uint64_t built() const { return built_.load(); }
    uint64_t sent() const { return sent_.load(); }

  private:
    Writer writer_;
    std::atomic<uint64_t> built_{0};
    std::atomic<uint64_t> sent_{0};
};

// /tf_static: where each camera's colour camera sits relative to its depth camera. Every message
// carries all transforms, since a listener that joins later gets only the last one.
class StaticTransforms {
  public:
    explicit StaticTransforms(dds_entity_t participant);

    // Adds or replaces the transform from `parent` to `child` and publishes the set.
    void set(const std::string& parent, const std::string& child, const ros::Pose& pose);

  private:
    struct Entry {
        std::string parent, child;
        ros::Pose pose;
    };

    Writer writer_;
    std::mutex mutex_;
    std::vector<Entry> entries_;
};

}  // namespace talvoro_tool

#endif
