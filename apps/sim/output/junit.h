#pragma once

// Results as JUnit XML, for the test reports of CI servers.

#include <string>
#include <vector>

#include "run/expectations.h"

namespace zusim {

/// One scenario's results: a test suite.
struct SuiteResult {
  std::string file;   // the scenario file, the suite's name
  std::string title;  // the scenario's title
  std::vector<ExpectResult> results;
  std::string refused;  // why the scenario was refused before it ran, if it was
  double seconds = 0;
};

/// A <testsuites> document: a suite per scenario, a test case per
/// expectation named by its entry and what it expects (the same whether it
/// held or not, so that CI servers can follow it from run to run), a failure
/// with what was found, and for a refused scenario one case with an error.
std::string renderJUnit(const std::vector<SuiteResult>& suites);

}  // namespace zusim
