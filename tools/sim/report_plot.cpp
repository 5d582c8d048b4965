#include "report_plot.h"

#include <algorithm>
#include <array>
#include <cmath>
#include <sstream>

#include "report_escape.h"

namespace tovrel::sim {
namespace {

AxisTicks ticksAt(double from, double to, double step) {
    AxisTicks axis;
    axis.step = step;
    axis.low = std::floor(from / step + 1e-9) * step;
    axis.high = std::ceil(to / step - 1e-9) * step;
    if (axis.high <= axis.low) {
        axis.high = axis.low + step;
    }
    const auto count = static_cast<long>(std::lround((axis.high - axis.low) / step));
    for (long i = 0; i <= count; ++i) {
        const double tick = axis.low + static_cast<double>(i) * step;
        axis.ticks.push_back(std::abs(tick) < step * 1e-9 ? 0.0 : tick);
    }
    return axis;
}

}  // namespace

AxisTicks niceTicks(double from, double to, int maxTicks) {
    if (!std::isfinite(from) || !std::isfinite(to)) {
        from = 0;
        to = 1;
    }
    if (to < from) {
        std::swap(from, to);
    }
    maxTicks = std::max(maxTicks, 1);
    double span = to - from;
    if (span <= 0) {
        span = std::max(std::abs(from), 1.0);
        from -= span / 2;
        to += span / 2;
    }
    double power = std::pow(10.0, std::floor(std::log10(span / maxTicks)));
    for (;;) {
        for (const double factor : {1.0, 2.0, 5.0}) {
            const double step = factor * power;
            if (std::ceil(to / step - 1e-9) - std::floor(from / step + 1e-9) <= maxTicks) {
                return ticksAt(from, to, step);
            }
        }
        power *= 10;
    }
}

AxisTicks timeTicks(double seconds, int maxTicks) {
    if (!std::isfinite(seconds) || seconds <= 0) {
        seconds = 1;
    }
    maxTicks = std::max(maxTicks, 1);
    constexpr std::array<double, 17> kSteps{1,   2,   5,    10,   15,   30,    60,    120,  300,
                                            600, 900, 1800, 3600, 7200, 10800, 21600, 43200};
    for (const double step : kSteps) {
        if (std::ceil(seconds / step - 1e-9) <= maxTicks) {
            return ticksAt(0, seconds, step);
        }
    }
    const AxisTicks days = niceTicks(0, seconds / 86400, maxTicks);
    return ticksAt(0, seconds, std::max(days.step, 1.0) * 86400);
}

std::string formatClock(double seconds, bool hours) {
    const long total = std::lround(std::max(seconds, 0.0));
    std::ostringstream out;
    if (hours) {
        const long minutes = total / 60;
        out << minutes / 60 << ':' << (minutes % 60 < 10 ? "0" : "") << minutes % 60;
    } else {
        out << total / 60 << ':' << (total % 60 < 10 ? "0" : "") << total % 60;
    }
    return out.str();
}

std::string formatMetres(double metres, double step) {
    if (std::abs(metres) < 1000 || std::abs(step) < 1e-9) {
        const int decimals =
            std::abs(step) >= 1 || step == 0 ? 0 : static_cast<int>(std::ceil(-std::log10(std::abs(step))));
        return fixed(metres, std::min(decimals, 6)) + " m";
    }
    const double kmStep = std::abs(step) / 1000;
    const int decimals = kmStep >= 1 ? 0 : static_cast<int>(std::ceil(-std::log10(kmStep) - 1e-9));
    return fixed(metres / 1000, std::min(decimals, 6)) + " km";
}

void writeSvgPlot(std::ostream& out, const std::string& title, const std::vector<PlotSeries>& series,
                  double duration, bool steps) {
    constexpr double kWidth = 900, kHeight = 230, kLeft = 70, kRight = 30, kTop = 12, kBottom = 40;
    double low = 0, high = 1;
    for (const auto& one : series) {
        for (const auto& s : one.samples) {
            if (std::isfinite(s.value)) {
                high = std::max(high, s.value);
            }
        }
    }
    const AxisTicks values = niceTicks(low, high, 5);
    const AxisTicks times = timeTicks(std::max(duration, 1.0), 10);
    const bool hours = times.high >= 3600;
    const auto x = [&](double t) { return kLeft + t / times.high * (kWidth - kLeft - kRight); };
    const auto y = [&](double v) {
        const double clamped = std::clamp(v, values.low, values.high);
        return kHeight - kBottom -
               (clamped - values.low) / (values.high - values.low) * (kHeight - kBottom - kTop);
    };
    out << "<h3>" << escapeHtml(title) << "</h3>\n<svg class=\"plot\" viewBox=\"0 0 " << kWidth << ' '
        << kHeight << "\" role=\"img\" aria-label=\"" << escapeHtml(title) << "\">\n";
    for (const double v : values.ticks) {
        out << "<line class=\"grid\" x1=\"" << kLeft << "\" x2=\"" << kWidth - kRight << "\" y1=\""
            << fixed(y(v), 1) << "\" y2=\"" << fixed(y(v), 1) << "\"/><text class=\"tick\" x=\"" << kLeft - 6
            << "\" y=\"" << fixed(y(v) + 4, 1) << "\" text-anchor=\"end\">" << formatMetres(v, values.step)
            << "</text>\n";
    }
    for (const double t : times.ticks) {
        out << "<line class=\"grid\" x1=\"" << fixed(x(t), 1) << "\" x2=\"" << fixed(x(t), 1) << "\" y1=\""
            << kTop << "\" y2=\"" << kHeight - kBottom << "\"/><text class=\"tick\" x=\"" << fixed(x(t), 1)
            << "\" y=\"" << kHeight - kBottom + 15 << "\" text-anchor=\"middle\">" << formatClock(t, hours)
            << "</text>\n";
    }
    out << "<line class=\"axis\" x1=\"" << kLeft << "\" y1=\"" << kHeight - kBottom << "\" x2=\""
        << kWidth - kRight << "\" y2=\"" << kHeight - kBottom << "\"/><line class=\"axis\" x1=\"" << kLeft
        << "\" y1=\"" << kTop << "\" x2=\"" << kLeft << "\" y2=\"" << kHeight - kBottom << "\"/>\n";
    out << "<text class=\"unit\" x=\"" << kWidth - kRight << "\" y=\"" << kHeight - 4
        << "\" text-anchor=\"end\">time since start (" << (hours ? "h:mm" : "m:ss") << ")</text>\n";
    int index = 0;
    for (const auto& one : series) {
        out << "<polyline class=\"series s" << index << "\" points=\"";
        double lastY = 0;
        bool first = true;
        for (const auto& s : one.samples) {
            if (!std::isfinite(s.value)) {
                continue;
            }
            if (steps && !first) {
                out << fixed(x(s.t), 1) << ',' << fixed(lastY, 1) << ' ';
            }
            lastY = y(s.value);
            out << fixed(x(s.t), 1) << ',' << fixed(lastY, 1) << ' ';
            first = false;
        }
        if (steps && !first) {
            out << fixed(x(duration), 1) << ',' << fixed(lastY, 1);
        }
        out << "\"/><text class=\"s" << index << "\" x=\"" << kLeft + 260 * index << "\" y=\"" << kHeight - 4
            << "\">" << escapeHtml(one.name) << "</text>\n";
        ++index;
    }
    out << "</svg>\n";
}

}  // namespace tovrel::sim
