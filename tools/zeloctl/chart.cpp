// The last hours as a picture: a self-contained SVG of AC and DC power with
// their minimum-maximum band, and of processor, memory and I/O utilisation,
// with the intervals that had no reading shaded.
#include "zeloctl.h"

#include <zelo.h>

#include <algorithm>
#include <cerrno>
#include <cmath>
#include <cstring>
#include <functional>
#include <vector>

namespace zeloctl {
namespace {

// Layout of the 1200 x 600 picture; the chart test reads pixels at these places.
constexpr int kWidth = 1200, kHeight = 600;
constexpr int kLeft = 80, kRight = 1120;
constexpr int kPowerTop = 60, kPowerBottom = 330;
constexpr int kPerfTop = 380, kPerfBottom = 530;
constexpr uint64_t kSampleSeconds = 150;
constexpr const char *kNoReading = "#d9d9d9";

struct Series {
    const char *label;
    const char *colour;
};
constexpr Series kAC{"AC input", "#c0392b"}, kDC{"DC", "#1f5fa8"};
constexpr Series kPerf[3] = {{"CPU", "#e67e22"}, {"memory", "#27ae60"}, {"I/O", "#8e44ad"}};

// One sample reduced to what is drawn: its interval's end and values.
struct Point {
    uint64_t t;
    bool known;
    double value[6];
};

class Svg {
  public:
    Svg(uint64_t start, uint64_t end) : start_(start), end_(end) {}
    double x(uint64_t t) const {
        const double span = static_cast<double>(end_ - start_);
        const double at = t < start_ ? 0.0 : static_cast<double>(t - start_);
        return kLeft + std::min(at, span) / span * (kRight - kLeft);
    }
    void add(const std::string &element) { body_ += element + "\n"; }
    std::string text() const {
        return "<svg xmlns=\"http://www.w3.org/2000/svg\" width=\"" + std::to_string(kWidth) +
               "\" height=\"" + std::to_string(kHeight) + "\" viewBox=\"0 0 " +
               std::to_string(kWidth) + " " + std::to_string(kHeight) +
               "\" font-family=\"DejaVu Sans, Arial, sans-serif\" font-size=\"13\">\n"
               "<rect width=\"100%\" height=\"100%\" fill=\"white\"/>\n" +
               body_ + "</svg>\n";
    }
    uint64_t start() const { return start_; }
    uint64_t end() const { return end_; }

  private:
    uint64_t start_, end_;
    std::string body_;
};

std::string num(double v) {
    char text[32];
    std::snprintf(text, sizeof text, "%.1f", v);
    return text;
}

std::string localTime(uint64_t t, const char *format) {
    const auto seconds = static_cast<std::time_t>(t);
    struct tm local {};
    char text[64] = "";
    if (localtime_r(&seconds, &local) != nullptr)
        std::strftime(text, sizeof text, format, &local);
    return text;
}

// The zone the chart's times are given in, as its title and time axis name
// it: the abbreviation (the offset when there is none), both when summer time
// begins or ends within the window.
struct Zones {
    std::string start, end;
    std::string named() const { return start == end ? end : start + ", then " + end; }
};

Zones zonesOf(uint64_t start, uint64_t end) {
    // TZ is the user's to set: its name goes into the SVG as text, escaped.
    const auto zone = [](uint64_t t) {
        const std::string name = localTime(t, "%Z");
        std::string text;
        for (const char c : name.empty() ? localTime(t, "%z") : name)
            text += c == '&' ? "&amp;" : c == '<' ? "&lt;" : c == '>' ? "&gt;" : std::string(1, c);
        return text;
    };
    return {zone(start), zone(end)};
}

// A round upper bound for the power axis, so that five ticks read easily.
double niceCeiling(double v) {
    if (v <= 0)
        return 100;
    const double magnitude = std::pow(10.0, std::floor(std::log10(v)));
    for (const double step : {1.0, 1.5, 2.0, 2.5, 3.0, 4.0, 5.0, 6.0, 8.0, 10.0})
        if (step * magnitude >= v)
            return step * magnitude;
    return 10 * magnitude;
}

// Grey where no reading came: the unknown items, gaps in the history
// included, one rectangle for each stretch so that no seams show.
void shadeUnknown(Svg &svg, const std::vector<Point> &points, int top, int bottom) {
    uint64_t from = 0, to = 0;
    const auto flush = [&] {
        if (to > from && to > svg.start())
            svg.add("<rect x=\"" + num(svg.x(from)) + "\" y=\"" + std::to_string(top) +
                    "\" width=\"" + num(svg.x(to) - svg.x(from)) + "\" height=\"" +
                    std::to_string(bottom - top) + "\" fill=\"" + kNoReading + "\"/>");
        from = to = 0;
    };
    for (const Point &p : points) {
        if (p.known)
            continue;
        const uint64_t start = p.t > kSampleSeconds ? p.t - kSampleSeconds : 0;
        if (to != 0 && start > to)
            flush();
        if (to == 0)
            from = start;
        to = p.t;
    }
    flush();
}

// Runs of consecutive known samples, each drawn on its own; a step of the
// clock back breaks one too.
void forEachRun(const std::vector<Point> &points,
                const std::function<void(const std::vector<const Point *> &)> &draw) {
    std::vector<const Point *> run;
    for (const Point &p : points) {
        const bool breaks =
            !p.known ||
            (!run.empty() && (p.t <= run.back()->t || p.t - run.back()->t > kSampleSeconds));
        if (breaks && !run.empty()) {
            draw(run);
            run.clear();
        }
        if (p.known)
            run.push_back(&p);
    }
    if (!run.empty())
        draw(run);
}

void drawLine(Svg &svg, const std::vector<Point> &points, int field, const Series &series,
              const std::function<double(double)> &y) {
    forEachRun(points, [&](const std::vector<const Point *> &run) {
        std::string path;
        for (const Point *p : run)
            path += (path.empty() ? "M" : " L") + num(svg.x(p->t)) + " " + num(y(p->value[field]));
        if (run.size() == 1) // a lone sample still shows
            path += " l 2 0";
        svg.add("<path d=\"" + path + "\" fill=\"none\" stroke=\"" + series.colour +
                "\" stroke-width=\"2\" stroke-linejoin=\"round\"/>");
    });
}

void drawBand(Svg &svg, const std::vector<Point> &points, int minField, int maxField,
              const Series &series, const std::function<double(double)> &y) {
    forEachRun(points, [&](const std::vector<const Point *> &run) {
        std::string path;
        for (const Point *p : run)
            path +=
                (path.empty() ? "M" : " L") + num(svg.x(p->t)) + " " + num(y(p->value[maxField]));
        for (auto it = run.rbegin(); it != run.rend(); ++it)
            path += " L" + num(svg.x((*it)->t)) + " " + num(y((*it)->value[minField]));
        svg.add("<path d=\"" + path + " Z\" fill=\"" + series.colour +
                "\" fill-opacity=\"0.18\" stroke=\"none\"/>");
    });
}

void axes(Svg &svg, int top, int bottom, double max, int ticks, const char *unit,
          const char *title) {
    for (int i = 0; i <= ticks; ++i) {
        const double v = max * i / ticks;
        const double y = bottom - (bottom - top) * static_cast<double>(i) / ticks;
        svg.add("<line x1=\"" + std::to_string(kLeft) + "\" y1=\"" + num(y) + "\" x2=\"" +
                std::to_string(kRight) + "\" y2=\"" + num(y) +
                "\" stroke=\"#e6e6e6\" stroke-width=\"1\"/>");
        svg.add("<text x=\"" + std::to_string(kLeft - 8) + "\" y=\"" + num(y + 4) +
                "\" text-anchor=\"end\" fill=\"#444\">" + std::to_string(std::lround(v)) + unit +
                "</text>");
    }
    const int middle = (top + bottom) / 2;
    svg.add("<text x=\"22\" y=\"" + std::to_string(middle) +
            "\" text-anchor=\"middle\" fill=\"#222\" transform=\"rotate(-90 22 " +
            std::to_string(middle) + ")\">" + title + "</text>");
    svg.add("<rect x=\"" + std::to_string(kLeft) + "\" y=\"" + std::to_string(top) + "\" width=\"" +
            std::to_string(kRight - kLeft) + "\" height=\"" + std::to_string(bottom - top) +
            "\" fill=\"none\" stroke=\"#888\"/>");
}

void timeAxis(Svg &svg, unsigned hours, const Zones &zones) {
    // Four to eight ticks whatever the window, on whole local hours or
    // minutes: the offset from UTC comes from the start.
    const uint64_t step = hours <= 1    ? 600
                          : hours <= 2  ? 900
                          : hours <= 3  ? 1800
                          : hours <= 8  ? 3600
                          : hours <= 16 ? 7200
                                        : 10800;
    const auto startSeconds = static_cast<std::time_t>(svg.start());
    struct tm local {};
    localtime_r(&startSeconds, &local);
    const int64_t offset = local.tm_gmtoff;
    const int64_t startLocal = static_cast<int64_t>(svg.start()) + offset;
    int64_t tick = (startLocal + static_cast<int64_t>(step) - 1) / static_cast<int64_t>(step) *
                   static_cast<int64_t>(step);
    for (; tick - offset <= static_cast<int64_t>(svg.end()); tick += static_cast<int64_t>(step)) {
        const auto t = static_cast<uint64_t>(tick - offset);
        const std::string x = num(svg.x(t));
        for (const auto &[top, bottom] :
             {std::pair{kPowerTop, kPowerBottom}, std::pair{kPerfTop, kPerfBottom}})
            svg.add("<line x1=\"" + x + "\" y1=\"" + std::to_string(top) + "\" x2=\"" + x +
                    "\" y2=\"" + std::to_string(bottom) +
                    "\" stroke=\"#eeeeee\" stroke-width=\"1\"/>");
        svg.add("<text x=\"" + x + "\" y=\"" + std::to_string(kPerfBottom + 18) +
                "\" text-anchor=\"middle\" fill=\"#444\">" + localTime(t, "%H:%M") + "</text>");
    }
    svg.add("<text x=\"" + std::to_string((kLeft + kRight) / 2) + "\" y=\"" +
            std::to_string(kPerfBottom + 42) + "\" text-anchor=\"middle\" fill=\"#222\">time (" +
            zones.named() + ")</text>");
}

void legend(Svg &svg, int y, std::initializer_list<Series> entries, bool band) {
    int x = kRight;
    std::vector<Series> items(entries);
    items.push_back({"no reading", kNoReading});
    for (auto it = items.rbegin(); it != items.rend(); ++it) {
        x -= 14 + 8 * static_cast<int>(std::string(it->label).size()) + 24;
        const bool shade = std::string(it->label) == "no reading";
        svg.add(shade || band
                    ? "<rect x=\"" + std::to_string(x) + "\" y=\"" + std::to_string(y - 9) +
                          "\" width=\"14\" height=\"10\" fill=\"" + it->colour + "\"" +
                          (shade ? "" : " fill-opacity=\"0.35\"") + "/>"
                    : "");
        if (!shade)
            svg.add("<line x1=\"" + std::to_string(x) + "\" y1=\"" + std::to_string(y - 4) +
                    "\" x2=\"" + std::to_string(x + 14) + "\" y2=\"" + std::to_string(y - 4) +
                    "\" stroke=\"" + it->colour + "\" stroke-width=\"2\"/>");
        svg.add("<text x=\"" + std::to_string(x + 19) + "\" y=\"" + std::to_string(y) +
                "\" fill=\"#222\">" + it->label + "</text>");
    }
}

std::vector<Point> powerPoints(const std::vector<PowerHistoryItem> &items, uint64_t start) {
    std::vector<Point> points;
    for (const auto &item : itemsAfter(items, start)) {
        const PowerHistorySample &s = item.sSample;
        points.push_back({s.timestamp,
                          item.u8Unknown == 0,
                          {double(s.minAC), double(s.avgAC), double(s.maxAC), double(s.minDC),
                           double(s.avgDC), double(s.maxDC)}});
    }
    return points;
}

std::vector<Point> perfPoints(const std::vector<PowerPerformanceItem> &items, uint64_t start) {
    std::vector<Point> points;
    for (const auto &item : itemsAfter(items, start)) {
        const PowerPerformanceSample &s = item.sSample;
        points.push_back({s.timestamp,
                          item.u8Unknown == 0,
                          {double(s.cpu), double(s.mem), double(s.io), 0, 0, 0}});
    }
    return points;
}

} // namespace

int cmdChart(const std::string &hoursText, const std::string &outPath) {
    unsigned hours = 0;
    if (!parseHours(hoursText, &hours))
        return usageError("bad hours '" + printable(hoursText) + "' (1-24)");
    std::vector<PowerHistoryItem> power(ZELO_HISTORY_SLOTS);
    uint16_t powerCount = 0;
    const uint8_t rc = ReadPowerHistoryItems(power.data(), ZELO_HISTORY_SLOTS, &powerCount);
    if (rc != ZELO_RC_SUCCESS)
        return telemetryFailure("power history", rc, {Source::PowerHistory});
    power.resize(powerCount);
    if (power.empty())
        return telemetryFailure("power history", ZELO_RC_NO_DATA, {Source::PowerHistory});
    // Performance is optional: a firmware without it still gets its power chart.
    std::vector<PowerPerformanceItem> perf(ZELO_HISTORY_SLOTS);
    uint16_t perfCount = 0;
    if (ReadPowerPerformanceItems(perf.data(), ZELO_HISTORY_SLOTS, &perfCount) != ZELO_RC_SUCCESS)
        perfCount = 0;
    perf.resize(perfCount);

    const uint64_t end = power.back().sSample.timestamp;
    const uint64_t start = end > uint64_t{hours} * 3600 ? end - uint64_t{hours} * 3600 : 0;
    const std::vector<Point> powerSeries = powerPoints(power, start);
    const std::vector<Point> perfSeries = perfPoints(perf, start);

    double maxWatts = 0;
    for (const Point &p : powerSeries)
        if (p.known)
            maxWatts = std::max({maxWatts, p.value[2], p.value[5]});
    const double top = niceCeiling(maxWatts * 1.05);
    const auto powerY = [top](double w) {
        return kPowerBottom - std::min(w, top) / top * (kPowerBottom - kPowerTop);
    };
    const auto perfY = [](double pct) {
        return kPerfBottom - std::min(pct, 100.0) / 100.0 * (kPerfBottom - kPerfTop);
    };

    Svg svg(start, end);
    const Zones zones = zonesOf(start, end);
    svg.add("<text x=\"" + std::to_string(kLeft) +
            "\" y=\"30\" font-size=\"18\" font-weight=\"bold\" fill=\"#111\">Power and "
            "utilisation, " +
            localTime(start, "%Y-%m-%d %H:%M") +
            (zones.start != zones.end ? " " + zones.start : "") + " to " +
            localTime(end, "%Y-%m-%d %H:%M ") + zones.end + "</text>");
    shadeUnknown(svg, powerSeries, kPowerTop, kPowerBottom);
    shadeUnknown(svg, perfSeries, kPerfTop, kPerfBottom);
    axes(svg, kPowerTop, kPowerBottom, top, 5, " W", "watts");
    axes(svg, kPerfTop, kPerfBottom, 100, 4, "%", "percent");
    timeAxis(svg, hours, zones);
    drawBand(svg, powerSeries, 0, 2, kAC, powerY);
    drawBand(svg, powerSeries, 3, 5, kDC, powerY);
    drawLine(svg, powerSeries, 1, kAC, powerY);
    drawLine(svg, powerSeries, 4, kDC, powerY);
    for (int i = 0; i < 3; ++i)
        drawLine(svg, perfSeries, i, kPerf[i], perfY);
    if (perfSeries.empty())
        svg.add("<text x=\"" + std::to_string((kLeft + kRight) / 2) + "\" y=\"" +
                std::to_string((kPerfTop + kPerfBottom) / 2) +
                "\" text-anchor=\"middle\" fill=\"#888\">no performance history</text>");
    legend(svg, kPowerTop - 8, {kAC, kDC}, true);
    legend(svg, kPerfTop - 8, {kPerf[0], kPerf[1], kPerf[2]}, false);

    const std::string text = svg.text();
    if (outPath.empty() || outPath == "-") {
        std::fputs(text.c_str(), gOutput.out);
        return 0;
    }
    FILE *file = std::fopen(outPath.c_str(), "w");
    const bool written = file != nullptr && std::fputs(text.c_str(), file) >= 0;
    if (file == nullptr || std::fclose(file) != 0 || !written) {
        std::fprintf(stderr, "zeloctl: cannot write '%s': %s\n", printable(outPath).c_str(),
                     std::strerror(errno));
        return kExitFailure;
    }
    return 0;
}

} // namespace zeloctl
