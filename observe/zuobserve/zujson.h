#pragma once

#include <chrono>
#include <cstdint>
#include <string>
#include <thread>

#include <nlohmann/json.hpp>

#include <zuresource/zuobserver.h>
#include <zuresource/zusnapshot.h>

namespace ZU {

/// The JSON form of events and snapshots, as docs/observe-format.md and
/// docs/observe-format.schema.json describe it. Times are milliseconds since
/// `start` (steady clock), with microsecond resolution.
///
/// Thread safety: plain functions of their arguments.
namespace zujson {

/// The version written in the start line; raised when a field changes meaning.
constexpr int kFormatVersion = 1;

/// Milliseconds from `start` to `moment` (negative before it).
double msSince(std::chrono::steady_clock::time_point start,
               std::chrono::steady_clock::time_point moment);
/// The calling thread's id as text, as events name threads.
std::string threadName(std::thread::id thread);
/// The current wall-clock time, ISO 8601 in UTC with milliseconds.
std::string wallClockNow();

/// {"type":"event","seq":…,"ms":…,"thread":…,"kind":…,"resource":…, and the
/// fields of the kind}.
nlohmann::ordered_json eventJson(const ZUEvent& event, std::chrono::steady_clock::time_point start);
/// {"type":"snapshot","ms":…,"resources":[…],"owners":[…],"waits":[…],
/// "cycles":[…],"staleWaits":[…]}.
nlohmann::ordered_json snapshotJson(const ZUSnapshot& snapshot,
                                    std::chrono::steady_clock::time_point start);
/// {"type":"start","version":…,"wallClock":…}: the first line of a recording.
nlohmann::ordered_json startJson(const std::string& wallClock);
/// {"type":"dropped","ms":…,"count":…}: `count` events were not recorded.
nlohmann::ordered_json droppedJson(std::uint64_t count, double ms);

}  // namespace zujson
}  // namespace ZU
