#pragma once

// A file refused as bad input, and the quoting its messages use.

#include <stdexcept>
#include <string>

namespace ZU {

/// A file refused before anything is done with it; the message names the
/// file, the entry ("resources[3]") and what is wrong.
class ZUInputError : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

/// `name` as messages quote it: between double quotes, with a quote, a
/// backslash and every control character escaped, so that a message stays on
/// one line and never drives the terminal.
std::string quoteName(const std::string& name);
/// `text` with its control characters escaped as quoteName() does; with
/// `quotes`, also its double quotes and backslashes.
std::string escapeControls(const std::string& text, bool quotes);

/// The text of the regular file at `path`. A folder or a device is refused
/// before it is opened: reading /dev/zero would never end. Throws
/// ZUInputError naming the path as escapeControls() writes it.
std::string readInputFile(const std::string& path);

}  // namespace ZU
