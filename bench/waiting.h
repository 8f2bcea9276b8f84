#pragma once

#include <vector>

namespace zubench {

/// Handover latencies in milliseconds: from a holder's release to the return
/// of the waitFor that was waiting for it, one plain resource, `handovers`
/// times in a row, the release spread evenly over the polling period.
std::vector<double> measureHandovers(int handovers);

/// Process CPU time, in milliseconds, spent while `threads` requesters wait
/// for `seconds` on one plain resource that a strong owner holds.
double measureWaitingCpu(int threads, int seconds);

}  // namespace zubench
