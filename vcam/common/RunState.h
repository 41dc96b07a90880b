// What the processes of one launcher run share, in $UMOCKDEV_DIR/talvoro-vcam: the resolved
// scenario (every camera of the run and whether it is plugged in), a plug counter that the
// launcher advances at every plug and unplug, and the launcher's control socket, through which
// any process of the run asks it to plug or unplug a camera.
#ifndef TALVORO_VCAM_RUN_STATE_H
#define TALVORO_VCAM_RUN_STATE_H

#include <cstdint>
#include <string>

namespace vcam::run {

// The state directory of the run this process belongs to, or "" outside a run.
std::string stateDir();
std::string scenarioPath(const std::string& dir);
std::string controlPath(const std::string& dir);

// The plug counter: one 64-bit word in a file that every process of the run maps.
class PlugCounter {
  public:
    PlugCounter() = default;
    ~PlugCounter();
    PlugCounter(const PlugCounter&) = delete;
    PlugCounter& operator=(const PlugCounter&) = delete;

    // Maps the counter of the run in `dir`; the launcher creates it (`create`), the others
    // map it read-only.
    bool map(const std::string& dir, bool create);
    bool mapped() const { return word_ != nullptr; }
    // 0 while not mapped.
    uint64_t value() const { return word_ ? __atomic_load_n(word_, __ATOMIC_ACQUIRE) : 0; }
    // The launcher, after it has rewritten the scenario.
    void advance();

  private:
    uint64_t* word_ = nullptr;
};

// Sends one request to the launcher of this run ("plug SERIAL [K=V,...]", "unplug SERIAL") and
// waits until it is carried out. The answer is "ok" or what went wrong. False, with *answer
// saying why, when the launcher cannot be reached.
bool request(const std::string& message, std::string* answer);

// The launcher's side: its listening control socket in `dir` (non-blocking), or -1 with
// *error; one request accepted from it (the connection, or -1); the answer, which closes the
// connection.
int listenForRequests(const std::string& dir, std::string* error);
int acceptRequest(int listenFd, std::string* message);
void answerRequest(int connection, const std::string& answer);

}  // namespace vcam::run

#endif
