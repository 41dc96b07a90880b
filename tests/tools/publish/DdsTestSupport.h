// What the tests of `talvoro publish` share: a Cyclone DDS configuration that keeps each test
// run to itself, a program running in the background, and a DDS participant that reads topics
// and the writers and readers others announce.
#ifndef TALVORO_TESTS_TOOLS_PUBLISH_DDS_TEST_SUPPORT_H
#define TALVORO_TESTS_TOOLS_PUBLISH_DDS_TEST_SUPPORT_H

#include <dds/dds.h>
#include <fcntl.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdlib>
#include <fstream>
#include <iterator>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "common/TempDir.h"
#include "tools/ToolRunner.h"

namespace publishtest {

using Clock = std::chrono::steady_clock;
// Generous: the sanitizer builds are slow to start and to discover.
constexpr std::chrono::seconds kTimeout{60};

// Loopback only, without multicast (lo has none), and a discovery tag of this process, so that
// runs of the same test at the same time (from other checkouts) never meet. Children inherit it.
inline void useLoopbackDds() {
    const std::string config =
        "<CycloneDDS><Domain Id=\"any\"><General><Interfaces><NetworkInterface name=\"lo\"/>"
        "</Interfaces><AllowMulticast>false</AllowMulticast></General><Discovery>"
        "<ParticipantIndex>auto</ParticipantIndex><Peers><Peer address=\"127.0.0.1\"/></Peers>"
        "<Tag>talvoro-test-" +
        std::to_string(getpid()) + "</Tag></Discovery></Domain></CycloneDDS>";
    setenv("CYCLONEDDS_URI", config.c_str(), 1);
}

// A program running in the background, its output collected in files.
class Child {
  public:
    explicit Child(const std::vector<std::string>& argv) {
        // Everything the child needs is made before the fork: DDS threads may run here.
        std::vector<char*> args;
        for (const std::string& a : argv)
            args.push_back(const_cast<char*>(a.c_str()));
        args.push_back(nullptr);
        const std::string out = dir_.file("out"), err = dir_.file("err");
        pid_ = fork();
        if (pid_ == 0) {
            dup2(open(out.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644), STDOUT_FILENO);
            dup2(open(err.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644), STDERR_FILENO);
            execv(args[0], args.data());
            _exit(127);
        }
    }
    ~Child() {
        if (pid_ > 0) {
            kill(pid_, SIGKILL);
            waitpid(pid_, nullptr, 0);
        }
    }
    Child(const Child&) = delete;
    Child& operator=(const Child&) = delete;

    void signal(int sig) const { kill(pid_, sig); }
    // What it has written so far.
    std::string out() const { return read("out"); }
    // Waits for its end (with SIGKILL after the timeout).
    tooltest::ToolRun wait() {
        tooltest::ToolRun run;
        const Clock::time_point deadline = Clock::now() + kTimeout;
        int status = 0;
        while (waitpid(pid_, &status, WNOHANG) == 0) {
            if (Clock::now() > deadline) kill(pid_, SIGKILL);
            usleep(20000);
        }
        pid_ = -1;
        run.status = WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
        run.out = read("out");
        run.err = read("err");
        return run;
    }

  private:
    std::string read(const std::string& name) const {
        std::ifstream in(dir_.file(name));
        return std::string(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
    }

    talvoro_test::TempDir dir_;
    pid_t pid_ = -1;
};

// An announced writer or reader: its type and the QoS a ROS 2 peer matches against.
struct Endpoint {
    std::string type;
    dds_reliability_kind_t reliability = DDS_RELIABILITY_RELIABLE;
    dds_durability_kind_t durability = DDS_DURABILITY_VOLATILE;
    dds_history_kind_t history = DDS_HISTORY_KEEP_ALL;
    int32_t depth = 0;
    std::vector<dds_data_representation_id_t> representations;
};

// A reader keeping a copy of the last message it took.
class Reader {
  public:
    Reader(dds_entity_t participant, const dds_topic_descriptor_t* type, const std::string& topic,
           const dds_qos_t* qos)
        : type_(type), last_(dds_alloc(type->m_size)) {
        const dds_entity_t t = dds_create_topic(participant, type, topic.c_str(), nullptr, nullptr);
        reader_ = dds_create_reader(participant, t, qos, nullptr);
    }
    ~Reader() { dds_sample_free(last_, type_, DDS_FREE_ALL); }
    Reader(const Reader&) = delete;
    Reader& operator=(const Reader&) = delete;

    dds_entity_t entity() const { return reader_; }
    // Takes what has arrived; returns the count taken so far.
    uint64_t poll() {
        void* samples[1] = {last_};
        dds_sample_info_t info;
        while (dds_take(reader_, samples, &info, 1, 1) == 1)
            if (info.valid_data) ++count_;
        return count_;
    }
    uint64_t count() const { return count_; }
    template <typename T>
    const T& last() const {
        return *static_cast<const T*>(last_);
    }

  private:
    const dds_topic_descriptor_t* type_;
    void* last_;
    dds_entity_t reader_ = 0;
    uint64_t count_ = 0;
};

// A participant of the test: readers, and what the other participants announce.
class Participant {
  public:
    explicit Participant(int domain)
        : participant_(dds_create_participant(domain, nullptr, nullptr)),
          waitset_(dds_create_waitset(participant_)),
          publications_(
              dds_create_reader(participant_, DDS_BUILTIN_TOPIC_DCPSPUBLICATION, nullptr, nullptr)),
          subscriptions_(dds_create_reader(participant_, DDS_BUILTIN_TOPIC_DCPSSUBSCRIPTION,
                                           nullptr, nullptr)) {
        for (const dds_entity_t r : {publications_, subscriptions_})
            dds_waitset_attach(waitset_, dds_create_readcondition(r, DDS_ANY_STATE), 0);
    }
    ~Participant() {
        readers_.clear();
        dds_delete(participant_);
    }

    bool ok() const { return participant_ > 0; }

    // ROS 2's sensor-data QoS, or tf_static's.
    Reader* read(const dds_topic_descriptor_t* type, const std::string& topic,
                 bool staticTransforms = false) {
        dds_qos_t* qos = dds_create_qos();
        dds_qset_reliability(
            qos, staticTransforms ? DDS_RELIABILITY_RELIABLE : DDS_RELIABILITY_BEST_EFFORT,
            DDS_SECS(1));
        if (staticTransforms) dds_qset_durability(qos, DDS_DURABILITY_TRANSIENT_LOCAL);
        dds_qset_history(qos, DDS_HISTORY_KEEP_LAST, staticTransforms ? 100 : 5);
        readers_.push_back(std::make_unique<Reader>(participant_, type, topic, qos));
        dds_delete_qos(qos);
        dds_waitset_attach(waitset_,
                           dds_create_readcondition(readers_.back()->entity(), DDS_ANY_STATE), 0);
        return readers_.back().get();
    }

    // Writers announced by other participants, by topic.
    const std::map<std::string, Endpoint>& publications() const { return writers_; }
    // How many readers others announced for `topic`.
    int subscribers(const std::string& topic) const {
        const auto it = readerCount_.find(topic);
        return it == readerCount_.end() ? 0 : it->second;
    }

    // Takes what arrived until `done()` holds (true) or the timeout passes (false).
    template <typename Condition>
    bool until(Condition done, std::chrono::seconds timeout = kTimeout) {
        const Clock::time_point deadline = Clock::now() + timeout;
        while (true) {
            takeAnnouncements();
            for (const auto& r : readers_)
                r->poll();
            if (done()) return true;
            if (Clock::now() > deadline) return false;
            dds_attach_t triggered[8];
            dds_waitset_wait(waitset_, triggered, 8, DDS_MSECS(50));
        }
    }

  private:
    void takeAnnouncements() {
        for (const dds_entity_t reader : {publications_, subscriptions_}) {
            void* samples[1] = {nullptr};
            dds_sample_info_t info;
            while (dds_take(reader, samples, &info, 1, 1) == 1) {
                const auto* e = static_cast<const dds_builtintopic_endpoint_t*>(samples[0]);
                if (info.valid_data && reader == subscriptions_) ++readerCount_[e->topic_name];
                if (info.valid_data && reader == publications_) {
                    Endpoint& w = writers_[e->topic_name];
                    w.type = e->type_name;
                    dds_duration_t blocking;
                    dds_qget_reliability(e->qos, &w.reliability, &blocking);
                    dds_qget_durability(e->qos, &w.durability);
                    dds_qget_history(e->qos, &w.history, &w.depth);
                    uint32_t n = 0;
                    dds_data_representation_id_t* values = nullptr;
                    if (dds_qget_data_representation(e->qos, &n, &values)) {
                        w.representations.assign(values, values + n);
                        dds_free(values);
                    }
                }
                dds_return_loan(reader, samples, 1);
                samples[0] = nullptr;
            }
        }
    }

    dds_entity_t participant_;
    dds_entity_t waitset_;
    dds_entity_t publications_, subscriptions_;
    std::vector<std::unique_ptr<Reader>> readers_;
    std::map<std::string, Endpoint> writers_;
    std::map<std::string, int> readerCount_;
};

}  // namespace publishtest

#endif
