#include <zumanager/zumanager.h>
#include <zumanager/zuresourcetree.h>

#include <string>
#include <vector>

#include <gtest/gtest.h>

using ZU::parseResourceTree;
using ZU::ZUResourceTree;

namespace {

std::string refusal(const std::string& text) {
  try {
    parseResourceTree(text, "t.json");
  } catch (const ZU::ZUInputError& e) {
    return e.what();
  }
  return "accepted";
}

}  // namespace

// A file of one tree, read on its own (members may come after their group),
// and the manager built from it: groups, an activated state, the policies.
TEST(ResourceTree, ReadsATreeAndTheManagerBuildsIt) {
  ZUResourceTree t = parseResourceTree(R"({"resources": [
    {"name": "Body", "kind": "group", "members": ["Head", "Arms", "Left"], "graceMs": 100},
    {"name": "Arms", "kind": "group", "members": ["Left", "Right"]},
    {"name": "Head"}, {"name": "Left", "fallback": "posture"}, {"name": "Right"},
    {"name": "Standing", "kind": "state", "activated": true}]})",
                                       "t.json");
  const std::vector<std::string> leaves = {"Head", "Left", "Right"};
  EXPECT_EQ(t.leavesOf("Body"), leaves);
  EXPECT_EQ(t.roots(), (std::vector<std::string>{"Body", "Standing"}));
  EXPECT_FALSE(t.hasFleet());
  ZU::ZUManager m(t);
  EXPECT_EQ(m.leavesOf("Body"), leaves);
  EXPECT_EQ(m.roots().size(), 2u);
  m.openModule("P", nullptr);
  m.makeOwner("P", "posture");
  EXPECT_EQ(m.acquire({"posture", "Standing", 0, {}}).kind, ZU::ZUAcquireResult::Kind::Granted);
  auto policies = ZU::ZUManager::policiesOf(t);
  EXPECT_EQ(policies.at("Body").graceMs, 100);
  EXPECT_EQ(policies.at("Left").fallback, "posture");
  EXPECT_EQ(policies.at("Left").graceMs, ZU::ZUResourcePolicy::kDefaultGraceMs);
}

TEST(ResourceTree, RefusesFaultsNamingFileEntryAndWhat) {
  struct Row {
    std::string text;
    std::string message;  // its beginning
  } rows[] = {
      {"{\"resources\": [\n{\"name\": }]}", "t.json: not JSON: [json.exception.parse_error.101] parse error at line 2"},
      {R"({"resources": [{"name": "H"}, {"na)", "t.json: not JSON: "},  // cut off
      {R"({"resources": [{"name": "H", "graceMs": 1e999}]})", "t.json: not JSON: "},
      {R"({"resources": [{"name": "H"}], "modules": []})", "t.json: tree: unknown field \"modules\""},
      {R"({"resources": []})", "t.json: tree: declares no resource"},
      {R"({"resources": [{"name": "H"}, {"name": "H"}]})",
       "t.json: resources[1]: resource \"H\" declared twice"},
      {R"({"resources": [{"name": "G", "kind": "group", "members": ["H"]}]})",
       "t.json: resources[0]: unknown resource \"H\""},
      {R"({"resources": [{"name": "G", "kind": "group", "members": ["G"]}]})",
       "t.json: resource \"G\": group cycle G -> G"},
      {R"({"resources": [{"name": "L", "kind": "fleet"}]})",
       "t.json: resources[0]: a fleet resource is shared by robots"},
      {R"({"resources": [{"name": "H", "members": []}]})",
       "t.json: resources[0]: only a group has \"members\""},
      {R"({"resources": [{"name": "H", "kind": "pla\nin"}]})",
       "t.json: resources[0]: unknown kind \"pla\\nin\""},
      {R"({"resources": [{"name": "S", "kind": "state", "fallback": "p"}]})",
       "t.json: resources[0]: a state resource is shared"},
      {R"({"resources": [{"name": "H", "graceMs": -1}]})", "t.json: resources[0]: \"graceMs\""},
      {R"({"resources": [{"name": "H", "graceMs": 3600001}]})",
       "t.json: resources[0]: \"graceMs\" must be an integer from 0 to 3600000, not 3600001"},
  };
  for (const Row& row : rows)
    EXPECT_EQ(refusal(row.text).rfind(row.message, 0), 0u) << row.text << "\n" << refusal(row.text);
}
