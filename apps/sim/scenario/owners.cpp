#include "scenario/sections.h"

#include <zuresource/zucontract.h>

namespace zusim {
namespace section {

void parseOwner(const Entry& e, Scenario& s, int robot) {
  e.allow({"name", "module"});
  OwnerEntry o;
  o.name = e.name("name", "owner");
  o.module = e.text("module");
  o.robot = robot;
  if (o.name == ZU::contract::kPlaceholderName)
    e.fail(quoteName(o.name) + " is the placeholder's name");
  if (!s.findModule(o.module)) e.fail("unknown module " + quoteName(o.module));
  if (s.findModule(o.module)->robot != robot)
    e.fail("module " + quoteName(o.module) + " belongs to another robot");
  declare(e, "owner", std::move(o), s.owners, s.ownerIndex);
}

}  // namespace section
}  // namespace zusim
