#include "top.h"

#include "../loop.h"
#include "../query.h"
#include "log_pane.h"
#include "rates.h"
#include "screen.h"
#include "terminal.h"
#include "traffic.h"

#include <algorithm>
#include <chrono>
#include <csignal>
#include <cstdio>

#include <tarn_sdk_mqtt_broker.h>

namespace tarn::broker {
namespace {

constexpr auto kPeriod = std::chrono::seconds(1);

int64_t now_ms()
{
    return std::chrono::duration_cast<std::chrono::milliseconds>(std::chrono::steady_clock::now().time_since_epoch())
        .count();
}

} // namespace

std::string prepare_view()
{
    return Terminal::prepare();
}

struct Top::State {
    State(Loop &its_loop, broker_t *its_broker, int its_max) : loop(its_loop), broker(its_broker), max_clients(its_max)
    {
    }

    void watch();
    void look(); // at the broker
    void take_keys();
    void act(Terminal::Key key);
    void scroll_to(std::ptrdiff_t first);
    void draw();
    void redraw_afresh();
    void sleep();

    Loop                    &loop;
    broker_t                *broker;
    int                      max_clients;
    std::unique_ptr<LogPane> pane; // given back after the terminal
    Terminal                 terminal;
    Traffic                  traffic;
    Rates                    rates;
    std::vector<std::string> clients; // sorted ids
    size_t                   first  = 0;
    bool                     afresh = true;
};

void Top::State::watch()
{
    pane = std::make_unique<LogPane>();
    loop.every(kPeriod, [this] {
        look();
        draw();
    });
    loop.on_readable(terminal.fd(), [this] { take_keys(); });
    loop.on_signal(SIGWINCH, [this] { redraw_afresh(); });
    loop.on_signal(SIGTSTP, [this] { sleep(); });
}

void Top::State::look()
{
    traffic.look();
    Counters counters  = read_counters();
    counters.bytes_in  = traffic.bytes_in();
    counters.bytes_out = traffic.bytes_out();
    rates.add(counters, now_ms());
    clients = clients_online(broker);
    std::sort(clients.begin(), clients.end());
}

void Top::State::take_keys()
{
    if (terminal.gone()) {
        loop.forget(terminal.fd());
        loop.end();
        return;
    }
    for (Terminal::Key key; (key = terminal.key()) != Terminal::Key::None;)
        act(key);
    draw();
}

void Top::State::act(Terminal::Key key)
{
    const auto page = static_cast<std::ptrdiff_t>(client_rows(terminal.size().rows));
    const auto at   = static_cast<std::ptrdiff_t>(first);
    switch (key) {
    case Terminal::Key::End:
        loop.end();
        break;
    case Terminal::Key::Up:
        scroll_to(at - 1);
        break;
    case Terminal::Key::Down:
        scroll_to(at + 1);
        break;
    case Terminal::Key::PageUp:
        scroll_to(at - page);
        break;
    case Terminal::Key::PageDown:
        scroll_to(at + page);
        break;
    case Terminal::Key::First:
        scroll_to(0);
        break;
    case Terminal::Key::Last:
        scroll_to(static_cast<std::ptrdiff_t>(clients.size()));
        break;
    case Terminal::Key::Redraw:
        afresh = true;
        break;
    case Terminal::Key::None:
        break;
    }
}

// The last page stays full.
void Top::State::scroll_to(std::ptrdiff_t wanted)
{
    const auto page = static_cast<std::ptrdiff_t>(client_rows(terminal.size().rows));
    const auto last = std::max<std::ptrdiff_t>(static_cast<std::ptrdiff_t>(clients.size()) - page, 0);
    first           = static_cast<size_t>(std::clamp<std::ptrdiff_t>(wanted, 0, last));
}

// A picture that the terminal has not taken yet is not followed by another.
void Top::State::draw()
{
    if (!terminal.flush())
        return;
    loop.on_writable(terminal.fd(), nullptr);
    const Terminal::Size size = terminal.size();
    scroll_to(static_cast<std::ptrdiff_t>(first)); // clients may have gone
    View view{.rates        = rates,
              .version      = tarn_sdk_mqtt_broker_version(),
              .max_clients  = max_clients,
              .first_client = first,
              .clients      = {},
              .log          = pane->last(log_rows(size.rows))};
    for (size_t i = first; i < clients.size() && view.clients.size() < client_rows(size.rows); ++i)
        if (const auto info = client_info(broker, clients[i]))
            view.clients.push_back({clients[i], address_of(*info), info->keepalive, info->idle_seconds});
    if (!terminal.draw(lay_out(view, size.rows, size.columns, terminal.blocks()), afresh))
        loop.on_writable(terminal.fd(), [this] { draw(); });
    afresh = false;
}

void Top::State::redraw_afresh()
{
    afresh = true;
    draw();
}

// Ctrl-Z: the whole process stops, as it would without the view.
void Top::State::sleep()
{
    terminal.give_back();
    raise(SIGSTOP);
    terminal.take_again();
    redraw_afresh();
}

Top::Top(Loop &loop, broker_t *broker, int max_clients) : state_(std::make_unique<State>(loop, broker, max_clients))
{
    if (!state_->terminal.error().empty()) {
        const std::string error = state_->terminal.error();
        state_.reset(); // gives standard error back
        fprintf(stderr, "tarn-broker: --top: %s\n", error.c_str());
        return;
    }
    state_->watch();
    state_->look();
    state_->draw();
}

Top::~Top()
{
    if (state_)
        state_->loop.forget(state_->terminal.fd());
}

} // namespace tarn::broker
