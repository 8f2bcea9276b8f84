// Recordings are read as untrusted input: each bad line is refused naming
// the file, the line and the field, and what is accepted makes a scenario
// the simulator accepts too.

#include <sstream>
#include <string>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "replay/replay.h"

using zusim::Recording;
using zusim::ScenarioError;

namespace {

// A small recording: a group of two plain resources and a state resource;
// owner a takes A and lets go.
const std::vector<std::string> kGood = {
    R"({"type":"start","version":1,"wallClock":"2026-11-23T20:41:15.231Z"})",
    R"({"type":"snapshot","ms":0,"resources":[{"name":"G","kind":"group","holders":[],"members":["A","B"]},{"name":"A","kind":"plain","holders":[]},{"name":"B","kind":"plain","holders":[]},{"name":"S","kind":"state","holders":[],"activated":false}],"owners":[],"waits":[],"cycles":[],"staleWaits":[]})",
    R"({"type":"event","seq":1,"ms":1.5,"thread":"7","kind":"requested","resource":"A","owner":"a","ownerModule":"M","label":"","noWaitList":[],"timeout":2})",
    R"({"type":"event","seq":2,"ms":1.6,"thread":"7","kind":"granted","resource":"A","owner":"a","ownerModule":"M","grant":"wasFree"})",
    R"({"type":"event","seq":3,"ms":50,"thread":"9","kind":"stateActivated","resource":"S"})",
    R"({"type":"event","seq":4,"ms":400,"thread":"7","kind":"released","resource":"A","owner":"a","ownerModule":"M"})",
    R"({"type":"snapshot","ms":500,"resources":[{"name":"G","kind":"group","holders":[],"members":["A","B"]},{"name":"A","kind":"plain","holders":[]},{"name":"B","kind":"plain","holders":["emptyOwner"]},{"name":"S","kind":"state","holders":[],"activated":true}],"owners":[],"waits":[],"cycles":[],"staleWaits":[]})"};

// The good recording with `line` (from 1) replaced by `text`, or `text`
// added at the end when `line` is past it.
std::string with(std::size_t line, const std::string& text) {
  std::string out;
  for (std::size_t i = 0; i < std::max(kGood.size(), line); ++i)
    if (i + 1 == line)
      out += text + "\n";
    else if (i < kGood.size())
      out += kGood[i] + "\n";
  return out;
}

// The good recording's snapshot with these resources.
std::string snapshot(const std::string& resources) {
  return R"({"type":"snapshot","ms":0,"resources":)" + resources + "}";
}

// A, B, S as in the good recording, and G at the top of `levels` groups.
std::string nested(int levels) {
  std::string resources =
      R"([{"name":"A","kind":"plain"},{"name":"B","kind":"plain"},{"name":"S","kind":"state"})";
  std::string inner = "A";
  for (int i = 1; i <= levels; ++i) {
    std::string name = i == levels ? "G" : "G" + std::to_string(i);
    resources += R"(,{"name":")" + name + R"(","kind":"group","members":[")" + inner + R"("]})";
    inner = name;
  }
  return snapshot(resources + "]");
}

std::string refusal(const std::string& text) {
  std::istringstream in(text);
  try {
    Recording r = Recording::parse(in, "rec.jsonl");
    // What is read makes a scenario the simulator takes.
    zusim::parseScenario(r.toScenario().dump(), "rec.jsonl (as a scenario)");
  } catch (const ScenarioError& e) {
    return e.what();
  }
  return "";
}

TEST(Recording, TheGoodRecordingMakesAScenario) {
  EXPECT_EQ(refusal(with(0, "")), "");
  EXPECT_EQ(refusal(with(2, nested(zusim::kMaxNesting))), "");  // groups nest as in a scenario
  EXPECT_EQ(refusal(""), "rec.jsonl: records no event");
  // Cut off in its first event: nothing to replay.
  EXPECT_EQ(refusal(kGood[0] + "\n" + kGood[1] + "\n{\"type\":\"ev"),
            "rec.jsonl: records no event before its cut at line 3");
}

struct BadLine {
  const char* what;
  std::size_t line;
  std::string text;
  const char* refusal;  // what follows "rec.jsonl: "
};

// One row per kind of fault: the fields share their readers, and the fuzz
// target finds a field read without one.
TEST(Recording, BadLinesAreRefusedByLineAndField) {
  const std::string event = R"({"type":"event","seq":3,"thread":"7","ownerModule":"M",)";
  const std::string plain = R"({"name":"A","kind":"plain","holders":[]})";
  const BadLine rows[] = {
      {"not an object", 3, "[1, 2]", "line 3: not a JSON object"},
      {"not JSON, before the last line", 3, "{\"type\":", "line 3: not JSON"},
      {"no type", 3, "{}", "line 3: \"type\": missing"},
      {"unknown type", 3, R"({"type":"evnt"})", "line 3: \"type\": unknown line type \"evnt\""},
      {"holders a string", 2, snapshot(R"([{"name":"A","kind":"plain","holders":"a"}])"),
       "line 2: \"resources\\[0\\].holders\": must be a list of names, not string"},
      {"a holder a number", 2, snapshot(R"([{"name":"A","kind":"plain","holders":[5]}])"),
       "line 2: \"resources\\[0\\].holders\": must be a list of names, not of numbers"},
      {"activated a string", 2,
       snapshot(R"([{"name":"S","kind":"state","holders":[],"activated":"yes"}])"),
       "line 2: \"resources\\[0\\].activated\": must be true or false, not string"},
      {"resources an object", 2, snapshot(R"({"A":1})"),
       "line 2: \"resources\": must be a list, not object"},
      {"a group in itself", 2, snapshot(R"([{"name":"G","kind":"group","members":["G"]}])"),
       "line 2: \"resources\": group \"G\" contains itself"},
      {"a cycle of groups", 2,
       snapshot(
           R"([{"name":"G","kind":"group","members":["H"]},{"name":"H","kind":"group","members":["A","G"]},)" +
           plain + "]"),
       "line 2: \"resources\": group \"[GH]\" contains itself"},
      {"groups nested too deep", 2, nested(zusim::kMaxNesting + 1),
       "line 2: \"resources\": groups nest deeper than 32 levels"},
      {"an unknown member", 2, snapshot(R"([{"name":"G","kind":"group","members":["X"]}])"),
       "line 2: \"resources\": group \"G\" has the unknown member \"X\""},
      {"a resource listed twice", 2, snapshot("[" + plain + "," + plain + "]"),
       "line 2: \"resources\\[1\\]\": \"A\" listed twice"},
      {"timeout 2^31", 3,
       event + R"("ms":2,"kind":"requested","resource":"A","owner":"a","timeout":2147483648})",
       "line 3: \"timeout\": must be a whole number of seconds up to 3600 \\(negative: no "
       "limit\\), not 2147483648"},
      {"timeout 2^64-1", 3,
       event +
           R"("ms":2,"kind":"requested","resource":"A","owner":"a","timeout":18446744073709551615})",
       "line 3: \"timeout\": .* not 18446744073709551615"},
      {"timeout a string", 3,
       event + R"("ms":2,"kind":"requested","resource":"A","owner":"a","timeout":"2"})",
       "line 3: \"timeout\": .* not \"2\""},
      {"timeout a fraction", 3,
       event + R"("ms":2,"kind":"requested","resource":"A","owner":"a","timeout":1.5})",
       "line 3: \"timeout\": .* not 1.5"},
      {"a time of 1e308", 3, event + R"("ms":1e308,"kind":"requested","resource":"A","owner":"a"})",
       "line 3: \"ms\": must be from 0 to 3599000 .*, not 1e\\+308"},
      {"a time a string", 3, event + R"("ms":"2","kind":"requested","resource":"A","owner":"a"})",
       "line 3: \"ms\": must be a number, not string"},
      {"no time", 3, event + R"("kind":"requested","resource":"A","owner":"a"})",
       "line 3: \"ms\": missing"},
      {"a negative time", 3, event + R"("ms":-1,"kind":"requested","resource":"A","owner":"a"})",
       "line 3: \"ms\": must be from 0"},
      {"longer than an hour", 8,
       event + R"("ms":3600000,"kind":"released","resource":"A","owner":"a"})",
       "line 8: \"ms\": must be from 0 to 3599000 \\(the simulator replays up to an hour\\)"},
      {"times going back", 8, event + R"("ms":1,"kind":"released","resource":"A","owner":"a"})",
       "line 8: \"ms\": goes back to 1 after 400 ms \\(line 6\\)"},
      {"an unknown kind", 3, event + R"("ms":2,"kind":"grabbed","resource":"A","owner":"a"})",
       "line 3: \"kind\": unknown kind \"grabbed\""},
      {"an empty resource name", 3,
       event + R"("ms":2,"kind":"requested","resource":"","owner":"a"})",
       "line 3: \"resource\": empty resource name"},
      {"an owner a number", 3, event + R"("ms":2,"kind":"requested","resource":"A","owner":5})",
       "line 3: \"owner\": must be a string, not number"},
      {"no owner", 3, event + R"("ms":2,"kind":"requested","resource":"A"})",
       "line 3: \"owner\": empty owner name"},
      {"the placeholder as owner", 3,
       event + R"("ms":2,"kind":"requested","resource":"A","owner":"emptyOwner"})",
       "line 3: \"owner\": \"emptyOwner\" is the placeholder's name"},
      {"an owner changing module", 8,
       R"({"type":"event","ms":495,"thread":"7","kind":"requested","resource":"B","owner":"a","ownerModule":"N"})",
       "line 8: \"ownerModule\": \"a\" is of module \"M\" \\(line 3\\), not \"N\""},
      {"an unknown grant", 4,
       event + R"("ms":2,"kind":"granted","resource":"A","owner":"a","grant":"stolen"})",
       "line 4: \"grant\": unknown grant \"stolen\""},
      {"a plain resource switched on", 5,
       R"({"type":"event","ms":50,"thread":"9","kind":"stateActivated","resource":"A"})",
       "line 5: \"resource\": \"A\" changes state, but the snapshot \\(line 2\\) has it plain"},
      {"a final holder never seen", 7, snapshot(R"([{"name":"A","kind":"plain","holders":["z"]}])"),
       "line 7: \"holders\": \"z\" of \"A\" is in no event"},
  };
  for (const BadLine& row : rows)
    EXPECT_THAT(refusal(with(row.line, row.text)),
                testing::MatchesRegex(std::string("rec\\.jsonl: ") + row.refusal + ".*"))
        << row.what;
}

}  // namespace
