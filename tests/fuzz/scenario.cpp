// The scenario reader: any bytes are either a scenario, whose warnings can
// be listed, or refused with a ScenarioError; anything else (another
// exception, a crash, a sanitizer's report) is a finding.

#include "scenario/scenario.h"

#include <cstdint>
#include <string>

#include "scenario/lint.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  std::string text(reinterpret_cast<const char*>(data), size);
  try {
    zusim::Scenario scenario = zusim::parseScenario(text, "fuzz.json");
    zusim::lint(scenario);
  } catch (const zusim::ScenarioError&) {
  }
  return 0;
}
