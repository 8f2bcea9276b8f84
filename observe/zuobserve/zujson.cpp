#include <cmath>
#include <ctime>
#include <sstream>

#include <zuobserve/zujson.h>

namespace ZU {
namespace zujson {

namespace {

using json = nlohmann::ordered_json;

json waitJson(const ZUWait& wait, std::chrono::steady_clock::time_point start) {
  return json{{"id", wait.id},
              {"waiter", wait.waiter},
              {"waiterModule", wait.waiterModule},
              {"holder", wait.holder},
              {"holderModule", wait.holderModule},
              {"resource", wait.resource},
              {"sinceMs", msSince(start, wait.since)},
              {"timeout", wait.timeout}};
}

json waitsJson(const std::vector<ZUWait>& waits, std::chrono::steady_clock::time_point start) {
  json list = json::array();
  for (const ZUWait& wait : waits) list.push_back(waitJson(wait, start));
  return list;
}

void putIf(json& object, const char* key, const std::string& value) {
  if (!value.empty()) object[key] = value;
}

}  // namespace

double msSince(std::chrono::steady_clock::time_point start,
               std::chrono::steady_clock::time_point moment) {
  const auto us = std::chrono::duration_cast<std::chrono::microseconds>(moment - start).count();
  return static_cast<double>(us) / 1000.0;
}

std::string threadName(std::thread::id thread) {
  std::ostringstream text;
  text << thread;
  return text.str();
}

std::string wallClockNow() {
  const auto now = std::chrono::system_clock::now();
  const std::time_t seconds = std::chrono::system_clock::to_time_t(now);
  const long ms = static_cast<long>(
      std::chrono::duration_cast<std::chrono::milliseconds>(now.time_since_epoch()).count() % 1000);
  std::tm utc{};
  gmtime_r(&seconds, &utc);
  char text[40];
  const std::size_t n = std::strftime(text, sizeof text, "%Y-%m-%dT%H:%M:%S", &utc);
  std::snprintf(text + n, sizeof text - n, ".%03ldZ", ms);
  return text;
}

json eventJson(const ZUEvent& event, std::chrono::steady_clock::time_point start) {
  json line{{"type", "event"},
            {"seq", event.sequence},
            {"ms", msSince(start, event.time)},
            {"thread", threadName(event.thread)},
            {"kind", kindName(event.kind)},
            {"resource", event.resource}};
  putIf(line, "owner", event.owner);
  putIf(line, "ownerModule", event.ownerModule);
  putIf(line, "holder", event.holder);
  putIf(line, "holderModule", event.holderModule);
  putIf(line, "parent", event.parent);
  putIf(line, "reason", event.reason);
  switch (event.kind) {
    case ZUEvent::Kind::Requested:
      line["label"] = event.label;
      line["noWaitList"] = event.noWaitList;
      line["timeout"] = event.timeout;
      break;
    case ZUEvent::Kind::Waiting:
    case ZUEvent::Kind::TimedOut:
      line["timeout"] = event.timeout;
      break;
    case ZUEvent::Kind::Granted:
      line["grant"] = grantName(event.grant);
      break;
    case ZUEvent::Kind::Stopped:
      line["cause"] = causeName(event.cause);
      break;
    case ZUEvent::Kind::DeadlockFormed:
    case ZUEvent::Kind::DeadlockBroken:
    case ZUEvent::Kind::StaleWait:
      line["edges"] = waitsJson(event.waits, start);
      line["sinceMs"] = msSince(start, event.since);
      break;
    default:
      break;
  }
  return line;
}

json snapshotJson(const ZUSnapshot& snapshot, std::chrono::steady_clock::time_point start) {
  json resources = json::array(), owners = json::array(), cycles = json::array(),
       stale = json::array();
  for (const ZUSnapshot::Resource& r : snapshot.resources) {
    json entry{{"name", r.name}, {"kind", r.kind}};
    if (r.kind == "group") {
      entry["members"] = r.members;
    } else {
      entry["holders"] = r.holders;
      if (r.kind == "state") entry["activated"] = r.activated;
    }
    resources.push_back(std::move(entry));
  }
  for (const ZUSnapshot::Owner& o : snapshot.owners) {
    json parents = json::object();
    for (const auto& parent : o.parentOwners) parents[parent.first] = parent.second;
    owners.push_back(json{{"name", o.name},
                          {"module", o.module},
                          {"parentOwners", std::move(parents)},
                          {"releaseFlag", o.releaseFlag}});
  }
  for (const ZUWaitCycle& c : snapshot.cycles) {
    std::chrono::steady_clock::time_point formed;
    for (const ZUWait& edge : c.edges) formed = std::max(formed, edge.since);
    cycles.push_back(
        json{{"edges", waitsJson(c.edges, start)}, {"sinceMs", msSince(start, formed)}});
  }
  for (const ZUStaleWait& s : snapshot.staleWaits)
    stale.push_back(json{{"wait", waitJson(s.wait, start)}, {"staleMs", s.ageMs}});
  return json{{"type", "snapshot"},
              {"ms", msSince(start, snapshot.taken)},
              {"resources", std::move(resources)},
              {"owners", std::move(owners)},
              {"waits", waitsJson(snapshot.waits, start)},
              {"cycles", std::move(cycles)},
              {"staleWaits", std::move(stale)}};
}

json startJson(const std::string& wallClock) {
  return json{{"type", "start"}, {"version", kFormatVersion}, {"wallClock", wallClock}};
}

json droppedJson(std::uint64_t count, double ms) {
  return json{{"type", "dropped"}, {"ms", ms}, {"count", count}};
}

}  // namespace zujson
}  // namespace ZU
