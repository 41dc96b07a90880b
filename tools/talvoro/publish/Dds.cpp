#include "Dds.h"

#include "Cli.h"

namespace talvoro_tool {

dds_return_t checkDds(dds_return_t code, const std::string& what) {
    if (code < 0) throw ToolError(what + ": " + dds_strretcode(-code));
    return code;
}

DdsEntity& DdsEntity::operator=(DdsEntity&& other) noexcept {
    if (this != &other) {
        reset();
        entity_ = other.release();
    }
    return *this;
}

dds_entity_t DdsEntity::release() {
    const dds_entity_t entity = entity_;
    entity_ = 0;
    return entity;
}

void DdsEntity::reset() {
    if (entity_ > 0) dds_delete(entity_);
    entity_ = 0;
}

namespace {

Qos newQos() {
    Qos qos(dds_create_qos());
    if (!qos) throw ToolError("out of memory for a DDS QoS");
    // ROS 2 readers expect plain CDR.
    const dds_data_representation_id_t xcdr1 = DDS_DATA_REPRESENTATION_XCDR1;
    dds_qset_data_representation(qos.get(), 1, &xcdr1);
    return qos;
}

}  // namespace

Qos sensorDataQos() {
    Qos qos = newQos();
    dds_qset_reliability(qos.get(), DDS_RELIABILITY_BEST_EFFORT, 0);
    dds_qset_history(qos.get(), DDS_HISTORY_KEEP_LAST, 5);
    dds_qset_durability(qos.get(), DDS_DURABILITY_VOLATILE);
    return qos;
}

Qos staticTransformQos() {
    Qos qos = newQos();
    dds_qset_reliability(qos.get(), DDS_RELIABILITY_RELIABLE, DDS_MSECS(100));
    dds_qset_history(qos.get(), DDS_HISTORY_KEEP_LAST, 1);
    dds_qset_durability(qos.get(), DDS_DURABILITY_TRANSIENT_LOCAL);
    return qos;
}

Writer::Writer(dds_entity_t participant, const dds_topic_descriptor_t* type,
               const std::string& topic, const dds_qos_t* qos)
    : topic_(topic), typeName_(type->m_typename) {
    topicEntity_ = checkDds(dds_create_topic(participant, type, topic.c_str(), nullptr, nullptr),
                            "cannot create the DDS topic " + topic);
    writer_ = checkDds(dds_create_writer(participant, topicEntity_, qos, nullptr),
                       "cannot create a DDS writer for " + topic);
}

bool Writer::watched() const {
    dds_publication_matched_status_t status{};
    return dds_get_publication_matched_status(writer_, &status) == DDS_RETCODE_OK &&
           status.current_count > 0;
}

bool Writer::write(const void* message) const {
    return dds_write(writer_, message) == DDS_RETCODE_OK;
}

}  // namespace talvoro_tool
