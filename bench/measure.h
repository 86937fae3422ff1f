// Figures, and measuring two sides in turn.
//
// The machine is never quiet: both sides are measured alternately in one run, what counts is the
// ratio of their medians. A measurement that failed is not a number and makes its figure one.
#pragma once

#include <cmath>
#include <functional>
#include <string>
#include <vector>

namespace bench {

// What is held against the limit: the daemon's side over the bare one, or the daemon's side alone.
enum class judged { ratio, own };

using samples = std::vector<double>;

// The middle of samples, and the quarters of them below and above. Not a number when there are none
// or one of them is not.
struct spread {
    double low;
    double middle;
    double high;
    spread(double all = NAN) : low(all), middle(all), high(all) {}
    explicit spread(samples values);
};

struct figure {
    std::string name;
    std::string unit;
    judged by = judged::ratio;
    double limit = INFINITY;
    bool at_least = false; // whether the limit is the least or the most
    spread kessard = NAN;
    spread bare = NAN; // not a number without a bare side
    double ratio() const { return kessard.middle / bare.middle; }
    // What is held against the limit; of a ratio the quarters are those that the two sides allow.
    spread value() const;
    bool within() const { return at_least ? value().middle >= limit : value().middle <= limit; }
};

double now_us();

// Whether the user wants an end (SIGINT, SIGTERM): measurements fail from then on. A peer that has
// gone fails them too.
bool interrupted();
void catch_signals();

// Measures both sides alternately, `rounds` times each after one time unmeasured.
figure compare(const figure& of, int rounds, const std::function<double()>& kessard,
               const std::function<double()>& bare);

// Blocking transfer of exactly `length` bytes; false when the peer has gone.
bool send_all(int sockfd, const void* bytes, std::size_t length);
bool receive_all(int sockfd, void* out, std::size_t length);

// Sends a frame on each of the connections and receives one from each, `count` times; microseconds
// of one exchange.
double exchange_us(const std::vector<int>& sockfds, const void* frame, int count);

} // namespace bench
