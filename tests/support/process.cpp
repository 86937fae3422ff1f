// The test process makes itself the reaper of orphans, so that a daemon whose parent has gone can
// be waited for. What belongs to a program is found by its session, which it cannot leave.
#include "process.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/mman.h>
#include <sys/prctl.h>
#include <sys/wait.h>

#include <csignal>
#include <cstdlib>
#include <cstring>
#include <filesystem>

namespace test_support {
namespace {

std::vector<pid_t> processes_of(pid_t session) {
    std::vector<pid_t> found;
    for (const auto& entry : std::filesystem::directory_iterator("/proc"))
        if (const pid_t pid = std::atoi(entry.path().filename().c_str());
            pid > 0 && getsid(pid) == session)
            found.push_back(pid);
    return found;
}

// Becomes the program, in a session of its own, with an empty signal mask and default signals.
[[noreturn]] void become(std::vector<char*> argv, const environment& variables, int out, int err) {
    setsid();
    sigset_t none;
    sigemptyset(&none);
    for (int signo = 1; signo <= SIGRTMAX; ++signo)
        signal(signo, SIG_DFL);
    sigprocmask(SIG_SETMASK, &none, nullptr);
    for (const auto& [name, value] : variables)
        setenv(name.c_str(), value.c_str(), 1);
    const int null = open("/dev/null", O_RDONLY | O_CLOEXEC);
    dup2(null, 0);
    dup2(out, 1);
    dup2(err, 2);
    execv(argv[0], argv.data());
    _exit(127);
}

agt::unique_fd make_capture() {
    return agt::unique_fd(memfd_create("kessard-test", MFD_CLOEXEC));
}

} // namespace

process::process(const std::vector<std::string>& argv, const environment& variables)
    : out_(make_capture()), err_(make_capture()) {
    prctl(PR_SET_CHILD_SUBREAPER, 1, 0, 0, 0);
    std::vector<char*> words;
    for (const std::string& word : argv)
        words.push_back(const_cast<char*>(word.c_str()));
    words.push_back(nullptr);
    pid_ = session_ = fork();
    if (pid_ == 0)
        become(words, variables, out_.get(), err_.get());
    if (pid_ < 0)
        ADD_FAILURE() << "cannot start " << argv[0] << ": " << std::strerror(errno);
}

process::~process() {
    if (!out_.valid() || session_ <= 0) // moved from, or never started
        return;
    if (pid_ > 0 && getsid(pid_) != session_) { // just forked: the session is not there yet
        kill(pid_, SIGKILL);
        waitpid(pid_, nullptr, 0);
    } else if (pid_ > 0 && std::getenv("KESSARD_COVERAGE") != nullptr) {
        kill(pid_, SIGTERM); // a killed program leaves no counters
        kill(pid_, SIGCONT);
        wait_exit();
    }
    wait_until([this] {
        const std::vector<pid_t> left = processes_of(session_);
        for (const pid_t pid : left) {
            kill(pid, SIGKILL);
            waitpid(pid, nullptr, WNOHANG); // fails when it is another's child
        }
        return left.empty();
    });
}

int process::wait_exit(int limit_ms) {
    int status = 0;
    if (pid_ <= 0)
        return -1;
    const auto ended = [&] { return waitpid(pid_, &status, WNOHANG) != 0; };
    if (!wait_until(ended, limit_ms)) {
        ADD_FAILURE() << "process " << pid_ << " did not end within " << limit_ms << " ms";
        kill(pid_, SIGKILL);
        waitpid(pid_, &status, 0);
    }
    pid_ = -1;
    return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
}

bool process::follow_background() {
    siginfo_t info;
    for (const pid_t pid : processes_of(session_))
        if (waitid(P_PID, static_cast<id_t>(pid), &info, WEXITED | WNOHANG | WNOWAIT) == 0)
            pid_ = pid; // a child of this process
    return pid_ > 0;
}

std::vector<pid_t> process::running() const {
    std::vector<pid_t> found = processes_of(session_);
    std::erase_if(found, [](pid_t pid) { return waitpid(pid, nullptr, WNOHANG) == pid; });
    return found;
}

} // namespace test_support
