#include "Run.h"

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <iostream>
#include <vector>

#include "Recording.h"

namespace vcam {

namespace {

pid_t g_child = -1;
int g_childExited = -1;  // write end of the self-pipe that wakes the request loop

void forwardSignal(int sig) {
    if (g_child > 0) kill(g_child, sig);
}

void childExited(int) {
    const int saved = errno;
    const char byte = 1;
    if (write(g_childExited, &byte, 1) < 0) {
        // The pipe is full: the loop wakes all the same.
    }
    errno = saved;
}

bool checkRecording(CameraSpec* camera, std::string* error) {
    if (camera->replay.empty()) return true;
    rec::RecordingReader reader;
    if (!reader.open(camera->replay, error)) return false;
    if (char* real = realpath(camera->replay.c_str(), nullptr)) {
        camera->replay = real;
        std::free(real);
    }
    return true;
}

}  // namespace

bool checkRecordings(Scenario* scenario, std::string* error) {
    for (auto& camera : scenario->cameras)
        if (!checkRecording(&camera, error)) return false;
    return true;
}

Run::~Run() {
    if (listenFd_ >= 0) close(listenFd_);
}

bool Run::prepare(std::string* error) {
    if (!testbed_.build(scenario_, error)) return false;
    for (const auto& camera : scenario_.cameras)
        if (camera.plugged) pluggedBefore_.insert(camera.serial);
    stateDir_ = testbed_.root() + "/talvoro-vcam";
    mkdir(stateDir_.c_str(), 0755);
    if (!counter_.map(stateDir_, true)) {
        *error = "cannot create the plug counter in " + stateDir_;
        return false;
    }
    listenFd_ = run::listenForRequests(stateDir_, error);
    return listenFd_ >= 0 && publish(error);
}

bool Run::publish(std::string* error) {
    const std::string path = run::scenarioPath(stateDir_);
    const std::string next = path + ".next";
    {
        std::ofstream out(next, std::ios::trunc);
        out << scenario_.serialize();
        if (!out) {
            *error = "cannot write " + next;
            return false;
        }
    }
    // Readers see the old scenario or the new one, never half of one.
    if (rename(next.c_str(), path.c_str()) != 0) {
        *error = "cannot write " + path;
        return false;
    }
    counter_.advance();
    return true;
}

std::string Run::handle(const std::string& request) {
    // Lines: the verb, the serial and, for a plug, the options (possibly empty).
    std::vector<std::string> words;
    for (std::size_t start = 0;;) {
        const std::size_t end = request.find('\n', start);
        words.push_back(request.substr(start, end - start));
        if (end == std::string::npos) break;
        start = end + 1;
    }
    if (words.size() == 3 && words[0] == "plug") return plug(words[1], words[2]);
    if (words.size() == 2 && words[0] == "unplug") return unplug(words[1]);
    return "unknown request";
}

std::string Run::plug(const std::string& serial, const std::string& options) {
    std::string error;
    CameraSpec* camera = scenario_.camera(serial);
    if (camera) {
        if (camera->plugged) return serial + " is plugged in already";
        if (!options.empty()) return serial + " is known: plug it back without options";
        if (pluggedBefore_.count(serial)) {
            if (!scenario_.renumber(static_cast<std::size_t>(camera - scenario_.cameras.data()),
                                    &error))
                return error;
            ++camera->replugs;
        }
    } else {
        Scenario next = scenario_;
        if (!next.addCameraFromOptions("serial=" + serial + (options.empty() ? "" : "," + options),
                                       &error) ||
            !next.resolve(&error) || !checkRecording(&next.cameras.back(), &error))
            return error;
        scenario_ = std::move(next);
        camera = &scenario_.cameras.back();
    }
    camera->plugged = true;
    pluggedBefore_.insert(serial);
    // The run's processes know the camera's nodes before udev announces it.
    if (!publish(&error) || !testbed_.plug(*camera, &error)) return error;
    return "ok";
}

std::string Run::unplug(const std::string& serial) {
    CameraSpec* camera = scenario_.camera(serial);
    if (!camera) return "no camera " + serial;
    if (!camera->plugged) return serial + " is not plugged in";
    // Gone from udev's lists and /dev before any process sees its descriptors fail, and from
    // both before the "remove" uevents arrive.
    testbed_.withdraw(*camera);
    camera->plugged = false;
    std::string error;
    const bool published = publish(&error);
    testbed_.remove(*camera);
    return published ? "ok" : error;
}

int Run::execute(char** argv, const std::string& preload) {
    int wake[2];
    if (pipe2(wake, O_CLOEXEC | O_NONBLOCK) != 0) {
        std::cerr << "talvoro-vcam: pipe: " << std::strerror(errno) << "\n";
        return 127;
    }
    g_childExited = wake[1];
    signal(SIGCHLD, childExited);

    g_child = fork();
    if (g_child < 0) {
        std::cerr << "talvoro-vcam: fork: " << std::strerror(errno) << "\n";
        return 127;
    }
    if (g_child == 0) {
        signal(SIGCHLD, SIG_DFL);
        setenv("LD_PRELOAD", preload.c_str(), 1);
        setenv("TALVORO_VCAM_SCENARIO", run::scenarioPath(stateDir_).c_str(), 1);
        execvp(argv[0], argv);
        std::cerr << "talvoro-vcam: cannot run " << argv[0] << ": " << std::strerror(errno) << "\n";
        _exit(127);
    }
    for (int sig : {SIGINT, SIGTERM, SIGHUP, SIGQUIT})
        signal(sig, forwardSignal);

    int status = 0;
    for (;;) {
        const pid_t done = waitpid(g_child, &status, WNOHANG);
        if (done == g_child || (done < 0 && errno != EINTR)) break;
        pollfd fds[2] = {{listenFd_, POLLIN, 0}, {wake[0], POLLIN, 0}};
        if (poll(fds, 2, -1) < 0) continue;  // a forwarded signal
        char drain[64];
        while (read(wake[0], drain, sizeof drain) > 0) {
        }
        if (fds[0].revents & POLLIN) {
            std::string message;
            const int connection = run::acceptRequest(listenFd_, &message);
            if (connection >= 0) run::answerRequest(connection, handle(message));
        }
    }
    if (WIFEXITED(status)) return WEXITSTATUS(status);
    if (WIFSIGNALED(status)) return 128 + WTERMSIG(status);
    return 1;
}

}  // namespace vcam
