#pragma once

#include <string>

namespace zusim {

/// A stretch of time on one resource's lane: a holding, a wait or an
/// activation. `toMs` is negative while it lasts.
struct Span {
  std::string resource;
  std::string owner;  // empty for a deactivation's wait and an activation
  long fromMs = 0;
  long toMs = -1;
  std::string holder;  // waits: the owner waited on
};

}  // namespace zusim
