#pragma once

#include <boost/shared_ptr.hpp>
#include <gtest/gtest.h>

#include <zuresource/zuresource.h>

namespace zutest {

/// Whether `resource` still serves a new owner as before: a fresh owner
/// ("probe", module "Probe") acquires it with timeout 0, holds it (for a state
/// resource, which must be activated: stands among its holders), releases it,
/// and then holds nothing of it (a plain resource or a group is free again).
/// Used after bad input to show that nothing was lost or corrupted.
::testing::AssertionResult stillWorks(const boost::shared_ptr<ZU::ZUResource>& resource);

}  // namespace zutest
