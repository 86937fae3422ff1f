// kessctl status --watch on a terminal: keys, signals, size.
#include "commands/watch.h"

#include <poll.h>
#include <strings.h>
#include <sys/ioctl.h>
#include <sys/signalfd.h>
#include <termios.h>
#include <unistd.h>

#include <algorithm>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <string_view>

#include "agent/agent_diagnosis.h"
#include "agent/status_screen.h"
#include "unique_fd.h"
#include "util.h"
#include "wait.h"

namespace kessctl {
namespace {

constexpr char ENTER_SCREEN[] = "\x1b[?1049h\x1b[?25l\x1b[?7l"; // no cursor, no wrapping of lines
constexpr char LEAVE_SCREEN[] = "\x1b[?7h\x1b[?25h\x1b[?1049l";
constexpr char ESCAPE = '\x1b';
constexpr char BACKSPACES[] = {'\x7f', '\b'};
constexpr std::size_t LONGEST_FILTER = 40;

bool put(const std::string& text) {
    return agt::write_whole(STDOUT_FILENO, text.data(), text.size());
}

// The terminal, drawn upon and with keys that come at once, for the life of the object.
class screen {
  public:
    screen() : has_keys_(isatty(STDIN_FILENO) == 1 && tcgetattr(STDIN_FILENO, &before_) == 0) {
        enter();
    }
    screen(const screen&) = delete;
    screen& operator=(const screen&) = delete;
    ~screen() { leave(); }

    bool has_keys() const { return has_keys_; }

    bool draw(const std::vector<std::string>& lines) const {
        std::string picture = "\x1b[H";
        for (const std::string& line : lines)
            picture += line + "\x1b[K" + (&line == &lines.back() ? "\x1b[J" : "\r\n");
        return put(picture);
    }

    // Gives the terminal back until the shell lets this process go on.
    void stop() {
        leave();
        raise(SIGSTOP);
        enter();
    }

  private:
    void enter() {
        put(ENTER_SCREEN);
        termios at_once = before_;
        at_once.c_lflag &= ~static_cast<tcflag_t>(ICANON | ECHO);
        if (has_keys_)
            tcsetattr(STDIN_FILENO, TCSANOW, &at_once);
    }
    void leave() {
        if (has_keys_)
            tcsetattr(STDIN_FILENO, TCSANOW, &before_);
        put(LEAVE_SCREEN);
    }

    termios before_{};
    bool has_keys_;
};

void take_size(screen_view& view) {
    winsize size{};
    if (ioctl(STDOUT_FILENO, TIOCGWINSZ, &size) != 0 || size.ws_row == 0 || size.ws_col == 0)
        return;
    view.lines = size.ws_row;
    view.columns = size.ws_col;
}

bool shows_utf8() {
    for (const char* name : {"LC_ALL", "LC_CTYPE", "LANG"})
        if (const char* locale = std::getenv(name); locale != nullptr && *locale != '\0') {
            const char* set = std::strchr(locale, '.');
            return set != nullptr &&
                   (strncasecmp(set, ".UTF-8", 6) == 0 || strncasecmp(set, ".utf8", 5) == 0);
        }
    return false;
}

void type(screen_view& view, char key) {
    std::string& filter = view.report.filter;
    view.typing = key != '\n' && key != '\r' && key != ESCAPE;
    if (key == ESCAPE)
        filter.clear();
    else if (std::find(std::begin(BACKSPACES), std::end(BACKSPACES), key) != std::end(BACKSPACES))
        filter = filter.substr(0, std::max<std::size_t>(filter.size(), 1) - 1);
    else if (key >= ' ' && key < '\x7f' && filter.size() < LONGEST_FILTER)
        filter += key;
}

// False when the user has seen enough.
bool press(screen_view& view, char key) {
    if (view.typing) {
        type(view, key);
        return true;
    }
    switch (key) {
    case 'p':
        view.paused = !view.paused;
        break;
    case 's':
        view.report.sort = next_order(view.report);
        break;
    case 'f':
        view.typing = true;
        break;
    case 'l':
        view.report.services = !view.report.services;
        view.report.sort = next_order(view.report);
        break;
    default:
        break;
    }
    return key != 'q' && key != 'Q';
}

// The bytes of a key that is an escape sequence, such as an arrow; 0 for another.
std::size_t sequence_size(std::string_view keys) {
    if (keys.size() < 2 || keys[0] != ESCAPE || (keys[1] != '[' && keys[1] != 'O'))
        return 0;
    std::size_t at = 2;
    while (at < keys.size() && (keys[at] < '@' || keys[at] > '~'))
        ++at;
    return std::min(at + 1, keys.size());
}

// Takes the keys that wait; false when the user has seen enough or is gone.
bool read_keys(screen_view& view) {
    char bytes[64];
    const ssize_t count = read(STDIN_FILENO, bytes, sizeof bytes);
    std::string_view keys(bytes, count > 0 ? static_cast<std::size_t>(count) : 0);
    bool on = !keys.empty();
    while (on && !keys.empty()) {
        const std::size_t size = sequence_size(keys);
        on = size > 0 || press(view, keys[0]);
        keys.remove_prefix(std::max<std::size_t>(size, 1));
    }
    return on;
}

// Takes a signal that waits; false when it asks for the end.
bool take_signal(int signals, screen& terminal) {
    signalfd_siginfo info{};
    if (read(signals, &info, sizeof info) != sizeof info)
        return false;
    if (info.ssi_signo == SIGTSTP)
        terminal.stop();
    return info.ssi_signo == SIGTSTP || info.ssi_signo == SIGWINCH;
}

// Blocks the signals that are taken between two pictures, and makes them end waits.
agt::unique_fd take_signals() {
    sigset_t taken;
    sigemptyset(&taken);
    for (const int signo : {SIGINT, SIGTERM, SIGHUP, SIGQUIT, SIGTSTP, SIGWINCH})
        sigaddset(&taken, signo);
    sigprocmask(SIG_BLOCK, &taken, nullptr);
    agt::unique_fd signals(signalfd(-1, &taken, SFD_CLOEXEC | SFD_NONBLOCK));
    agt::set_cancel_fd(signals.get());
    return signals;
}

} // namespace

exit_status watch_on_screen(const look_options& look, const report_options& report,
                            double interval_sec) {
    screen_view view;
    view.report = report;
    view.interval_sec = interval_sec;
    view.wide_glyphs = shows_utf8();
    if (!report.services)
        view.report.sort = next_order(report); // the first of processes
    look_history history(interval_sec);
    agent_snapshot now;
    agent_diagnosis found;
    const agt::unique_fd signals = take_signals();
    screen terminal;
    long long next_ms = 0;
    for (bool on = true; on;) {
        if (agt::monotonic_ms() >= next_ms && !view.paused) {
            now = take_snapshot(look.cfg_file);
            found = diagnose(now, look.full_percent);
            const long long at_ms = agt::monotonic_ms();
            history.add(now, at_ms);
            next_ms = at_ms + static_cast<long long>(interval_sec * 1000);
        }
        take_size(view);
        if (!terminal.draw(draw_screen(now, found, history, view)))
            break;
        const long long left_ms = std::max(next_ms - agt::monotonic_ms(), 0LL);
        const agt::wait_result came = agt::wait_fd(terminal.has_keys() ? STDIN_FILENO : -1, POLLIN,
                                                   view.paused ? -1 : static_cast<int>(left_ms));
        if (came == agt::wait_result::ready)
            on = read_keys(view);
        else if (came == agt::wait_result::cancelled)
            on = take_signal(signals.get(), terminal);
    }
    return static_cast<exit_status>(found.health);
}

} // namespace kessctl
