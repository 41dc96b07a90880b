// The Cyclone DDS side of `talvoro publish`: an owned participant, the QoS profiles ROS 2 uses,
// and a writer that tells whether anybody reads it.
#ifndef TALVORO_TOOL_PUBLISH_DDS_H
#define TALVORO_TOOL_PUBLISH_DDS_H

#include <dds/dds.h>

#include <memory>
#include <string>

namespace talvoro_tool {

// Throws ToolError("<what>: <Cyclone's text>") for a negative return code; returns `code`.
dds_return_t checkDds(dds_return_t code, const std::string& what);

// A DDS entity deleted on destruction together with everything created under it.
class DdsEntity {
  public:
    DdsEntity() = default;
    explicit DdsEntity(dds_entity_t entity) : entity_(entity) {}
    ~DdsEntity() { reset(); }
    DdsEntity(DdsEntity&& other) noexcept : entity_(other.release()) {}
    DdsEntity& operator=(DdsEntity&& other) noexcept;
    DdsEntity(const DdsEntity&) = delete;
    DdsEntity& operator=(const DdsEntity&) = delete;

    dds_entity_t get() const { return entity_; }
    dds_entity_t release();
    void reset();

  private:
    dds_entity_t entity_ = 0;
};

struct QosDeleter {
    void operator()(dds_qos_t* qos) const { dds_delete_qos(qos); }
};
using Qos = std::unique_ptr<dds_qos_t, QosDeleter>;

// ROS 2's sensor-data profile (rmw_qos_profile_sensor_data): best effort, keep the last 5,
// volatile. A reader asking for reliability does not match it; images are not worth resending.
Qos sensorDataQos();
// What tf2's static broadcaster uses: reliable, transient local, keep the last 1, so that a
// listener starting later still receives the transforms.
Qos staticTransformQos();

// A writer of one topic of the participant, in plain CDR (XCDR1) as rmw_cyclonedds writes.
class Writer {
  public:
    Writer(dds_entity_t participant, const dds_topic_descriptor_t* type, const std::string& topic,
           const dds_qos_t* qos);

    // Whether a reader is matched now: a message nobody reads is not worth building.
    bool watched() const;
    // false when the writer refused the sample.
    bool write(const void* message) const;

    const std::string& topic() const { return topic_; }
    const char* typeName() const { return typeName_; }

  private:
    std::string topic_;
    const char* typeName_;
    // Both deleted with the participant.
    dds_entity_t topicEntity_;
    dds_entity_t writer_;
};

}  // namespace talvoro_tool

#endif
