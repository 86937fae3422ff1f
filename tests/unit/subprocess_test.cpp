// The subprocess runner: every entry point, the limit of time, the streams, what a child inherits.
#include "subprocess.h"

#include <sys/resource.h>

#include "checks.h"

namespace {

using namespace agt;
using testing::ExitedWithCode;
using testing::internal::CaptureStdout;
using testing::internal::GetCapturedStdout;

struct free_result {
    void operator()(subprocess_result_t* result) const { subprocess_result_free(result); }
};
using result = std::unique_ptr<subprocess_result_t, free_result>;

void check(subprocess_result_t* given, const std::string& expected) {
    const result of(given);
    ASSERT_NE(of, nullptr);
    EXPECT_EQ(std::strlen(of->stdout_.buf_p), of->stdout_.length);
    EXPECT_EQ(std::strlen(of->stderr_.buf_p), of->stderr_.length);
    std::ostringstream summary;
    summary << of->exit_code << ' ' << of->signal_number << ' ' << of->is_timeout << " ["
            << of->stdout_.buf_p << "][" << of->stderr_.buf_p << ']';
    EXPECT_EQ(summary.str(), expected);
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
    check(subprocess_call(exit_three, nullptr), "3 -1 0 [][]");
    check(subprocess_call_output(print_both, arg), "0 -1 0 [out x][err]");
    check(subprocess_call_output_timeout(print_both, arg, 9), "0 -1 0 [out x][err]");
    check(subprocess_call_output_timeout_ex(print_error, nullptr, 9), "0 -1 0 [err][]");
    check(subprocess_exec_output(command), "3 -1 0 [o][e]");
    check(subprocess_exec_output_timeout(command, 9), "3 -1 0 [o][e]");
    check(subprocess_exec_output_timeout_ex(command, 9), "3 -1 0 [oe][]");
    check(subprocess_exec_output("kill -TERM $$"), "-1 15 0 [][]");
    const std::string longest(300000, 'x'); // no exec takes it
    check(subprocess_exec_output(longest.c_str()), "1 -1 0 [][]");
    CaptureStdout();
    std::printf("buffered "); // must not come out of the child too
    check(subprocess_exec("echo inherited; exit 5"), "5 -1 0 [][]");
    check(subprocess_call(print_both, arg), "0 -1 0 [][]");
    EXPECT_EQ(GetCapturedStdout(), "buffered inherited\nout x");
}

TEST(Subprocess, TellsSuccessAndPrintsAResult) {
    const result good(subprocess_exec_output("echo a; printf bb >&2"));
    EXPECT_TRUE(subprocess_completed_successfully(good.get()));
    EXPECT_FALSE(subprocess_completed_successfully(result(subprocess_exec_output("exit 1")).get()));
    EXPECT_FALSE(subprocess_completed_successfully(nullptr));
    CaptureStdout();
    subprocess_result_print(good.get());
    subprocess_result_print(nullptr);
    EXPECT_EQ(GetCapturedStdout(), "exit_code: 0, signal_number=(-1), is_timeout=(0)\n"
                                   "stdout (length: 2):\na\n\nstderr (length: 2):\nbb\n");
}

TEST(Subprocess, CutsAtTheLimit) {
    const long long start_ms = monotonic_ms();
    const result silent(subprocess_exec_output_timeout("printf a; exec sleep 20", 2));
    EXPECT_GE(monotonic_ms() - start_ms, 1900);
    ASSERT_NE(silent, nullptr);
    EXPECT_EQ(silent->is_timeout, 1);
    EXPECT_EQ(silent->exit_code, -1);
    EXPECT_TRUE(silent->signal_number == SIGTERM || silent->signal_number == SIGKILL);
    EXPECT_STREQ(silent->stdout_.buf_p, "a");
    const char* stubborn = "trap '' TERM; while :; do sleep 1; done";
    const result ignoring(subprocess_exec_output_timeout(stubborn, 2));
    EXPECT_EQ(ignoring->signal_number, SIGKILL);
    const result flood(subprocess_exec_output_timeout_ex("exec cat /dev/zero", 2)); // never pauses
    ASSERT_NE(flood, nullptr);
    EXPECT_EQ(flood->is_timeout, 1);
    EXPECT_GT(flood->stdout_.length, 0U);
    EXPECT_LE(flood->stdout_.size, SUBPROCESS_OUTPUT_MAX);
    EXPECT_LT(monotonic_ms() - start_ms, 18000);
}

TEST(Subprocess, KeepsTheFrontOfAnOutputBeyondTheMaximum) {
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
    GTEST_SKIP() << "a sanitizer copies the whole buffer at every step of its growth";
#endif
    const result much(subprocess_exec_output("head -c 70000000 /dev/zero; echo end >&2"));
    ASSERT_NE(much, nullptr);
    EXPECT_EQ(much->exit_code, 0);
    EXPECT_EQ(much->stdout_.length, SUBPROCESS_OUTPUT_MAX - 1);
    EXPECT_EQ(much->is_cut, 1);
    EXPECT_STREQ(much->stderr_.buf_p, "end\n");
}

// A background process that keeps both streams open holds the run until its limit.
TEST(Subprocess, EndsWithTheFirstStreamThatCloses) {
    check(subprocess_exec_output_timeout("sleep 4 & printf a", 2), "0 -1 1 [a][]");
    check(subprocess_exec_output("sleep 2 2>/dev/null & printf a"), "0 -1 0 [a][]");
    const char* closing = "printf a; exec 2>&-; sleep 0.3; printf b; exit 4";
    check(subprocess_exec_output(closing), "4 -1 0 [a][]");
    for (int i = 0; i < 200 && !HasFailure(); ++i) // nothing of a child that ends at once is lost
        check(subprocess_exec_output("printf e >&2; printf o"), "0 -1 0 [o][e]");
}

// Makes the parent's next poll fail, and ends with the parent.
void break_poll_of_parent(void*) {
    const rlimit none = {1, 1};
    prlimit(getppid(), RLIMIT_NOFILE, &none, nullptr);
    std::printf("now");
    std::fflush(stdout);
    wait_fd(STDOUT_FILENO, 0, 20000);
}

TEST(SubprocessDeath, AFailingPollEndsTheProcess) {
    EXPECT_EXIT(subprocess_call_output_timeout(break_poll_of_parent, nullptr, 30),
                ExitedWithCode(1), "^poll: ");
}

} // namespace
