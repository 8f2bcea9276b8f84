// Who may do what: one table of callers and calls, against a real manager.

#include <optional>
#include <string>
#include <vector>

#include <boost/make_shared.hpp>
#include <gtest/gtest.h>

#include <zuresource/zuresourcestate.h>

#include <zumanager/zumanager.h>
#include <zumanager/zurights.h>

#include "support/logcapture.h"
#include "support/resourcehelpers.h"

namespace {

using ZU::ZUAction;
using ZU::ZUCaller;
using Code = ZU::ZUManagerError::Code;

std::vector<boost::shared_ptr<ZU::ZUResource>> robot() {
  using namespace zutest;
  return {makeGroup("Body", {makePlain("LeftArm"), makePlain("Head"), makePlain("Waist")}),
          makeGroup("Arms", {makePlain("RightArm")}),
          boost::make_shared<ZU::ZUResourceState>("Standing", nullptr)};
}

TEST(Rights, Table) {
  const ZU::ZURights rights = ZU::parseRights(R"({"resources": [], "clients": [
    {"user": "nav", "resources": ["Head", "*Arm"], "maxPriority": 5},
    {"user": "ops", "resources": ["*"], "maxPriority": 100, "operator": true},
    {"token": "s3cret", "resources": ["Arms"]}]})",
                                              "robot.json");
  struct Row {
    const char* name;
    ZUCaller caller;
    ZUAction action;
    std::string resource;
    int priority;
    std::optional<Code> refused;
  };
  const ZUCaller nav{"nav", std::nullopt};
  const std::vector<Row> rows = {
      {"unknown user", {"eve", std::nullopt}, ZUAction::Read, "", 0, Code::Unauthenticated},
      {"no identity", {}, ZUAction::Read, "", 0, Code::Unauthenticated},
      {"wrong token", {"nav", "guess"}, ZUAction::Acquire, "Head", 0, Code::Unauthenticated},
      {"outside its patterns", nav, ZUAction::Acquire, "Standing", 0, Code::PermissionDenied},
      {"a group, one member outside", nav, ZUAction::Acquire, "Body", 0, Code::PermissionDenied},
      {"priority above its ceiling", nav, ZUAction::Acquire, "Head", 6, Code::PermissionDenied},
      {"force-release, no operator", nav, ZUAction::ForceRelease, "Head", 0,
       Code::PermissionDenied},
      {"setState, no operator", nav, ZUAction::SetState, "Standing", 0, Code::PermissionDenied},
      {"within its patterns and ceiling", nav, ZUAction::Acquire, "LeftArm", 5, std::nullopt},
      {"a group whose members all match", nav, ZUAction::Release, "Arms", 0, std::nullopt},
      {"a group named in its patterns", {std::nullopt, "s3cret"}, ZUAction::Acquire, "Arms", 0,
       std::nullopt},
      {"the token decides over the user", {"ops", "s3cret"}, ZUAction::Acquire, "Head", 0,
       Code::PermissionDenied},
      {"operator", {"ops", std::nullopt}, ZUAction::ForceRelease, "Body", 0, std::nullopt},
  };
  ZU::ZUManager manager(robot());
  manager.openModule("M", nullptr);
  manager.makeOwner("M", "holder");
  ASSERT_EQ(manager.acquire({"holder", "Head", 0, {}}).kind, ZU::ZUAcquireResult::Kind::Granted);
  const std::string before = manager.statusText();
  for (const Row& row : rows) {
    SCOPED_TRACE(row.name);
    zutest::LogCapture log;
    try {
      rights.authorize(manager, row.caller, row.action, row.resource, row.priority);
      EXPECT_FALSE(row.refused) << "allowed";
      EXPECT_TRUE(log.records().empty());
    } catch (const ZU::ZUManagerError& e) {
      ASSERT_TRUE(row.refused) << e.what();
      EXPECT_EQ(e.code(), *row.refused) << e.what();
      ASSERT_EQ(log.records().size(), 1u);
      // A token is a secret: never in a message.
      EXPECT_EQ(std::string(e.what()).find("s3cret"), std::string::npos);
      EXPECT_EQ(log.records()[0].message.find("guess"), std::string::npos);
    }
    EXPECT_EQ(manager.statusText(), before);
  }
  // Nobody known: all allowed.
  ZU::parseRights(R"({"resources": []})", "robot.json")
      .authorize(manager, {}, ZUAction::SetState, "Standing", 0);
}

TEST(Rights, FileRefusals) {
  // The clients of a rights file, and how its refusal begins.
  const std::vector<std::pair<std::string, std::string>> rows = {
      {R"({"resources": ["*"]})", "f: clients[0]: give either"},
      {R"({"user": "a", "token": "t", "resources": ["*"]})", "f: clients[0]: give either"},
      {R"({"user": "a"})", "f: clients[0]: "},
      {R"({"user": "a", "resources": []})", "f: clients[0]: \"resources\" names"},
      {R"({"user": "a", "resources": ["H", ""]})", "f: clients[0]: \"resources\" has an"},
      {R"({"user": "a", "resources": ["*"], "maxPriority": 2000000})", "f: clients[0]: "},
      {R"({"token": "t", "resources": ["*"]}, {"token": "t", "resources": ["*"]})",
       "f: clients[1]: this token is given twice"},
      {R"({"user": "a", "resources": ["*"], "admin": true})",
       "f: clients[0]: unknown field \"admin\""},
      {"", "f: \"clients\" names none"},
  };
  for (const auto& row : rows) {
    const std::string file = R"({"clients": [)" + row.first + "]}";
    try {
      ZU::parseRights(file, "f");
      ADD_FAILURE() << "accepted: " << file;
    } catch (const ZU::ZUInputError& e) {
      EXPECT_EQ(std::string(e.what()).rfind(row.second, 0), 0u) << e.what();
      EXPECT_EQ(std::string(e.what()).find("\"t\""), std::string::npos) << e.what();
    }
  }
}

TEST(Rights, Patterns) {
  struct Row {
    const char* pattern;
    const char* name;
    bool matches;
  };
  const std::vector<Row> rows = {
      {"Head", "Head", true},       {"Head", "HeadX", false}, {"*Arm", "LeftArm", true},
      {"*Arm", "Arms", false},      {"A?m", "Arm", true},     {"A?m", "Am", false},
      {"*", "", true},              {"a*b*c", "aXbYc", true}, {"a*b*c", "aXbY", false},
      {"**", "anything", true},
  };
  for (const Row& row : rows)
    EXPECT_EQ(ZU::ZURights::matches(row.pattern, row.name), row.matches)
        << row.pattern << " ~ " << row.name;
  // Long names and many stars stay quick.
  EXPECT_FALSE(ZU::ZURights::matches(std::string(50, '*') + "b", std::string(100000, 'a')));
}

}  // namespace
