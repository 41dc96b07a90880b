// One launcher run: the testbed, the state its processes share, the command, and the requests
// to plug and unplug cameras that arrive while the command runs.
#ifndef TALVORO_VCAM_RUN_H
#define TALVORO_VCAM_RUN_H

#include <set>
#include <string>

#include "RunState.h"
#include "Scenario.h"
#include "Testbed.h"

namespace vcam {

class Run {
  public:
    explicit Run(Scenario scenario) : scenario_(std::move(scenario)) {}
    ~Run();
    Run(const Run&) = delete;
    Run& operator=(const Run&) = delete;

    // Builds the testbed and the shared state.
    bool prepare(std::string* error);
    // Runs argv[0] with `preload` in LD_PRELOAD and serves requests until it ends. Returns its
    // exit status (128 + the signal's number when a signal ended it), 127 when it cannot run.
    int execute(char** argv, const std::string& preload);

    // A request of `talvoro-vcam ctl` or of talvoro_vcam.h, as run::request() sends it. The
    // answer is "ok" or what went wrong.
    std::string handle(const std::string& request);

  private:
    std::string plug(const std::string& serial, const std::string& options);
    std::string unplug(const std::string& serial);
    // Writes the scenario where the run's processes read it and tells them so.
    bool publish(std::string* error);

    Scenario scenario_;
    Testbed testbed_;
    std::string stateDir_;
    run::PlugCounter counter_;
    int listenFd_ = -1;
    std::set<std::string> pluggedBefore_;  // serials that were plugged in at some time
};

// Checks that the recordings of replaying cameras are readable and makes their paths absolute,
// so that COMMAND finds them from any working directory.
bool checkRecordings(Scenario* scenario, std::string* error);

}  // namespace vcam

#endif
