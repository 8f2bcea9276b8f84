#include <algorithm>
#include <typeinfo>

#include <zuhost/zuerror.h>

#include <zuresource/zucontract.h>
#include <zuresource/zuexplain.h>
#include <zuresource/zuownerstrong.h>
#include <zuresource/zuownerweak.h>
#include <zuresource/zuresourcelist.h>
#include <zuresource/zuresourcestate.h>
#include <zuresource/zuvalues.h>

namespace ZU {

namespace {
const char* const kFile = "behavior/lib/zuresource/zuresource/zuexplain";

using Answer = ZUExplanation::Answer;

bool listed(const std::vector<std::string>& noWaitList, const std::string& name) {
  return std::find(noWaitList.begin(), noWaitList.end(), name) != noWaitList.end();
}

std::vector<std::string> waiterModules(const boost::shared_ptr<ZUOwner>& holder) {
  const ZUValue value = holder->copyWaiters();  // waitersMutex (read)
  std::vector<std::string> modules;
  for (std::size_t i = 0; i < value.size(); ++i)
    if (value[i].isString()) modules.push_back(value[i].asString());
  return modules;
}

// The answer of a strong owner's conflict(): hand down to a descendant, or wait.
void explainStrongHolder(ZUExplanation& e, const boost::shared_ptr<ZUOwner>& holder,
                         const boost::shared_ptr<ZUOwner>& owner, Answer waitAnswer) {
  e.holder = holder->name;
  e.holderModule = holder->moduleName;
  if (owner->isParent(holder)) {
    e.answer = Answer::HandedDown;
    return;
  }
  e.answer = waitAnswer;
  e.waiters = waiterModules(holder);
  e.notifies = !holder->parentBroker.expired();
  e.ownerStopped = owner->resourceFreed;
}

void explainPlain(ZUExplanation& e, ZUResource& resource, const boost::shared_ptr<ZUOwner>& owner,
                  const std::vector<std::string>& noWaitList) {
  boost::shared_ptr<ZUOwner> holder;
  {
    ZUCriticalSectionRead lock(resource.currentOwnerMutex);
    holder = resource.currentOwner.load();
  }
  if (holder->name != contract::kPlaceholderName && listed(noWaitList, resource.name)) {
    e.answer = Answer::GivesUp;
    return;
  }
  e.holder = holder->name;
  e.holderModule = holder->moduleName;
  if (owner->name == holder->name) {
    e.answer = Answer::AlreadyHeld;
  } else if (dynamic_cast<ZUOwnerStrong*>(holder.get())) {
    explainStrongHolder(e, holder, owner, Answer::Waits);
  } else if (!dynamic_cast<ZUOwnerWeak*>(holder.get())) {
    e.answer = Answer::HolderDecides;
  } else {
    // A weak owner always declines; only a free resource can then be taken.
    e.answer = holder->name == contract::kPlaceholderName ? Answer::Takes : Answer::Retries;
  }
}

void explainState(ZUExplanation& e, ZUResourceState& resource,
                  const boost::shared_ptr<ZUOwner>& owner,
                  const std::vector<std::string>& noWaitList) {
  if (resource.state) {
    e.answer = Answer::Granted;
    ZUCriticalSection lock(resource.holdersMutex);
    e.holders = resource.holders.size();
    return;
  }
  if (listed(noWaitList, resource.name)) {
    e.answer = Answer::GivesUp;
    return;
  }
  explainStrongHolder(e, resource.stateOwner, owner, Answer::AwaitsActivation);
}

// What one resource would do, its members aside: a group's are returned in
// `members`, to be explained by the caller.
ZUExplanation explainOne(const boost::shared_ptr<ZUResource>& resource,
                         const boost::shared_ptr<ZUOwner>& owner,
                         const std::vector<std::string>& noWaitList,
                         std::vector<boost::shared_ptr<ZUResource> >& members) {
  ZUExplanation e;
  e.resource = resource->name;
  e.owner = owner->name;
  const ZUResource& object = *resource;
  const std::type_info& kind = typeid(object);
  if (kind == typeid(ZUResource)) {
    explainPlain(e, *resource, owner, noWaitList);
  } else if (kind == typeid(ZUResourceState)) {
    explainState(e, static_cast<ZUResourceState&>(*resource), owner, noWaitList);
  } else if (kind == typeid(ZUResourceList)) {
    ZUResourceList& group = static_cast<ZUResourceList&>(*resource);
    e.answer = group.abortRequested ? Answer::Aborts : Answer::Group;
    if (e.answer == Answer::Group) members = group.getResourceList();
  } else {
    e.answer = Answer::ResourceDecides;
  }
  return e;
}

ZUValue stringArray(const std::vector<std::string>& strings) {
  ZUValue list = emptyArrayValue();
  for (const std::string& text : strings) list.arrayPush(ZUValue(text));
  return list;
}

// The whole line of an answer other than Group; a group's line up to the
// brace that opens its members.
std::string head(const ZUExplanation& x) {
  std::string text = x.resource + ": ";
  const std::string held = "held by " + x.holder + " (module " + x.holderModule + ")";
  const std::string stopped = x.ownerStopped
                                  ? "; " + x.owner + "'s own release flag is set: \"" +
                                        contract::kStopWhileWaiting + "\" after one polling period"
                                  : "";
  switch (x.answer) {
    case Answer::Takes:
      return text + "free; " + x.owner + " would take it";
    case Answer::AlreadyHeld:
      return text + "already held by " + x.holder;
    case Answer::HandedDown:
      return text + held + ", an ancestor of " + x.owner + ": handed down at once";
    case Answer::Waits:
      return text + held + ": " + x.owner + " would wait behind it, after " +
             stringArray(x.waiters).serializeToText() +
             (x.notifies ? "; " + x.holderModule + " is told \"__onResource__\"" : "") + stopped;
    case Answer::GivesUp:
      return text + "busy and in the no-wait list: gives up at once";
    case Answer::Retries:
      return text + held + ", which never yields: " + x.owner +
             " retries without pause until the holder changes";
    case Answer::HolderDecides:
      return text + held + ", an owner of another class: its conflict() decides";
    case Answer::ResourceDecides:
      return text + "a resource of another class: its own waitFor decides";
    case Answer::Granted:
      return text + "activated, " + std::to_string(x.holders) + " holders: granted at once";
    case Answer::AwaitsActivation:
      return text + "not activated: " + x.owner + " would wait for activation, after " +
             stringArray(x.waiters).serializeToText() + stopped;
    case Answer::Aborts:
      return text + "abort requested: " + x.owner +
             " is given back from every member and gets an empty list";
    case Answer::Group:
      break;
  }
  text += "group, ";
  text +=
      x.firstWait < 0 ? std::string("no wait") : "first wait at " + x.members[x.firstWait].resource;
  return text + " {";
}

// An answer's value without its members.
ZUValue fields(const ZUExplanation& x) {
  ZUValue value;
  pushKeyValue(value, "resource", ZUValue(x.resource));
  pushKeyValue(value, "answer", ZUValue(answerName(x.answer)));
  pushKeyValue(value, "owner", ZUValue(x.owner));
  if (!x.holder.empty()) {
    pushKeyValue(value, "holder", ZUValue(x.holder));
    pushKeyValue(value, "holderModule", ZUValue(x.holderModule));
  }
  if (x.answer == Answer::Waits || x.answer == Answer::AwaitsActivation) {
    pushKeyValue(value, "waiters", stringArray(x.waiters));
    pushKeyValue(value, "notifies", ZUValue(x.notifies ? "true" : "false"));
    pushKeyValue(value, "ownerStopped", ZUValue(x.ownerStopped ? "true" : "false"));
  }
  if (x.answer == Answer::Granted)
    pushKeyValue(value, "holders", ZUValue(std::to_string(x.holders)));
  if (x.answer == Answer::Group)
    pushKeyValue(value, "firstWait", ZUValue(std::to_string(x.firstWait)));
  return value;
}

}  // namespace

const char* answerName(Answer answer) {
  switch (answer) {
    case Answer::Takes:
      return "takes";
    case Answer::AlreadyHeld:
      return "alreadyHeld";
    case Answer::HandedDown:
      return "handedDown";
    case Answer::Waits:
      return "waits";
    case Answer::GivesUp:
      return "givesUp";
    case Answer::Retries:
      return "retries";
    case Answer::HolderDecides:
      return "holderDecides";
    case Answer::ResourceDecides:
      return "resourceDecides";
    case Answer::Granted:
      return "granted";
    case Answer::AwaitsActivation:
      return "awaitsActivation";
    case Answer::Group:
      return "group";
    case Answer::Aborts:
      return "aborts";
  }
  return "unknown";
}

ZUExplanation explain(const boost::shared_ptr<ZUResource>& resource,
                      const boost::shared_ptr<ZUOwner>& owner,
                      const std::vector<std::string>& noWaitList) {
  if (!resource) throw ZUError("ZUExplain", "explain", "empty resource handle", kFile, __LINE__);
  if (!owner) throw ZUError("ZUExplain", "explain", "empty owner handle", kFile, __LINE__);
  // The groups being explained, outermost first, each with its members and
  // the next one to explain.
  struct Open {
    ZUExplanation e;
    std::vector<boost::shared_ptr<ZUResource> > members;
    std::size_t next;
  };
  std::vector<Open> open;
  std::vector<boost::shared_ptr<ZUResource> > members;
  ZUExplanation done = explainOne(resource, owner, noWaitList, members);
  if (done.answer == Answer::Group) open.push_back(Open{std::move(done), std::move(members), 0});
  while (!open.empty()) {
    Open& top = open.back();
    if (top.next < top.members.size()) {
      members.clear();
      ZUExplanation e = explainOne(top.members[top.next++], owner, noWaitList, members);
      if (e.answer == Answer::Group) {
        open.push_back(Open{std::move(e), std::move(members), 0});
        continue;
      }
      done = std::move(e);
    } else {
      done = std::move(top.e);
      open.pop_back();
    }
    if (open.empty()) break;
    ZUExplanation& parent = open.back().e;
    parent.members.push_back(std::move(done));
    if (parent.firstWait < 0 && parent.members.back().wouldWait())
      parent.firstWait = static_cast<int>(parent.members.size()) - 1;
  }
  return done;
}

ZUExplanation::~ZUExplanation() {
  std::vector<ZUExplanation> pending;
  pending.swap(members);
  while (!pending.empty()) {
    ZUExplanation last = std::move(pending.back());
    pending.pop_back();
    for (ZUExplanation& member : last.members) pending.push_back(std::move(member));
    last.members.clear();
  }
}

bool ZUExplanation::wouldWait() const {
  return answer == Answer::Waits || answer == Answer::AwaitsActivation ||
         answer == Answer::Retries || firstWait >= 0;
}

std::string ZUExplanation::toString() const {
  // Depth first, with a list of the open groups instead of recursion.
  struct Open {
    const ZUExplanation* group;
    std::size_t next;
  };
  std::vector<Open> open;
  std::string text;
  const ZUExplanation* current = this;
  for (;;) {
    if (current) {
      text += head(*current);
      if (current->answer == Answer::Group) open.push_back(Open{current, 0});
      current = nullptr;
    }
    if (open.empty()) return text;
    Open& top = open.back();
    if (top.next < top.group->members.size()) {
      if (top.next > 0) text += " | ";
      current = &top.group->members[top.next++];
    } else {
      text += "}";
      open.pop_back();
    }
  }
}

ZUValue ZUExplanation::toValue() const {
  // Depth first: a group's value is finished once its members' are.
  struct Open {
    const ZUExplanation* group;
    ZUValue value;
    ZUValue members;
    std::size_t next;
  };
  std::vector<Open> open;
  ZUValue done = fields(*this);
  if (answer == Answer::Group) open.push_back(Open{this, std::move(done), emptyArrayValue(), 0});
  while (!open.empty()) {
    Open& top = open.back();
    if (top.next < top.group->members.size()) {
      const ZUExplanation& member = top.group->members[top.next++];
      if (member.answer == Answer::Group) {
        open.push_back(Open{&member, fields(member), emptyArrayValue(), 0});
        continue;
      }
      done = fields(member);
    } else {
      pushKeyValue(top.value, "members", top.members);
      done = std::move(top.value);
      open.pop_back();
    }
    if (open.empty()) break;
    open.back().members.arrayPush(std::move(done));
  }
  return done;
}

}  // namespace ZU
