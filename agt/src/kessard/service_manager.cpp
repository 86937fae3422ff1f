// The host's service manager.
#include "service_manager.h"

#include <dlfcn.h>

#include <cstdlib>

#include "log_printf.h"

namespace kessard {
namespace {

using notify_function = int (*)(int unset_environment, const char* state);

// Loaded on demand: most hosts' daemons never pay for the library and what it needs.
notify_function load_sd_notify() {
    void* library = dlopen("libsystemd.so.0", RTLD_NOW | RTLD_LOCAL);
    return library == nullptr ? nullptr
                              : reinterpret_cast<notify_function>(dlsym(library, "sd_notify"));
}

} // namespace

void notify_service_manager(const char* state) {
    if (std::getenv("NOTIFY_SOCKET") == nullptr)
        return;
    static const notify_function sd_notify = load_sd_notify();
    const int result = sd_notify == nullptr ? -1 : sd_notify(0, state);
    if (result < 0)
        agt::log_printf("<!> service manager not notified (%s), result : %d", state, result);
}

} // namespace kessard
