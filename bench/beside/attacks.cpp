#include "attacks.h"

#include <arpa/inet.h>
#include <cstdarg>
#include <cstdio>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

using namespace tarn::test;

namespace tarn::beside {
namespace {

// All of one attacker comes from one address; devices that only happen to be many have one each.
constexpr char kAttacker[] = "127.0.0.2";

constexpr double kPrepareLimit_s = 60;
constexpr double kForEver_s      = 1e9;

constexpr unsigned kMany = 9904; // subscriptions of one client

std::string device_address(unsigned number)
{
    return "127.1." + std::to_string(number / 250) + "." + std::to_string(1 + number % 250);
}

__attribute__((format(printf, 1, 2))) std::string text_of(const char *format, ...)
{
    char    text[200];
    va_list values;
    va_start(values, format);
    vsnprintf(text, sizeof text, format, values);
    va_end(values);
    return text;
}

// Up to 16 filters in one packet: prefix/0, prefix/1, ...
Bytes filters_packet(uint8_t first, const std::string &prefix, unsigned from, unsigned count)
{
    Bytes body = u16(1);
    for (unsigned i = from; i < from + count; ++i) {
        body = body + prefixed(prefix + "/" + std::to_string(i));
        if (first == 0x82)
            body.push_back(1);
    }
    return packet(first, body);
}

Actor &connected(Stage &stage, const std::string &address, const std::string &id, const Connect &options = {})
{
    Actor &actor = stage.crowd.add(address);
    actor.open();
    stage.crowd.ask(actor, connect_packet(4, id, options), kConnack);
    return actor;
}

// Lets so many actors act, some at a time, each until its connection is closed. Returns how many came to that.
unsigned in_turn(Stage &stage, unsigned count, unsigned at_once, double limit_s,
                 const std::function<Actor &(unsigned number)> &begin)
{
    std::vector<Actor *> busy;
    unsigned             begun = 0, done = 0;
    stage.crowd.run_until(limit_s, [&] {
        done += static_cast<unsigned>(std::erase_if(busy, [](const Actor *actor) { return !actor->is_open(); }));
        while (begun < count && busy.size() < at_once)
            busy.push_back(&begin(begun++));
        return (begun == count && busy.empty()) || stage.over;
    });
    return done;
}

// ------------------------------------------------------------------------------- sessions, subscriptions

// Clients that subscribed once, in so many packets, said DISCONNECT and have not come back.
void leave_sessions(Stage &stage, unsigned count, const std::string &prefix, bool own_addresses,
                    const std::vector<Bytes> &subscribe)
{
    unsigned kept = 0;
    in_turn(stage, count, 16, kPrepareLimit_s, [&](unsigned number) -> Actor & {
        Actor &actor    = stage.crowd.add(own_addresses ? device_address(number) : kAttacker);
        actor.on_packet = [&kept, &actor, &subscribe](Packet packet) {
            const size_t next = actor.received[kSuback];
            if (packet.type() != kConnack && packet.type() != kSuback)
                return;
            if (next < subscribe.size()) {
                actor.send(subscribe[next]);
                return;
            }
            ++kept;
            actor.send(disconnect_packet(4));
            actor.close();
        };
        actor.open();
        actor.send(connect_packet(4, prefix + std::to_string(number), {.clean = false}));
        return actor;
    });
    stage.seen = text_of("%u sessions", kept);
}

void leave_absent(Stage &stage, unsigned count)
{
    leave_sessions(stage, count, "absent-", true, {subscribe_packet(4, 1, "#", 1)});
}

void leave_full_sessions(Stage &stage)
{
    leave_sessions(stage, 320, "hoard-", false, {filters_packet(0x82, "h", 0, 16), filters_packet(0x82, "h", 16, 16)});
}

// The same filter again on every SUBACK, so many packets on their way.
void repeat_subscribe(Stage &stage, unsigned clients, unsigned window)
{
    std::vector<Actor *> actors;
    for (unsigned i = 0; i < clients; ++i) {
        Actor &actor = connected(stage, device_address(i), "again-" + std::to_string(i), {.clean = false});
        actors.push_back(&actor);
        actor.on_packet = [&actor](Packet packet) {
            if (packet.type() == kSuback)
                actor.send(subscribe_packet(4, 1, "again/and/again", 1));
        };
        for (unsigned n = 0; n < window; ++n)
            actor.send(subscribe_packet(4, 1, "again/and/again", 1));
    }
    stage.play(kForEver_s);
    unsigned subacks = 0;
    for (const Actor *actor : actors)
        subacks += actor->received[kSuback];
    stage.seen = text_of("%u SUBACKs", subacks);
}

void subscribe_to_many(Stage &stage)
{
    Actor &actor = connected(stage, kAttacker, "many");
    for (unsigned i = 0; i < kMany; i += 16)
        actor.send(filters_packet(0x82, "many", i, 16));
    stage.crowd.run_until(kPrepareLimit_s, [&] { return actor.received[kSuback] == kMany / 16 || !actor.is_open(); });
    stage.actors = {&actor};
}

// A round takes 16 filters off and puts them back; 16 rounds are on their way.
void unsubscribe_some(Stage &stage)
{
    Actor     &actor = *stage.actors[0];
    unsigned   next  = 0;
    const auto round = [&] {
        actor.send(filters_packet(0xA2, "many", next, 16) + filters_packet(0x82, "many", next, 16));
        next = (next + 16) % kMany;
    };
    actor.on_packet = [&](Packet packet) {
        if (packet.type() == kUnsuback)
            round();
    };
    for (unsigned i = 0; i < 16; ++i)
        round();
    stage.play(kForEver_s);
    stage.seen      = text_of("%u rounds", actor.received[kUnsuback]);
    actor.on_packet = [](Packet) {};
}

// A new id and 16 filters of its own, again and again on one connection, if the broker lets it.
void change_ids(Stage &stage)
{
    Actor     &actor = stage.crowd.add(kAttacker);
    unsigned   ids   = 0;
    const auto again = [&] { actor.send(connect_packet(4, "change-" + std::to_string(ids++))); };
    const auto anew  = [&] {
        usleep(1000);
        actor.open();
        again();
    };
    actor.on_closed = anew;
    actor.on_packet = [&](Packet packet) {
        if (packet.type() == kConnack)
            actor.send(filters_packet(0x82, "change-" + std::to_string(ids), 0, 16));
        else if (packet.type() == kSuback)
            again();
    };
    anew();
    stage.play(kForEver_s);
    stage.seen      = text_of("%u ids", ids);
    actor.on_packet = [](Packet) {};
    actor.on_closed = [] {};
}

// ------------------------------------------------------------------------------- messages

Bytes held_packet(unsigned number, unsigned qos)
{
    return publish_packet(4, "held/" + std::to_string(number), "\xFF" + std::string(63, 'x'),
                          {.qos = qos, .retain = true});
}

void hold_messages(Stage &stage, unsigned count)
{
    Actor   &actor = connected(stage, kAttacker, "holder");
    unsigned sent  = 0;
    stage.crowd.run_until(kPrepareLimit_s, [&] {
        while (sent < count && sent < actor.received[kPuback] + 32)
            actor.send(held_packet(sent++, 1));
        return actor.received[kPuback] == count || !actor.is_open();
    });
    stage.seen = text_of("%u retained", actor.received[kPuback]);
}

// As much as two answered PINGREQs allow: each goes behind 16 KB of these packets.
void flood(Stage &stage, Actor &actor, const Bytes &packet)
{
    Bytes load;
    while (load.size() < 16384)
        load = load + packet;
    load            = load + wire("C0 00");
    actor.on_packet = [&actor, load](Packet answer) {
        if (answer.type() == kPingresp)
            actor.send(load);
    };
    actor.send(load);
    actor.send(load);
    stage.play(kForEver_s);
    stage.seen += text_of("; %.0f KB taken", actor.received[kPingresp] * static_cast<double>(load.size()) / 1000);
}

void replace_at_qos0(Stage &stage)
{
    flood(stage, connected(stage, kAttacker, "replacer"), held_packet(0, 0));
}

void replace_at_qos1(Stage &stage)
{
    Actor &actor    = connected(stage, kAttacker, "replacer");
    actor.on_packet = [&actor](Packet packet) {
        if (packet.type() == kPuback)
            actor.send(held_packet(0, 1));
    };
    actor.send(held_packet(0, 1));
    stage.play(kForEver_s);
    stage.seen += text_of("; %u replaced", actor.received[kPuback]);
}

void subscribe_mute(Stage &stage, unsigned count)
{
    for (unsigned i = 0; i < count; ++i) {
        Actor &actor = connected(stage, device_address(i), "mute-" + std::to_string(i));
        stage.actors.push_back(&actor);
        stage.crowd.ask(actor, subscribe_packet(4, 1, "m/1", 1), kSuback);
    }
}

// 24 KB of small messages for subscribers that read and never acknowledge; after two seconds these are gone at once.
void publish_to_mute(Stage &stage)
{
    const double before_mb = stage.broker.memory_mb();
    Actor       &publisher = connected(stage, kAttacker, "speaker");
    for (unsigned id = 1; id <= 2000; ++id)
        publisher.send(publish_packet(4, "m/1", "\xFFmu", {.qos = 1, .id = id}));
    stage.play(2);
    const double after_mb = stage.broker.memory_mb();
    for (Actor *actor : stage.actors)
        actor->reset();
    stage.seen = text_of("+%.0f MB, %u PUBACKs by then", after_mb - before_mb, publisher.received[kPuback]);
    stage.play(kForEver_s);
}

// ------------------------------------------------------------------------------- connections

// So many at a time, again and again. What a connection sends first is made by `greeting`.
void knock(Stage &stage, unsigned connectors, const std::function<void(Actor &, unsigned)> &greeting,
           const std::function<void(Actor &, Packet)> &answer)
{
    unsigned                                 tries = 0;
    std::vector<Actor *>                     actors;
    const std::function<void(Actor & actor)> again = [&](Actor &actor) {
        actor.open();
        greeting(actor, tries++);
    };
    for (unsigned i = 0; i < connectors; ++i) {
        Actor &actor    = stage.crowd.add(kAttacker);
        actor.on_packet = [&actor, &answer](Packet packet) { answer(actor, packet); };
        actors.push_back(&actor);
    }
    // Who is closed comes again within a millisecond.
    while (!stage.over) {
        for (Actor *actor : actors)
            if (!actor->is_open())
                again(*actor);
        stage.crowd.step(0.001);
        usleep(1000);
    }
    for (Actor *actor : actors)
        actor->on_packet = [](Packet) {};
    stage.seen = text_of("%u connections", tries);
}

void try_passwords(Stage &stage)
{
    knock(
        stage, 50,
        [](Actor &actor, unsigned n) {
            actor.send(connect_packet(4, "thief-" + std::to_string(n),
                                      {.username = kUser, .password = "guess-" + std::to_string(n)}));
        },
        [](Actor &, Packet) {});
}

// 5.0 clients that announce 256 bytes as the largest packet they take and send more than that.
void exceed_limit(Stage &stage)
{
    const Bytes large = publish_packet(5, "large", "\xFF" + std::string(300, 'x'), {.qos = 1});
    knock(
        stage, 50,
        [](Actor &actor, unsigned n) {
            actor.send(connect_packet(5, "large-" + std::to_string(n), {.max_packet_size = 256}));
        },
        [large](Actor &actor, Packet packet) {
            if (packet.type() == kConnack || packet.type() == kPuback)
                actor.send(large);
        });
}

// Clients that leave a will without a delay and drop.
void leave_wills(Stage &stage)
{
    unsigned       accepted = 0;
    const unsigned done     = in_turn(stage, 5000, 50, kForEver_s, [&](unsigned number) -> Actor     &{
        Actor &actor    = stage.crowd.add(kAttacker);
        actor.on_packet = [&actor, &accepted](Packet packet) {
            accepted += packet.type() == kConnack;
            actor.close();
        };
        actor.open();
        actor.send(connect_packet(4, "will-" + std::to_string(number), {.will = Will{"wills", "\xFFgone"}}));
        return actor;
    });
    stage.seen              = text_of("%u of %u accepted", accepted, done);
    stage.play(kForEver_s);
}

void stay_silent(Stage &stage)
{
    for (unsigned i = 0; i < 2000; ++i) {
        stage.crowd.add(kAttacker).open();
        if (i % 50 == 0)
            stage.crowd.step(0.001);
    }
    stage.play(kForEver_s);
}

// Datagrams of 2 bytes, each from a port of its own. The broker reads one a round, so each comes beside a PINGREQ.
void send_datagrams(Stage &stage)
{
    Actor      &actor = connected(stage, kAttacker, "rounds");
    sockaddr_in broker{}, source{};
    broker.sin_family = source.sin_family = AF_INET;
    broker.sin_port                       = htons(1883);
    inet_pton(AF_INET, "127.0.0.1", &broker.sin_addr);
    inet_pton(AF_INET, kAttacker, &source.sin_addr);
    unsigned sent = 0;
    while (sent < 5400 && !stage.over) {
        const int fd    = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
        source.sin_port = htons(static_cast<uint16_t>(10000 + sent));
        if (fd < 0 || bind(fd, reinterpret_cast<sockaddr *>(&source), sizeof source) != 0)
            break;
        sent += sendto(fd, "\xC0\0", 2, 0, reinterpret_cast<sockaddr *>(&broker), sizeof broker) == 2;
        ::close(fd);
        if (!stage.crowd.ask(actor, wire("C0 00"), kPingresp, 5))
            break;
    }
    stage.seen = text_of("%u datagrams", sent);
    stage.play(kForEver_s);
}

// ------------------------------------------------------------------------------- log

void fill_log_once(Stage &stage)
{
    Actor &actor = connected(stage, kAttacker, "shouter");
    Bytes  load;
    while (load.size() < 8192)
        load = load + wire("30 00");
    actor.send(load);
    stage.play(kForEver_s);
}

void flood_log(Stage &stage)
{
    Actor       &actor  = connected(stage, kAttacker, "shouter");
    const size_t before = stage.broker.log_bytes();
    flood(stage, actor, wire("30 00"));
    const double taken = actor.received[kPingresp] * 16386.0;
    const auto   log   = static_cast<double>(stage.broker.log_bytes() - before);
    stage.seen         = text_of("%.0f KB taken, %.1f bytes of log a byte", taken / 1000, taken > 0 ? log / taken : 0);
}

std::vector<Attack> all_attacks()
{
    std::vector<Attack> all;
    for (const unsigned n : {1u, 10u, 100u, 1000u})
        all.push_back({.name    = "absent-" + std::to_string(n),
                       .what    = "kept sessions with # of clients that are away: " + std::to_string(n),
                       .prepare = [n](Stage &stage) { leave_absent(stage, n); }});
    const auto subscribers = [&](const char *name, const char *what, unsigned clients, unsigned window) {
        all.push_back(
            {.name = name, .what = what, .run = [=](Stage &stage) { repeat_subscribe(stage, clients, window); }});
    };
    subscribers("subscribe-1", "a kept client that repeats SUBSCRIBE on each SUBACK", 1, 1);
    subscribers("subscribe-4", "four of them", 4, 1);
    subscribers("subscribe-ahead", "one of them with 64 SUBSCRIBEs on their way", 1, 64);
    const auto hold_999 = [](Stage &stage) { hold_messages(stage, 999); };
    all.insert(
        all.end(),
        {{.name    = "retained-qos0",
          .what    = "one of 999 retained messages replaced again and again, QoS 0, 32 KB on their way",
          .prepare = hold_999,
          .run     = replace_at_qos0},
         {.name    = "retained-qos1",
          .what    = "the same at QoS 1, one at a time",
          .prepare = hold_999,
          .run     = replace_at_qos1},
         {.name = "passwords", .what = "50 connectors with wrong passwords", .run = try_passwords, .passwords = true},
         {.name = "large", .what = "50 connectors with packets above their own limit", .run = exceed_limit},
         {.name    = "mute-200",
          .what    = "200 subscribers that never acknowledge 2000 messages of 12 bytes, then RST",
          .prepare = [](Stage &stage) { subscribe_mute(stage, 200); },
          .run     = publish_to_mute},
         {.name    = "mute-400",
          .what    = "400 of them",
          .prepare = [](Stage &stage) { subscribe_mute(stage, 400); },
          .run     = publish_to_mute},
         {.name    = "unsubscribe",
          .what    = "UNSUBSCRIBE and SUBSCRIBE of 16 filters in turn by a client that has 9900",
          .prepare = subscribe_to_many,
          .run     = unsubscribe_some},
         {.name     = "log-unread",
          .what     = "8 KB of 30 00, and standard output a pipe that is not read",
          .run      = fill_log_once,
          .log_read = false},
         {.name = "log-flood", .what = "one client that sends 30 00", .run = flood_log},
         {.name = "wills", .what = "5000 clients with wills at delay 0 that drop", .run = leave_wills},
         {.name      = "datagrams",
          .what      = "5400 UDP datagrams of 2 bytes, each from another port",
          .run       = send_datagrams,
          .tarn_only = true},
         {.name = "ids",
          .what = "one connection that takes id after id and subscribes 16 filters each",
          .run  = change_ids},
         {.name = "sessions", .what = "320 kept sessions of 32 filters", .prepare = leave_full_sessions},
         {.name    = "topics",
          .what    = "1000 retained topics of one client",
          .prepare = [](Stage &stage) { hold_messages(stage, 1000); }},
         {.name = "silent", .what = "2000 connections that never speak", .run = stay_silent}});
    return all;
}

} // namespace

std::span<const Attack> attacks()
{
    static const std::vector<Attack> all = all_attacks();
    return all;
}

} // namespace tarn::beside
