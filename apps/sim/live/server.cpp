#include "live/server.h"

#include <sstream>
#include <stdexcept>

#include <zulive/zulivepage.h>

#include "output/html.h"

namespace zusim {

using ZU::zulivepage::section;

namespace {

// The page's parts that follow the event stream.
const std::vector<std::string> kSections = {"clock",     "status", "waits",
                                            "deadlocks", "stale",  "events"};

}  // namespace

LiveServer::LiveServer(const Scenario& scenario, RunView& simulation, EventLog& log)
    : scenario_(scenario), simulation_(simulation), log_(log) {}

LiveServer::~LiveServer() { stop(); }

void LiveServer::stream(ZU::ZULiveFeed& feed, std::function<std::string()> snapshot) {
  streamed_ = true;
  server_.stream(feed, std::move(snapshot));
}

int LiveServer::start(int port) {
  server_.page("/", [this](const ZU::ZULiveRequest&) {
    return ZU::ZULiveResponse{200, "text/html; charset=utf-8", page()};
  });
  server_.page("/explain", [this](const ZU::ZULiveRequest& request) {
    auto param = [&request](const char* name) {
      auto it = request.query.find(name);
      return it == request.query.end() ? std::string() : it->second;
    };
    ZU::ZULiveResponse response;
    response.body = explainPage(param("owner"), param("resource"), response.status);
    return response;
  });
  return server_.start("127.0.0.1", port);
}

void LiveServer::finished(int status) {
  status_ = status;
  server_.finished(status);
}

void LiveServer::stop() { server_.stop(); }

std::string LiveServer::page() {
  std::ostringstream out;
  int status = status_;
  // With an event stream the page follows it; without one, or without
  // scripts, it reloads itself every second.
  const char* reload = "<meta http-equiv=\"refresh\" content=\"1\">";
  out << "<!DOCTYPE html>\n<html lang=\"en\"><head><meta charset=\"utf-8\">"
      << (streamed_ ? "<noscript>" + std::string(reload) + "</noscript>" : reload)
      << "<title>zuresource-sim live: " << escapeHtml(scenario_.title) << "</title><style>"
      << ZU::zulivepage::kStyle << "</style></head><body>\n<h1>" << escapeHtml(scenario_.title)
      << "</h1>\n<p id=\"clock\">";
  if (status < 0)
    out << "running: " << log_.now() << " ms";
  else
    out << "finished: " << (status == 0 ? "every expectation held" : "some expectations failed");
  out << "</p>\n<h2>Resources</h2>\n<div id=\"status\">\n";
  for (const std::string& line : statusPageLines(simulation_.statusLines()))
    out << "<div class=\"line\">" << escapeHtml(line) << "</div>\n";
  out << "</div>\n";
  Diagnostics d = simulation_.diagnostics();
  section(out, "waits", "Waits", d.waits, "line");
  section(out, "deadlocks", "Deadlocks", d.deadlocks, "line alarm");
  section(out, "stale", "Stale waits", d.staleWaits, "line alarm");
  out << "<h2>Why would it wait?</h2>\n<form action=\"/explain\">owner <select name=\"owner\">";
  for (const OwnerEntry& o : scenario_.owners)
    out << "<option>" << escapeHtml(o.name) << "</option>";
  out << "</select> resource <select name=\"resource\">";
  for (const ResourceEntry& r : scenario_.resources)
    out << "<option>" << escapeHtml(r.name) << "</option>";
  out << "</select> <button>explain</button></form>\n<h2>Latest events</h2>\n<table "
         "id=\"events\">\n";
  for (const Event& e : log_.last(12))
    out << "<tr><td class=\"ms\">" << e.ms << " ms</td><td>" << escapeHtml(e.text)
        << "</td></tr>\n";
  out << "</table>\n";
  if (streamed_)
    out << "<h2>Event stream</h2>\n<p id=\"stream\">connecting to /events</p>\n<div "
           "id=\"streamed\" class=\"line\"></div>\n<script>"
        << ZU::ZULiveServer::followScript(kSections) << "</script>\n";
  out << "</body></html>\n";
  return out.str();
}

std::string LiveServer::explainPage(const std::string& owner, const std::string& resource,
                                    int& status) {
  std::string answer;
  status = 200;
  if (owner.empty() || resource.empty()) {
    status = 400;
    answer = "give both: /explain?owner=NAME&resource=NAME";
  } else {
    try {
      answer = simulation_.explain(owner, resource);
    } catch (const std::invalid_argument& e) {
      status = 404;
      answer = e.what();
    }
  }
  return answer + "\n";
}

}  // namespace zusim
