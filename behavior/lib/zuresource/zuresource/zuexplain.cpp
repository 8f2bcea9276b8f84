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

void explainGroup(ZUExplanation& e, ZUResourceList& group, const boost::shared_ptr<ZUOwner>& owner,
                  const std::vector<std::string>& noWaitList) {
  if (group.abortRequested) {
    e.answer = Answer::Aborts;
    return;
  }
  e.answer = Answer::Group;
  ZUCriticalSectionRead lock(group.resourceListMutex);
  for (const boost::shared_ptr<ZUResource>& member : group.resourceList) {
    e.members.push_back(explain(member, owner, noWaitList));
    if (e.firstWait < 0 && e.members.back().wouldWait())
      e.firstWait = static_cast<int>(e.members.size()) - 1;
  }
}

ZUValue stringArray(const std::vector<std::string>& strings) {
  ZUValue list = emptyArrayValue();
  for (const std::string& text : strings) list.arrayPush(ZUValue(text));
  return list;
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
  ZUExplanation e;
  e.resource = resource->name;
  e.owner = owner->name;
  const std::type_info& kind = typeid(*resource);
  if (kind == typeid(ZUResource))
    explainPlain(e, *resource, owner, noWaitList);
  else if (kind == typeid(ZUResourceState))
    explainState(e, static_cast<ZUResourceState&>(*resource), owner, noWaitList);
  else if (kind == typeid(ZUResourceList))
    explainGroup(e, static_cast<ZUResourceList&>(*resource), owner, noWaitList);
  else
    e.answer = Answer::ResourceDecides;
  return e;
}

bool ZUExplanation::wouldWait() const {
  return answer == Answer::Waits || answer == Answer::AwaitsActivation ||
         answer == Answer::Retries || firstWait >= 0;
}

std::string ZUExplanation::toString() const {
  std::string text = resource + ": ";
  const std::string held = "held by " + holder + " (module " + holderModule + ")";
  const std::string stopped = ownerStopped
                                  ? "; " + owner + "'s own release flag is set: \"" +
                                        contract::kStopWhileWaiting + "\" after one polling period"
                                  : "";
  switch (answer) {
    case Answer::Takes:
      return text + "free; " + owner + " would take it";
    case Answer::AlreadyHeld:
      return text + "already held by " + holder;
    case Answer::HandedDown:
      return text + held + ", an ancestor of " + owner + ": handed down at once";
    case Answer::Waits:
      return text + held + ": " + owner + " would wait behind it, after " +
             stringArray(waiters).serializeToText() +
             (notifies ? "; " + holderModule + " is told \"__onResource__\"" : "") + stopped;
    case Answer::GivesUp:
      return text + "busy and in the no-wait list: gives up at once";
    case Answer::Retries:
      return text + held + ", which never yields: " + owner +
             " retries without pause until the holder changes";
    case Answer::HolderDecides:
      return text + held + ", an owner of another class: its conflict() decides";
    case Answer::ResourceDecides:
      return text + "a resource of another class: its own waitFor decides";
    case Answer::Granted:
      return text + "activated, " + std::to_string(holders) + " holders: granted at once";
    case Answer::AwaitsActivation:
      return text + "not activated: " + owner + " would wait for activation, after " +
             stringArray(waiters).serializeToText() + stopped;
    case Answer::Aborts:
      return text + "abort requested: " + owner +
             " is given back from every member and gets an empty list";
    case Answer::Group:
      break;
  }
  text += "group, ";
  text += firstWait < 0 ? std::string("no wait") : "first wait at " + members[firstWait].resource;
  text += " {";
  for (std::size_t i = 0; i < members.size(); ++i) text += (i ? " | " : "") + members[i].toString();
  return text + "}";
}

ZUValue ZUExplanation::toValue() const {
  ZUValue value;
  pushKeyValue(value, "resource", ZUValue(resource));
  pushKeyValue(value, "answer", ZUValue(answerName(answer)));
  pushKeyValue(value, "owner", ZUValue(owner));
  if (!holder.empty()) {
    pushKeyValue(value, "holder", ZUValue(holder));
    pushKeyValue(value, "holderModule", ZUValue(holderModule));
  }
  if (answer == Answer::Waits || answer == Answer::AwaitsActivation) {
    pushKeyValue(value, "waiters", stringArray(waiters));
    pushKeyValue(value, "notifies", ZUValue(notifies ? "true" : "false"));
    pushKeyValue(value, "ownerStopped", ZUValue(ownerStopped ? "true" : "false"));
  }
  if (answer == Answer::Granted) pushKeyValue(value, "holders", ZUValue(std::to_string(holders)));
  if (answer == Answer::Group) {
    pushKeyValue(value, "firstWait", ZUValue(std::to_string(firstWait)));
    ZUValue list = emptyArrayValue();
    for (const ZUExplanation& member : members) list.arrayPush(member.toValue());
    pushKeyValue(value, "members", list);
  }
  return value;
}

}  // namespace ZU
