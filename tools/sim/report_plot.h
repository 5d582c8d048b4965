#pragma once

#include <ostream>
#include <string>
#include <vector>

namespace tovrel::sim {

/// Tick positions of one axis: from `low` to `high` (the ticks at both ends) every `step`.
struct AxisTicks {
    double low = 0;
    double high = 1;
    double step = 1;
    std::vector<double> ticks;
};

/// Ticks covering [from, to] at a step of 1, 2 or 5 × 10^n, the smallest giving at most `maxTicks`
/// intervals. A span of zero (or less) widens to one step around the value. Pure.
AxisTicks niceTicks(double from, double to, int maxTicks);

/// Ticks for a time axis from 0 to `seconds`, at steps a clock reader expects (1, 2, 5, 10, 15, 30 s;
/// 1, 2, 5, 10, 15, 30 min; 1, 2, 3, 6, 12 h; then whole days), at most `maxTicks` intervals. Pure.
AxisTicks timeTicks(double seconds, int maxTicks);

/// "m:ss" ("12:05") for times under an hour when `hours` is false, "h:mm" ("1:05") when true. Pure.
std::string formatClock(double seconds, bool hours);

/// "0 m", "250 m", "1.0 km", "1.5 km" (kilometres from 1000 m on, with as many decimals as `step`
/// needs). Pure.
std::string formatMetres(double metres, double step);

struct PlotSample {
    double t = 0;
    double value = 0;
};

struct PlotSeries {
    std::string name;
    std::vector<PlotSample> samples;
};

/// An inline SVG plot over time (0 to `duration` seconds) of values in metres, with ticks and grid
/// lines on both axes; `steps` draws each value until the next sample. Names are escaped.
void writeSvgPlot(std::ostream& out, const std::string& title, const std::vector<PlotSeries>& series,
                  double duration, bool steps);

}  // namespace tovrel::sim
