// How the objects of an agent are called where something is wrong with them.
#include "agent/problem.h"

namespace kessctl {

std::string object_name(const agt::shared_object& object) {
    return std::string(object.keyword) + " (" + object.name + ")";
}

std::string semaphore_name(const agt::shared_object& object, std::size_t number) {
    return std::string(object.keyword) + "[" + std::to_string(number) + "] (" + object.name + ")";
}

} // namespace kessctl
