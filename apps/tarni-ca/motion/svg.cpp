#include "motion/svg.h"

#include <algorithm>
#include <charconv>
#include <cmath>
#include <limits>
#include <new>
#include <string_view>

namespace tarni::host {
namespace {

constexpr double kMargin = 20.0;
constexpr double kTitleHeight = 28.0;
constexpr const char* kLeftColour = "#1f5fbf";
constexpr const char* kRightColour = "#c83232";
constexpr const char* kCentreColour = "#333333";

// Appends `value` with `decimals` fixed decimals, locale-free; "-0.00" becomes "0.00".
void AppendNumber(std::string& out, double value, int decimals = 2) {
  if (!std::isfinite(value)) value = 0.0;  // callers skip non-finite points; never write them
  const double unit = std::pow(10.0, -decimals) / 2.0;
  if (std::abs(value) < unit) value = 0.0;
  char buffer[64];
  const auto result =
      std::to_chars(buffer, buffer + sizeof buffer, value, std::chars_format::fixed, decimals);
  out.append(buffer, result.ec == std::errc() ? result.ptr : buffer);
}

void AppendEscaped(std::string& out, std::string_view text) {
  for (const char c : text) {
    switch (c) {
      case '&':
        out += "&amp;";
        break;
      case '<':
        out += "&lt;";
        break;
      case '>':
        out += "&gt;";
        break;
      case '"':
        out += "&quot;";
        break;
      case '\'':
        out += "&apos;";
        break;
      default:
        // Control characters are not allowed in XML 1.0 text.
        if (static_cast<unsigned char>(c) >= 0x20 || c == '\t' || c == '\n') out += c;
    }
  }
}

// Appends two numbers as AppendNumber writes them, with `separator` between them: a point of a
// path or polyline, or a pair inside a longer attribute value.
void AppendPair(std::string& out, double x, double y, char separator) {
  AppendNumber(out, x);
  out += separator;
  AppendNumber(out, y);
}

// Appends ` name="value"`, the value written as AppendNumber writes it.
void Attribute(std::string& out, std::string_view name, double value, int decimals = 2) {
  out += ' ';
  out += name;
  out += "=\"";
  AppendNumber(out, value, decimals);
  out += '"';
}

// Appends ` name="value"` with the value as it is, unescaped: values are this file's own class
// names, colours, keywords and number lists, none of which holds a character markup reserves.
// Text from outside (titles, curve names) goes through AppendEscaped as element content instead.
void Attribute(std::string& out, std::string_view name, std::string_view value) {
  out += ' ';
  out += name;
  out += "=\"";
  out += value;
  out += '"';
}

void OpenSvg(std::string& out, double width, double height) {
  out += "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n";
  out += "<svg";
  Attribute(out, "xmlns", "http://www.w3.org/2000/svg");
  Attribute(out, "version", "1.1");
  Attribute(out, "width", width);
  Attribute(out, "height", height);
  std::string viewBox = "0 0 ";
  AppendPair(viewBox, width, height, ' ');
  Attribute(out, "viewBox", viewBox);
  Attribute(out, "font-family", "sans-serif");
  out += ">\n";
  out += "<rect";
  Attribute(out, "x", "0");
  Attribute(out, "y", "0");
  Attribute(out, "width", width);
  Attribute(out, "height", height);
  Attribute(out, "fill", "white");
  out += "/>\n";
}

// `extra` is further attributes, written as they are after a space.
void Text(std::string& out, double x, double y, std::string_view text, int size,
          std::string_view anchor = "start", std::string_view extra = "") {
  out += "<text";
  Attribute(out, "x", x);
  Attribute(out, "y", y);
  Attribute(out, "font-size", std::to_string(size));
  Attribute(out, "text-anchor", anchor);
  if (!extra.empty()) {
    out += ' ';
    out += extra;
  }
  out += '>';
  AppendEscaped(out, text);
  out += "</text>\n";
}

void Line(std::string& out, std::string_view cls, double x1, double y1, double x2, double y2,
          std::string_view colour, double width) {
  out += "<line";
  Attribute(out, "class", cls);
  Attribute(out, "x1", x1);
  Attribute(out, "y1", y1);
  Attribute(out, "x2", x2);
  Attribute(out, "y2", y2);
  Attribute(out, "stroke", colour);
  Attribute(out, "stroke-width", width, 1);
  Attribute(out, "stroke-linecap", "round");
  out += "/>\n";
}

void Dot(std::string& out, std::string_view cls, double x, double y, double radius,
         std::string_view colour) {
  out += "<circle";
  Attribute(out, "class", cls);
  Attribute(out, "cx", x);
  Attribute(out, "cy", y);
  Attribute(out, "r", radius, 1);
  Attribute(out, "fill", colour);
  out += "/>\n";
}

// An unfilled polyline or path; `shapeName` is its shape attribute ("points" or "d").
void Outline(std::string& out, std::string_view element, std::string_view cls,
             std::string_view colour, std::string_view width, std::string_view shapeName,
             std::string_view shape) {
  out += '<';
  out += element;
  Attribute(out, "class", cls);
  Attribute(out, "fill", "none");
  Attribute(out, "stroke", colour);
  Attribute(out, "stroke-width", width);
  Attribute(out, shapeName, shape);
  out += "/>\n";
}

// A rectangle; an empty `cls` writes no class.
void Rect(std::string& out, std::string_view cls, double x, double y, double width, double height,
          std::string_view fill, std::string_view stroke) {
  out += "<rect";
  if (!cls.empty()) Attribute(out, "class", cls);
  Attribute(out, "x", x);
  Attribute(out, "y", y);
  Attribute(out, "width", width);
  Attribute(out, "height", height);
  Attribute(out, "fill", fill);
  Attribute(out, "stroke", stroke);
  out += "/>\n";
}

bool Finite(const Vector& v) {
  return std::isfinite(v.x) && std::isfinite(v.y) && std::isfinite(v.z);
}

// -1 left, 1 right, 0 neither, from the naming conventions in use: LeftArm, LHipJoint,
// upperarm_l, thigh.L, hand_left.
int SideOf(std::string_view name) {
  auto lower = [](char c) { return static_cast<char>(c >= 'A' && c <= 'Z' ? c + 32 : c); };
  auto startsWith = [&](std::string_view word) {
    if (name.size() < word.size()) return false;
    for (size_t i = 0; i < word.size(); ++i) {
      if (lower(name[i]) != word[i]) return false;
    }
    return true;
  };
  auto endsWith = [&](std::string_view word) {
    if (name.size() < word.size()) return false;
    const size_t from = name.size() - word.size();
    for (size_t i = 0; i < word.size(); ++i) {
      if (lower(name[from + i]) != word[i]) return false;
    }
    return true;
  };
  auto initial = [&](char letter) {
    return name.size() >= 2 && name[0] == letter && name[1] >= 'A' && name[1] <= 'Z';
  };
  if (startsWith("left") || initial('L') || endsWith("_l") || endsWith(".l") || endsWith("_left")) {
    return -1;
  }
  if (startsWith("right") || initial('R') || endsWith("_r") || endsWith(".r") ||
      endsWith("_right")) {
    return 1;
  }
  return 0;
}

const char* ColourOf(std::string_view name) {
  const int side = SideOf(name);
  return side < 0 ? kLeftColour : side > 0 ? kRightColour : kCentreColour;
}

// One posed figure: joint positions and End Site positions (NaN where a joint has none).
struct Posed {
  std::vector<Vector> joints;
  std::vector<Vector> tips;
  int64_t frame = 0;
  double rootAcross = 0.0;  // the root's horizontal drawing coordinate
};

double Across(const Vector& p, FigureView view) { return view == FigureView::kFront ? p.x : p.z; }

// The room figures take: across from their root, and from bottom to top; then the scale that fits
// them into a cell.
struct Extent {
  double halfWidth = 0.0;
  double bottom = std::numeric_limits<double>::infinity();
  double top = -std::numeric_limits<double>::infinity();
  double scale = 1.0;

  void Add(double across, double up) {
    halfWidth = std::max(halfWidth, std::abs(across));
    bottom = std::min(bottom, up);
    top = std::max(top, up);
  }
  void Merge(const Extent& other) {
    halfWidth = std::max(halfWidth, other.halfWidth);
    bottom = std::min(bottom, other.bottom);
    top = std::max(top, other.top);
  }
  void Settle(double width, double height) {
    if (!(bottom <= top)) {
      bottom = 0.0;
      top = 1.0;
    }
    // Keep the ground in view when the figures stand on or near it.
    if (bottom > 0.0 && bottom < 0.25 * (top - bottom)) bottom = 0.0;
    if (top - bottom < 1e-9) top = bottom + 1e-9;
    scale = std::min(width / std::max(2.0 * halfWidth, 1e-9), height / (top - bottom));
  }
};

}  // namespace

std::string StickFiguresSvg(std::span<const StickFigureRow> rows,
                            const StickFigureOptions& options) try {
  const double cellWidth =
      std::isfinite(options.cellWidth) && options.cellWidth >= 40 ? options.cellWidth : 180.0;
  const double cellHeight =
      std::isfinite(options.cellHeight) && options.cellHeight >= 60 ? options.cellHeight : 240.0;
  const FigureView view = options.view;
  constexpr double kNaN = std::numeric_limits<double>::quiet_NaN();

  // Pose everything first: the scale depends on all figures of a row, or of the whole drawing.
  std::vector<std::vector<Posed>> posed(rows.size());
  std::vector<Extent> extents(rows.size());
  size_t columns = 1;
  std::vector<Matrix> locals;
  std::vector<Matrix> globals;
  for (size_t r = 0; r < rows.size(); ++r) {
    const BvhMotion* motion = rows[r].motion;
    if (motion == nullptr || motion->joints.empty()) continue;
    const std::vector<PositionMode> modes =
        rows[r].modes.empty() ? GuessPositionModes(*motion) : rows[r].modes;
    std::vector<int64_t> frames = rows[r].frames;
    if (frames.empty()) frames.push_back(0);
    columns = std::max(columns, frames.size());
    for (const int64_t frame : frames) {
      ComputeFrame(*motion, frame, modes, locals, globals);
      Posed figure;
      figure.frame = frame;
      figure.joints.resize(globals.size());
      figure.tips.assign(globals.size(), Vector{kNaN, kNaN, kNaN});
      for (size_t j = 0; j < globals.size(); ++j) {
        figure.joints[j] = globals[j].off;
        const BvhJoint& joint = motion->joints[j];
        if (joint.hasEndSite) {
          figure.tips[j] =
              TransformPoint(globals[j], {joint.endSite[0], joint.endSite[1], joint.endSite[2]});
        }
      }
      figure.rootAcross = Finite(figure.joints[0]) ? Across(figure.joints[0], view) : 0.0;
      for (const auto* points : {&figure.joints, &figure.tips}) {
        for (const Vector& p : *points) {
          if (!Finite(p)) continue;
          extents[r].Add(Across(p, view) - figure.rootAcross, p.y);
        }
      }
      posed[r].push_back(std::move(figure));
    }
  }
  constexpr double kRowTitle = 20.0;
  constexpr double kCaption = 16.0;
  const double figureWidth = cellWidth - 16.0;
  const double figureHeight = cellHeight - kCaption - 12.0;
  if (options.shareScale) {
    Extent all;
    for (const Extent& extent : extents) all.Merge(extent);
    for (Extent& extent : extents) extent = all;
  }
  for (Extent& extent : extents) extent.Settle(figureWidth, figureHeight);

  const double titleHeight = options.title.empty() ? 0.0 : kTitleHeight;
  const double rowHeight = kRowTitle + cellHeight;
  const double totalWidth = 2 * kMargin + static_cast<double>(columns) * cellWidth;
  const double totalHeight =
      2 * kMargin + titleHeight + static_cast<double>(std::max<size_t>(rows.size(), 1)) * rowHeight;

  std::string out;
  OpenSvg(out, totalWidth, totalHeight);
  if (!options.title.empty()) {
    Text(out, totalWidth / 2, kMargin + 16, options.title, 18, "middle", "font-weight=\"bold\"");
  }
  for (size_t r = 0; r < rows.size(); ++r) {
    const double rowTop = kMargin + titleHeight + static_cast<double>(r) * rowHeight;
    out += "<g class=\"row\">\n";
    Text(out, kMargin, rowTop + 15, rows[r].title, 14, "start", "font-weight=\"bold\"");
    const BvhMotion* motion = rows[r].motion;
    const double bottom = extents[r].bottom;
    const double top = extents[r].top;
    const double scale = extents[r].scale;
    for (size_t c = 0; c < posed[r].size(); ++c) {
      const Posed& figure = posed[r][c];
      const double left = kMargin + static_cast<double>(c) * cellWidth;
      const double cellTop = rowTop + kRowTitle;
      const double centreX = left + cellWidth / 2;
      const double groundY = cellTop + 6.0 + (figureHeight + (top - bottom) * scale) / 2.0;
      auto sx = [&](const Vector& p) {
        return centreX + (Across(p, view) - figure.rootAcross) * scale;
      };
      auto sy = [&](const Vector& p) { return groundY - (p.y - bottom) * scale; };
      out += "<g class=\"figure\">\n";
      Rect(out, "", left + 2, cellTop, cellWidth - 4, cellHeight - 2, "#f6f6f6", "#dddddd");
      if (bottom <= 0.0 && top >= 0.0) {
        const double y = groundY + bottom * scale;
        Line(out, "ground", left + 8, y, left + cellWidth - 8, y, "#bbbbbb", 1.0);
      }
      for (size_t j = 0; j < figure.joints.size(); ++j) {
        const BvhJoint& joint = motion->joints[j];
        const Vector& p = figure.joints[j];
        if (!Finite(p)) continue;
        const char* colour = ColourOf(joint.name);
        const int parent = joint.parent;
        if (parent >= 0 && static_cast<size_t>(parent) < j) {
          const Vector& q = figure.joints[static_cast<size_t>(parent)];
          if (Finite(q)) Line(out, "bone", sx(q), sy(q), sx(p), sy(p), colour, 3.0);
        }
        if (Finite(figure.tips[j])) {
          const Vector& t = figure.tips[j];
          Line(out, "tip", sx(p), sy(p), sx(t), sy(t), colour, 1.5);
        }
      }
      for (size_t j = 0; j < figure.joints.size(); ++j) {
        const Vector& p = figure.joints[j];
        if (Finite(p)) Dot(out, "joint", sx(p), sy(p), 2.2, "#000000");
      }
      Text(out, centreX, cellTop + cellHeight - 6, "frame " + std::to_string(figure.frame), 11,
           "middle", "fill=\"#555555\"");
      out += "</g>\n";
    }
    out += "</g>\n";
  }
  out += "</svg>\n";
  return out;
} catch (const std::bad_alloc&) {
  return {};
}

namespace {

struct Range {
  double low = std::numeric_limits<double>::infinity();
  double high = -std::numeric_limits<double>::infinity();
  void Add(double v) {
    if (!std::isfinite(v)) return;
    low = std::min(low, v);
    high = std::max(high, v);
  }
  // Makes an empty or degenerate range drawable and leaves a little room at both ends.
  void Settle() {
    if (!(low <= high)) {
      low = 0.0;
      high = 1.0;
    } else if (high - low < 1e-9 * std::max(1.0, std::abs(low))) {
      const double pad = std::max(1.0, std::abs(low) * 0.1);
      low -= pad;
      high += pad;
    } else {
      const double pad = (high - low) * 0.05;
      low -= pad;
      high += pad;
    }
  }
};

// A tick step of 1, 2 or 5 times a power of ten giving about `count` ticks over `span`.
double TickStep(double span, int count) {
  const double raw = span / count;
  const double power = std::pow(10.0, std::floor(std::log10(raw)));
  const double fraction = raw / power;
  return (fraction < 1.5 ? 1.0 : fraction < 3.5 ? 2.0 : fraction < 7.5 ? 5.0 : 10.0) * power;
}

int DecimalsFor(double step) {
  return std::clamp(static_cast<int>(-std::floor(std::log10(step) + 1e-9)), 0, 6);
}

const Curve* FindCurve(const CurveFile& file, std::string_view name) {
  for (const Curve& curve : file.curves) {
    if (curve.name == name) return &curve;
  }
  return nullptr;
}

struct Point {
  double x;
  double y;
};

Point PositionOf(const CurveKey& key) { return {key.position[0], key.position[1]}; }

// The Bezier control points of the segment from key `a` to key `b`, with undefined or backward
// handles replaced by straight thirds of the chord.
void SegmentControls(const CurveKey& a, const CurveKey& b, Point control[4]) {
  const Point p = PositionOf(a);
  const Point q = PositionOf(b);
  auto unset = [](const float tangent[2]) { return tangent[0] == -1.0f && tangent[1] == -1.0f; };
  control[0] = p;
  control[3] = q;
  if (unset(a.rightTangent) || !(a.rightTangent[0] > 0.0f)) {
    control[1] = {p.x + (q.x - p.x) / 3, p.y + (q.y - p.y) / 3};
  } else {
    control[1] = {p.x + a.rightTangent[0], p.y + a.rightTangent[1]};
  }
  if (unset(b.leftTangent) || !(b.leftTangent[0] < 0.0f)) {
    control[2] = {q.x - (q.x - p.x) / 3, q.y - (q.y - p.y) / 3};
  } else {
    control[2] = {q.x + b.leftTangent[0], q.y + b.leftTangent[1]};
  }
}

Point Bezier(const Point c[4], double t) {
  const double u = 1 - t;
  const double b0 = u * u * u;
  const double b1 = 3 * u * u * t;
  const double b2 = 3 * u * t * t;
  const double b3 = t * t * t;
  return {b0 * c[0].x + b1 * c[1].x + b2 * c[2].x + b3 * c[3].x,
          b0 * c[0].y + b1 * c[1].y + b2 * c[2].y + b3 * c[3].y};
}

bool Finite(const Point& p) { return std::isfinite(p.x) && std::isfinite(p.y); }

void CurvePanel(std::string& out, const std::string& name, const Curve* original,
                const Curve* reduced, double left, double top, double width, double height) {
  constexpr double kHeading = 22.0;
  constexpr double kAxisLeft = 64.0;
  constexpr double kAxisBottom = 36.0;
  const double plotLeft = left + kAxisLeft;
  const double plotTop = top + kHeading;
  const double plotWidth = width - kAxisLeft - 12.0;
  const double plotHeight = height - kHeading - kAxisBottom;

  std::string heading = name + ": ";
  heading += original != nullptr ? std::to_string(original->keys.size()) + " original keys"
                                 : "not among the original curves";
  heading += ", ";
  heading += reduced != nullptr ? std::to_string(reduced->keys.size()) + " reduced keys"
                                : "not among the reduced curves";
  Text(out, left, top + 15, heading, 13, "start", "font-weight=\"bold\"");

  Range times;
  Range values;
  if (original != nullptr) {
    for (const CurveKey& key : original->keys) {
      times.Add(key.position[0]);
      values.Add(key.position[1]);
    }
  }
  if (reduced != nullptr) {
    for (size_t k = 0; k < reduced->keys.size(); ++k) {
      times.Add(reduced->keys[k].position[0]);
      values.Add(reduced->keys[k].position[1]);
      if (k + 1 == reduced->keys.size()) continue;
      Point control[4];
      SegmentControls(reduced->keys[k], reduced->keys[k + 1], control);
      for (int s = 1; s < 32; ++s) values.Add(Bezier(control, s / 32.0).y);
    }
  }
  times.Settle();
  values.Settle();
  auto sx = [&](double t) {
    return plotLeft + (t - times.low) / (times.high - times.low) * plotWidth;
  };
  auto sy = [&](double v) {
    return plotTop + plotHeight - (v - values.low) / (values.high - values.low) * plotHeight;
  };

  // Frame, grid and tick labels.
  Rect(out, "plot", plotLeft, plotTop, plotWidth, plotHeight, "#fbfbfb", "#999999");
  const double timeStep = TickStep(times.high - times.low, 8);
  const int timeDecimals = DecimalsFor(timeStep);
  // Ticks by whole multiples of the step, so no sum of steps drifts or stalls.
  for (double i = std::ceil(times.low / timeStep); i * timeStep <= times.high; ++i) {
    const double t = i * timeStep;
    const double x = sx(t);
    Line(out, "grid", x, plotTop, x, plotTop + plotHeight, "#e4e4e4", 1.0);
    std::string label;
    AppendNumber(label, t, timeDecimals);
    Text(out, x, plotTop + plotHeight + 14, label, 10, "middle");
  }
  const double valueStep = TickStep(values.high - values.low, 5);
  const int valueDecimals = DecimalsFor(valueStep);
  for (double i = std::ceil(values.low / valueStep); i * valueStep <= values.high; ++i) {
    const double v = i * valueStep;
    const double y = sy(v);
    Line(out, "grid", plotLeft, y, plotLeft + plotWidth, y, "#e4e4e4", 1.0);
    std::string label;
    AppendNumber(label, v, valueDecimals);
    Text(out, plotLeft - 6, y + 3.5, label, 10, "end");
  }
  Text(out, plotLeft + plotWidth / 2, plotTop + plotHeight + 30, "time (s)", 11, "middle");
  const double middle = plotTop + plotHeight / 2;
  std::string rotate = "transform=\"rotate(-90 ";
  AppendPair(rotate, left + 14, middle, ' ');
  rotate += ")\"";
  Text(out, left + 14, middle, "value", 11, "middle", rotate);

  if (original != nullptr && !original->keys.empty()) {
    std::string points;
    for (const CurveKey& key : original->keys) {
      const Point p = PositionOf(key);
      if (!Finite(p)) continue;
      if (!points.empty()) points += ' ';
      AppendPair(points, sx(p.x), sy(p.y), ',');
    }
    Outline(out, "polyline", "original", "#8c8c8c", "1", "points", points);
  }
  if (reduced != nullptr && !reduced->keys.empty()) {
    // One path of cubic segments; a segment with a non-finite point restarts the path after it.
    std::string d;
    bool open = false;
    for (size_t k = 0; k + 1 < reduced->keys.size(); ++k) {
      Point c[4];
      SegmentControls(reduced->keys[k], reduced->keys[k + 1], c);
      if (!Finite(c[0]) || !Finite(c[1]) || !Finite(c[2]) || !Finite(c[3])) {
        open = false;
        continue;
      }
      if (!open) {
        d += "M ";
        AppendPair(d, sx(c[0].x), sy(c[0].y), ' ');
        open = true;
      }
      d += " C ";
      for (int n = 1; n < 4; ++n) {
        AppendPair(d, sx(c[n].x), sy(c[n].y), ' ');
        if (n < 3) d += ' ';
      }
      d += ' ';
    }
    if (reduced->keys.size() == 1 && Finite(PositionOf(reduced->keys[0]))) {
      d += "M ";
      AppendPair(d, sx(reduced->keys[0].position[0]), sy(reduced->keys[0].position[1]), ' ');
    }
    while (!d.empty() && d.back() == ' ') d.pop_back();
    Outline(out, "path", "reduced", "#d2691e", "2.2", "d", d);
    for (const CurveKey& key : reduced->keys) {
      const Point p = PositionOf(key);
      if (Finite(p)) Dot(out, "key", sx(p.x), sy(p.y), 3.2, "#d2691e");
    }
  }
}

}  // namespace

std::string CurvePlotSvg(const CurveFile& original, const CurveFile& reduced,
                         std::span<const std::string> names, const CurvePlotOptions& options) try {
  const double width = std::isfinite(options.width) && options.width >= 240 ? options.width : 760.0;
  const double panelHeight = std::isfinite(options.panelHeight) && options.panelHeight >= 100
                                 ? options.panelHeight
                                 : 220.0;
  constexpr double kLegend = 24.0;
  constexpr double kGap = 14.0;
  const double titleHeight = options.title.empty() ? 0.0 : kTitleHeight;
  const double totalHeight = 2 * kMargin + titleHeight + kLegend +
                             static_cast<double>(names.size()) * (panelHeight + kGap);
  std::string out;
  OpenSvg(out, width, totalHeight);
  if (!options.title.empty()) {
    Text(out, width / 2, kMargin + 16, options.title, 18, "middle", "font-weight=\"bold\"");
  }
  // The legend: what each mark means.
  const double legendY = kMargin + titleHeight + 12;
  out += "<g class=\"legend\">\n";
  Line(out, "legend-original", kMargin, legendY, kMargin + 28, legendY, "#8c8c8c", 1.0);
  Text(out, kMargin + 34, legendY + 4, "original keys", 11);
  Line(out, "legend-reduced", kMargin + 150, legendY, kMargin + 178, legendY, "#d2691e", 2.2);
  Text(out, kMargin + 184, legendY + 4, "reduced curve (Bezier segments)", 11);
  Dot(out, "legend-key", kMargin + 390, legendY, 3.2, "#d2691e");
  Text(out, kMargin + 398, legendY + 4, "reduced keys", 11);
  out += "</g>\n";
  for (size_t n = 0; n < names.size(); ++n) {
    const double top =
        kMargin + titleHeight + kLegend + static_cast<double>(n) * (panelHeight + kGap);
    out += "<g class=\"panel\">\n";
    CurvePanel(out, names[n], FindCurve(original, names[n]), FindCurve(reduced, names[n]), kMargin,
               top, width - 2 * kMargin, panelHeight);
    out += "</g>\n";
  }
  out += "</svg>\n";
  return out;
} catch (const std::bad_alloc&) {
  return {};
}

}  // namespace tarni::host
