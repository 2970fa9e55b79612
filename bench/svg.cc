// svg.cc - draws charts.
#include "bench/svg.hh"

#include <fmt/format.h>

#include <algorithm>
#include <cmath>
#include <fstream>

#include "bench/measure.hh"

namespace bench {
namespace {

constexpr double kWidth = 760;
constexpr double kHeight = 340;
constexpr double kLeft = 64;
constexpr double kRight = 16;
constexpr double kTop = 86;
constexpr double kBottom = 36;
constexpr double kLegend = 65.5;
constexpr const char* kColours[] = {"#2f6db5", "#b09a52", "#5a9a6b", "#a85b7b", "#7a7f87"};

std::string Escaped(const std::string& text) {
  std::string out;
  for (const char c : text) out += c == '<' ? "&lt;" : c == '&' ? "&amp;" : std::string(1, c);
  return out;
}

class Drawing {
 public:
  explicit Drawing(const Chart& chart) : chart_(chart), high_(High()) {}

  std::string Draw() {
    Head();
    Scale();
    if (chart_.guide) Guide();
    for (size_t c = 0; c < chart_.categories.size(); ++c) {
      Label(Middle(c), kHeight - kBottom + 20, chart_.categories[c], "middle", 13, "#3c4a5c");
    }
    for (size_t s = 0; s < chart_.series.size(); ++s) {
      chart_.lines ? Line(s) : Bars(s);
      Legend(s);
    }
    return out_ + "</svg>\n";
  }

 private:
  double High() const {
    double high = chart_.guide.value_or(chart_.low);
    for (const Series& series : chart_.series) {
      for (const double value : series.values) high = std::max(high, value);
    }
    return chart_.logarithmic ? std::pow(10, std::ceil(std::log10(high))) : chart_.low + (high - chart_.low) * 1.12;
  }

  double Y(double value) const {
    const auto place = [this](double v) { return chart_.logarithmic ? std::log10(std::max(v, chart_.low)) : v; };
    const double part = (place(value) - place(chart_.low)) / (place(high_) - place(chart_.low));
    return kHeight - kBottom - part * (kHeight - kTop - kBottom);
  }

  double Column() const { return (kWidth - kLeft - kRight) / static_cast<double>(chart_.categories.size()); }
  double Middle(size_t c) const { return kLeft + Column() * (static_cast<double>(c) + 0.5); }
  static const char* Colour(size_t s) { return kColours[s % std::size(kColours)]; }

  void Label(double x, double y, const std::string& text, const char* anchor, int size, const char* colour) {
    out_ += fmt::format(
        "<text x=\"{:.1f}\" y=\"{:.1f}\" text-anchor=\"{}\" font-size=\"{}\" fill=\"{}\" paint-order=\"stroke\" "
        "stroke=\"#ffffff\" stroke-width=\"3\">{}</text>\n",
        x, y, anchor, size, colour, Escaped(text));
  }

  void Rule(double y, const char* style) {
    out_ += fmt::format("<path d=\"M{:.1f} {:.1f}H{:.1f}\" {}/>\n", kLeft, y, kWidth - kRight, style);
  }

  void Head() {
    out_ += fmt::format(
        "<svg xmlns=\"http://www.w3.org/2000/svg\" viewBox=\"0 0 {0:g} {1:g}\" width=\"{0:g}\" height=\"{1:g}\" "
        "role=\"img\" font-family=\"system-ui, Segoe UI, Helvetica, Arial, sans-serif\">\n<title>{2}</title>\n"
        "<rect width=\"{0:g}\" height=\"{1:g}\" fill=\"#ffffff\"/>\n",
        kWidth, kHeight, Escaped(chart_.title));
    Label(kLeft, 24, chart_.title, "start", 16, "#1f2d3d");
    Label(kLeft, 43, chart_.caption, "start", 12, "#3c4a5c");
  }

  void Tick(double value) {
    Rule(Y(value), "stroke=\"#dfe4ea\"");
    Label(kLeft - 8, Y(value) + 4, fmt::format("{:g}", value), "end", 12, "#3c4a5c");
  }

  void Scale() {
    if (chart_.logarithmic) {
      for (double value = chart_.low; value <= high_ * 1.001; value *= 10) Tick(value);
      return;
    }
    const double rough = (high_ - chart_.low) / 5;
    const double power = std::pow(10, std::floor(std::log10(rough)));
    const double step = power * (rough / power < 2 ? 2 : rough / power < 5 ? 5 : 10);
    for (double value = chart_.low; value < high_; value += step) Tick(value);
  }

  void Guide() {
    Rule(Y(*chart_.guide), "stroke=\"#b03a3a\" stroke-width=\"1.5\" stroke-dasharray=\"6 4\"");
    Label(kWidth - kRight, kLegend, "- - " + chart_.guide_name, "end", 12, "#b03a3a");
  }

  void Bars(size_t s) {
    const double width = Column() * 0.8 / static_cast<double>(chart_.series.size());
    for (size_t c = 0; c < chart_.categories.size(); ++c) {
      const double value = chart_.series[s].values.at(c);
      const double x = Middle(c) + (static_cast<double>(s) - static_cast<double>(chart_.series.size()) / 2) * width;
      const double y = Y(value);
      out_ += fmt::format("<rect x=\"{:.1f}\" y=\"{:.1f}\" width=\"{:.1f}\" height=\"{:.1f}\" fill=\"{}\"/>\n", x + 1,
                          y, width - 2, kHeight - kBottom - y, Colour(s));
      Label(x + width / 2, y - 4, fmt::format("{:.{}f}", value, value < 100 ? chart_.decimals : 0), "middle", 11,
            "#1f2d3d");
    }
  }

  void Line(size_t s) {
    std::string points;
    for (size_t c = 0; c < chart_.categories.size(); ++c) {
      const double y = Y(chart_.series[s].values.at(c));
      points += fmt::format("{:.1f},{:.1f} ", Middle(c), y);
      out_ += fmt::format("<circle cx=\"{:.1f}\" cy=\"{:.1f}\" r=\"3.5\" fill=\"{}\"/>\n", Middle(c), y, Colour(s));
    }
    out_ +=
        fmt::format("<polyline points=\"{}\" fill=\"none\" stroke=\"{}\" stroke-width=\"2\"/>\n", points, Colour(s));
  }

  void Legend(size_t s) {
    double x = kLeft;
    for (size_t i = 0; i < s; ++i) x += 34 + 7.2 * static_cast<double>(chart_.series[i].name.size());
    out_ += fmt::format("<rect x=\"{:.1f}\" y=\"55\" width=\"12\" height=\"12\" fill=\"{}\"/>\n", x, Colour(s));
    Label(x + 18, kLegend, chart_.series[s].name, "start", 12, "#1f2d3d");
  }

  const Chart& chart_;
  const double high_;
  std::string out_;
};

}  // namespace

void WriteChart(const Chart& chart, const std::string& path) {
  std::ofstream file(path);
  file << Drawing(chart).Draw();
  if (!file.flush()) Die("cannot write " + path);
}

}  // namespace bench
