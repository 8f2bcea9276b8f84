#include "run/eventlog.h"

#include <iomanip>
#include <ostream>

#include "scenario/scenario.h"

namespace zusim {

const char* kindName(EventKind kind) {
  switch (kind) {
    case EventKind::Request:
      return "request";
    case EventKind::Waiting:
      return "waiting";
    case EventKind::Notified:
      return "notified";
    case EventKind::Granted:
      return "granted";
    case EventKind::NotObtained:
      return "not obtained";
    case EventKind::HandedDown:
      return "handed down";
    case EventKind::HandedBack:
      return "handed back";
    case EventKind::Released:
      return "released";
    case EventKind::GaveBack:
      return "gave back";
    case EventKind::Switched:
      return "switched";
    case EventKind::TimedOut:
      return "timed out";
    case EventKind::Stopped:
      return "stopped";
    case EventKind::Failed:
      return "failed";
    case EventKind::State:
      return "state";
    case EventKind::Manager:
      return "manager";
    case EventKind::Deadlock:
      return "deadlock";
    case EventKind::StaleWait:
      return "stale wait";
    case EventKind::Lost:
      return "lost";
  }
  return "?";
}

EventLog::EventLog(std::ostream* out)
    : out_(out), start_(Clock::now().time_since_epoch().count()) {}

void EventLog::restart() { start_ = Clock::now().time_since_epoch().count(); }

EventLog::Clock::time_point EventLog::at(long ms) const {
  return Clock::time_point(Clock::duration(start_.load())) + std::chrono::milliseconds(ms);
}

long EventLog::now() const { return msOf(Clock::now()); }

long EventLog::msOf(Clock::time_point moment) const {
  return static_cast<long>(
      std::chrono::duration_cast<std::chrono::milliseconds>(moment - at(0)).count());
}

void EventLog::add(EventKind kind, const std::string& owner, const std::string& resource,
                   const std::string& text) {
  add(now(), kind, owner, resource, text);
}

void EventLog::add(long ms, EventKind kind, const std::string& owner, const std::string& resource,
                   const std::string& text) {
  std::lock_guard<std::mutex> lock(mutex_);
  Event e{ms, kind, owner, resource, text};
  events_.push_back(e);
  // A name may hold a newline or a terminal escape: the terminal gets one
  // line, escaped; the report gets the text as it is, made safe as HTML.
  if (out_) *out_ << std::setw(6) << e.ms << " ms  " << escapeControls(text, false) << std::endl;
}

void EventLog::print(const std::string& line) {
  std::lock_guard<std::mutex> lock(mutex_);
  if (out_) *out_ << escapeControls(line, false) << std::endl;
}

std::vector<Event> EventLog::events() const {
  std::lock_guard<std::mutex> lock(mutex_);
  return events_;
}

std::vector<Event> EventLog::last(std::size_t count) const {
  std::lock_guard<std::mutex> lock(mutex_);
  std::size_t from = events_.size() > count ? events_.size() - count : 0;
  return std::vector<Event>(events_.begin() + static_cast<long>(from), events_.end());
}

}  // namespace zusim
