// How fast a count of the daemon grew over the last hour.
#include "agent/rate_chart.h"

#include <algorithm>
#include <cstdio>
#include <vector>

#include "agent/html.h"

namespace kessctl {
namespace {

constexpr double WIDTH = 720;
constexpr double HEIGHT = 120;
constexpr double ROOM = 0.95; // of the height, for the peak

struct rate_point {
    double ago_sec;
    double rate;
};
using stretch = std::vector<rate_point>; // without a gap

std::vector<stretch> stretches(const figure_history& history, counted_figure count, time_t now) {
    std::vector<stretch> found(1);
    for (std::size_t at = 0; at < history.size(); ++at) {
        const std::optional<double> rate = rate_at(history, at, count);
        if (rate)
            found.back().push_back({static_cast<double>(now - history[at].when), *rate});
        else if (!found.back().empty())
            found.emplace_back();
    }
    if (found.back().empty())
        found.pop_back();
    return found;
}

double peak_of(const std::vector<stretch>& all) {
    double peak = 0;
    for (const stretch& one : all)
        for (const rate_point& point : one)
            peak = std::max(peak, point.rate);
    return peak;
}

std::string number(const char* format, double value) {
    char text[32];
    std::snprintf(text, sizeof text, format, value);
    return text;
}

// The minutes that the picture covers: an hour, or less of a history that has just begun.
int minutes_of(const figure_history& history, time_t now) {
    for (const int minutes : {5, 15, 30})
        if (history.empty() || now - history.front().when <= minutes * 60)
            return minutes;
    return HISTORY_SEC / 60;
}

// One stretch as a line and what lies below it; the picture is `span_sec` wide and a little more
// than `peak` high.
std::string picture_of(const stretch& one, double span_sec, double peak) {
    const auto place = [&](const rate_point& point, double rate) {
        return number("%.1f,", WIDTH * (1 - point.ago_sec / span_sec)) +
               number("%.1f ", HEIGHT * (1 - (peak > 0 ? ROOM * rate / peak : 0)));
    };
    std::string line;
    for (const rate_point& point : one)
        line += place(point, point.rate);
    return "<polygon points=\"" + place(one.front(), 0) + line + place(one.back(), 0) +
           "\"/><polyline points=\"" + line + "\"/>";
}

std::string rate_text(double rate) {
    return number(rate < 10 ? "%.2g" : "%.0f", rate);
}

} // namespace

std::string rate_chart(const figure_history& history, counted_figure count, const char* heading,
                       time_t now) {
    const std::vector<stretch> all = stretches(history, count, now);
    const double peak = peak_of(all);
    const bool known_now =
        !all.empty() && all.back().back().ago_sec <= static_cast<double>(now - history.back().when);
    const std::string figures =
        all.empty() ? "not known yet"
                    : (known_now ? rate_text(all.back().back().rate) + " now, " : "") + "peak " +
                          rate_text(peak);
    std::string out = "<figure><figcaption>" + element("b", "", heading) + " " +
                      element("span", "", figures) +
                      "</figcaption><svg viewBox=\"0 0 720 120\" preserveAspectRatio=none role=img "
                      "aria-label=\"" +
                      html(std::string(heading) + ": " + figures) + "\">";
    const int minutes = minutes_of(history, now);
    for (const stretch& one : all)
        out += picture_of(one, minutes * 60.0, peak);
    return out + "</svg><p class=axis><span>" + std::to_string(minutes) +
           " min ago</span><span>now</span></p></figure>";
}

} // namespace kessctl
