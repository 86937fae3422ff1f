// Hosts and addresses as text.
#include "host_address.h"

#include <arpa/inet.h>
#include <netdb.h>
#include <poll.h>
#include <pthread.h>
#include <sys/eventfd.h>

#include <cerrno>
#include <charconv>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <memory>
#include <string>

#include "unique_fd.h"
#include "wait.h"

namespace agt {
namespace {

constexpr int ADDRESS_BITS = 32; // of IPv4

// The resolver cannot be told to stop, so a name is looked up by a thread of its own, which is left
// behind when the one that asks is cancelled.
struct name_lookup {
    std::string host;
    unique_fd done{eventfd(0, EFD_CLOEXEC)};
    bool found = false;
    in_addr address{};
    int error = 0; // that the resolver met
};
using shared_lookup = std::shared_ptr<name_lookup>;

void look_up(name_lookup& name) {
    char buffer[8192];
    hostent entry{};
    hostent* found = nullptr;
    int error = 0;
    errno = 0;
    name.found =
        gethostbyname_r(name.host.c_str(), &entry, buffer, sizeof buffer, &found, &error) == 0 &&
        found != nullptr && found->h_addrtype == AF_INET && found->h_addr_list[0] != nullptr;
    if (name.found)
        std::memcpy(&name.address, found->h_addr_list[0], sizeof name.address);
    const bool told = errno == EMFILE || errno == ENFILE || errno == ENOMEM;
    name.error = told ? errno : 0; // what else it leaves behind says nothing
}

void* look_up_in_thread(void* handed_over) {
    const std::unique_ptr<shared_lookup> name(static_cast<shared_lookup*>(handed_over));
    look_up(**name);
    const std::uint64_t one = 1;
    [[maybe_unused]] const ssize_t told = write((*name)->done.get(), &one, sizeof one);
    return nullptr;
}

bool start_look_up(const shared_lookup& name) {
    auto handed_over = std::make_unique<shared_lookup>(name);
    pthread_t thread = 0;
    if (!name->done.valid() ||
        pthread_create(&thread, nullptr, look_up_in_thread, handed_over.get()) != 0)
        return false;
    handed_over.release(); // NOLINT(bugprone-unused-return-value): the thread has it
    pthread_detach(thread);
    return true;
}

} // namespace

bool resolve_host(const char* host, in_addr* out) {
    if (inet_aton(host, out) !=
        0) // the resolver, which a lack of memory can leave locked, is for names
        return true;
    const auto name = std::make_shared<name_lookup>(name_lookup{.host = host});
    if (!start_look_up(name))
        look_up(*name);
    else if (wait_fd(name->done.get(), POLLIN, -1) != wait_result::ready)
        return false;
    *out = name->address;
    errno = name->error;
    return name->found;
}

bool parse_address_block(const char* text, address_block* out) {
    const char* slash = std::strchr(text, '/');
    const std::string dotted(text, slash == nullptr ? std::strlen(text)
                                                    : static_cast<std::size_t>(slash - text));
    int bits = ADDRESS_BITS;
    if (slash != nullptr) {
        const char* end = slash + std::strlen(slash);
        const auto [stop, error] = std::from_chars(slash + 1, end, bits);
        if (error != std::errc() || stop != end || bits < 0 || bits > ADDRESS_BITS)
            return false;
    }
    in_addr address{};
    if (inet_pton(AF_INET, dotted.c_str(), &address) != 1)
        return false;
    out->mask = bits == 0 ? 0 : ~in_addr_t{0} << (ADDRESS_BITS - bits);
    out->address = ntohl(address.s_addr) & out->mask;
    return true;
}

int url_to_ipaddr(const char* host, char* out) {
    if (host == nullptr || *host == '\0')
        return -1;
    char buffer[8192];
    hostent entry{};
    hostent* found = nullptr;
    int error = 0;
    if (gethostbyname_r(host, &entry, buffer, sizeof buffer, &found, &error) != 0 ||
        found == nullptr || found->h_addr_list[0] == nullptr) {
        std::fputs("host error\n", stderr);
        return -2;
    }
    char text[INET_ADDRSTRLEN] = "";
    inet_ntop(AF_INET, found->h_addr_list[0], text, sizeof text);
    std::fprintf(stderr, "address : %s, url:%s\n", text, host);
    std::snprintf(out, 20, "%s", text);
    for (char** address = found->h_addr_list; *address != nullptr; ++address) {
        inet_ntop(AF_INET, *address, text, sizeof text);
        std::printf("address : %s\n", text);
    }
    return 0;
}

} // namespace agt
