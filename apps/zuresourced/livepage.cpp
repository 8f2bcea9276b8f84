#include "livepage.h"

#include <cerrno>
#include <cstdlib>
#include <sstream>
#include <vector>

#include <boost/make_shared.hpp>

#include <zulive/zulivepage.h>
#include <zuobserve/zujson.h>
#include <zuresource/zuobserver.h>
#include <zuresource/zusnapshot.h>

namespace zuresourced {

using ZU::zulivepage::escapeHtml;
using ZU::zulivepage::section;

namespace {

// The events kept for the page and its stream: a service runs for weeks.
constexpr std::size_t kKeptEvents = 10000;

// The page's parts that follow the event stream.
const std::vector<std::string> kSections = {"status", "waits", "deadlocks", "stale", "events"};

}  // namespace

LivePage::LivePage(ZU::ZUManager& manager)
    : manager_(manager), feed_(boost::make_shared<ZU::ZULiveFeed>(kKeptEvents)) {}

LivePage::~LivePage() { stop(); }

int LivePage::start(const std::string& host, int port) {
  server_.page("/", [this](const ZU::ZULiveRequest&) {
    return ZU::ZULiveResponse{200, "text/html; charset=utf-8", page()};
  });
  server_.stream(*feed_, [this] {
    return ZU::zujson::snapshotJson(ZU::takeSnapshot(manager_.roots()), feed_->start()).dump();
  });
  const int bound = server_.start(host, port);
  if (bound < 0) return -1;
  ZU::ZUObservers::add(feed_);
  started_ = true;
  return bound;
}

void LivePage::stop() {
  if (!started_) return;
  started_ = false;
  ZU::ZUObservers::remove(feed_);
  server_.finished(0);
  server_.stop();
}

std::string LivePage::page() {
  const ZU::ZUSnapshot snapshot = ZU::takeSnapshot(manager_.roots());
  std::ostringstream out;
  out << "<!DOCTYPE html>\n<html lang=\"en\"><head><meta charset=\"utf-8\">"
      << "<noscript><meta http-equiv=\"refresh\" content=\"1\"></noscript>"
      << "<title>zuresourced live</title><style>" << ZU::zulivepage::kStyle
      << "</style></head><body>\n<h1>zuresourced</h1>\n<h2>Resources</h2>\n<div id=\"status\">\n";
  std::vector<std::string> roots;
  for (const auto& root : manager_.roots()) roots.push_back(root->httpGet(0));
  for (const std::string& line : ZU::zulivepage::statusPageLines(roots))
    out << "<div class=\"line\">" << escapeHtml(line) << "</div>\n";
  out << "</div>\n";
  std::vector<std::string> waits, deadlocks, stale;
  for (const auto& w : snapshot.waits) waits.push_back(w.toString());
  for (const auto& c : snapshot.cycles) deadlocks.push_back(c.toString());
  for (const auto& s : snapshot.staleWaits) stale.push_back(s.toString());
  section(out, "waits", "Waits", waits, "line");
  section(out, "deadlocks", "Deadlocks", deadlocks, "line alarm");
  section(out, "stale", "Stale waits", stale, "line alarm");
  // The latest events, as the stream gives them.
  bool closed = false;
  const std::size_t count = feed_->count();
  const std::vector<std::string> lines =
      feed_->linesFrom(count > 12 ? count - 12 : 0, std::chrono::milliseconds(0), closed);
  out << "<h2>Latest events</h2>\n<table id=\"events\">\n";
  for (const std::string& line : lines) out << "<tr><td>" << escapeHtml(line) << "</td></tr>\n";
  out << "</table>\n<h2>Event stream</h2>\n<p id=\"stream\">connecting to /events</p>\n<div "
         "id=\"streamed\" class=\"line\"></div>\n<script>"
      << ZU::ZULiveServer::followScript(kSections) << "</script>\n</body></html>\n";
  return out.str();
}

bool parseHttpAddress(const std::string& text, std::string& host, int& port) {
  const auto colon = text.rfind(':');
  host = colon == std::string::npos ? "127.0.0.1" : text.substr(0, colon);
  const std::string digits = colon == std::string::npos ? text : text.substr(colon + 1);
  if (host.empty() || digits.empty() || digits.size() > 5 ||
      digits.find_first_not_of("0123456789") != std::string::npos)
    return false;
  port = std::atoi(digits.c_str());
  return port <= 65535;
}

}  // namespace zuresourced
