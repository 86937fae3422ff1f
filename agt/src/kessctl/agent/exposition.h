// The text exposition format of Prometheus, version 0.0.4: families of samples.
//
// A family's samples follow its HELP and TYPE lines at once.
#pragma once

#include <string>
#include <vector>

namespace kessctl {

struct label {
    const char* name;
    std::string value;
};

class metric_family {
  public:
    metric_family(std::string& out, const char* name, const char* type, const char* help);

    template <class Number> void sample(const std::vector<label>& labels, Number value) {
        add(labels, static_cast<double>(value));
    }

  private:
    void add(const std::vector<label>& labels, double value);

    std::string& out_;
    std::string name_;
};

// A family of one sample without labels.
template <class Number>
void single(std::string& out, const char* name, const char* type, const char* help, Number value) {
    metric_family(out, name, type, help).sample({}, value);
}

// A family of one sample per row; nothing without rows.
template <class Rows, class Labels, class Value>
void family(std::string& out, const char* name, const char* type, const char* help,
            const Rows& rows, Labels labels, Value value) {
    if (rows.empty())
        return;
    metric_family samples(out, name, type, help);
    for (const auto& row : rows)
        samples.sample(labels(row), value(row));
}

} // namespace kessctl
