#include "output/html.h"

#include <zulive/zulivepage.h>

namespace zusim {

std::string escapeHtml(const std::string& text) { return ZU::zulivepage::escapeHtml(text); }

std::vector<std::string> statusPageLines(const std::vector<std::string>& roots) {
  return ZU::zulivepage::statusPageLines(roots);
}

}  // namespace zusim
