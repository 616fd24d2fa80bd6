#include "motion/svg.h"

#include <gtest/gtest.h>

#include <cmath>
#include <cstdlib>
#include <map>
#include <string>
#include <vector>

#include "motion/demogen.h"

namespace tarni::host {
namespace {

using Element = std::map<std::string, std::string>;  // attributes, plus "<" = the tag name

// Reads a drawing as XML, failing the test on unbalanced tags, unquoted attributes
// or non-finite numbers, and checks the svg root's size attributes. Returns every start tag.
std::vector<Element> ParseSvg(const std::string& svg) {
  std::vector<Element> elements;
  std::vector<std::string> open;
  size_t at = svg.starts_with("<?xml") ? svg.find("?>") + 2 : 0;
  while (at < svg.size()) {
    const size_t lt = svg.find('<', at);
    const std::string text = svg.substr(at, lt - at);
    EXPECT_EQ(text.find('>'), std::string::npos);
    if (lt == std::string::npos) break;
    const size_t gt = svg.find('>', lt);
    if (gt == std::string::npos) break;
    std::string tag = svg.substr(lt + 1, gt - lt - 1);
    at = gt + 1;
    if (tag[0] == '/') {
      EXPECT_TRUE(!open.empty() && open.back() == tag.substr(1)) << "stray </" << tag;
      if (!open.empty()) open.pop_back();
      continue;
    }
    const bool closed = tag.ends_with("/");
    if (closed) tag.pop_back();
    Element element;
    size_t p = tag.find(' ');
    element["<"] = tag.substr(0, p);
    while (p != std::string::npos && p + 1 < tag.size()) {
      const size_t eq = tag.find("=\"", p);
      const size_t end = eq == std::string::npos ? eq : tag.find('"', eq + 2);
      if (end == std::string::npos) {
        ADD_FAILURE() << "unquoted attribute in <" << tag << ">";
        break;
      }
      const std::string value = tag.substr(eq + 2, end - eq - 2);
      EXPECT_EQ(value.find_first_of("<&"), std::string::npos);
      EXPECT_TRUE(element.emplace(tag.substr(p + 1, eq - p - 1), value).second);
      for (const char* bad : {"nan", "inf"}) EXPECT_EQ(value.find(bad), std::string::npos);
      p = end + 1 < tag.size() ? end + 1 : std::string::npos;
    }
    if (!closed) open.push_back(element["<"]);
    elements.push_back(std::move(element));
  }
  EXPECT_TRUE(open.empty()) << open.size() << " unclosed";
  if (elements.empty()) {
    ADD_FAILURE() << "no elements";
    return elements;
  }
  Element& root = elements.front();
  EXPECT_EQ(root["<"], "svg");
  EXPECT_EQ(root["viewBox"], "0 0 " + root["width"] + " " + root["height"]);
  return elements;
}

std::vector<Element> OfClass(const std::vector<Element>& elements, const char* cls) {
  std::vector<Element> found;
  for (const Element& e : elements) {
    if (e.count("class") && e.at("class") == cls) found.push_back(e);
  }
  return found;
}

double N(const Element& e, const char* name) { return std::stod(e.at(name)); }

TEST(StickFiguresSvg, DrawsOneBonePerJointBelowARoot) {
  const BvhMotion walk = MakeWalkingHumanoid();
  const BvhMotion target = MakeTargetSkeleton();
  const std::vector<StickFigureRow> rows = {
      {"walk", &walk, {}, {0, 11, 22}}, {"target", &target, {}, {}}, {"nothing", nullptr, {}, {}}};
  for (const FigureView view : {FigureView::kFront, FigureView::kSide}) {
    const std::string svg = StickFiguresSvg(rows, {view, "Walk & <retarget>", 180, 240, true});
    const std::vector<Element> elements = ParseSvg(svg);
    // 21 bones per walk frame, 18 for the target; 5 End Site tips and a dot per joint each.
    EXPECT_EQ(OfClass(elements, "bone").size(), 3u * 21 + 18);
    EXPECT_EQ(OfClass(elements, "tip").size(), 4u * 5);
    EXPECT_EQ(OfClass(elements, "joint").size(), 3u * 22 + 19);
    EXPECT_NE(svg.find(">Walk &amp; &lt;retarget&gt;</text>"), std::string::npos);
    EXPECT_NE(svg.find(">nothing</text>"), std::string::npos);
    EXPECT_NE(svg.find(">frame 22</text>"), std::string::npos);
    for (const Element& bone : OfClass(elements, "bone")) {
      for (const char* x : {"x1", "x2"}) EXPECT_LE(N(bone, x), N(elements[0], "width"));
      for (const char* y : {"y1", "y2"}) EXPECT_LE(N(bone, y), N(elements[0], "height"));
    }
  }
}

TEST(StickFiguresSvg, ProjectsFrontAndSideViewsToScale) {
  const BvhMotion target = MakeTargetSkeleton();
  // The x range of the left (blue) or right (red) bones of the first `bones` bones.
  auto spread = [](const std::vector<Element>& elements, const char* colour) {
    double low = 1e9;
    double high = -1e9;
    for (const Element& line : OfClass(elements, "bone")) {
      if (line.at("stroke") != colour) continue;
      low = std::min({low, N(line, "x1"), N(line, "x2")});
      high = std::max({high, N(line, "x1"), N(line, "x2")});
    }
    return std::pair{low, high};
  };
  const StickFigureRow row{"target", &target, {}, {}};
  {
    // From the front, the T pose's left arm is drawn right of its right arm; from the side the
    // arms overlap and the feet's tips point right, the walking direction.
    const std::vector<Element> front = ParseSvg(StickFiguresSvg(std::span(&row, 1)));
    const auto [leftLow, leftHigh] = spread(front, "#1f5fbf");
    const auto [rightLow, rightHigh] = spread(front, "#c83232");
    EXPECT_GE(leftLow, rightHigh - 1e-9);
    const std::vector<Element> side =
        ParseSvg(StickFiguresSvg(std::span(&row, 1), {FigureView::kSide, "", 180, 240, true}));
    const auto [sideLow, sideHigh] = spread(side, "#1f5fbf");
    EXPECT_LT(sideHigh - sideLow, 0.3 * (leftHigh - leftLow));
    int forward = 0;
    for (const Element& tip : OfClass(side, "tip")) {
      if (N(tip, "y2") > N(tip, "y1") + 1) forward += N(tip, "x2") > N(tip, "x1") ? 1 : -10;
    }
    EXPECT_EQ(forward, 2);
  }
  {
    // The same character in metres beside the one in centimetres: a hundredth of its height on
    // a shared scale, the same height when each row is scaled on its own.
    BvhMotion metres = target;
    for (BvhJoint& joint : metres.joints) {
      for (double& o : joint.offset) o /= 100;
      for (double& e : joint.endSite) e /= 100;
    }
    const std::vector<StickFigureRow> rows = {row, {"m", &metres, {}, {}}};
    for (const bool shared : {true, false}) {
      StickFigureOptions options;
      options.shareScale = shared;
      const std::vector<Element> bones = OfClass(ParseSvg(StickFiguresSvg(rows, options)), "bone");
      ASSERT_EQ(bones.size(), 36u);
      double height[2] = {0, 0};
      for (size_t b = 0; b < 36; ++b)
        height[b / 18] += std::abs(N(bones[b], "y2") - N(bones[b], "y1"));
      EXPECT_NEAR(height[1] / height[0], shared ? 0.01 : 1.0, 0.002);
    }
  }
  {
    // A NaN rotation on the neck: the neck stays, the head and its tip it carries are left
    // out, and no NaN is written.
    BvhMotion broken = target;
    broken.values[static_cast<size_t>(broken.ChannelOffset(broken.FindJoint("neck")))] = NAN;
    const StickFigureRow brokenRow{"broken", &broken, {}, {}};
    const std::vector<Element> elements = ParseSvg(StickFiguresSvg(std::span(&brokenRow, 1)));
    EXPECT_EQ(OfClass(elements, "bone").size(), 17u);
    EXPECT_EQ(OfClass(elements, "tip").size(), 4u);
  }
}

Curve MakeCurve(const std::string& name, const std::vector<std::array<float, 2>>& points) {
  Curve curve{name, {}};
  for (const auto& p : points) curve.keys.push_back({0, {p[0], p[1]}, {-1, -1}, {-1, -1}});
  return curve;
}

// The numbers after each `command` letter of a path.
std::vector<std::vector<double>> PathCommands(const std::string& d, char command) {
  std::vector<std::vector<double>> result;
  for (size_t at = d.find(command); at != std::string::npos; at = d.find(command, at + 1)) {
    result.emplace_back();
    char* end = nullptr;
    for (const char* p = d.c_str() + at + 1;; p = end) {
      const double v = std::strtod(p, &end);
      if (end == p) break;
      result.back().push_back(v);
    }
  }
  return result;
}

TEST(CurvePlotSvg, DrawsOriginalKeysAndReducedBezierSegments) {
  CurveFile original;
  std::vector<std::array<float, 2>> samples;
  for (int i = 0; i <= 20; ++i) samples.push_back({i / 10.0f, std::sin(i / 3.0f) * 40.0f});
  original.curves = {MakeCurve("Hips.Xrotation", samples), MakeCurve("Only.Original", {{0, 1}}),
                     MakeCurve("Broken", {{0, 1}, {1, NAN}, {2, INFINITY}, {3, 2}})};
  CurveFile reduced;
  reduced.curves = {MakeCurve("Hips.Xrotation", {{0, 0}, {1, 20}, {2, -10}}),
                    MakeCurve("Broken", {{0, 1}, {1, NAN}, {3, 2}})};
  // The first segment has handles; the second keeps the undefined (-1, -1) tangents.
  reduced.curves[0].keys[0].rightTangent[0] = 0.3f;
  reduced.curves[0].keys[0].rightTangent[1] = 15.0f;
  reduced.curves[0].keys[1].leftTangent[0] = -0.3f;
  reduced.curves[0].keys[1].leftTangent[1] = -5.0f;
  const std::vector<std::string> names = {"Hips.Xrotation", "Only.Original", "Broken"};
  const std::string svg = CurvePlotSvg(original, reduced, names, {"reduction", 760, 220});
  const std::vector<Element> elements = ParseSvg(svg);
  {
    // A panel per name; the original as a polyline through all its finite keys; the reduced
    // curve as a path and its keys as dots, leaving out what is not finite.
    EXPECT_EQ(OfClass(elements, "panel").size(), 3u);
    const auto polylines = OfClass(elements, "original");
    ASSERT_EQ(polylines.size(), 3u);
    EXPECT_EQ(std::count(polylines[0].at("points").begin(), polylines[0].at("points").end(), ','),
              21);
    EXPECT_EQ(OfClass(elements, "reduced").size(), 2u);
    EXPECT_EQ(OfClass(elements, "key").size(), 3u + 2);
    EXPECT_NE(svg.find("Hips.Xrotation: 21 original keys, 3 reduced keys"), std::string::npos);
    EXPECT_NE(svg.find("Only.Original: 1 original keys, not among the reduced curves"),
              std::string::npos);
  }
  {
    // Control points: the tangents' handles for the first segment; straight thirds of the
    // chord where the tangents are undefined.
    const std::string d = OfClass(elements, "reduced")[0].at("d");
    const auto m = PathCommands(d, 'M');
    const auto c = PathCommands(d, 'C');
    ASSERT_EQ(m.size(), 1u);
    ASSERT_EQ(c.size(), 2u);
    ASSERT_EQ(c[0].size(), 6u);
    ASSERT_EQ(c[1].size(), 6u);
    const double second = c[0][4] - m[0][0];
    EXPECT_NEAR(c[0][0], m[0][0] + 0.3 * second, 0.02);
    EXPECT_NEAR(c[0][2], c[0][4] - 0.3 * second, 0.02);
    EXPECT_NEAR(c[1][4] - c[0][4], second, 0.02);
    for (const int third : {1, 2}) {
      EXPECT_NEAR(c[1][2 * third - 2], c[0][4] + third * second / 3, 0.02);
      EXPECT_NEAR(c[1][2 * third - 1], c[0][5] + third * (c[1][5] - c[0][5]) / 3, 0.02);
    }
    EXPECT_LT(c[0][5], c[1][5]);  // the higher value (20) is drawn higher up than -10
  }
  // Axes and legend.
  for (const char* label :
       {">time (s)<", ">value<", ">original keys<", ">reduced keys<", ">1.0<", ">-20<"}) {
    EXPECT_NE(svg.find(label), std::string::npos) << label;
  }
}

}  // namespace
}  // namespace tarni::host
