#include "motion/svg.h"

#include <gtest/gtest.h>

#include <cmath>
#include <cstdlib>
#include <map>
#include <regex>
#include <string>
#include <vector>

#include "motion/demogen.h"

namespace tarni::host {
namespace {

struct Element {
  std::string name;
  std::map<std::string, std::string> attributes;
};

// A small XML reader for what the drawings use: a declaration, elements with double-quoted
// attributes, text with entity references. Fails the test on anything unbalanced or malformed,
// and returns every element in document order.
std::vector<Element> ParseXml(const std::string& text) {
  std::vector<Element> elements;
  std::vector<std::string> open;
  size_t at = 0;
  if (text.starts_with("<?xml")) at = text.find("?>") + 2;
  bool rootSeen = false;
  while (at < text.size()) {
    const size_t lt = text.find('<', at);
    const std::string between =
        text.substr(at, lt == std::string::npos ? std::string::npos : lt - at);
    EXPECT_EQ(between.find('>'), std::string::npos) << "stray '>' near " << at;
    for (size_t amp = between.find('&'); amp != std::string::npos;
         amp = between.find('&', amp + 1)) {
      const std::string entity = between.substr(amp, between.find(';', amp) - amp + 1);
      EXPECT_TRUE(entity == "&amp;" || entity == "&lt;" || entity == "&gt;" || entity == "&quot;" ||
                  entity == "&apos;")
          << entity;
    }
    if (open.empty()) {
      EXPECT_TRUE(between.find_first_not_of(" \n") == std::string::npos);
    }
    if (lt == std::string::npos) break;
    const size_t gt = text.find('>', lt);
    if (gt == std::string::npos) {
      ADD_FAILURE() << "unclosed tag at " << lt;
      return elements;
    }
    std::string tag = text.substr(lt + 1, gt - lt - 1);
    at = gt + 1;
    if (tag.starts_with("/")) {
      if (open.empty() || open.back() != tag.substr(1)) {
        ADD_FAILURE() << "unbalanced </" << tag.substr(1) << ">";
        return elements;
      }
      open.pop_back();
      continue;
    }
    const bool selfClosing = tag.ends_with("/");
    if (selfClosing) tag.pop_back();
    static const std::regex kName("^([A-Za-z][A-Za-z0-9-]*)");
    static const std::regex kAttribute("^\\s+([A-Za-z:][A-Za-z0-9:-]*)=\"([^\"<]*)\"");
    std::smatch match;
    if (!std::regex_search(tag, match, kName)) {
      ADD_FAILURE() << "bad tag <" << tag << ">";
      return elements;
    }
    Element element{match[1], {}};
    std::string rest = match.suffix();
    while (std::regex_search(rest, match, kAttribute)) {
      EXPECT_TRUE(element.attributes.emplace(match[1], match[2]).second) << "repeated " << match[1];
      rest = match.suffix();
    }
    EXPECT_TRUE(rest.find_first_not_of(" ") == std::string::npos) << "junk in <" << tag << ">";
    if (open.empty()) {
      EXPECT_FALSE(rootSeen) << "second root element";
      rootSeen = true;
    }
    if (!selfClosing) open.push_back(element.name);
    elements.push_back(std::move(element));
  }
  EXPECT_TRUE(open.empty()) << "unclosed <" << (open.empty() ? "" : open.back()) << ">";
  return elements;
}

// Parses, checks the root and that every number written is finite; returns the elements.
std::vector<Element> ParseSvg(const std::string& svg) {
  std::vector<Element> elements = ParseXml(svg);
  EXPECT_FALSE(elements.empty());
  if (elements.empty()) return elements;
  const Element& root = elements.front();
  EXPECT_EQ(root.name, "svg");
  EXPECT_EQ(root.attributes.at("xmlns"), "http://www.w3.org/2000/svg");
  EXPECT_EQ(root.attributes.at("version"), "1.1");
  const double width = std::stod(root.attributes.at("width"));
  const double height = std::stod(root.attributes.at("height"));
  EXPECT_GT(width, 0);
  EXPECT_GT(height, 0);
  char view[128];
  std::snprintf(view, sizeof view, "0 0 %.2f %.2f", width, height);
  EXPECT_EQ(root.attributes.at("viewBox"), view);
  // No number anywhere reads as NaN or infinity, and nothing refers outside the file.
  static const std::regex kNumber("-?[0-9]+(\\.[0-9]+)?");
  for (const Element& element : elements) {
    for (const auto& [name, value] : element.attributes) {
      EXPECT_EQ(value.find("nan"), std::string::npos) << name;
      EXPECT_EQ(value.find("inf"), std::string::npos) << name;
      EXPECT_NE(name, "href");
      for (auto it = std::sregex_iterator(value.begin(), value.end(), kNumber);
           it != std::sregex_iterator(); ++it) {
        EXPECT_TRUE(std::isfinite(std::stod(it->str())));
      }
    }
  }
  return elements;
}

std::vector<const Element*> OfClass(const std::vector<Element>& elements, const char* cls) {
  std::vector<const Element*> found;
  for (const Element& e : elements) {
    const auto it = e.attributes.find("class");
    if (it != e.attributes.end() && it->second == cls) found.push_back(&e);
  }
  return found;
}

double Number(const Element* e, const char* name) { return std::stod(e->attributes.at(name)); }

TEST(StickFiguresSvg, DrawsOneBonePerJointBelowARoot) {
  const BvhMotion walk = MakeWalkingHumanoid();
  const BvhMotion target = MakeTargetSkeleton();
  std::vector<StickFigureRow> rows(3);
  rows[0] = {"walk", &walk, {}, {0, 11, 22}};
  rows[1] = {"target", &target, {}, {}};
  rows[2] = {"nothing to draw", nullptr, {}, {5}};
  for (const FigureView view : {FigureView::kFront, FigureView::kSide}) {
    StickFigureOptions options;
    options.view = view;
    options.title = "Walk & <retarget>";
    const std::string svg = StickFiguresSvg(rows, options);
    const std::vector<Element> elements = ParseSvg(svg);
    {
      // Bones: (22 - 1) per walk frame and 18 for the target; End Site tips: 5 per figure;
      // a dot per joint; one figure group per drawn frame.
      EXPECT_EQ(OfClass(elements, "bone").size(), 3u * 21 + 18);
      EXPECT_EQ(OfClass(elements, "tip").size(), 4u * 5);
      EXPECT_EQ(OfClass(elements, "joint").size(), 3u * 22 + 19);
      EXPECT_EQ(OfClass(elements, "figure").size(), 4u);
      EXPECT_EQ(OfClass(elements, "row").size(), 3u);
    }
    {
      // Titles are escaped, every figure is captioned with its frame.
      EXPECT_NE(svg.find(">Walk &amp; &lt;retarget&gt;</text>"), std::string::npos);
      EXPECT_NE(svg.find(">nothing to draw</text>"), std::string::npos);
      EXPECT_NE(svg.find(">frame 22</text>"), std::string::npos);
    }
    {
      // Everything lies inside the drawing.
      const double width = Number(&elements.front(), "width");
      const double height = Number(&elements.front(), "height");
      for (const Element* line : OfClass(elements, "bone")) {
        for (const char* x : {"x1", "x2"}) {
          EXPECT_GE(Number(line, x), 0);
          EXPECT_LE(Number(line, x), width);
        }
        for (const char* y : {"y1", "y2"}) {
          EXPECT_GE(Number(line, y), 0);
          EXPECT_LE(Number(line, y), height);
        }
      }
    }
  }
}

TEST(StickFiguresSvg, ProjectsFrontAndSideViews) {
  // The target in T pose: from the front its left arm (blue) lies right of its right arm (red),
  // and the whole figure is wide; from the side the arms overlap, and the feet point to the
  // right (walking direction +Z).
  const BvhMotion target = MakeTargetSkeleton();
  const StickFigureRow row{"target", &target, {}, {}};
  auto spread = [](const std::vector<Element>& elements, const char* colour) {
    double low = 1e9;
    double high = -1e9;
    for (const Element* line : OfClass(elements, "bone")) {
      if (line->attributes.at("stroke") != colour) continue;
      low = std::min({low, Number(line, "x1"), Number(line, "x2")});
      high = std::max({high, Number(line, "x1"), Number(line, "x2")});
    }
    return std::pair{low, high};
  };
  StickFigureOptions options;
  const std::vector<Element> front = ParseSvg(StickFiguresSvg(std::span(&row, 1), options));
  const auto [leftLow, leftHigh] = spread(front, "#1f5fbf");
  const auto [rightLow, rightHigh] = spread(front, "#c83232");
  EXPECT_GT(leftLow, rightHigh - 1e-9);
  EXPECT_GT(leftHigh - rightLow, 100);

  options.view = FigureView::kSide;
  const std::vector<Element> side = ParseSvg(StickFiguresSvg(std::span(&row, 1), options));
  const auto [sideLow, sideHigh] = spread(side, "#1f5fbf");
  EXPECT_LT(sideHigh - sideLow, 0.3 * (leftHigh - leftLow));
  size_t forward = 0;
  for (const Element* tip : OfClass(side, "tip")) {
    if (Number(tip, "y2") > Number(tip, "y1") + 1) {  // the foot tips point down and ahead
      EXPECT_GT(Number(tip, "x2"), Number(tip, "x1"));
      ++forward;
    }
  }
  EXPECT_EQ(forward, 2u);
}

TEST(StickFiguresSvg, ScalesSharedOrPerRowAndSkipsBrokenNumbers) {
  // The same character once in centimetres and once in metres.
  const BvhMotion centimetres = MakeTargetSkeleton();
  BvhMotion metres = centimetres;
  for (BvhJoint& joint : metres.joints) {
    for (double& o : joint.offset) o /= 100;
    for (double& e : joint.endSite) e /= 100;
  }
  const std::vector<StickFigureRow> rows = {{"cm", &centimetres, {}, {}}, {"m", &metres, {}, {}}};
  auto heights = [&](const StickFigureOptions& options) {
    const std::vector<Element> elements = ParseSvg(StickFiguresSvg(rows, options));
    const auto bones = OfClass(elements, "bone");
    EXPECT_EQ(bones.size(), 36u);
    std::vector<double> result;
    for (size_t r = 0; r < 2; ++r) {
      double low = 1e9;
      double high = -1e9;
      for (size_t b = 18 * r; b < 18 * (r + 1); ++b) {
        low = std::min({low, Number(bones[b], "y1"), Number(bones[b], "y2")});
        high = std::max({high, Number(bones[b], "y1"), Number(bones[b], "y2")});
      }
      result.push_back(high - low);
    }
    return result;
  };
  {
    // Shared: the metre figure is a hundredth of the other. Per row: both fill their cells.
    StickFigureOptions options;
    const std::vector<double> shared = heights(options);
    EXPECT_NEAR(shared[1] / shared[0], 0.01, 0.002);
    options.shareScale = false;
    const std::vector<double> own = heights(options);
    EXPECT_NEAR(own[1], own[0], 0.02);
    EXPECT_NEAR(own[0], shared[0], 0.02);
  }
  {
    // A rotation channel holding NaN: what it moves is left out, nothing prints NaN.
    BvhMotion broken = MakeTargetSkeleton();
    broken.values[static_cast<size_t>(broken.ChannelOffset(broken.FindJoint("neck")))] =
        std::nan("");
    const StickFigureRow row{"broken", &broken, {}, {}};
    const std::vector<Element> elements = ParseSvg(StickFiguresSvg(std::span(&row, 1)));
    // The neck stays where its offset puts it, but its turn is NaN: the head and its End Site,
    // which it carries, are not drawn. 18 - 1 bones, 5 - 1 tips.
    EXPECT_EQ(OfClass(elements, "bone").size(), 17u);
    EXPECT_EQ(OfClass(elements, "tip").size(), 4u);
  }
  {
    // No rows at all is still a drawing.
    ParseSvg(StickFiguresSvg({}));
  }
}

Curve MakeCurve(const std::string& name, const std::vector<std::array<float, 2>>& points) {
  Curve curve{name, {}};
  for (const auto& p : points) {
    CurveKey key;
    key.position[0] = p[0];
    key.position[1] = p[1];
    curve.keys.push_back(key);
  }
  return curve;
}

// The numbers of a path's "d" after each command letter `command`.
std::vector<std::vector<double>> PathCommands(const std::string& d, char command) {
  std::vector<std::vector<double>> result;
  for (size_t at = d.find(command); at != std::string::npos; at = d.find(command, at + 1)) {
    std::vector<double> numbers;
    const char* p = d.c_str() + at + 1;
    char* end = nullptr;
    for (double v = std::strtod(p, &end); end != p; v = std::strtod(p, &end)) {
      numbers.push_back(v);
      p = end;
    }
    result.push_back(numbers);
  }
  return result;
}

TEST(CurvePlotSvg, DrawsOriginalKeysAndReducedBezierSegments) {
  CurveFile original;
  original.fps = 10;
  std::vector<std::array<float, 2>> samples;
  for (int i = 0; i <= 20; ++i) samples.push_back({i / 10.0f, std::sin(i / 3.0f) * 40.0f});
  original.curves.push_back(MakeCurve("Hips.Xrotation", samples));
  original.curves.push_back(MakeCurve("Only.Original", {{0, 1}, {1, 2}}));
  CurveFile reduced;
  reduced.fps = 10;
  Curve fitted = MakeCurve("Hips.Xrotation", {{0, 0}, {1, 20}, {2, -10}});
  fitted.keys[0].rightTangent[0] = 0.3f;
  fitted.keys[0].rightTangent[1] = 15.0f;
  fitted.keys[1].leftTangent[0] = -0.3f;
  fitted.keys[1].leftTangent[1] = -5.0f;
  // keys[1].rightTangent and keys[2].leftTangent stay (-1, -1): undefined.
  reduced.curves.push_back(fitted);
  const std::vector<std::string> names = {"Hips.Xrotation", "Only.Original"};
  CurvePlotOptions options;
  options.title = "reduction";
  const std::string svg = CurvePlotSvg(original, reduced, names, options);
  const std::vector<Element> elements = ParseSvg(svg);
  {
    // One panel per name; the original as one polyline through all 21 keys; the reduced curve
    // as a path of two cubic segments and three key dots. The second name has no reduced curve.
    EXPECT_EQ(OfClass(elements, "panel").size(), 2u);
    const auto polylines = OfClass(elements, "original");
    ASSERT_EQ(polylines.size(), 2u);
    const std::string& points = polylines[0]->attributes.at("points");
    EXPECT_EQ(std::count(points.begin(), points.end(), ','), 21);
    const auto paths = OfClass(elements, "reduced");
    ASSERT_EQ(paths.size(), 1u);
    EXPECT_EQ(OfClass(elements, "key").size(), 3u);
    EXPECT_NE(svg.find("Hips.Xrotation: 21 original keys, 3 reduced keys"), std::string::npos);
    EXPECT_NE(svg.find("Only.Original: 2 original keys, not among the reduced curves"),
              std::string::npos);
  }
  {
    // The segments' control points: the first uses the keys' tangents (time 0.3 after the first
    // key, 0.3 before the second); the second has undefined tangents and runs straight, its
    // handles at the thirds of the chord.
    const std::string& d = OfClass(elements, "reduced")[0]->attributes.at("d");
    const auto moves = PathCommands(d, 'M');
    const auto curves = PathCommands(d, 'C');
    ASSERT_EQ(moves.size(), 1u);
    ASSERT_EQ(curves.size(), 2u);
    ASSERT_EQ(curves[0].size(), 6u);
    ASSERT_EQ(curves[1].size(), 6u);
    const double x0 = moves[0][0];
    const double x1 = curves[0][4];
    const double x2 = curves[1][4];
    const double unit = (x1 - x0);  // one second
    EXPECT_NEAR(curves[0][0], x0 + 0.3 * unit, 0.02);
    EXPECT_NEAR(curves[0][2], x1 - 0.3 * unit, 0.02);
    EXPECT_NEAR(x2 - x1, unit, 0.02);
    const double y1 = curves[0][5];
    const double y2 = curves[1][5];
    EXPECT_NEAR(curves[1][0], x1 + unit / 3, 0.02);
    EXPECT_NEAR(curves[1][1], y1 + (y2 - y1) / 3, 0.02);
    EXPECT_NEAR(curves[1][2], x1 + 2 * unit / 3, 0.02);
    EXPECT_NEAR(curves[1][3], y1 + 2 * (y2 - y1) / 3, 0.02);
    // Higher values are drawn higher up.
    EXPECT_LT(y1, y2);
  }
  {
    // Axes and legend.
    EXPECT_NE(svg.find(">time (s)</text>"), std::string::npos);
    EXPECT_NE(svg.find(">value</text>"), std::string::npos);
    EXPECT_NE(svg.find(">original keys</text>"), std::string::npos);
    EXPECT_NE(svg.find(">reduced keys</text>"), std::string::npos);
    EXPECT_NE(svg.find(">1.0</text>"), std::string::npos);  // a time tick
    EXPECT_NE(svg.find(">-20</text>"), std::string::npos);  // a value tick
  }
}

TEST(CurvePlotSvg, SurvivesDegenerateAndBrokenCurves) {
  CurveFile original;
  original.curves.push_back(MakeCurve("Flat", {{0, 5}, {1, 5}, {2, 5}}));
  original.curves.push_back(MakeCurve("Broken", {{0, 1}, {1, NAN}, {2, INFINITY}, {3, 2}}));
  original.curves.push_back(MakeCurve("Single", {{0.5f, 3}}));
  original.curves.push_back(MakeCurve("Empty", {}));
  CurveFile reduced = original;
  reduced.curves[1] = MakeCurve("Broken", {{0, 1}, {1, NAN}, {3, 2}});
  const std::vector<std::string> names = {"Flat", "Broken", "Single", "Empty", "Absent"};
  const std::string svg = CurvePlotSvg(original, reduced, names);
  const std::vector<Element> elements = ParseSvg(svg);
  EXPECT_EQ(OfClass(elements, "panel").size(), 5u);
  // The broken curve's segments through NaN are dropped, the one dot left for the good keys.
  EXPECT_EQ(OfClass(elements, "key").size(), 3u + 2 + 1);
  EXPECT_NE(svg.find("Absent: not among the original curves, not among the reduced curves"),
            std::string::npos);
}

}  // namespace
}  // namespace tarni::host
