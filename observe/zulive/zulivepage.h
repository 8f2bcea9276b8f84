#pragma once

// The parts the live pages (the simulator's and the service's) are made of,
// so that they look and read the same.

#include <ostream>
#include <string>
#include <vector>

namespace ZU {
namespace zulivepage {

/// The pages' style sheet.
extern const char kStyle[];

/// The entity that stands for & < > " or ' as text in HTML or XML; null
/// for any other character.
const char* markupEntity(unsigned long c);

/// `text` made safe to stand as text in HTML or SVG: & < > " and ' become
/// entities, so that markup in a name shows as text.
std::string escapeHtml(const std::string& text);

/// The status page as lines: each root resource's text cut at every "<br />"
/// the library ends a line with; the "<br />" itself is the line break and
/// is not kept, so that it never shows as literal markup.
std::vector<std::string> statusPageLines(const std::vector<std::string>& roots);

/// Writes a heading and a part `id` with `lines` as text, each of class
/// `lineClass`, or "none" when there are none.
void section(std::ostream& out, const char* id, const char* heading,
             const std::vector<std::string>& lines, const char* lineClass);

}  // namespace zulivepage
}  // namespace ZU
