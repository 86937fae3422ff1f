// Takes the place of the subprocess module: no command is run. What one prints, and how it ends,
// follows from its text.
#include "subprocess.h"

#include <cstdlib>
#include <cstring>

namespace agt {

subprocess_result_t* subprocess_exec_output_timeout_ex(const char* command, int) {
    const std::size_t length = std::strlen(command);
    if (length > 0 && command[0] == '!')
        return nullptr;
    auto* result = static_cast<subprocess_result_t*>(std::calloc(1, sizeof(subprocess_result_t)));
    result->exit_code = static_cast<int>(length) - 1;
    result->signal_number = -1;
    result->is_timeout = length % 7 == 6 ? 1 : 0;
    result->stdout_.buf_p = strdup(command);
    result->stdout_.length = length;
    result->stdout_.size = length + 1;
    return result;
}

void subprocess_result_free(subprocess_result_t* result) {
    std::free(result->stdout_.buf_p);
    std::free(result->stderr_.buf_p);
    std::free(result);
}

} // namespace agt
