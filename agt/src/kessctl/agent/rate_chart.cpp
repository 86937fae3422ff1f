// How fast a count of the daemon grew over the last hour.
#include "agent/rate_chart.h"

#include <algorithm>
#include <cstdio>

#include "agent/html.h"

namespace kessctl {
namespace {

constexpr int HOUR_SEC = 3600;
constexpr double WIDTH = 720;
constexpr double HEIGHT = 120;
constexpr double ROOM = 0.95; // of the height, for the peak

// The minutes that the picture covers: an hour, or less of a history that has just begun.
int minutes_of(double known_sec) {
    for (const int minutes : {5, 15, 30})
        if (known_sec <= minutes * 60)
            return minutes;
    return HOUR_SEC / 60;
}

std::string number(const char* format, double value) {
    char text[32];
    std::snprintf(text, sizeof text, format, value);
    return text;
}

std::string rate_text(double rate) {
    return number(rate < 10 ? "%.2g" : "%.0f", rate);
}

// The rates from `from` to `to`, all known, as a line and what lies below it; the picture shows
// `cells` of them.
std::string line_of(const std::vector<double>& rates, std::size_t from, std::size_t to,
                    std::size_t cells, double peak) {
    const auto across = [&](std::size_t at) {
        return number("%.1f,", WIDTH * (1 - static_cast<double>(rates.size() - 1 - at) /
                                                static_cast<double>(cells)));
    };
    std::string line;
    for (std::size_t at = from; at < to; ++at)
        line +=
            across(at) + number("%.1f ", HEIGHT * (1 - (peak > 0 ? ROOM * rates[at] / peak : 0)));
    const std::string ground = number("%.0f ", HEIGHT);
    return "<polygon points=\"" + across(from) + ground + line + across(to - 1) + ground +
           "\"/><polyline points=\"" + line + "\"/>";
}

} // namespace

std::string rate_chart(const look_history& history, const char* figure, const char* heading) {
    const std::vector<double> rates =
        history.course(figure, static_cast<std::size_t>(HOUR_SEC / history.cell_sec()));
    const auto known = [](double rate) { return rate >= 0; };
    const auto first = std::find_if(rates.begin(), rates.end(), known);
    const double peak = *std::max_element(rates.begin(), rates.end());
    const int minutes = minutes_of(static_cast<double>(rates.end() - first) * history.cell_sec());
    const auto cells = static_cast<std::size_t>(minutes * 60 / history.cell_sec());
    const std::optional<double> now = history.last(figure);
    const std::string figures = (now ? rate_text(*now) + " now, " : "") +
                                (peak < 0 ? "not known yet" : "peak " + rate_text(peak));
    std::string out = "<figure><figcaption>" + element("b", "", heading) + " " +
                      element("span", "", figures) +
                      "</figcaption><svg viewBox=\"0 0 720 120\" preserveAspectRatio=none role=img "
                      "aria-label=\"" +
                      html(std::string(heading) + ": " + figures) + "\">";
    for (auto from = first; from != rates.end();) {
        const auto to = std::find_if_not(from, rates.end(), known);
        out += line_of(rates, static_cast<std::size_t>(from - rates.begin()),
                       static_cast<std::size_t>(to - rates.begin()), cells, peak);
        from = std::find_if(to, rates.end(), known);
    }
    return out + "</svg><p class=axis><span>" + std::to_string(minutes) +
           " min ago</span><span>now</span></p></figure>";
}

} // namespace kessctl
