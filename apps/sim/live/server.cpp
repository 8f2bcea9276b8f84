#include "live/server.h"

#include <httplib.h>

#include <condition_variable>
#include <mutex>
#include <sstream>
#include <stdexcept>
#include <thread>

#include "live/feed.h"
#include "output/html.h"

namespace zusim {

namespace {

const char kStyle[] =
    "body{font-family:sans-serif;margin:24px;color:#222}"
    "#status{font-family:monospace;font-size:14px;background:#f5f6f8;padding:10px}"
    ".line{white-space:pre}table{border-collapse:collapse;font-size:13px}"
    "td{padding:2px 10px}td.ms{text-align:right;color:#555}.alarm{color:#c0392b}";

// How long an event stream waits for a line before it sends a comment, so
// that a reader that went away is noticed and stop() is never held up long.
const std::chrono::milliseconds kStreamPatience(250);
// A connection that sends nothing for this long is closed.
const int kReadTimeoutSeconds = 1;
// Connections served at once; more wait for one of them to end.
const int kMaxConnections = 256;

// Serves each connection on a thread of its own, up to kMaxConnections at once,
// so that clients that connect and go quiet, or event streams that stay open,
// never hold up the page (a fixed pool of a few threads would queue it behind
// them). Thread safety: thread safe; mutex_ guards running_ and shutdown_.
class ConnectionThreads : public httplib::TaskQueue {
 public:
  void enqueue(std::function<void()> serve) override {
    std::unique_lock<std::mutex> lock(mutex_);
    room_.wait(lock, [this] { return running_ < kMaxConnections || shutdown_; });
    ++running_;
    std::thread([this, serve = std::move(serve)] {
      serve();
      std::lock_guard<std::mutex> done(mutex_);
      --running_;
      room_.notify_all();
    }).detach();
  }
  // Waits for every connection's thread to finish with this queue.
  void shutdown() override {
    std::unique_lock<std::mutex> lock(mutex_);
    shutdown_ = true;
    room_.wait(lock, [this] { return running_ == 0; });
  }

 private:
  std::mutex mutex_;
  std::condition_variable room_;
  int running_ = 0;
  bool shutdown_ = false;
};

// Follows /events: each event appends a line to the stream's list and asks
// for the page again (at most every 200 ms) to replace its sections. When the
// stream breaks before the run's end, the page reloads itself every second
// instead; without scripts it does so too.
const char kLiveScript[] = R"JS(
(function () {
  var shown = document.getElementById('stream'), list = document.getElementById('streamed');
  var count = 0, pending = false, over = false;
  function refresh() {
    pending = false;
    fetch('/').then(function (r) { return r.text(); }).then(function (html) {
      var fresh = new DOMParser().parseFromString(html, 'text/html');
      ['clock', 'status', 'waits', 'deadlocks', 'stale', 'events'].forEach(function (id) {
        var from = fresh.getElementById(id), to = document.getElementById(id);
        if (from && to) to.innerHTML = from.innerHTML;
      });
    }).catch(function () {});
  }
  function fallBack() {
    shown.textContent = 'stream broken: reloading every second';
    setTimeout(function () { location.reload(); }, 1000);
  }
  if (!window.EventSource) return fallBack();
  var source = new EventSource('/events');
  source.onmessage = function (m) {
    var e = JSON.parse(m.data), row = document.createElement('div');
    row.textContent = Math.round(e.ms) + ' ms ' + e.kind + ' ' + (e.owner || '') + ' ' + (e.resource || '');
    list.insertBefore(row, list.firstChild);
    while (list.childNodes.length > 12) list.removeChild(list.lastChild);
    shown.textContent = 'live: ' + (++count) + ' events streamed';
    if (!pending) { pending = true; setTimeout(refresh, 200); }
  };
  source.addEventListener('finished', function () {
    over = true;
    source.close();
    shown.textContent = 'live: ' + count + ' events streamed; the run is over';
    refresh();
  });
  source.onerror = function () {
    if (over) return;
    source.close();
    fallBack();
  };
})();
)JS";

/// A heading and `lines` as text, or `none` when there are none.
void section(std::ostream& out, const char* id, const char* heading,
             const std::vector<std::string>& lines, const char* lineClass) {
  out << "<h2>" << heading << "</h2>\n<div id=\"" << id << "\">\n";
  if (lines.empty()) out << "<div>none</div>\n";
  for (const std::string& line : lines)
    out << "<div class=\"" << lineClass << "\">" << escapeHtml(line) << "</div>\n";
  out << "</div>\n";
}

}  // namespace

LiveServer::LiveServer(const Scenario& scenario, RunView& simulation, EventLog& log)
    : scenario_(scenario), simulation_(simulation), log_(log) {}

LiveServer::~LiveServer() { stop(); }

void LiveServer::stream(LiveFeed& feed, std::function<std::string()> snapshot) {
  feed_ = &feed;
  snapshot_ = std::move(snapshot);
}

bool LiveServer::sendEvents(std::size_t& next, httplib::DataSink& sink) {
  if (stopping_) return false;
  bool closed = false;
  std::vector<std::string> lines = feed_->linesFrom(next, kStreamPatience, closed);
  std::string chunk;
  for (const std::string& line : lines)
    chunk += "id: " + std::to_string(next++) + "\ndata: " + line + "\n\n";
  if (closed && lines.empty()) chunk = "event: finished\ndata: " + std::to_string(status_) + "\n\n";
  if (chunk.empty()) chunk = ": waiting\n\n";
  if (!sink.write(chunk.data(), chunk.size())) return false;
  if (closed && lines.empty()) sink.done();
  return true;
}

int LiveServer::start(int port) {
  server_ = std::make_unique<httplib::Server>();
  server_->new_task_queue = [] { return new ConnectionThreads; };
  server_->set_read_timeout(kReadTimeoutSeconds, 0);
  server_->set_keep_alive_timeout(kReadTimeoutSeconds);
  server_->Get("/", [this](const httplib::Request&, httplib::Response& response) {
    response.set_content(page(), "text/html; charset=utf-8");
  });
  server_->Get("/explain", [this](const httplib::Request& request, httplib::Response& response) {
    int status = 200;
    std::string text =
        explainPage(request.get_param_value("owner"), request.get_param_value("resource"), status);
    response.status = status;
    response.set_content(text, "text/plain; charset=utf-8");
  });
  server_->Get("/snapshot.json", [this](const httplib::Request&, httplib::Response& response) {
    if (!snapshot_) {
      response.status = 404;
      return;
    }
    response.set_content(snapshot_(), "application/json");
  });
  server_->Get("/events", [this](const httplib::Request& request, httplib::Response& response) {
    if (!feed_) {
      response.status = 404;
      return;
    }
    // A reader that comes back after a break goes on after the last line it got.
    auto next = std::make_shared<std::size_t>(0);
    try {
      if (request.has_header("Last-Event-ID"))
        *next = std::stoul(request.get_header_value("Last-Event-ID")) + 1;
    } catch (const std::exception&) {
    }
    response.set_header("Cache-Control", "no-cache");
    response.set_chunked_content_provider(
        "text/event-stream",
        [this, next](std::size_t, httplib::DataSink& sink) { return sendEvents(*next, sink); });
  });
  int bound = port == 0 ? server_->bind_to_any_port("127.0.0.1")
                        : (server_->bind_to_port("127.0.0.1", port) ? port : -1);
  if (bound < 0) return -1;
  thread_ = std::thread([this] { server_->listen_after_bind(); });
  return bound;
}

void LiveServer::finished(int status) {
  status_ = status;
  if (feed_) feed_->close();
}

void LiveServer::stop() {
  if (!thread_.joinable()) return;
  stopping_ = true;
  server_->stop();
  thread_.join();
}

std::string LiveServer::page() {
  std::ostringstream out;
  int status = status_;
  // With an event stream the page follows it; without one, or without
  // scripts, it reloads itself every second.
  const char* reload = "<meta http-equiv=\"refresh\" content=\"1\">";
  out << "<!DOCTYPE html>\n<html lang=\"en\"><head><meta charset=\"utf-8\">"
      << (feed_ ? "<noscript>" + std::string(reload) + "</noscript>" : reload)
      << "<title>zuresource-sim live: " << escapeHtml(scenario_.title) << "</title><style>"
      << kStyle << "</style></head><body>\n<h1>" << escapeHtml(scenario_.title)
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
  if (feed_)
    out << "<h2>Event stream</h2>\n<p id=\"stream\">connecting to /events</p>\n<div "
           "id=\"streamed\" class=\"line\"></div>\n<script>"
        << kLiveScript << "</script>\n";
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
