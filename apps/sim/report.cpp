#include "report.h"

#include <algorithm>
#include <fstream>
#include <sstream>

namespace zusim {

namespace {

const char* const kPalette[] = {"#4e79a7", "#f28e2b", "#59a14f", "#e15759", "#76b7b2", "#b07aa1",
                                "#edc948", "#9c755f", "#ff9da7", "#17becf", "#8c564b", "#7f7f7f"};
const char kNobody[] = "#9a9a9a";     // waits of a deactivation
const char kActivated[] = "#d9f2d9";  // a state resource's activation

const int kWidth = 1200;
const int kLabelWidth = 190;
const int kAxisHeight = 28;
const int kLaneHeight = 46;

/// How an event kind is marked on its lane; kinds without a mark are not drawn.
struct Mark {
  EventKind kind;
  const char* colour;
  const char* shape;  // SVG path around (0,0)
  const char* legend;
};
const Mark kMarks[] = {
    {EventKind::Notified, "#1f3a93", "M0,-6 L6,0 L0,6 L-6,0 Z", "told \"__onResource__\""},
    {EventKind::HandedDown, "#6a3d9a", "M-6,-5 L6,-5 L0,5 Z", "handed down"},
    {EventKind::HandedBack, "#6a3d9a", "M-6,5 L6,5 L0,-5 Z", "handed back"},
    {EventKind::NotObtained, "#e67e22", "M-5,-5 L5,-5 L5,5 L-5,5 Z", "not obtained (no wait)"},
    {EventKind::GaveBack, "#e67e22", "M-6,0 L0,-6 L6,0 L0,6 Z M-2,0 L0,-2 L2,0 L0,2 Z",
     "given back after a failed group wait"},
    {EventKind::TimedOut, "#c0392b", "M-6,-6 L6,6 M6,-6 L-6,6", "timed out"},
    {EventKind::Stopped, "#c0392b", "M-5,-5 L5,-5 L5,5 L-5,5 Z M-5,-5 L5,5", "stopped"},
    {EventKind::Failed, "#c0392b", "M0,-6 L6,6 L-6,6 Z", "other error"},
};

/// Kinds drawn as a dashed line across every lane: they are about the waits
/// as a whole, not about one resource.
struct Alarm {
  EventKind kind;
  const char* colour;
  const char* legend;
};
const Alarm kAlarms[] = {{EventKind::Deadlock, "#c0392b", "deadlock reported"},
                         {EventKind::StaleWait, "#e67e22", "stale wait reported"}};
const char kAlarmDash[] = "6 3";

const Mark* markOf(EventKind kind) {
  for (const Mark& m : kMarks)
    if (m.kind == kind) return &m;
  return nullptr;
}

class Timeline {
 public:
  Timeline(const Scenario& s, const RunRecord& r) : scenario_(s), record_(r) {
    for (const ResourceEntry& res : s.resources)
      if (res.kind != ResourceKind::Group) lanes_.push_back(res.name);
    long span = std::max<long>(r.endMs, 1);
    scale_ = static_cast<double>(kWidth - kLabelWidth - 20) / static_cast<double>(span);
  }

  std::string render(const std::vector<Event>& events) {
    int height = kAxisHeight + kLaneHeight * static_cast<int>(lanes_.size()) + 8;
    out_ << "<svg xmlns=\"http://www.w3.org/2000/svg\" class=\"timeline\" width=\"" << kWidth
         << "\" height=\"" << height << "\" viewBox=\"0 0 " << kWidth << " " << height
         << "\" font-family=\"sans-serif\" font-size=\"12\">\n";
    for (std::size_t i = 0; i < lanes_.size(); ++i) lane(i);
    axis(height);
    for (const Span& a : record_.activations) activation(a);
    for (const Span& h : record_.holdings) bar(h, 6, 18, false);
    for (const Span& w : record_.waits) bar(w, 28, 12, true);
    for (const Event& e : events) mark(e);
    for (const Event& e : events) alarm(e, height);
    out_ << "</svg>\n";
    return out_.str();
  }

  /// The colour of an owner: its place among the declared owners.
  std::string colour(const std::string& owner) const {
    for (std::size_t i = 0; i < scenario_.owners.size(); ++i)
      if (scenario_.owners[i].name == owner)
        return kPalette[i % (sizeof kPalette / sizeof *kPalette)];
    return kNobody;
  }

 private:
  double x(long ms) const { return kLabelWidth + scale_ * static_cast<double>(ms); }
  int top(const std::string& resource) const {
    auto it = std::find(lanes_.begin(), lanes_.end(), resource);
    if (it == lanes_.end()) return -1;
    return kAxisHeight + kLaneHeight * static_cast<int>(it - lanes_.begin());
  }

  void lane(std::size_t i) {
    const std::string& name = lanes_[i];
    int y = top(name);
    out_ << "<rect x=\"0\" y=\"" << y << "\" width=\"" << kWidth << "\" height=\"" << kLaneHeight
         << "\" fill=\"" << (i % 2 ? "#ffffff" : "#f3f4f6") << "\"/>\n";
    std::string groups;
    for (const ResourceEntry& r : scenario_.resources) {
      if (r.kind != ResourceKind::Group) continue;
      std::vector<std::string> leaves = scenario_.leavesOf(r.name);
      if (std::find(leaves.begin(), leaves.end(), name) != leaves.end())
        groups += (groups.empty() ? "in " : ", ") + r.name;
    }
    bool state = scenario_.findResource(name)->kind == ResourceKind::State;
    out_ << "<text x=\"8\" y=\"" << y + 19 << "\" font-weight=\"bold\">" << escapeHtml(name)
         << "</text>\n<text x=\"8\" y=\"" << y + 35 << "\" fill=\"#666\" font-size=\"10\">"
         << escapeHtml((state ? "state" : "plain") + std::string(groups.empty() ? "" : "; ") +
                       groups)
         << "</text>\n";
  }

  void axis(int height) {
    long span = std::max<long>(record_.endMs, 1);
    long step = span <= 2000 ? 250 : span <= 5000 ? 500 : span <= 20000 ? 1000 : 5000;
    for (long t = 0; t <= span; t += step) {
      out_ << "<line x1=\"" << x(t) << "\" y1=\"" << kAxisHeight - 6 << "\" x2=\"" << x(t)
           << "\" y2=\"" << height - 8 << "\" stroke=\"#d0d4da\"/>\n<text x=\"" << x(t) << "\" y=\""
           << kAxisHeight - 10 << "\" text-anchor=\"middle\" fill=\"#555\">" << t << " ms</text>\n";
    }
  }

  void activation(const Span& a) {
    int y = top(a.resource);
    out_ << "<rect x=\"" << x(a.fromMs) << "\" y=\"" << y + 2 << "\" width=\""
         << std::max(1.0, x(a.toMs) - x(a.fromMs)) << "\" height=\"" << kLaneHeight - 4
         << "\" fill=\"" << kActivated << "\"><title>" << escapeHtml(a.resource)
         << " activated from " << a.fromMs << " to " << a.toMs << " ms</title></rect>\n";
  }

  void bar(const Span& s, int dy, int h, bool wait) {
    int y = top(s.resource);
    if (y < 0) return;
    double from = x(s.fromMs), width = std::max(2.0, x(s.toMs) - from);
    std::string c = s.owner.empty() ? kNobody : colour(s.owner);
    std::string who = s.owner.empty() ? "deactivation of " + s.resource : s.owner;
    std::string title =
        wait ? who + " waits for " + s.resource + (s.holder.empty() ? "" : ", held by " + s.holder)
             : who + " holds " + s.resource;
    out_ << "<g><title>" << escapeHtml(title) << " (" << s.fromMs << " to " << s.toMs
         << " ms)</title><rect x=\"" << from << "\" y=\"" << y + dy << "\" width=\"" << width
         << "\" height=\"" << h << "\" rx=\"3\" fill=\"" << c << "\""
         << (wait ? " fill-opacity=\"0.3\" stroke-dasharray=\"4 2\" stroke=\"" + c + "\"" : "")
         << "/>";
    std::string label = wait ? who + " waits" : who;
    if (width > 7.0 * static_cast<double>(label.size()))
      out_ << "<text x=\"" << from + 4 << "\" y=\"" << y + dy + h - 4 << "\" fill=\""
           << (wait ? "#222" : "#fff") << "\" font-size=\"" << (wait ? 10 : 12) << "\">"
           << escapeHtml(label) << "</text>";
    out_ << "</g>\n";
  }

  void mark(const Event& e) {
    const Mark* m = markOf(e.kind);
    int y = top(e.resource);
    if (!m || y < 0) return;
    out_ << "<path class=\"mark\" transform=\"translate(" << x(e.ms) << "," << y + 34 << ")\" d=\""
         << m->shape << "\" fill=\"" << m->colour << "\" stroke=\"" << m->colour
         << "\" stroke-width=\"2\" fill-opacity=\"0.85\"><title>" << e.ms
         << " ms: " << escapeHtml(e.text) << "</title></path>\n";
  }

  void alarm(const Event& e, int height) {
    for (const Alarm& a : kAlarms)
      if (a.kind == e.kind)
        out_ << "<line class=\"alarm\" x1=\"" << x(e.ms) << "\" y1=\"" << kAxisHeight << "\" x2=\""
             << x(e.ms) << "\" y2=\"" << height - 8 << "\" stroke=\"" << a.colour
             << "\" stroke-width=\"2\" stroke-dasharray=\"" << kAlarmDash << "\"><title>" << e.ms
             << " ms: " << escapeHtml(e.text) << "</title></line>\n";
  }

  const Scenario& scenario_;
  const RunRecord& record_;
  std::vector<std::string> lanes_;
  double scale_ = 1.0;
  std::ostringstream out_;
};

std::string legend(const Scenario& s, const Timeline& timeline) {
  std::ostringstream out;
  out << "<div class=\"legend\">";
  for (const OwnerEntry& o : s.owners)
    out << "<span><i style=\"background:" << timeline.colour(o.name) << "\"></i>"
        << escapeHtml(o.name) << "</span>";
  out << "<span><i class=\"wait\"></i>waiting (pale, dashed)</span>"
      << "<span><i class=\"on\"></i>state activated</span>";
  for (const Mark& m : kMarks)
    out << "<span><svg width=\"14\" height=\"14\" viewBox=\"-7 -7 14 14\"><path d=\"" << m.shape
        << "\" fill=\"" << m.colour << "\" stroke=\"" << m.colour << "\" stroke-width=\"2\"/></svg>"
        << escapeHtml(m.legend) << "</span>";
  for (const Alarm& a : kAlarms)
    out << "<span><svg width=\"14\" height=\"14\"><line x1=\"7\" y1=\"0\" x2=\"7\" y2=\"14\" "
        << "stroke=\"" << a.colour << "\" stroke-width=\"2\" stroke-dasharray=\"" << kAlarmDash
        << "\"/></svg>" << escapeHtml(a.legend) << "</span>";
  out << "</div>\n";
  return out.str();
}

const char kStyle[] =
    "body{font-family:sans-serif;margin:24px;color:#222}"
    "h1{margin-bottom:4px}.summary{color:#444}.ok{color:#2e7d32}.bad{color:#c0392b}"
    ".legend{margin:8px 0 16px;font-size:13px}.legend span{margin-right:14px;white-space:nowrap}"
    ".legend i{display:inline-block;width:14px;height:10px;margin-right:4px;border-radius:2px}"
    ".legend i.wait{background:#ddd;border:1px dashed #888}.legend i.on{background:#d9f2d9}.legend "
    "svg{margin-right:4px;vertical-align:-2px}"
    "table{border-collapse:collapse;font-size:13px}td{padding:2px 10px;vertical-align:top}"
    "td.ms{text-align:right;color:#555}tr:nth-child(odd){background:#f5f6f8}"
    "pre{background:#f5f6f8;padding:10px;font-size:13px}";

}  // namespace

std::string renderTimeline(const Scenario& scenario, const std::vector<Event>& events,
                           const RunRecord& record) {
  return Timeline(scenario, record).render(events);
}

std::string renderReport(const Scenario& scenario, const std::vector<Event>& events,
                         const RunRecord& record) {
  std::ostringstream out;
  std::size_t failed = std::count_if(record.results.begin(), record.results.end(),
                                     [](const ExpectResult& r) { return !r.held; });
  out << "<!DOCTYPE html>\n<html lang=\"en\"><head><meta charset=\"utf-8\"><title>zuresource-sim: "
      << escapeHtml(scenario.title) << "</title><style>" << kStyle << "</style></head><body>\n"
      << "<h1>" << escapeHtml(scenario.title) << "</h1>\n<p class=\"summary\">"
      << escapeHtml(scenario.description) << "</p>\n<p class=\"summary\">"
      << escapeHtml(scenario.file) << ": ran " << record.endMs
      << " ms; expectations: " << record.results.size() - failed << " held, <span class=\""
      << (failed ? "bad" : "ok") << "\">" << failed << " failed</span></p>\n<h2>Timeline</h2>\n";
  Timeline timeline(scenario, record);
  out << legend(scenario, timeline) << timeline.render(events);
  out << "<h2>Expectations</h2>\n<ul>\n";
  for (const ExpectResult& r : record.results)
    out << "<li class=\"" << (r.held ? "ok" : "bad") << "\">" << (r.held ? "held" : "FAILED") << " "
        << escapeHtml(r.entry) << ": " << escapeHtml(r.text) << "</li>\n";
  out << "</ul>\n<h2>Event log</h2>\n<table>\n";
  for (const Event& e : events)
    out << "<tr><td class=\"ms\">" << e.ms << " ms</td><td>" << escapeHtml(kindName(e.kind))
        << "</td><td>" << escapeHtml(e.text) << "</td></tr>\n";
  out << "</table>\n<h2>Final status page</h2>\n<pre>";
  for (const std::string& line : statusPageLines(record.finalStatus))
    out << escapeHtml(line) << "\n";
  out << "</pre>\n</body></html>\n";
  return out.str();
}

bool writeReport(const std::string& path, const Scenario& scenario,
                 const std::vector<Event>& events, const RunRecord& record) {
  std::ofstream file(path);
  file << renderReport(scenario, events, record);
  return static_cast<bool>(file);
}

}  // namespace zusim
