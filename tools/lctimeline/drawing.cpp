#include "tools/lctimeline/drawing.h"

#include <algorithm>
#include <array>
#include <cmath>
#include <cstdio>
#include <map>
#include <nlohmann/json.hpp>
#include <utility>
#include <vector>

#include "tools/lctimeline/summary.h"

namespace lctimeline {

namespace {

// All lengths in pixels.
constexpr double kLaneHeight = 26;
constexpr double kBarHeight = 18;
constexpr double kAxisHeight = 28;
constexpr double kNamesWidth = 180;
constexpr double kPixelsPerSecond = 10;
constexpr double kNarrowest = 900;
constexpr double kWidest = 12000;
constexpr double kMargin = 24;
constexpr double kTogether = 10;  // what is too narrow to be seen is drawn in pieces of this width
constexpr double kHeight = kAxisHeight + kLaneHeight * static_cast<int>(kLaneCount) + 4;

// Told apart by lightness too, for eyes that do not see all colours.
constexpr std::array<const char*, kStyleCount> kColours = {
    "#b0b0b0", "#d6cfe6", "#f0e442", "#cfe3f5", "#56b4e9", "#0072b2", "#8fa8c0", "#cc79a7",
    "#d55e00", "#8c8c8c", "#efefef", "#e69f00", "#c9ead9", "#009e73", "#dcefd0"};
// What lasts while requests come and go is drawn tall, and below them.
bool is_backdrop(Style style) {
  return style >= Style::kConnecting && style != Style::kRequest;
}

constexpr std::array<const char*, 3> kMarkColours = {"#00734f", "#b00020", "#444444"};

std::string number(double value) {
  std::array<char, 32> text = {};
  static_cast<void>(std::snprintf(text.data(), text.size(), "%.1f", value));
  return text.data();
}

class Scale {
 public:
  explicit Scale(const Timeline& timeline)
      : begin_(timeline.begin), length_(std::max(timeline.end - timeline.begin, kSecond)) {
    const double seconds = static_cast<double>(length_) / kSecond;
    pixels_ = std::clamp(seconds * kPixelsPerSecond, kNarrowest, kWidest);
  }

  double width() const { return pixels_ + 2 * kMargin; }
  double x(Microseconds time) const {
    return kMargin + static_cast<double>(time - begin_) * rate();
  }

  /// The shortest round step whose labels have room.
  Microseconds step() const {
    constexpr double kRoom = 90;
    constexpr std::array<int, 14> kSteps = {1,   2,   5,   10,   20,   30,    60,
                                            120, 300, 600, 1800, 3600, 21600, 86400};
    for (const int seconds : kSteps) {
      if (static_cast<double>(seconds * kSecond) * rate() >= kRoom) return seconds * kSecond;
    }
    const double days = std::ceil(kRoom / rate() / static_cast<double>(kSteps.back() * kSecond));
    return static_cast<Microseconds>(days) * kSteps.back() * kSecond;
  }

 private:
  double rate() const { return pixels_ / static_cast<double>(length_); }

  Microseconds begin_;
  Microseconds length_;
  double pixels_ = 0;
};

double lane_top(std::size_t lane) {
  return kAxisHeight + kLaneHeight * static_cast<double>(lane);
}

// What is drawn as one bar: a span, or several narrow ones side by side.
struct Bar {
  Span span;
  double left = 0;
  double right = 0;
  long count = 1;
  Microseconds filled = 0;  // of its length; less than all of it for several spans

  double share() const {
    return static_cast<double>(filled) / static_cast<double>(span.end - span.begin);
  }
};

std::vector<Bar> bars_of(const Timeline& timeline, const Scale& scale) {
  std::vector<Bar> bars;
  std::map<std::pair<std::size_t, Style>, std::size_t> latest;
  for (const Span& span : timeline.spans) {
    const double left = scale.x(span.begin);
    const double right = scale.x(span.end);
    const auto [place, added] = latest.try_emplace({span.lane, span.style}, bars.size());
    if (!added) {
      Bar& before = bars.at(place->second);
      const bool narrow = right - left < 1 && (before.count > 1 || before.right - before.left < 1);
      if (narrow && left - before.right < 1 && right - before.left < kTogether) {
        before.right = right;
        before.span.end = span.end;
        before.filled += span.end - span.begin;
        ++before.count;
        continue;
      }
      place->second = bars.size();
    }
    bars.push_back({span, left, right, 1, span.end - span.begin});
  }
  // What fills less of its length is lower, and lies in front.
  std::stable_sort(bars.begin(), bars.end(),
                   [](const Bar& a, const Bar& b) { return a.share() > b.share(); });
  return bars;
}

std::string title(const std::string& text) {
  return "<title>" + xml_text(text) + "</title>";
}

std::string draw(const Bar& bar) {
  const Span& span = bar.span;
  const double height =
      std::max((is_backdrop(span.style) ? kBarHeight : kBarHeight - 4) * bar.share(), 2.0);
  const double top = lane_top(span.lane) + (kLaneHeight - height) / 2;
  std::string what = style_name(span.style);
  if (bar.count > 1) {
    what += ", " + std::to_string(bar.count) + " times, together " + duration(bar.filled);
  } else if (!span.label.empty()) {
    what = span.label + ": " + what;
  }
  return "<rect class=\"s" + std::to_string(static_cast<int>(span.style)) + "\" x=\"" +
         number(bar.left) + "\" y=\"" + number(top) + "\" width=\"" +
         number(std::max(bar.right - bar.left, 0.5)) + "\" height=\"" + number(height) + "\">" +
         title(what + "\n" + time_of_day(span.begin) + " to " + time_of_day(span.end) + ", " +
               duration(span.end - span.begin)) +
         "</rect>\n";
}

std::string mark_shape(MarkStyle style, double x, double y) {
  const std::string at = number(x) + "," + number(y);
  switch (style) {
    case MarkStyle::kSent:  // a tick
      return "M" + at + "m-5,0l3.5,4.5l6.5,-9";
    case MarkStyle::kFailed:  // a cross
      return "M" + at + "m-4,-4l8,8m0,-8l-8,8";
    case MarkStyle::kNote:  // a stroke
      return "M" + at + "m0,-7l0,14";
  }
  return "";
}

constexpr long kTold = 4;

// Marks of one sort that would lie over each other.
struct MarkGroup {
  const Mark* first;
  double x;
  long count = 0;
  std::string lines = {};  // of the first few

  void add(const Mark& mark) {
    if (++count <= kTold) lines += time_of_day(mark.time) + " " + mark.label + "\n";
  }
};

std::string draw(const MarkGroup& group) {
  const double y = lane_top(group.first->lane) + kLaneHeight / 2;
  const std::string more =
      group.count > kTold ? "and " + std::to_string(group.count - kTold) + " more\n" : "";
  const std::string text = group.lines + more;
  return "<path class=\"m" + std::to_string(static_cast<int>(group.first->style)) + "\" d=\"" +
         mark_shape(group.first->style, group.x, y) + "\">" +
         title(text.substr(0, text.size() - 1)) + "</path>\n";
}

std::string draw_marks(const Timeline& timeline, const Scale& scale) {
  std::map<std::pair<std::size_t, MarkStyle>, MarkGroup> pending;
  std::string svg;
  for (const Mark& mark : timeline.marks) {
    const double x = scale.x(mark.time);
    MarkGroup& group =
        pending.try_emplace({mark.lane, mark.style}, MarkGroup{&mark, x}).first->second;
    if (x - group.x >= kTogether) {
      svg += draw(group);
      group = MarkGroup{&mark, x};
    }
    group.add(mark);
  }
  for (const auto& [place, group] : pending)
    svg += draw(group);
  return svg;
}

std::string style_sheet() {
  std::string css =
      "text{font:12px sans-serif;fill:#222}.lane{fill:#fafafa}.odd{fill:#f2f2f2}"
      ".grid{stroke:#ddd}path{fill:none;stroke-width:2}rect:hover{stroke:#000}";
  for (std::size_t index = 0; index < kStyleCount; ++index)
    css += ".s" + std::to_string(index) + "{fill:" + kColours.at(index) + "}";
  for (std::size_t index = 0; index < kMarkColours.size(); ++index)
    css += ".m" + std::to_string(index) + "{stroke:" + kMarkColours.at(index) + "}";
  return "<style>" + css + "</style>\n";
}

std::string svg_begin(double width, double height) {
  const std::string size = number(width) + " " + number(height);
  return "<svg xmlns=\"http://www.w3.org/2000/svg\" width=\"" + number(width) + "\" height=\"" +
         number(height) + "\" viewBox=\"0 0 " + size + "\" role=\"img\">\n" + style_sheet();
}

std::string draw_lanes(double width) {
  std::string svg;
  for (std::size_t lane = 0; lane < kLaneCount; ++lane) {
    svg += std::string("<rect class=\"") + (lane % 2 == 0 ? "lane" : "odd") + "\" x=\"0\" y=\"" +
           number(lane_top(lane)) + "\" width=\"" + number(width) + "\" height=\"" +
           number(kLaneHeight) + "\"/>\n";
  }
  return svg;
}

std::string draw_names() {
  std::string svg = draw_lanes(kNamesWidth);
  for (std::size_t lane = 0; lane < kLaneCount; ++lane) {
    constexpr double kBaseline = 17;
    svg += "<text x=\"8\" y=\"" + number(lane_top(lane) + kBaseline) + "\">" +
           xml_text(lane_name(lane)) + "</text>\n";
  }
  return svg;
}

std::string draw_axis(const Timeline& timeline, const Scale& scale) {
  constexpr Microseconds kMinute = 60 * kSecond;
  const Microseconds step = scale.step();
  std::string svg;
  for (Microseconds time = (timeline.begin + step - 1) / step * step; time <= timeline.end;
       time += step) {
    const std::string x = number(scale.x(time));
    const std::string text = date_and_time(time);  // 2026-02-03 09:05:00
    const std::string label = step < kMinute ? text.substr(11) : text.substr(5, 11);
    svg += "<path class=\"grid\" d=\"M" + x + ",20V" + number(kHeight) + "\"/>";
    svg += "<text x=\"" + x + "\" y=\"15\" text-anchor=\"middle\">";
    svg += label + "</text>\n";
  }
  return svg;
}

std::string draw_chart(const Timeline& timeline, const Scale& scale) {
  std::string svg = draw_lanes(scale.width()) + draw_axis(timeline, scale);
  const std::vector<Bar> bars = bars_of(timeline, scale);
  // What lies below comes first.
  for (const bool below : {true, false}) {
    for (const Bar& bar : bars) {
      if (is_backdrop(bar.span.style) == below) svg += draw(bar);
    }
  }
  return svg + draw_marks(timeline, scale);
}

std::string legend() {
  std::string html = "<p class=\"legend\">";
  for (std::size_t index = 0; index < kStyleCount; ++index) {
    html += std::string("<span><i style=\"background:") + kColours.at(index) + "\"></i>" +
            xml_text(style_name(static_cast<Style>(index))) + "</span> ";
  }
  return html +
         "<span><b style=\"color:#00734f\">\u2713</b> sent</span> "
         "<span><b style=\"color:#b00020\">\u2715</b> failed, lost</span> "
         "<span><b>|</b> noted</span></p>\n";
}

constexpr char kPageStyle[] =
    "body{font:14px sans-serif;color:#222;margin:1.5em;background:#fff}"
    "h1{font-size:1.3em}pre{font:13px monospace;background:#f6f6f6;padding:1em;overflow:auto}"
    ".picture{display:flex;border:1px solid #ccc}.scroll{overflow-x:auto}.picture "
    "svg{display:block;"
    "flex:none}.legend span{margin-right:1em;white-space:nowrap}.legend i{display:inline-block;"
    "width:1em;height:.8em;margin-right:.3em;border:1px solid #bbb}";

}  // namespace

std::string xml_text(const std::string& text) {
  // The JSON library knows how to mend UTF-8.
  const auto dumped =
      nlohmann::json(text).dump(-1, ' ', false, nlohmann::json::error_handler_t::replace);
  std::string mended;
  for (const char c : nlohmann::json::parse(dumped).get<std::string>()) {
    switch (c) {
      case '&':
        mended += "&amp;";
        break;
      case '<':
        mended += "&lt;";
        break;
      case '>':
        mended += "&gt;";
        break;
      case '"':
        mended += "&quot;";
        break;
      default:
        constexpr unsigned char kFirstPrintable = 0x20;
        if (static_cast<unsigned char>(c) < kFirstPrintable && c != '\n' && c != '\t') {
          mended += "\uFFFD";
        } else {
          mended += c;
        }
    }
  }
  return mended;
}

std::string svg_picture(const Timeline& timeline) {
  const Scale scale(timeline);
  return "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n" +
         svg_begin(kNamesWidth + scale.width(), kHeight) + draw_names() +
         "<g transform=\"translate(" + number(kNamesWidth) + ",0)\">\n" +
         draw_chart(timeline, scale) + "</g>\n</svg>\n";
}

std::string html_page(const Timeline& timeline) {
  const Scale scale(timeline);
  const std::string heading =
      timeline.service_lines == 0
          ? "Nothing of the log consumer"
          : "Log consumer, " + date_and_time(timeline.begin) + " to " + date_and_time(timeline.end);
  return "<!DOCTYPE html>\n<html lang=\"en\"><head><meta charset=\"utf-8\"><title>" + heading +
         "</title>\n<style>" + kPageStyle + "</style></head>\n<body><h1>" + heading + "</h1>\n" +
         "<div class=\"picture\">" + svg_begin(kNamesWidth, kHeight) + draw_names() +
         "</svg><div class=\"scroll\">" + svg_begin(scale.width(), kHeight) +
         draw_chart(timeline, scale) + "</svg></div></div>\n" + legend() + "<pre>" +
         xml_text(summary(timeline)) + "</pre>\n</body></html>\n";
}

}  // namespace lctimeline
