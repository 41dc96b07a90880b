// dds_subscribe: reads the ROS 2 topics of `talvoro publish` with plain Cyclone DDS (no ROS) and
// prints, once a second, each topic's rate, what its last message held (image size and encoding,
// the depth at the image centre, point count) and how long messages took from capture to here.
//
//   dds_subscribe [--domain N] [--namespace NS] [--seconds S] [--skip TEXT]
//
// --skip leaves out the topics whose name contains TEXT (for example `points`).
// Topics are found as they are announced (DDS discovery), so it can start before or after the
// publisher. At the end (after S seconds, or Ctrl-C) it prints a summary line per topic:
//   summary rt/talvoro/TLV0000001/depth/image_raw: 150 messages, 29.9 Hz, latency 6.1 ms mean ...
// Latency compares the message's stamp with this computer's clock: meaningful on the machine that
// publishes, or with synchronised clocks.
#include <dds/dds.h>
#include <signal.h>

#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "sensor_msgs.h"
#include "tf2_msgs.h"

namespace {

std::atomic<bool> stopRequested{false};

void onSignal(int) {
    stopRequested = true;
}

double nowSeconds() {
    return std::chrono::duration<double>(std::chrono::system_clock::now().time_since_epoch())
        .count();
}

double secondsOf(const builtin_interfaces_msg_dds__Time_& t) {
    return t.sec + t.nanosec * 1e-9;
}

// What one message shows; `stamp` 0 when it has none.
struct Sample {
    double stamp = 0;
    std::string text;
};

Sample describeImage(const void* data) {
    const auto* m = static_cast<const sensor_msgs_msg_dds__Image_*>(data);
    Sample s{secondsOf(m->header.stamp),
             std::to_string(m->width) + "x" + std::to_string(m->height) + " " + m->encoding};
    // Depth in millimetres: the value at the centre pixel.
    const std::size_t centre = std::size_t(m->height / 2) * m->step + (m->width / 2) * 2;
    if (std::strcmp(m->encoding, "16UC1") == 0 && centre + 1 < m->data._length) {
        const uint8_t* p = m->data._buffer + centre;
        s.text += ", centre " + std::to_string(p[0] | p[1] << 8) + " mm";
    }
    return s;
}

Sample describeCameraInfo(const void* data) {
    const auto* m = static_cast<const sensor_msgs_msg_dds__CameraInfo_*>(data);
    char text[96];
    std::snprintf(text, sizeof text, "%ux%u fx %.1f", m->width, m->height, m->k[0]);
    return {secondsOf(m->header.stamp), text};
}

Sample describeCloud(const void* data) {
    const auto* m = static_cast<const sensor_msgs_msg_dds__PointCloud2_*>(data);
    return {secondsOf(m->header.stamp), std::to_string(m->width * m->height) + " points, " +
                                            std::to_string(m->fields._length) + " fields"};
}

Sample describeImu(const void* data) {
    const auto* m = static_cast<const sensor_msgs_msg_dds__Imu_*>(data);
    char text[96];
    std::snprintf(text, sizeof text, "acceleration %.2f %.2f %.2f m/s2", m->linear_acceleration.x,
                  m->linear_acceleration.y, m->linear_acceleration.z);
    return {secondsOf(m->header.stamp), text};
}

Sample describeTransforms(const void* data) {
    const auto* m = static_cast<const tf2_msgs_msg_dds__TFMessage_*>(data);
    return {0, std::to_string(m->transforms._length) + " transforms"};
}

struct Kind {
    const dds_topic_descriptor_t* type;
    Sample (*describe)(const void*);
};

const Kind* kindOf(const char* typeName) {
    static const Kind kinds[] = {
        {&sensor_msgs_msg_dds__Image__desc, describeImage},
        {&sensor_msgs_msg_dds__CameraInfo__desc, describeCameraInfo},
        {&sensor_msgs_msg_dds__PointCloud2__desc, describeCloud},
        {&sensor_msgs_msg_dds__Imu__desc, describeImu},
        {&tf2_msgs_msg_dds__TFMessage__desc, describeTransforms},
    };
    for (const Kind& k : kinds)
        if (std::strcmp(k.type->m_typename, typeName) == 0) return &k;
    return nullptr;
}

struct TopicStats {
    std::string name;
    const Kind* kind;
    dds_entity_t reader;
    uint64_t total = 0, inSecond = 0;
    double first = 0, last = 0;
    double latencySum = 0, latencyMax = 0, latencySecond = 0;
    std::string lastText = "nothing yet";
};

int usage() {
    std::fprintf(
        stderr, "usage: dds_subscribe [--domain N] [--namespace NS] [--seconds S] [--skip TEXT]\n");
    return 2;
}

}  // namespace

int main(int argc, char** argv) {
    const char* rosDomain = std::getenv("ROS_DOMAIN_ID");
    int domain = rosDomain && *rosDomain ? std::atoi(rosDomain) : 0;
    std::string ns = "/talvoro";
    std::string skip;
    double seconds = 0;
    for (int i = 1; i < argc; ++i) {
        const std::string arg = argv[i];
        if (i + 1 >= argc) return usage();
        if (arg == "--domain")
            domain = std::atoi(argv[++i]);
        else if (arg == "--namespace")
            ns = argv[++i];
        else if (arg == "--seconds")
            seconds = std::atof(argv[++i]);
        else if (arg == "--skip")
            skip = argv[++i];
        else
            return usage();
    }
    if (ns.empty() || ns[0] != '/') ns = "/" + ns;
    if (ns.size() > 1 && ns.back() == '/') ns.pop_back();
    const std::string prefix = "rt" + (ns == "/" ? std::string() : ns) + "/";
    signal(SIGINT, onSignal);
    signal(SIGTERM, onSignal);

    const dds_entity_t participant = dds_create_participant(domain, nullptr, nullptr);
    if (participant < 0) {
        std::fprintf(stderr, "dds_subscribe: cannot join domain %d: %s\n", domain,
                     dds_strretcode(-participant));
        return 1;
    }
    const dds_entity_t waitset = dds_create_waitset(participant);
    // Announced writers: each topic of the publisher shows up here with its type name.
    const dds_entity_t publications =
        dds_create_reader(participant, DDS_BUILTIN_TOPIC_DCPSPUBLICATION, nullptr, nullptr);
    dds_waitset_attach(waitset, dds_create_readcondition(publications, DDS_ANY_STATE), -1);

    // The QoS the publisher offers: ROS 2's sensor data, and tf_static's transient local.
    dds_qos_t* sensorQos = dds_create_qos();
    dds_qset_reliability(sensorQos, DDS_RELIABILITY_BEST_EFFORT, 0);
    dds_qset_history(sensorQos, DDS_HISTORY_KEEP_LAST, 5);
    dds_qos_t* staticQos = dds_create_qos();
    dds_qset_reliability(staticQos, DDS_RELIABILITY_RELIABLE, DDS_SECS(1));
    dds_qset_durability(staticQos, DDS_DURABILITY_TRANSIENT_LOCAL);
    dds_qset_history(staticQos, DDS_HISTORY_KEEP_LAST, 1);

    std::vector<std::unique_ptr<TopicStats>> topics;
    std::map<std::string, bool> known;
    const double start = nowSeconds();
    double nextReport = start + 1;
    while (!stopRequested && (seconds <= 0 || nowSeconds() - start < seconds)) {
        dds_attach_t triggered[64];
        const dds_return_t n = dds_waitset_wait(waitset, triggered, 64, DDS_MSECS(100));
        for (dds_return_t i = 0; i < n && i < 64; ++i) {
            if (triggered[i] == -1) {
                void* samples[16] = {};
                dds_sample_info_t infos[16];
                const dds_return_t got = dds_take(publications, samples, infos, 16, 16);
                for (dds_return_t k = 0; k < got; ++k) {
                    const auto* p = static_cast<const dds_builtintopic_endpoint_t*>(samples[k]);
                    if (!infos[k].valid_data || known[p->topic_name]) continue;
                    const std::string name = p->topic_name;
                    const bool tf = name == "rt/tf_static";
                    const Kind* kind = kindOf(p->type_name);
                    if (!kind || (!tf && name.rfind(prefix, 0) != 0)) continue;
                    if (!skip.empty() && name.find(skip) != std::string::npos) continue;
                    known[name] = true;
                    auto t = std::make_unique<TopicStats>();
                    t->name = name;
                    t->kind = kind;
                    const dds_entity_t topic =
                        dds_create_topic(participant, kind->type, name.c_str(), nullptr, nullptr);
                    t->reader =
                        dds_create_reader(participant, topic, tf ? staticQos : sensorQos, nullptr);
                    dds_waitset_attach(waitset, dds_create_readcondition(t->reader, DDS_ANY_STATE),
                                       static_cast<dds_attach_t>(topics.size()));
                    topics.push_back(std::move(t));
                }
                if (got > 0) dds_return_loan(publications, samples, got);
                continue;
            }
            TopicStats& t = *topics[static_cast<std::size_t>(triggered[i])];
            void* samples[8] = {};
            dds_sample_info_t infos[8];
            const dds_return_t got = dds_take(t.reader, samples, infos, 8, 8);
            const double now = nowSeconds();
            for (dds_return_t k = 0; k < got; ++k) {
                if (!infos[k].valid_data) continue;
                const Sample s = t.kind->describe(samples[k]);
                if (t.total++ == 0) t.first = now;
                t.last = now;
                ++t.inSecond;
                t.lastText = s.text;
                if (s.stamp > 0) {
                    const double latency = now - s.stamp;
                    t.latencySum += latency;
                    t.latencySecond = latency;
                    if (latency > t.latencyMax) t.latencyMax = latency;
                }
            }
            if (got > 0) dds_return_loan(t.reader, samples, got);
        }
        if (nowSeconds() >= nextReport) {
            nextReport += 1;
            for (const auto& t : topics) {
                std::printf("%s: %llu Hz, %s, latency %.1f ms\n", t->name.c_str(),
                            static_cast<unsigned long long>(t->inSecond), t->lastText.c_str(),
                            t->latencySecond * 1e3);
                t->inSecond = 0;
            }
            std::fflush(stdout);
        }
    }
    for (const auto& t : topics) {
        const double span = t->last - t->first;
        std::printf("summary %s: %llu messages, %.1f Hz, latency %.1f ms mean, %.1f ms max, %s\n",
                    t->name.c_str(), static_cast<unsigned long long>(t->total),
                    span > 0 ? (t->total - 1) / span : 0.0,
                    t->total ? t->latencySum / t->total * 1e3 : 0.0, t->latencyMax * 1e3,
                    t->lastText.c_str());
    }
    dds_delete_qos(sensorQos);
    dds_delete_qos(staticQos);
    dds_delete(participant);
    return 0;
}
