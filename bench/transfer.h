// A large file, and its way to and from a daemon by the console's own transfer.
#pragma once

#include <functional>
#include <string>

#include "agent_fixture.h"
#include "server/ext_transfer.h"

namespace bench {

inline constexpr std::size_t FILE_BYTES = 256UL * 1024 * 1024;
inline constexpr std::size_t PIECE_BYTES = 1024 * 1024;
inline constexpr int TRANSFER_LIMIT_MS = 60000;

struct places {
    std::string source;
    std::string directory; // what is stored goes here
    std::string stored;
};

// Writes the source.
places make_places(const test_support::agent& program);

// MiB per second of a transfer into a new file; it returns whether it went well.
double rate(const places& at, const std::function<bool()>& transfer);

// A transfer on a connection that was just made; whether it went well.
bool upload(kessctl::command_client& client, const places& at,
            const kessctl::transfer_observer& observe);
bool download(kessctl::command_client& client, const places& at,
              const kessctl::transfer_observer& observe);

} // namespace bench
