// The texts and numbers that callers match byte for byte, as they see them.
// The one file that spells them out: everywhere else they are used by name,
// so editing one in the library fails here.
#include <functional>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include <zuhost/zubroker.h>
#include <zuhost/zulog.h>

#include <zuresource/zuownerstrong.h>
#include <zuresource/zuresourcelist.h>

#include "support/asyncrun.h"
#include "support/logcapture.h"
#include "support/recordingmodule.h"
#include "support/resourcehelpers.h"

using zutest::errorOf;
using zutest::makeGroup;
using zutest::makeOwner;
using zutest::makePlain;

namespace {

TEST(Contract, ErrorsCallersCatch) {
  struct Row {
    const char* what;
    std::function<void()> action;
    const char* module;
    const char* method;
    const char* description;
    int line;  // 0: not fixed
  };
  auto arm = makePlain("Arm");
  auto holder = makeOwner("box", "boxModule");
  ASSERT_TRUE(arm->waitFor(holder, "", 0, {}).empty());
  auto stopped = makeOwner("stopped", "m");
  stopped->freeResource();
  const Row rows[] = {
      {"a plain resource refuses a member", [&] { arm->addResource(makePlain("X")); },
       "ZUResource", "addResource", "Add resource only in resource list", 57},
      {"a plain resource refuses a deletion", [&] { arm->deleteResource("X"); }, "ZUResource",
       "deleteResource", "Delete resource only in resource list", 63},
      {"a group deletes no stranger", [&] { makeGroup("G", {})->deleteResource("Nope"); },
       "ZUResourceList", "deleteResource", "Resource not found Nope", 156},
      {"a wait past its limit", [&] { arm->waitFor(makeOwner("late", "m"), "", 0, {}); },
       "ResourceManager", "waitResource", "resource wait has timeouted on Arm", 0},
      {"a stopped requester's wait", [&] { arm->waitFor(stopped, "", -1, {}); },
       "ResourceManager", "waitResource", "box stop while waiting", 0},
  };
  for (const Row& row : rows) {
    SCOPED_TRACE(row.what);
    const auto error = errorOf(row.action);
    ASSERT_TRUE(error);
    EXPECT_EQ(error->getModule(), row.module);
    EXPECT_EQ(error->getMethod(), row.method);
    EXPECT_EQ(error->getDescription(), row.description);
    if (row.line) {
      EXPECT_EQ(error->getLine(), static_cast<unsigned>(row.line));
    }
  }
  // A wait is seen to end at most one polling period late.
  EXPECT_EQ(ZU::ZUOwnerStrong::kPollPeriodMs, 200);
}

TEST(Contract, NamesCallersRead) {
  auto broker = boost::make_shared<ZU::ZUBroker>();
  zutest::RecordingModule module(broker, "boxModule");
  auto arm = makePlain("Arm");
  const std::string free = arm->httpGet(0);
  EXPECT_EQ(arm->currentOwner.load()->name, "emptyOwner");

  auto holder = makeOwner("box", "boxModule");
  holder->setParentBroker(broker);
  ASSERT_TRUE(arm->waitFor(holder, "", 0, {}).empty());
  zutest::WaitForRun waiting(arm, makeOwner("next", "nextModule"), -1);
  // The holder's module is told after the waiter is listed: wait for both.
  ASSERT_TRUE(zutest::waitUntil([&] { return !module.calls().empty(); }));
  ASSERT_EQ(holder->copyWaiters().size(), 1u);

  EXPECT_EQ(free, "---Arm<br />");
  EXPECT_EQ(arm->httpGet(0), "---Arm -> boxModule eStrong [\"nextModule\"] 0<br />");
  EXPECT_EQ(arm->ownersGet().serializeToText(), R"(["Arm","boxModule",["nextModule"]])");
  EXPECT_EQ(module.calls(), std::vector<std::string>{"Arm"}) << "told \"__onResource__\"";
  arm->release(holder);
  EXPECT_TRUE(zutest::waitReturned(waiting.wait()));

  zutest::LogCapture log;
  boost::static_pointer_cast<ZU::ZUOwnerStrong>(holder)->notifyConflictVantor(nullptr, 0);
  ASSERT_EQ(log.records().size(), 1u);
  EXPECT_EQ(log.records()[0].category, "behavior.zuressource");
  EXPECT_EQ(log.records()[0].level, 3);
}

}  // namespace
