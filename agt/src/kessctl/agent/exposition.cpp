// The text exposition format of Prometheus.
#include "agent/exposition.h"

#include <cstdio>

namespace kessctl {
namespace {

// The format asks for UTF-8, which the names of processes need not be: what is not ASCII becomes
// \xHH, too.
std::string escaped(const std::string& value) {
    std::string text;
    for (const char c : value) {
        char byte[8] = {c};
        if (c == '\\' || c == '"')
            std::snprintf(byte, sizeof byte, "\\%c", c);
        else if ((c & 0x80) != 0)
            std::snprintf(byte, sizeof byte, "\\\\x%02x", static_cast<unsigned char>(c));
        text += c == '\n' ? "\\n" : byte;
    }
    return text;
}

} // namespace

metric_family::metric_family(std::string& out, const char* name, const char* type, const char* help)
    : out_(out), name_(name) {
    out_ += "# HELP " + name_ + " " + help + "\n# TYPE " + name_ + " " + type + "\n";
}

void metric_family::add(const std::vector<label>& labels, double value) {
    std::string text;
    for (const label& one : labels)
        text +=
            (text.empty() ? "{" : ",") + std::string(one.name) + "=\"" + escaped(one.value) + "\"";
    char number[40];
    std::snprintf(number, sizeof number, "%.15g", value);
    out_ += name_ + text + (text.empty() ? " " : "} ") + number + "\n";
}

} // namespace kessctl
