// The files with which the console speaks TLS: those of the configuration, or of its user.
#pragma once

#include <memory>
#include <optional>
#include <string>

#include "tls_identity.h"

namespace kessctl {

// What section [TLS] of a configuration names, paths in full; nothing when it has none of the keys.
std::optional<agt::tls_files> tls_section(const std::string& cfg_file);

// Loads the files of `own` and, where it names none, of the section; shared by all connections.
// Null with an empty *why when neither asks for TLS, null with a reason when they cannot be used.
std::shared_ptr<agt::tls_identity> open_tls(const std::string& cfg_file, agt::tls_files own,
                                            std::string* why);

} // namespace kessctl
