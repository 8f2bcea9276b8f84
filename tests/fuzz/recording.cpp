// The recording reader: any bytes are either refused with a ScenarioError
// naming their line, or read into a recording whose scenario the simulator
// accepts. Anything else (another exception, a crash, a sanitizer's report,
// an accepted recording that makes a refused scenario) is a finding.

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <sstream>
#include <string>

#include "replay/replay.h"
#include "scenario/scenario.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  std::istringstream in(std::string(reinterpret_cast<const char*>(data), size));
  zusim::Recording recording;
  try {
    recording = zusim::Recording::parse(in, "fuzz.jsonl");
  } catch (const zusim::ScenarioError&) {
    return 0;
  }
  try {
    zusim::parseScenario(recording.toScenario().dump(), "fuzz.jsonl (as a scenario)");
  } catch (const zusim::ScenarioError& e) {
    std::fprintf(stderr, "accepted, but its scenario is refused: %s\n", e.what());
    std::abort();
  }
  return 0;
}
