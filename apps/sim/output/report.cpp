#include "output/report.h"

#include <algorithm>
#include <cmath>
#include <numeric>
#include <sstream>
#include <unordered_map>

#include "reportassets.h"

namespace zusim {

namespace {

// The first twelve owners get these colours; later owners get hues spread
// round the wheel, and each further block of twelve a pattern over its bars,
// so that neighbours in the owner list never look alike.
const char* const kPalette[] = {"#4e79a7", "#f28e2b", "#59a14f", "#e15759", "#76b7b2", "#b07aa1",
                                "#edc948", "#9c755f", "#ff9da7", "#17becf", "#8c564b", "#7f7f7f"};
const std::size_t kPaletteSize = sizeof kPalette / sizeof *kPalette;
const char kNobody[] = "#9a9a9a";     // waits of a deactivation
const char kActivated[] = "#d9f2d9";  // a state resource's activation

/// The patterns laid over an owner's bars, by owner block; the first is none.
/// Each is an SVG pattern for the chart and a CSS background for the legend.
struct Pattern {
  const char* svg;
  const char* css;
};
const Pattern kPatterns[] = {
    {"", ""},
    {"<pattern id=\"pat1\" width=\"6\" height=\"6\" patternUnits=\"userSpaceOnUse\" "
     "patternTransform=\"rotate(45)\"><rect width=\"2\" height=\"6\" fill=\"#fff\" "
     "fill-opacity=\".65\"/></pattern>",
     "repeating-linear-gradient(45deg,rgba(255,255,255,.65) 0 2px,transparent 2px 5px)"},
    {"<pattern id=\"pat2\" width=\"5\" height=\"5\" patternUnits=\"userSpaceOnUse\"><circle "
     "cx=\"2.5\" cy=\"2.5\" r=\"1.3\" fill=\"#fff\" fill-opacity=\".75\"/></pattern>",
     "radial-gradient(rgba(255,255,255,.75) 30%,transparent 35%) 0 0/5px 5px"},
    {"<pattern id=\"pat3\" width=\"6\" height=\"6\" patternUnits=\"userSpaceOnUse\"><path "
     "d=\"M0,0 L6,6 M6,0 L0,6\" stroke=\"#fff\" stroke-opacity=\".65\"/></pattern>",
     "repeating-linear-gradient(45deg,rgba(255,255,255,.6) 0 1px,transparent 1px 4px),"
     "repeating-linear-gradient(-45deg,rgba(255,255,255,.6) 0 1px,transparent 1px 4px)"},
};
const std::size_t kPatternCount = sizeof kPatterns / sizeof *kPatterns;

const int kPlotWidth = 1000;  // the time axis at zoom 1, in px
const int kPadLeft = 36;      // room for half the first tick's label
const int kPadRight = 56;     // and half the last one's
const int kAxisHeight = 28;
const int kTickSpacing = 90;  // px between the axis's ticks, at least
const int kLabelsMin = 150;   // the lane labels' column, at least
const int kLabelsMax = 600;   // and at most: longer group lists are cut, whole in the tooltip
const int kLaneMin = 46;      // room for a lane's two lines of label
const int kLanePad = 4;
const int kHoldRow = 20;           // a holding's sub-lane, uncrowded
const int kWaitRow = 14;           // a wait's sub-lane, uncrowded
const int kMarkRow = 16;           // the marks below them
const int kLeastRow = 5;           // a crowded lane's sub-lanes shrink down to this
const double kLeastBar = 2.5;      // px: the narrowest bar, and a little room after it
const std::size_t kListFrom = 31;  // owners from which the legend is a searchable list
const std::size_t kListName = 22;    // bytes of a name the list's columns show
const std::size_t kLegendName = 36;  // and a legend of few owners
const double kHoldCharPx = 8.0;    // room a holding's label (12 px) takes per character
const double kWaitCharPx = 6.7;    // and a wait's (10 px)
const std::size_t kLeastLabel = 3;  // characters: a label cut shorter is left out

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

std::string ownerColour(std::size_t i) {
  if (i < kPaletteSize) return kPalette[i];
  // The golden angle keeps any number of hues apart; three lightness steps
  // tell apart hues that come close.
  int hue = static_cast<int>(std::fmod(static_cast<double>(i) * 137.508, 360.0));
  return "hsl(" + std::to_string(hue) + ",62%," + std::to_string(36 + 12 * (i % 3)) + "%)";
}

std::size_t ownerPattern(std::size_t i) { return (i / kPaletteSize) % kPatternCount; }

/// `label` whole if it has room for `room` characters, else cut to that
/// room with an ellipsis (as wide as two characters; never inside a UTF-8
/// sequence), or empty when less than kLeastLabel characters would show.
std::string fitted(const std::string& label, double room) {
  if (room >= static_cast<double>(label.size())) return label;
  if (room < static_cast<double>(kLeastLabel) + 2) return "";
  std::size_t keep = static_cast<std::size_t>(room) - 2;
  while (keep > 0 && (static_cast<unsigned char>(label[keep]) & 0xC0) == 0x80) --keep;
  return label.substr(0, keep) + "\xe2\x80\xa6";
}

/// The height of each of `rows` sub-lanes: `full` while there are few, then
/// shrinking so that a crowded lane stays within a few full rows' height.
int rowHeight(int rows, int full) {
  return rows <= 3 ? full : std::max(kLeastRow, full * 3 / rows);
}

/// The ms between the axis's ticks: 1, 2 or 5 times a power of ten, the
/// first at least kTickSpacing px apart at `pxPerMs`.
long tickStep(double pxPerMs) {
  for (long power = 1;; power *= 10)
    for (long f : {1, 2, 5})
      if (static_cast<double>(f * power) * pxPerMs >= kTickSpacing || power > 100000000)
        return f * power;
}

/// Stacks `spans` into sub-lanes so that no two in one overlap: each goes to
/// the first sub-lane free at its start. Returns each span's sub-lane and sets
/// `rows` to how many there are (at least one).
std::vector<int> stack(const std::vector<const Span*>& spans, double leastMs, int& rows) {
  std::vector<std::size_t> order(spans.size());
  std::iota(order.begin(), order.end(), 0);
  std::stable_sort(order.begin(), order.end(), [&](std::size_t a, std::size_t b) {
    return spans[a]->fromMs < spans[b]->fromMs;
  });
  std::vector<double> ends;
  std::vector<int> row(spans.size());
  for (std::size_t i : order) {
    const Span& s = *spans[i];
    auto free = std::find_if(ends.begin(), ends.end(),
                             [&](double end) { return end <= static_cast<double>(s.fromMs); });
    if (free == ends.end()) free = ends.insert(ends.end(), 0);
    // A bar is drawn at least a few px wide: it takes that room at least.
    *free = std::max(static_cast<double>(s.toMs), static_cast<double>(s.fromMs) + leastMs);
    row[i] = static_cast<int>(free - ends.begin());
  }
  rows = std::max<int>(1, static_cast<int>(ends.size()));
  return row;
}

/// One plain or state resource's lane: holdings above, waits below them,
/// marks at the bottom.
struct Lane {
  std::string name;
  std::string about;  // "plain; in G1, G2"
  int top = 0;
  int holdRows = 1, waitRows = 1;
  int holdRow = kHoldRow, waitRow = kWaitRow;
  int holdTop() const { return top + kLanePad; }
  int waitTop() const { return holdTop() + holdRows * holdRow; }
  int markY() const { return waitTop() + waitRows * waitRow + kMarkRow / 2; }
  int height() const {
    return std::max(kLaneMin, 2 * kLanePad + holdRows * holdRow + waitRows * waitRow + kMarkRow);
  }
};

class Timeline {
 public:
  Timeline(const Scenario& s, const RunRecord& r) : scenario_(s), record_(r) {
    for (std::size_t i = 0; i < s.owners.size(); ++i) ownerIndex_[s.owners[i].name] = i;
    std::unordered_map<std::string, std::string> groupsOf;
    for (const ResourceEntry& g : s.resources)
      if (g.kind == ResourceKind::Group)
        for (const std::string& leaf : s.leavesOf(g.name))
          groupsOf[leaf] += (groupsOf[leaf].empty() ? "in " : ", ") + g.name;
    for (const ResourceEntry& res : s.resources) {
      if (res.kind == ResourceKind::Group) continue;
      laneIndex_[res.name] = lanes_.size();
      Lane lane;
      lane.name = res.name;
      const std::string& groups = groupsOf[res.name];
      lane.about = (res.kind == ResourceKind::State ? "state"
                    : res.fleet                     ? "fleet"
                                                    : "plain") +
                   std::string(groups.empty() ? "" : "; ") + groups;
      lanes_.push_back(lane);
    }
    span_ = std::max<long>(r.endMs, 1);
    scale_ = static_cast<double>(kPlotWidth) / static_cast<double>(span_);
    holdRow_ = place(r.holdings, &Lane::holdRows, &Lane::holdRow, kHoldRow);
    waitRow_ = place(r.waits, &Lane::waitRows, &Lane::waitRow, kWaitRow);
    height_ = kAxisHeight;
    for (Lane& lane : lanes_) {
      lane.top = height_;
      height_ += lane.height();
    }
    height_ += 8;
    std::size_t longest = 0, longestAbout = 0;
    for (const Lane& lane : lanes_) {
      longest = std::max(longest, lane.name.size());
      longestAbout = std::max(longestAbout, lane.about.size());
    }
    labelWidth_ =
        std::max<int>(kLabelsMin, static_cast<int>(std::max(longest * 8, longestAbout * 6)) + 20);
    labelWidth_ = std::min(labelWidth_, kLabelsMax);
  }

  std::string render(const std::vector<Event>& events) {
    int width = kPadLeft + kPlotWidth + kPadRight;
    out_ << "<div class=\"timeline\" id=\"timeline\">\n<div class=\"zoom\"><label>zoom <input "
            "type=\"range\" id=\"zoom\" min=\"0\" max=\"7\" step=\"0.25\" value=\"0\"></label> "
            "<span>(or Ctrl + mouse wheel over the chart; hover a bar to pick out its "
            "owner)</span></div>\n<div class=\"frame\">\n<svg class=\"labels\" width=\""
         << labelWidth_ << "\" height=\"" << height_
         << "\" font-family=\"sans-serif\" font-size=\"12\">\n";
    for (std::size_t i = 0; i < lanes_.size(); ++i) laneLabel(i);
    out_ << "</svg>\n<div class=\"scroll\"><svg class=\"chart\" "
            "xmlns=\"http://www.w3.org/2000/svg\" width=\""
         << width << "\" height=\"" << height_ << "\" data-pad=\"" << kPadLeft << "\" data-plot=\""
         << kPlotWidth << "\" data-span=\"" << span_ << "\" data-right=\"" << kPadRight
         << "\" font-family=\"sans-serif\" font-size=\"12\">\n<defs>";
    for (const Pattern& p : kPatterns) out_ << p.svg;
    out_ << "</defs>\n";
    for (std::size_t i = 0; i < lanes_.size(); ++i)
      out_ << "<rect y=\"" << lanes_[i].top << "\" width=\"100%\" height=\"" << lanes_[i].height()
           << "\" fill=\"" << (i % 2 ? "#ffffff" : "#f3f4f6") << "\"/>\n";
    axis();
    for (const Span& a : record_.activations) activation(a);
    for (std::size_t i = 0; i < record_.holdings.size(); ++i)
      bar(record_.holdings[i], holdRow_[i], false);
    for (std::size_t i = 0; i < record_.waits.size(); ++i) bar(record_.waits[i], waitRow_[i], true);
    for (const Event& e : events) mark(e);
    for (const Event& e : events) alarm(e);
    out_ << "</svg></div>\n</div>\n</div>\n";
    return out_.str();
  }

  /// One CSS rule per owner: its colour and pattern, for the bars and the legend.
  std::string ownerStyles() const {
    std::ostringstream out;
    for (std::size_t i = 0; i < scenario_.owners.size(); ++i) {
      std::string c = ownerColour(i);
      out << ".c" << i << "{fill:" << c << ";stroke:" << c << ";background:" << c << "}";
    }
    for (std::size_t p = 1; p < kPatternCount; ++p)
      out << ".p" << p << "{fill:url(#pat" << p << ");stroke:none;pointer-events:none}"
          << "i.p" << p << "{background:" << kPatterns[p].css << "}";
    return out.str();
  }

  /// The swatch of owner `i` for the legend.
  static std::string swatch(std::size_t i) {
    std::size_t p = ownerPattern(i);
    std::string out = "<i class=\"c" + std::to_string(i) + "\">";
    if (p) out += "<i class=\"p" + std::to_string(p) + "\"></i>";
    return out + "</i>";
  }

 private:
  /// Stacks the spans of each lane into sub-lanes and sizes the lanes' rows.
  std::vector<int> place(const std::vector<Span>& spans, int Lane::*rows, int Lane::*row,
                         int full) {
    std::vector<std::vector<const Span*>> byLane(lanes_.size());
    std::vector<std::vector<std::size_t>> indexOf(lanes_.size());
    for (std::size_t i = 0; i < spans.size(); ++i) {
      auto lane = laneIndex_.find(spans[i].resource);
      if (lane == laneIndex_.end()) continue;
      byLane[lane->second].push_back(&spans[i]);
      indexOf[lane->second].push_back(i);
    }
    std::vector<int> out(spans.size(), -1);
    for (std::size_t l = 0; l < lanes_.size(); ++l) {
      std::vector<int> stacked = stack(byLane[l], kLeastBar / scale_, lanes_[l].*rows);
      lanes_[l].*row = rowHeight(lanes_[l].*rows, full);
      for (std::size_t k = 0; k < stacked.size(); ++k) out[indexOf[l][k]] = stacked[k];
    }
    return out;
  }

  double x(long ms) const { return kPadLeft + scale_ * static_cast<double>(ms); }
  const Lane* laneOf(const std::string& resource) const {
    auto it = laneIndex_.find(resource);
    return it == laneIndex_.end() ? nullptr : &lanes_[it->second];
  }
  /// The owner's index among the declared owners, or -1.
  long indexOf(const std::string& owner) const {
    auto it = ownerIndex_.find(owner);
    return it == ownerIndex_.end() ? -1 : static_cast<long>(it->second);
  }

  void laneLabel(std::size_t i) {
    const Lane& lane = lanes_[i];
    std::string about = lane.about;
    std::size_t room = static_cast<std::size_t>((labelWidth_ - 20) / 6);
    if (about.size() > room) about = about.substr(0, room - 1) + "\xe2\x80\xa6";
    out_ << "<rect y=\"" << lane.top << "\" width=\"100%\" height=\"" << lane.height()
         << "\" fill=\"" << (i % 2 ? "#ffffff" : "#f3f4f6") << "\"/>\n<text x=\"8\" y=\""
         << lane.top + 19 << "\" font-weight=\"bold\">" << escapeHtml(lane.name)
         << "</text>\n<text x=\"8\" y=\"" << lane.top + 35
         << "\" fill=\"#666\" font-size=\"10\"><title>" << escapeHtml(lane.about) << "</title>"
         << escapeHtml(about) << "</text>\n";
  }

  void axis() {
    long step = tickStep(scale_);
    out_ << "<g class=\"axis\">";
    for (long t = 0; t <= span_; t += step)
      out_ << "<line data-t=\"" << t << "\" x1=\"" << x(t) << "\" x2=\"" << x(t) << "\" y1=\""
           << kAxisHeight - 6 << "\" y2=\"" << height_ - 8
           << "\" stroke=\"#d0d4da\"/><text data-t=\"" << t << "\" x=\"" << x(t) << "\" y=\""
           << kAxisHeight - 10 << "\" text-anchor=\"middle\" fill=\"#555\">" << t << " ms</text>";
    out_ << "</g>\n";
  }

  void activation(const Span& a) {
    const Lane* lane = laneOf(a.resource);
    if (!lane) return;
    out_ << "<rect data-t=\"" << a.fromMs << "\" data-u=\"" << a.toMs << "\" x=\"" << x(a.fromMs)
         << "\" y=\"" << lane->top + 2 << "\" width=\"" << std::max(1.0, x(a.toMs) - x(a.fromMs))
         << "\" height=\"" << lane->height() - 4 << "\" fill=\"" << kActivated << "\" data-tip=\""
         << escapeHtml(a.resource) << " activated from " << a.fromMs << " to " << a.toMs
         << " ms\"/>\n";
  }

  void bar(const Span& s, int row, bool wait) {
    const Lane* lane = laneOf(s.resource);
    if (!lane) return;
    int h = wait ? lane->waitRow : lane->holdRow;
    int y = (wait ? lane->waitTop() : lane->holdTop()) + row * h;
    h = std::max(kLeastRow - 1, h - 2);
    double from = x(s.fromMs), width = std::max(2.0, x(s.toMs) - from);
    long owner = indexOf(s.owner);
    std::string who = s.owner.empty() ? "deactivation of " + s.resource : s.owner;
    std::string title =
        wait ? who + " waits for " + s.resource + (s.holder.empty() ? "" : ", held by " + s.holder)
             : who + " holds " + s.resource;
    out_ << "<g data-t=\"" << s.fromMs << "\" data-u=\"" << s.toMs << "\"";
    if (owner >= 0) out_ << " data-o=\"" << owner << "\"";
    out_ << " data-tip=\"" << escapeHtml(title) << " (" << s.fromMs << " to " << s.toMs
         << " ms)\"><rect x=\"" << from << "\" y=\"" << y << "\" width=\"" << width
         << "\" height=\"" << h << "\" rx=\"" << std::min(3, h / 3) << "\" class=\""
         << (wait ? "w" : "h");
    if (owner >= 0)
      out_ << " c" << owner << "\"/>";
    else
      out_ << "\" fill=\"" << kNobody << "\" stroke=\"" << kNobody << "\"/>";
    std::size_t pattern = owner >= 0 ? ownerPattern(static_cast<std::size_t>(owner)) : 0;
    if (pattern)
      out_ << "<rect x=\"" << from << "\" y=\"" << y << "\" width=\"" << width << "\" height=\""
           << h << "\" class=\"p" << pattern << "\"/>";
    std::string label = !wait               ? who
                        : s.owner.empty() ? "deactivation waits for " + s.holder
                                          : who + " waits";
    label = fitted(label, (width - 6.0) / (wait ? kWaitCharPx : kHoldCharPx));
    if (h >= (wait ? 10 : 14) && !label.empty())
      out_ << "<text x=\"" << from << "\" dx=\"4\" y=\"" << y + h - (wait ? 2 : 4) << "\" class=\""
           << (wait ? "tw" : "th") << "\">" << escapeHtml(label) << "</text>";
    out_ << "</g>\n";
  }

  void mark(const Event& e) {
    const Mark* m = markOf(e.kind);
    const Lane* lane = laneOf(e.resource);
    if (!m || !lane) return;
    out_ << "<path class=\"mark\" data-t=\"" << e.ms << "\" data-y=\"" << lane->markY()
         << "\" transform=\"translate(" << x(e.ms) << "," << lane->markY() << ")\" d=\"" << m->shape
         << "\" fill=\"" << m->colour << "\" stroke=\"" << m->colour << "\" data-tip=\"" << e.ms
         << " ms: " << escapeHtml(e.text) << "\"/>\n";
  }

  void alarm(const Event& e) {
    for (const Alarm& a : kAlarms)
      if (a.kind == e.kind)
        out_ << "<line class=\"alarm\" data-t=\"" << e.ms << "\" x1=\"" << x(e.ms) << "\" y1=\""
             << kAxisHeight << "\" x2=\"" << x(e.ms) << "\" y2=\"" << height_ - 8 << "\" stroke=\""
             << a.colour << "\" stroke-width=\"2\" stroke-dasharray=\"" << kAlarmDash
             << "\" data-tip=\"" << e.ms << " ms: " << escapeHtml(e.text) << "\"/>\n";
  }

  const Scenario& scenario_;
  const RunRecord& record_;
  std::unordered_map<std::string, std::size_t> ownerIndex_;
  std::unordered_map<std::string, std::size_t> laneIndex_;
  std::vector<Lane> lanes_;
  std::vector<int> holdRow_;  // the sub-lane of each of record_.holdings
  std::vector<int> waitRow_;  // and of each of record_.waits
  int height_ = 0;
  int labelWidth_ = kLabelsMin;
  long span_ = 1;
  double scale_ = 1.0;
  std::ostringstream out_;
};

/// `name` whole if it has at most `most` bytes, else its start and its end
/// around an ellipsis, so that names that differ only at the end (a number)
/// still look different; never cut inside a UTF-8 sequence.
std::string middleCut(const std::string& name, std::size_t most) {
  if (name.size() <= most) return name;
  auto boundary = [&](std::size_t at) {
    while (at > 0 && at < name.size() && (static_cast<unsigned char>(name[at]) & 0xC0) == 0x80)
      --at;
    return at;
  };
  std::size_t head = boundary((most - 1) / 2), tail = boundary(name.size() - (most - 1 - head));
  return name.substr(0, head) + "\xe2\x80\xa6" + name.substr(tail);
}

/// The legend: the owners (a searchable list when there are many), then the
/// marks. A long name is shown cut in the middle, whole on hover.
std::string legend(const Scenario& s) {
  std::ostringstream out;
  bool list = s.owners.size() >= kListFrom;
  if (list)
    out << "<div class=\"legend owners\"><input type=\"search\" id=\"find\" placeholder=\"find one "
           "of "
        << s.owners.size() << " owners\"><ul id=\"owners\">";
  else
    out << "<div class=\"legend\">";
  for (std::size_t i = 0; i < s.owners.size(); ++i)
    out << (list ? "<li" : "<span") << " data-o=\"" << i << "\" data-tip=\""
        << escapeHtml(s.owners[i].name) << "\">" << Timeline::swatch(i)
        << escapeHtml(middleCut(s.owners[i].name, list ? kListName : kLegendName))
        << (list ? "</li>" : "</span>");
  if (list) out << "</ul></div>\n<div class=\"legend\">";
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
  Timeline timeline(scenario, record);
  out << "<!DOCTYPE html>\n<html lang=\"en\"><head><meta charset=\"utf-8\"><title>zuresource-sim: "
      << escapeHtml(scenario.title) << "</title><style>" << kReportCss << timeline.ownerStyles()
      << "</style><style id=\"highlight\"></style></head><body>\n"
      << "<h1>" << escapeHtml(scenario.title) << "</h1>\n<p class=\"summary\">"
      << escapeHtml(scenario.description) << "</p>\n<p class=\"summary\">"
      << escapeHtml(scenario.file) << ": ran " << record.endMs
      << " ms; expectations: " << record.results.size() - failed << " held, <span class=\""
      << (failed ? "bad" : "ok") << "\">" << failed << " failed</span></p>\n<h2>Timeline</h2>\n";
  out << legend(scenario) << timeline.render(events);
  out << "<h2>Expectations</h2>\n<ul>\n";
  for (const ExpectResult& r : record.results)
    out << "<li class=\"" << (r.held ? "ok" : "bad") << "\">" << (r.held ? "held" : "FAILED") << " "
        << escapeHtml(r.entry) << ": " << escapeHtml(r.text) << "</li>\n";
  // One block of text, as the console shows it: a long run's log stays cheap to show.
  out << "</ul>\n<h2>Event log</h2>\n<pre class=\"log\">";
  for (const Event& e : events) {
    std::string ms = std::to_string(e.ms);
    out << std::string(ms.size() < 6 ? 6 - ms.size() : 0, ' ') << ms << " ms  "
        << escapeHtml(e.text) << "\n";
  }
  out << "</pre>\n<h2>Final status page</h2>\n<pre>";
  for (const std::string& line : statusPageLines(record.finalStatus))
    out << escapeHtml(line) << "\n";
  out << "</pre>\n<script>" << kReportJs << "</script>\n</body></html>\n";
  return out.str();
}

}  // namespace zusim
