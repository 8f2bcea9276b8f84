#pragma once

namespace ZU {

/// Opaque handle that the host gives with each strong owner. The library only
/// keeps it alive; the host may derive from it to carry its own data.
class ZUHierarchyOwner {
 public:
  virtual ~ZUHierarchyOwner() = default;
};

}  // namespace ZU
