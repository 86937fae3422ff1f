// Figures, and measuring two sides in turn.
//
// The machine is never quiet: both sides are measured alternately in one run, what counts is the ratio of their
// medians. A measurement that failed is not a number and makes its figure one.
#pragma once

#include <functional>
#include <string>
#include <vector>

namespace bench {

struct figure {
    std::string name;
    std::string unit;
    double kessard; // median
    double bare;    // median; not a number without a bare side
    double value;   // the ratio of the two, or of the daemon alone
    double limit;
    bool at_least; // whether the limit is the least or the most
    bool within() const { return at_least ? value >= limit : value <= limit; }
};

using samples = std::vector<double>;

double now_us();

// Not a number when there are none or one of them is not.
double median(samples values);

// Whether the user wants an end (SIGINT, SIGTERM): measurements fail from then on. A peer that has gone fails them too.
bool interrupted();
void catch_signals();

// Measures both sides alternately, `rounds` times each after one time unmeasured.
figure compare(const figure& of, int rounds, const std::function<double()>& kessard,
               const std::function<double()>& bare);

// Blocking transfer of exactly `length` bytes; false when the peer has gone.
bool send_all(int sockfd, const void* bytes, std::size_t length);
bool receive_all(int sockfd, void* out, std::size_t length);

// Sends a frame and receives one, `count` times; microseconds of one exchange.
double exchange_us(int sockfd, const void* frame, int count);

} // namespace bench
