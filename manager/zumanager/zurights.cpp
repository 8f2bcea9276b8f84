#include "zumanager/zurights.h"

#include <zuhost/zulog.h>

#include "zumanager/zujsonreader.h"

namespace ZU {

bool ZURights::matches(const std::string& pattern, const std::string& name) {
  // Greedy with one point to come back to: linear in practice, never
  // exponential, no recursion.
  std::size_t p = 0, n = 0, star = std::string::npos, mark = 0;
  while (n < name.size()) {
    if (p < pattern.size() && (pattern[p] == '?' || pattern[p] == name[n])) {
      ++p;
      ++n;
    } else if (p < pattern.size() && pattern[p] == '*') {
      star = p++;
      mark = n;
    } else if (star != std::string::npos) {
      p = star + 1;
      n = ++mark;
    } else {
      return false;
    }
  }
  while (p < pattern.size() && pattern[p] == '*') ++p;
  return p == pattern.size();
}

const ZURight* ZURights::rightOf(const ZUCaller& caller) const {
  if (!restricted()) return nullptr;
  // A token is never quoted back: it is a secret.
  if (caller.token) {
    auto it = tokens_.find(*caller.token);
    if (it == tokens_.end())
      throw ZUManagerError(ZUManagerError::Code::Unauthenticated, "check",
                           "the bearer token is not known");
    return &it->second;
  }
  if (caller.user) {
    auto it = users_.find(*caller.user);
    if (it == users_.end())
      throw ZUManagerError(ZUManagerError::Code::Unauthenticated, "check",
                           "the user " + quoteName(*caller.user) + " is not known");
    return &it->second;
  }
  throw ZUManagerError(ZUManagerError::Code::Unauthenticated, "check",
                       "the caller has neither a known user nor a token");
}

void ZURights::check(const ZUCaller& caller, ZUAction action, const std::string& resource,
                     const std::vector<std::string>& leaves, int priority) const {
  const ZURight* right = rightOf(caller);
  if (!right || action == ZUAction::Read) return;
  auto denied = [](const std::string& why) {
    return ZUManagerError(ZUManagerError::Code::PermissionDenied, "check", why);
  };
  if ((action == ZUAction::ForceRelease || action == ZUAction::SetState) && !right->isOperator)
    throw denied("only an operator may " + std::string(action == ZUAction::SetState
                                                           ? "set or release a state"
                                                           : "force a release"));
  if (action == ZUAction::Acquire && priority > right->maxPriority)
    throw denied("priority " + std::to_string(priority) + " is above the caller's ceiling of " +
                 std::to_string(right->maxPriority));
  auto allowed = [right](const std::string& name) {
    for (const std::string& p : right->resources)
      if (matches(p, name)) return true;
    return false;
  };
  if (resource.empty() || allowed(resource)) return;
  bool all = !leaves.empty();
  for (const std::string& l : leaves) all = all && allowed(l);
  if (!all) throw denied(quoteName(resource) + " is outside the caller's resources");
}

void ZURights::authorize(const ZUManager& manager, const ZUCaller& caller, ZUAction action,
                         const std::string& resource, int priority) const {
  std::vector<std::string> leaves;
  if (!resource.empty() && manager.hasResource(resource)) leaves = manager.leavesOf(resource);
  try {
    check(caller, action, resource, leaves, priority);
  } catch (const ZUManagerError& e) {
    std::string who = caller.token  ? "a token holder"
                      : caller.user ? "user " + quoteName(*caller.user)
                                    : "an anonymous caller";
    ko::log::log(2, "zumanager", "refused " + who + ": " + e.getDescription(), "zurights.cpp",
                 "authorize", __LINE__);
    throw;
  }
}

ZURights parseRights(const std::string& text, const std::string& file) {
  nlohmann::json top = readJson(text, file, "file");
  ZURights rights;
  forEachEntry(top, "clients", file, [&rights](const ZUJsonEntry& e) {
    e.allow({"user", "token", "resources", "maxPriority", "operator"});
    if (e.has("user") == e.has("token")) e.fail("give either \"user\" or \"token\"");
    ZURight right;
    right.resources = e.texts("resources");
    if (right.resources.empty()) e.fail("\"resources\" names none");
    for (const std::string& p : right.resources)
      if (p.empty()) e.fail("\"resources\" has an empty pattern");
    right.maxPriority = static_cast<int>(
        e.integer("maxPriority", 0, -ZURights::kMaxPriority, ZURights::kMaxPriority));
    right.isOperator = e.has("operator") && e.boolean("operator");
    // Neither a user nor a token is quoted back: a token is a secret.
    const bool user = e.has("user");
    const std::string key = user ? e.name("user", "user") : e.name("token", "token");
    if (user ? rights.users_.count(key) : rights.tokens_.count(key))
      e.fail(std::string("this ") + (user ? "user" : "token") + " is given twice");
    (user ? rights.users_ : rights.tokens_).emplace(key, right);
  });
  if (top.contains("clients") && !rights.restricted())
    throw ZUInputError(file + ": \"clients\" names none: give at least one, or leave it out");
  return rights;
}

ZURights loadRights(const std::string& path) {
  return parseRights(readInputFile(path), escapeControls(path, false));
}

}  // namespace ZU
