#pragma once

// The report and the live page escape names and split the status page as
// the library's live pages do.

#include <zulive/zulivepage.h>

namespace zusim {

using ZU::zulivepage::escapeHtml;
using ZU::zulivepage::statusPageLines;

}  // namespace zusim
