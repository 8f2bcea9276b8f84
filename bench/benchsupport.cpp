#include "benchsupport.h"

#include <boost/make_shared.hpp>

namespace zubench {

OwnerPtr makeOwner(const std::string& name) {
  return ZU::ZUResource::createOwner(0, name, name + "Module",
                                     boost::shared_ptr<ZU::ZUHierarchyOwner>());
}

const std::vector<std::string>& waitForAll() {
  static const std::vector<std::string> none;
  return none;
}

ResourceTree::ResourceTree(int leaves) {
  const int kFanOut = 10;
  for (int i = 0; i < 4; ++i) holders_.push_back(makeOwner("holder" + std::to_string(i)));

  std::vector<ResourcePtr> level;
  for (int i = 0; i < leaves; ++i) {
    ResourcePtr leaf = boost::make_shared<ZU::ZUResource>("R" + std::to_string(i), nullptr);
    if (i % 4 == 0) {
      leaf->waitFor(holders_[(i / 4) % 4], "", -1, waitForAll());
      held_.push_back(leaf);
    }
    level.push_back(leaf);
  }
  count_ = leaves;
  for (int depth = 0; level.size() > 1 || depth == 0; ++depth) {
    std::vector<ResourcePtr> groups;
    for (std::size_t i = 0; i < level.size(); i += kFanOut) {
      auto group = boost::make_shared<ZU::ZUResourceList>(
          "G" + std::to_string(depth) + "_" + std::to_string(groups.size()), nullptr);
      for (std::size_t j = i; j < level.size() && j < i + kFanOut; ++j)
        group->addResource(level[j]);
      groups.push_back(group);
    }
    count_ += static_cast<int>(groups.size());
    level.swap(groups);
  }
  root_ = boost::static_pointer_cast<ZU::ZUResourceList>(level.front());
}

ResourceTree::~ResourceTree() {
  for (std::size_t i = 0; i < held_.size(); ++i) held_[i]->release(holders_[i % 4]);
}

}  // namespace zubench
