#pragma once

// Helpers shared by the report and the live page.

#include <string>
#include <vector>

namespace zusim {

/// `text` made safe to stand as text in HTML or SVG: & < > " and ' become
/// entities, so that markup in a name shows as text.
std::string escapeHtml(const std::string& text);

/// The status page as lines: each root resource's text cut at every "<br />"
/// the library ends a line with; the "<br />" itself is the line break and
/// is not kept, so that it never shows as literal markup.
std::vector<std::string> statusPageLines(const std::vector<std::string>& roots);

}  // namespace zusim
