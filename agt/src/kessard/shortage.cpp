// What the host refuses for want of something.
#include "shortage.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <iterator>

#include "log_printf.h"

namespace kessard {

void log_shortage(const char* what, int error) {
    static constexpr int SHORTAGES[] = {EMFILE, ENFILE, ENOMEM, ENOBUFS, ENOSPC, EAGAIN};
    const int caller_errno = errno;
    if (std::find(std::begin(SHORTAGES), std::end(SHORTAGES), error) != std::end(SHORTAGES))
        agt::log_printf("<!> %s : short of resources, errno : %d (%s)", what, error,
                        strerrordesc_np(error));
    errno = caller_errno;
}

} // namespace kessard
