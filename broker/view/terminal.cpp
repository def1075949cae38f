#include "terminal.h"

#include <cerrno>
#include <clocale>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <langinfo.h>
#include <poll.h>
#include <sys/ioctl.h>
#include <sys/mman.h>
#include <unistd.h>

#define NCURSES_NOMACROS 1
#include <curses.h>
#include <term.h>
#undef lines
#undef columns

namespace tarn::broker {
namespace {

constexpr int kLastWords_ms = 200; // that the end waits for a terminal that takes nothing

// ---- for the signals that end the process: what gives the terminal back, prepared, since little may be called there

constexpr int kFatal[] = {SIGSEGV, SIGBUS, SIGFPE, SIGILL, SIGABRT, SIGQUIT};

struct Emergency {
    int              fd = -1;
    termios          before{};
    char             bytes[128] = "";
    struct sigaction actions[std::size(kFatal)]{};
};
Emergency g_emergency;

void write_emergency()
{
    if (write(g_emergency.fd, g_emergency.bytes, strlen(g_emergency.bytes)) < 0) {
        // nothing is left to be done about it
    }
}

void on_fatal(int number)
{
    const int error = errno;
    write_emergency();
    tcsetattr(g_emergency.fd, TCSANOW, &g_emergency.before);
    for (size_t i = 0; i < std::size(kFatal); ++i)
        sigaction(kFatal[i], &g_emergency.actions[i], nullptr);
    errno = error;
    raise(number); // again, for whom it was meant
}

void prepare_emergency(int fd, const termios &before)
{
    g_emergency.fd     = fd;
    g_emergency.before = before;
    for (const char *name : {"sgr0", "cnorm", "rmcup"}) {
        char        spelling[8];
        const char *text = tigetstr(strcpy(spelling, name));
        if (text && text != reinterpret_cast<const char *>(-1) &&
            strlen(g_emergency.bytes) + strlen(text) < sizeof g_emergency.bytes)
            strcat(g_emergency.bytes, text);
    }
    struct sigaction action {};
    action.sa_handler = on_fatal;
    action.sa_flags   = SA_ONSTACK;
    for (size_t i = 0; i < std::size(kFatal); ++i)
        sigaction(kFatal[i], &action, &g_emergency.actions[i]);
}

void dismiss_emergency()
{
    for (size_t i = 0; i < std::size(kFatal); ++i)
        sigaction(kFatal[i], &g_emergency.actions[i], nullptr);
    g_emergency = {};
}

// Texts are UTF-8. Where nothing is said about the character set, it is taken for that too.
void choose_character_set()
{
    const auto is_set = [](const char *name) {
        const char *value = getenv(name);
        return value && *value;
    };
    setlocale(LC_CTYPE, is_set("LC_ALL") || is_set("LC_CTYPE") || is_set("LANG") ? "" : "C.UTF-8");
}

attr_t attributes(Style style)
{
    switch (style) {
    case Style::Title:
        return A_REVERSE;
    case Style::Head:
        return A_BOLD;
    case Style::Graph:
        return static_cast<attr_t>(COLOR_PAIR(1));
    case Style::Alert:
        return static_cast<attr_t>(COLOR_PAIR(2)) | A_BOLD;
    case Style::Plain:
        break;
    }
    return A_NORMAL;
}

} // namespace

std::string Terminal::prepare()
{
    choose_character_set();
    if (!isatty(STDOUT_FILENO))
        return "--top needs a terminal, and standard output is none";
    if (const pid_t group = tcgetpgrp(STDOUT_FILENO); group >= 0 && group != getpgrp())
        return "--top cannot run in the background";
    int result = 0;
    if (setupterm(nullptr, STDOUT_FILENO, &result) != 0) {
        const char *type = getenv("TERM");
        return std::string("--top cannot draw on a terminal of the type '") + (type ? type : "") + "' (TERM)";
    }
    del_curterm(cur_term);
    return "";
}

Terminal::Terminal()
{
    const char *name = ttyname(STDOUT_FILENO);
    fd_              = name ? open(name, O_RDWR | O_NONBLOCK | O_NOCTTY | O_CLOEXEC) : -1;
    if (fd_ < 0) {
        error_ = std::string("cannot open the terminal: ") + strerror(errno);
        return;
    }
    blocks_        = strcmp(nl_langinfo(CODESET), "UTF-8") == 0;
    const int pile = memfd_create("screen", MFD_CLOEXEC);
    in_            = fdopen(fcntl(fd_, F_DUPFD_CLOEXEC, 0), "r");
    memory_        = pile >= 0 ? fdopen(pile, "w+") : nullptr;
    screen_        = in_ && memory_ ? newterm(nullptr, memory_, in_) : nullptr;
    if (!screen_) {
        error_ = "cannot set up the terminal";
        return;
    }
    set_term(screen_);
    tcgetattr(fd_, &before_);
    prepare_emergency(fd_, before_);
    set_raw();
    noecho();
    keypad(stdscr, TRUE);
    nodelay(stdscr, TRUE);
    set_escdelay(25);
    curs_set(0);
    if (has_colors() && start_color() == OK && use_default_colors() == OK) {
        init_pair(1, COLOR_CYAN, -1);
        init_pair(2, COLOR_RED, -1);
    }
}

Terminal::~Terminal()
{
    if (screen_) {
        give_back();
        dismiss_emergency();
        delscreen(screen_);
    }
    if (memory_)
        fclose(memory_);
    if (in_)
        fclose(in_);
    if (fd_ >= 0)
        close(fd_);
}

// Keys come one by one and unseen; Ctrl-C, Ctrl-Z and Ctrl-\ stay signals. Ctrl-S does not stop the picture.
void Terminal::set_raw()
{
    termios raw = before_;
    raw.c_iflag &= ~static_cast<tcflag_t>(IXON | ICRNL);
    raw.c_oflag &= ~static_cast<tcflag_t>(OPOST);
    raw.c_lflag &= ~static_cast<tcflag_t>(ICANON | ECHO | IEXTEN);
    raw.c_cc[VMIN]  = 1;
    raw.c_cc[VTIME] = 0;
    tcsetattr(fd_, TCSANOW, &raw);
}

bool Terminal::gone() const
{
    pollfd state = {fd_, POLLIN, 0};
    return poll(&state, 1, 0) > 0 && (state.revents & (POLLHUP | POLLERR | POLLNVAL)) != 0;
}

Terminal::Key Terminal::key()
{
    switch (getch()) {
    case ERR:
        return Key::None;
    case 'q':
    case 'Q':
        return Key::End;
    case KEY_UP:
    case 'k':
        return Key::Up;
    case KEY_DOWN:
    case 'j':
        return Key::Down;
    case KEY_PPAGE:
        return Key::PageUp;
    case KEY_NPAGE:
    case ' ':
        return Key::PageDown;
    case KEY_HOME:
        return Key::First;
    case KEY_END:
        return Key::Last;
    default:
        return Key::Redraw;
    }
}

Terminal::Size Terminal::size()
{
    winsize now{};
    if (ioctl(fd_, TIOCGWINSZ, &now) != 0 || now.ws_row == 0 || now.ws_col == 0)
        return {24, 80};
    return {now.ws_row, now.ws_col};
}

bool Terminal::draw(const std::vector<Line> &lines, bool afresh)
{
    const Size now = size();
    if (now.rows != getmaxy(stdscr) || now.columns != getmaxx(stdscr))
        resizeterm(now.rows, now.columns);
    if (afresh)
        clearok(curscr, TRUE);
    erase();
    for (size_t row = 0; row < lines.size(); ++row) {
        move(static_cast<int>(row), 0);
        for (const Span &span : lines[row]) {
            attrset(static_cast<int>(attributes(span.style)));
            addstr(span.text.c_str());
        }
    }
    attrset(A_NORMAL);
    refresh();
    return flush();
}

bool Terminal::flush()
{
    const int   pile = fileno(memory_);
    const off_t size = lseek(pile, 0, SEEK_END);
    if (size > 0) {
        const size_t before = pending_.size();
        pending_.resize(before + static_cast<size_t>(size));
        const ssize_t got = pread(pile, pending_.data() + before, static_cast<size_t>(size), 0);
        pending_.resize(before + static_cast<size_t>(got > 0 ? got : 0));
        if (ftruncate(pile, 0) != 0 || lseek(pile, 0, SEEK_SET) != 0)
            pending_.clear();
    }
    while (!pending_.empty()) {
        const ssize_t count = write(fd_, pending_.data(), pending_.size());
        if (count <= 0)
            return false;
        pending_.erase(0, static_cast<size_t>(count));
    }
    return true;
}

void Terminal::give_back()
{
    endwin();
    pollfd room = {fd_, POLLOUT, 0};
    while (!flush() && errno == EAGAIN && poll(&room, 1, kLastWords_ms) > 0) {}
    if (!pending_.empty()) { // what it has not taken is dropped, or nobody could write to it any more
        pending_.clear();
        tcflush(fd_, TCOFLUSH);
        write_emergency();
    }
    tcsetattr(fd_, TCSANOW, &before_);
}

void Terminal::take_again()
{
    tcgetattr(fd_, &before_);
    set_raw();
}

} // namespace tarn::broker
