// Times and sizes as people read them.
#include "agent/report_text.h"

#include <cstdio>
#include <iterator>
#include <utility>

namespace kessctl {

std::string duration(long long sec) {
    constexpr struct {
        long long sec;
        const char* name;
    } units[] = {{86400, "d"}, {3600, "h"}, {60, "min"}, {1, "s"}};
    for (std::size_t i = 0; i + 1 < std::size(units); ++i)
        if (sec >= units[i].sec)
            return std::to_string(sec / units[i].sec) + " " + units[i].name + " " +
                   std::to_string(sec % units[i].sec / units[i + 1].sec) + " " + units[i + 1].name;
    return std::to_string(sec) + " s";
}

std::string counted(long long number, const char* one, const char* several) {
    return std::to_string(number) + " " + (number == 1 ? one : several);
}

std::string size_text(std::size_t bytes) {
    constexpr double kib = 1024;
    char text[48];
    const auto size = static_cast<double>(bytes);
    if (size < kib)
        std::snprintf(text, sizeof text, "%zu B", bytes);
    else if (size < kib * kib)
        std::snprintf(text, sizeof text, "%.1f KiB", size / kib);
    else
        std::snprintf(text, sizeof text, "%.1f MiB", size / kib / kib);
    return text;
}

std::string clock_text(time_t when) {
    char text[32];
    struct tm local {};
    if (when <= 0 || localtime_r(&when, &local) == nullptr ||
        std::strftime(text, sizeof text, "%F %T", &local) == 0)
        return "-";
    return text;
}

std::string since_text(time_t when, time_t now) {
    constexpr time_t day_sec = 86400;
    const std::string text = clock_text(when);
    return now - when < day_sec && text.size() > 1 ? text.substr(text.find(' ') + 1) : text;
}

std::vector<std::string> wrap(std::string text, std::size_t room) {
    std::vector<std::string> lines;
    while (text.size() > room && text.find(' ') != text.npos) {
        std::size_t end = text.rfind(' ', room);
        end = end == text.npos || end == 0 ? text.find(' ') : end;
        lines.push_back(text.substr(0, end));
        text.erase(0, end + 1);
    }
    lines.push_back(std::move(text));
    return lines;
}

} // namespace kessctl
