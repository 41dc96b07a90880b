// Feeds arbitrary text to the scenario parser, as `talvoro-vcam run --scenario FILE` reads it
// (the first line also as the options of --camera and --node): a scenario that resolves comes
// out of serialize() as a file that parses and resolves to the same scenario, which is how the
// launcher hands it to every process of the run.
#include <cstdint>
#include <cstdlib>
#include <string>

#include "Scenario.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, std::size_t size) {
    const std::string text(reinterpret_cast<const char*>(data), size);
    std::string error;
    vcam::Scenario options;
    const std::string line = text.substr(0, text.find('\n'));
    if (!options.addCameraFromOptions(line, &error) && error.empty()) std::abort();
    if (!options.addNodeFromOptions(line, &error) && error.empty()) std::abort();
    vcam::FaultSpec fault;
    if (!vcam::parseFault(line, &fault, &error) && error.empty()) std::abort();

    vcam::Scenario scenario;
    if (!scenario.parse(text, &error) || !scenario.resolve(&error)) {
        if (error.empty()) std::abort();  // a refusal says why
        return 0;
    }
    const std::string first = scenario.serialize();
    vcam::Scenario again;
    if (!again.parse(first, &error) || !again.resolve(&error) || again.serialize() != first)
        std::abort();
    return 0;
}
