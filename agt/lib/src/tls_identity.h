// What a program shows its peers and believes of them: a certificate, its key and the certificates
// that sign those of the peers. Files that change are taken for the next connection; those that
// cannot be used leave the ones before them in force.
#pragma once

#include <array>
#include <ctime>
#include <string>
#include <vector>

#include "mutex.h"
#include "tls_calls.h"

namespace agt {

class tls_identity {
  public:
    tls_identity() = default;
    tls_identity(const tls_identity&) = delete;
    tls_identity& operator=(const tls_identity&) = delete;
    ~tls_identity();

    // Loads the module and the files; empty, or why they cannot be used. Before the first thread.
    std::string open(const tls_files& files);
    bool is_open() const { return calls_ != nullptr; }

    enum class change { none, taken, kept };
    // Looks at the files of an open identity, from any thread. For those that changed since the
    // last look: `taken`, or `kept` (the old ones) and why in *why.
    change refresh(std::string* why);

    // A session with the files as they were last taken (tls_calls.h), from any thread. Sessions
    // outlive the identity.
    tls_session* begin(int sockfd, tls_side side, const std::vector<std::string>& names);

    // When the certificate that is in force is valid no more.
    std::time_t expires();

  private:
    // Of each file: device, inode, size, and its two times to the nanosecond.
    using stamps = std::array<long long, 3 * 7>;
    stamps look() const;

    tls_files files_;
    const tls_calls* calls_ = nullptr;
    mutex mutex_;
    tls_context* context_ AGT_GUARDED_BY(mutex_) = nullptr;
    stamps seen_ AGT_GUARDED_BY(mutex_){};
};

} // namespace agt
