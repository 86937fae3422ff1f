// Something that is wrong with an agent, and how its objects are called there.
#pragma once

#include <cstddef>
#include <string>
#include <vector>

#include "shared_objects.h"

namespace kessctl {

struct problem {
    std::string what;
    std::string advice;
    bool degrades = true; // the agent is not well with it
};

using problem_list = std::vector<problem>;

// "KEYWORD (name)", as problems name a shared object, and "KEYWORD[number] (name)" of a semaphore.
std::string object_name(const agt::shared_object& object);
std::string semaphore_name(const agt::shared_object& object, std::size_t number);

} // namespace kessctl
