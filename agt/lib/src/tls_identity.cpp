// Certificates of a program, taken anew when their files change.
#include "tls_identity.h"

#include <sys/stat.h>

#include <utility>

#include "tls.h"

namespace agt {

tls_identity::~tls_identity() {
    const lock_guard guard(mutex_);
    if (tls_context* context = std::exchange(context_, nullptr))
        calls_->unload(context);
}

tls_identity::stamps tls_identity::look() const {
    stamps now{};
    auto* at = now.begin();
    for (const std::string* file : {&files_.cert, &files_.key, &files_.ca}) {
        struct stat info {};
        stat(file->c_str(), &info); // all zeros for one that is not there
        for (const long long part :
             {static_cast<long long>(info.st_dev), static_cast<long long>(info.st_ino),
              static_cast<long long>(info.st_size), static_cast<long long>(info.st_mtim.tv_sec),
              static_cast<long long>(info.st_mtim.tv_nsec),
              static_cast<long long>(info.st_ctim.tv_sec),
              static_cast<long long>(info.st_ctim.tv_nsec)})
            *at++ = part;
    }
    return now;
}

std::string tls_identity::open(const tls_files& files) {
    std::string why;
    const tls_calls* calls = load_tls_module(&why);
    if (calls == nullptr)
        return why;
    files_ = files;
    const lock_guard guard(mutex_);
    seen_ = look();
    context_ = calls->load(files_, &why);
    if (context_ != nullptr)
        calls_ = calls;
    return why;
}

tls_identity::change tls_identity::refresh(std::string* why) {
    const lock_guard guard(mutex_);
    const stamps now = look();
    if (now == seen_)
        return change::none;
    seen_ = now;
    tls_context* fresh = calls_->load(files_, why);
    if (fresh == nullptr)
        return change::kept;
    calls_->unload(std::exchange(context_, fresh));
    return change::taken;
}

tls_session* tls_identity::begin(int sockfd, tls_side side, const std::vector<std::string>& names) {
    const lock_guard guard(mutex_);
    return context_ == nullptr ? nullptr : calls_->begin(context_, sockfd, side, names);
}

std::time_t tls_identity::expires() {
    const lock_guard guard(mutex_);
    return calls_->expires(context_);
}

} // namespace agt
