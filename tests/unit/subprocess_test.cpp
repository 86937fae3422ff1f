// The subprocess runner: every entry point, the limit of time, the streams, what a child inherits.
#include "subprocess.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sched.h>
#include <sys/resource.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <csignal>
#include <cstring>
#include <memory>
#include <string>

#include "unique_fd.h"
#include "wait.h"

namespace {

using namespace agt;
using testing::ExitedWithCode;
using testing::internal::CaptureStdout;
using testing::internal::GetCapturedStdout;

struct free_result {
    void operator()(subprocess_result_t* result) const { subprocess_result_free(result); }
};
using result = std::unique_ptr<subprocess_result_t, free_result>;

std::string summary(const result& of) {
    if (of == nullptr)
        return "none";
    EXPECT_EQ(std::strlen(of->stdout_.buf_p), of->stdout_.length);
    EXPECT_EQ(std::strlen(of->stderr_.buf_p), of->stderr_.length);
    return std::to_string(of->exit_code) + " " + std::to_string(of->signal_number) + " " +
           std::to_string(of->is_timeout) + " [" + of->stdout_.buf_p + "][" + of->stderr_.buf_p + "]";
}

void print_both(void* arg) { // leaves its text in the buffers of the streams
    std::printf("out %s", static_cast<char*>(arg));
    std::fprintf(stderr, "err");
}

void print_error(void*) {
    std::fprintf(stderr, "err");
}

void exit_three(void*) {
    _exit(3);
}

TEST(Subprocess, EveryEntryPointReportsExitStatusAndOutput) {
    char arg[] = "x";
    const char* command = "printf o; sleep 0.1; printf e >&2; exit 3";
    const auto check = [](subprocess_result_t* given, const char* expected) {
        EXPECT_EQ(summary(result(given)), expected);
    };
    check(subprocess_call(exit_three, nullptr), "3 -1 0 [][]");
    check(subprocess_call_output(print_both, arg), "0 -1 0 [out x][err]");
    check(subprocess_call_output_timeout(print_both, arg, 9), "0 -1 0 [out x][err]");
    check(subprocess_call_output_timeout_ex(print_error, nullptr, 9), "0 -1 0 [err][]");
    check(subprocess_exec_output(command), "3 -1 0 [o][e]");
    check(subprocess_exec_output_timeout(command, 9), "3 -1 0 [o][e]");
    check(subprocess_exec_output_timeout_ex(command, 9), "3 -1 0 [oe][]");
    check(subprocess_exec_output("kill -TERM $$"), "-1 15 0 [][]");
    CaptureStdout();
    std::printf("buffered "); // must not come out of the child too
    check(subprocess_exec("echo inherited; exit 5"), "5 -1 0 [][]");
    check(subprocess_call(print_both, arg), "0 -1 0 [][]");
    EXPECT_EQ(GetCapturedStdout(), "buffered inherited\nout x");
}

TEST(Subprocess, TellsSuccessAndPrintsAResult) {
    const result good(subprocess_exec_output("echo a; printf bb >&2"));
    const result bad(subprocess_exec_output("exit 1"));
    EXPECT_TRUE(subprocess_completed_successfully(good.get()));
    EXPECT_FALSE(subprocess_completed_successfully(bad.get()));
    EXPECT_FALSE(subprocess_completed_successfully(nullptr));
    CaptureStdout();
    subprocess_result_print(good.get());
    subprocess_result_print(nullptr);
    subprocess_result_free(nullptr);
    EXPECT_EQ(GetCapturedStdout(), "exit_code: 0, signal_number=(-1), is_timeout=(0)\n"
                                   "stdout (length: 2):\na\n\nstderr (length: 2):\nbb\n");
}

TEST(Subprocess, GrowsTheBufferInSteps) {
    const std::pair<std::size_t, std::size_t> sizes[] = {{0, 4096}, {4094, 4096}, {4095, 8192}, {8191, 12288}};
    for (const auto& [length, size] : sizes) {
        const result of(
            subprocess_exec_output(("head -c " + std::to_string(length) + " /dev/zero | tr '\\0' x").c_str()));
        ASSERT_NE(of, nullptr);
        EXPECT_EQ(of->stdout_.buf_p, std::string(length, 'x'));
        EXPECT_EQ(of->stdout_.length, length);
        EXPECT_EQ(of->stdout_.size, size);
    }
}

TEST(Subprocess, CutsAtTheLimit) {
    const long long start_ms = monotonic_ms();
    const result silent(subprocess_exec_output_timeout("printf a; exec sleep 20", 2));
    EXPECT_GE(monotonic_ms() - start_ms, 1900);
    EXPECT_LT(monotonic_ms() - start_ms, 8000);
    ASSERT_NE(silent, nullptr);
    EXPECT_EQ(silent->is_timeout, 1);
    EXPECT_EQ(silent->exit_code, -1);
    EXPECT_TRUE(silent->signal_number == SIGTERM || silent->signal_number == SIGKILL);
    EXPECT_STREQ(silent->stdout_.buf_p, "a");
    const result ignoring(subprocess_exec_output_timeout("trap '' TERM; while :; do sleep 1; done", 2));
    EXPECT_EQ(ignoring->signal_number, SIGKILL);
}

TEST(Subprocess, CutsAChildThatWritesWithoutAPause) {
    const long long start_ms = monotonic_ms();
    const result flood(subprocess_exec_output_timeout_ex("exec cat /dev/zero", 2));
    EXPECT_LT(monotonic_ms() - start_ms, 10000);
    ASSERT_NE(flood, nullptr);
    EXPECT_EQ(flood->is_timeout, 1);
    EXPECT_GT(flood->stdout_.length, 0U);
    EXPECT_LE(flood->stdout_.size, SUBPROCESS_OUTPUT_MAX);
}

TEST(Subprocess, KeepsTheFrontOfAnOutputBeyondTheMaximum) {
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
    GTEST_SKIP() << "a sanitizer copies the whole buffer at every step of its growth";
#endif
    const result much(subprocess_exec_output("head -c 70000000 /dev/zero; echo end >&2"));
    ASSERT_NE(much, nullptr);
    EXPECT_EQ(much->exit_code, 0);
    EXPECT_EQ(much->stdout_.length, SUBPROCESS_OUTPUT_MAX - 1);
    EXPECT_STREQ(much->stderr_.buf_p, "end\n");
}

// A background process that keeps both streams open holds the run until its limit, although the shell has ended; one
// that keeps a single stream does not.
TEST(Subprocess, EndsWithTheFirstStreamThatCloses) {
    EXPECT_EQ(summary(result(subprocess_exec_output_timeout("sleep 4 & printf a", 2))), "0 -1 1 [a][]");
    EXPECT_EQ(summary(result(subprocess_exec_output("sleep 2 2>/dev/null & printf a"))), "0 -1 0 [a][]");
    EXPECT_EQ(summary(result(subprocess_exec_output("printf a; exec 2>&-; sleep 0.3; printf b; exit 4"))),
              "4 -1 0 [a][]");
}

TEST(Subprocess, LosesNoOutputOfAChildThatEndsAtOnce) {
    for (int i = 0; i < 200; ++i)
        ASSERT_EQ(summary(result(subprocess_exec_output("printf e >&2; printf o"))), "0 -1 0 [o][e]");
}

TEST(Subprocess, AnExecThatFailsIsStatusOne) {
    EXPECT_EQ(summary(result(subprocess_exec_output(std::string(300000, 'x').c_str()))), "1 -1 0 [][]");
}

constexpr char SHOW_INHERITED[] = "grep -E 'Sig(Blk|Ign)' /proc/self/status; ls -l /proc/self/fd | grep -c /dev/full";
constexpr char NOTHING_INHERITED[] = "SigBlk:\t0000000000000000\nSigIgn:\t0000000000000000\n0\n";

void exec_show(void*) {
    char command[sizeof SHOW_INHERITED];
    std::memcpy(command, SHOW_INHERITED, sizeof command);
    exec_entry(command);
}

class Inherited : public testing::Test {
  protected:
    Inherited() {
        sigset_t every;
        sigfillset(&every);
        pthread_sigmask(SIG_SETMASK, &every, &before_);
        for (const int signo : {SIGPIPE, SIGINT, SIGUSR1, SIGRTMAX})
            std::signal(signo, SIG_IGN);
    }
    ~Inherited() override {
        restore_signals();
        pthread_sigmask(SIG_SETMASK, &before_, nullptr);
    }
    unique_fd leaking_{open("/dev/full", O_WRONLY)};

  private:
    sigset_t before_;
};

TEST_F(Inherited, AShellSeesDefaultSignalsAndNoneOfOurDescriptors) {
    EXPECT_STREQ(result(subprocess_exec_output(SHOW_INHERITED))->stdout_.buf_p, NOTHING_INHERITED);
    EXPECT_STREQ(result(subprocess_call_output(exec_show, nullptr))->stdout_.buf_p, NOTHING_INHERITED);
    shell_reader reader{};
    ASSERT_EQ(shell_reader_start(SHOW_INHERITED, &reader), 0);
    EXPECT_NE(fcntl(reader.fd, F_GETFD) & FD_CLOEXEC, 0);
    std::string text;
    char piece[64];
    for (ssize_t got; (got = read(reader.fd, piece, sizeof piece)) > 0;)
        text.append(piece, static_cast<std::size_t>(got));
    EXPECT_EQ(text, NOTHING_INHERITED);
    EXPECT_EQ(shell_reader_close(&reader), 1 << 8); // of the last grep
}

TEST(ShellReader, CloseWaitsForTheCommand) {
    shell_reader reader{};
    ASSERT_EQ(shell_reader_start("sleep 0.3; exit 7", &reader), 0);
    EXPECT_EQ(shell_reader_close(&reader), 7 << 8);
    EXPECT_EQ(reader.fd, -1);
    ASSERT_EQ(shell_reader_start("exit 7", &reader), 0);
    EXPECT_EQ(waitpid(reader.pid, nullptr, 0), reader.pid);
    EXPECT_EQ(shell_reader_close(&reader), -1);
}

[[noreturn]] void run_with_descriptors(int count) {
    int last;
    do
        last = dup(0); // fills the gaps
    while (last < 60);
    const rlimit limit = {static_cast<rlim_t>(last + 1 + count), static_cast<rlim_t>(last + 1 + count)};
    setrlimit(RLIMIT_NOFILE, &limit);
    shell_reader reader{};
    const bool nothing = subprocess_exec_output("echo a") == nullptr &&
                         subprocess_call_output(exit_three, nullptr) == nullptr &&
                         (count > 1 || shell_reader_start("echo a", &reader) == -1);
    _exit(nothing && dup(0) == last + 1 ? 0 : 1);
}

TEST(SubprocessDeath, GivesNothingWhenThereAreNoDescriptors) {
    EXPECT_EXIT(run_with_descriptors(1), ExitedWithCode(0), "");
    EXPECT_EXIT(run_with_descriptors(3), ExitedWithCode(0), ""); // enough for the first pipe, which is closed again
}

TEST(SubprocessDeath, WorksWithAllStandardDescriptorsClosed) {
    const auto attempt = [] {
        for (const int fd : {0, 1, 2})
            close(fd);
        const char* command = "echo a; echo b >&2; exit 3";
        const result shell(subprocess_exec_output(command));
        const result entry(subprocess_call_output(exec_entry, const_cast<char*>(command)));
        char arg[] = "x";
        const result function(subprocess_call_output(print_both, arg));
        _exit(summary(shell) == "3 -1 0 [a\n][b\n]" && summary(entry) == "3 -1 0 [a\n][b\n]" &&
                      summary(function) == "0 -1 0 [out x][err]"
                  ? 0
                  : 1);
    };
    EXPECT_EXIT(attempt(), ExitedWithCode(0), "");
}

// Makes the parent's next poll fail, and ends with the parent.
void break_poll_of_parent(void*) {
    const rlimit none = {1, 1};
    prlimit(getppid(), RLIMIT_NOFILE, &none, nullptr);
    std::printf("now");
    std::fflush(stdout);
    wait_fd(STDOUT_FILENO, 0, 20000);
}

int go_ahead[2];

void write_when_told(void*) {
    char byte;
    if (read(go_ahead[0], &byte, 1) == 1)
        std::printf("now");
}

// Puts a directory, which can be polled but not read, in the place of the pipe that the caller reads.
void run_with_unreadable_output() {
    const int directory = open("/", O_RDONLY);
    const int next = dup(directory);
    close(next);
    const pid_t sharing_descriptors = static_cast<pid_t>(syscall(SYS_clone, CLONE_FILES | SIGCHLD, 0, 0, 0, 0));
    if (sharing_descriptors == 0) {
        for (int ms = 0; ms < 20000 && fcntl(next + 3, F_GETFD) == -1; ++ms) // the last end of the two pipes
            sleep_ms(1);
        dup2(directory, next);
        _exit(write(go_ahead[1], "x", 1) == 1 ? 0 : 2);
    }
    subprocess_call_output(write_when_told, nullptr);
    _exit(3);
}

TEST(SubprocessDeath, AFailingPollOrReadEndsTheProcess) {
    EXPECT_EXIT(subprocess_call_output_timeout(break_poll_of_parent, nullptr, 30), ExitedWithCode(1), "^poll: ");
    ASSERT_EQ(pipe(go_ahead), 0);
    EXPECT_EXIT(run_with_unreadable_output(), ExitedWithCode(1), "^read: Is a directory");
    close(go_ahead[0]);
    close(go_ahead[1]);
}

} // namespace
