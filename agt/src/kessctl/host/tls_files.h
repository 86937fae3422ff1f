// The files with which the console speaks TLS: those of the configuration, or of its user.
#pragma once

#include <ctime>
#include <memory>
#include <optional>
#include <string>

#include "config_file.h"
#include "tls_identity.h"

namespace kessctl {

// What section [TLS] of a configuration names, paths in full under `home`; nothing without the
// section.
std::optional<agt::tls_files> tls_section(const agt::config_file& file, const char* home);

// Loads the files of `own` and, where it names none, of the section; shared by all connections.
// Null with an empty *why when neither asks for TLS, null with a reason when they cannot be used.
std::shared_ptr<agt::tls_identity> open_tls(const std::string& cfg_file, agt::tls_files own,
                                            std::string* why);

// The certificate that an agent shows, by its file.
struct certificate_state {
    std::string file;
    std::time_t expires = 0; // 0 when it cannot be read
    std::string fault;       // why not

    // Whole days that are left; negative once it has expired.
    long days(std::time_t now) const {
        return static_cast<long>((expires - now - (expires < now ? 86399 : 0)) / 86400);
    }
};

// Of the agent of a configuration; nothing without section [TLS].
std::optional<certificate_state> read_certificate(const std::string& cfg_file);

} // namespace kessctl
