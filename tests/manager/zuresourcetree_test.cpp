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

// A file of one tree, read on its own: members may come after their group.
TEST(ResourceTree, ReadsATreeOnItsOwn) {
  ZUResourceTree t = parseResourceTree(R"({"resources": [
    {"name": "Body", "kind": "group", "members": ["Head", "Arms", "Left"]},
    {"name": "Arms", "kind": "group", "members": ["Left", "Right"]},
    {"name": "Head"}, {"name": "Left"}, {"name": "Right"},
    {"name": "Standing", "kind": "state", "activated": true}]})",
                                       "t.json");
  EXPECT_EQ(t.leavesOf("Body"), (std::vector<std::string>{"Head", "Left", "Right"}));
  EXPECT_EQ(t.roots(), (std::vector<std::string>{"Body", "Standing"}));
  EXPECT_TRUE(t.findResource("Standing")->activated);
  EXPECT_FALSE(t.hasFleet());
}

TEST(ResourceTree, RefusesFaultsNamingFileEntryAndWhat) {
  struct Row {
    std::string text;
    std::string message;  // its beginning
  } rows[] = {
      {"{\"resources\": [\n{\"name\": }]}", "t.json: not JSON: [json.exception.parse_error.101] parse error at line 2"},
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
  };
  for (const Row& row : rows)
    EXPECT_EQ(refusal(row.text).rfind(row.message, 0), 0u) << row.text << "\n" << refusal(row.text);
}
