#include "scenario/sections.h"

namespace zusim {
namespace section {

void parseModule(const Entry& e, Scenario& s, int robot) {
  e.allow({"name", "onResource", "delay"});
  ModuleEntry m;
  m.name = e.name("name", "module");
  m.robot = robot;
  std::string answer = e.text("onResource", "release", false);
  if (answer == "release") {
    m.releases = true;
    m.delayMs = e.time("delay", 0);
  } else if (answer == "ignore") {
    if (e.has("delay")) e.fail("a module that ignores \"__onResource__\" has no \"delay\"");
  } else {
    e.fail("\"onResource\" must be \"release\" or \"ignore\", not " + quoteName(answer));
  }
  declare(e, "module", std::move(m), s.modules, s.moduleIndex);
}

}  // namespace section
}  // namespace zusim
