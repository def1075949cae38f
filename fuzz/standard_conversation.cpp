// standard_conversation.cpp - three clients talk to the standard profile and to each other, while time passes,
// connections come and go, the disk gets full and the broker is restarted or killed. What it sends is held against what
// it promised (standard_client.h). Threads and network are left out: packets go to the network callback
// as the network layer hands them on, and what the journal's thread does is done between the steps.
//
// input:  limits:u8  steps of  kind:u8  and what the kind asks for    kind: client in the low two bits
#include "api/broker.h"
#include "client/client_internal.h"
#include "crash_disk.h"
#include "promise.h"
#include "qos/qos_reliable.h"
#include "standard/engine.h"
#include "standard/state/session.h"
#include "standard/standard.hpp"
#include "standard_client.h"

#include <sanitizer/lsan_interface.h>
#include <sys/time.h>

using namespace tarn;
using namespace tarn::fuzz;
using namespace tarn::conformance;

// The linker leads the library's calls here.
namespace {

uint64_t g_now_ms           = 1'000'000;
bool     g_wants_checkpoint = false;

} // namespace
extern "C" int __wrap_clock_gettime(clockid_t, timespec *now)
{
    *now = {static_cast<time_t>(g_now_ms / 1000), static_cast<long>(g_now_ms % 1000 * 1'000'000)};
    return 0;
}
extern "C" int __wrap_gettimeofday(timeval *now, void *)
{
    *now = {static_cast<time_t>(g_now_ms / 1000), static_cast<suseconds_t>(g_now_ms % 1000 * 1000)};
    return 0;
}
extern "C" time_t __wrap_time(time_t *now)
{
    const auto now_s = static_cast<time_t>(g_now_ms / 1000);
    if (now)
        *now = now_s;
    return now_s;
}
extern "C" bool __wrap__ZN4tarn8standard7Journal16wants_checkpointEv(standard::Journal *)
{
    return std::exchange(g_wants_checkpoint, false);
}

// The fuzzer is the journal's thread: what an input does depends on nothing else.
extern "C" int __wrap__ZN4tarn8standard7Journal5startEv(standard::Journal *)
{
    return 0;
}
struct JournalWork {
    bool begins_checkpoint, completes_checkpoint;
};
bool journal_has_work(standard::Journal *) __asm__("_ZN4tarn8standard7Journal8has_workEv");
bool journal_take_work(standard::Journal *, JournalWork *) __asm__("_ZN4tarn8standard7Journal9take_workERNS1_4WorkE");
void journal_do_work(standard::Journal *,
                     const JournalWork *) __asm__("_ZN4tarn8standard7Journal7do_workERKNS1_4WorkE");

namespace {

constexpr int32_t kMaxClients = 20;
constexpr int     kClients    = 3;

broker_t         g_broker{};
standard::Limits g_limits;
std::string      g_directory, g_other_directory;
bool             g_is_full = false;

// ---- what an input is made of

class Input {
public:
    explicit Input(std::span<const uint8_t> bytes) : rest_(bytes) {}

    bool    is_over() const { return rest_.empty(); }
    uint8_t u8()
    {
        if (rest_.empty())
            return 0;
        const uint8_t value = rest_[0];
        rest_               = rest_.subspan(1);
        return value;
    }
    std::span<const uint8_t> bytes()
    {
        const size_t length = std::min<size_t>(u8(), rest_.size());
        const auto   taken  = rest_.first(length);
        rest_               = rest_.subspan(length);
        return taken;
    }
    template <class T, size_t N> const T &one_of(const T (&choices)[N]) { return choices[u8() % N]; }

private:
    std::span<const uint8_t> rest_;
};

const std::string kIds[]     = {"a", "b", "c", std::string(70, 'd'), ""};
const std::string kTopics[]  = {"t", "t/a", "t/b", "u/a/b", "$x/a", "/", "denied", "t/" + std::string(200, 'l')};
const std::string kFilters[] = {
    "t",     "t/a",        "t/+",          "t/#",          "#",  "+/a", "$x/#",  "/", "+/+/#",
    "u/a/b", "$share/g/#", "$share/g/t/#", "$share/h/t/a", "t#", "",    "denied"};
constexpr uint32_t kExpiries[] = {0, 1, 60, 0xFFFFFFFF};
constexpr uint32_t kSizes[]    = {0, 40, 300, 5000};
constexpr size_t   kPayloads[] = {0, 1, 20, 250, 3000, 30000};
constexpr uint8_t  kReasons[]  = {0, 0, 0x10, 0x80, 0x97, 0x92, 0x7F};

std::optional<World>                         g_world;
std::vector<std::unique_ptr<StandardClient>> g_clients;

// ---- the broker

// What the journal's thread would do; it waits while the disk is full.
void write_journal()
{
    const auto journal = [] {
        const ScopedLock        lock(standard::engine_mutex);
        standard::Engine *const engine = standard::running_engine();
        return engine ? &engine->journal : nullptr;
    }();
    while (journal && !g_is_full && journal_has_work(journal)) {
        JournalWork work{};
        PROMISE(journal_take_work(journal, &work));
        journal_do_work(journal, &work);
    }
}

void read_all()
{
    write_journal();
    for (auto &client : g_clients) // first those that were taken over, for those who did that
        if (!client->is_open())
            client->read();
    for (auto &client : g_clients)
        client->read();
    write_journal();
}

void turn()
{
    standard::turn();
    read_all();
}

void pass(uint64_t ms)
{
    g_now_ms += ms;
    g_world->now_ms = g_now_ms;
    turn();
}

void fill_disk(bool is_full)
{
    g_is_full = is_full;
    set_disk_full(is_full);
}

void start_broker()
{
    PROMISE(standard::start(g_directory.c_str(), g_limits));
}

void stop_broker()
{
    standard::end_all_connections();
    for (auto &client : g_clients) {
        client->read();
        client->hang_up();
    }
    write_journal();
    standard::stop();
}

void restart(bool by_crash)
{
    if (g_is_full)
        g_world->is_certain = false;
    if (by_crash)
        copy_state(g_directory, g_other_directory);
    stop_broker();
    fill_disk(false);
    if (by_crash)
        std::swap(g_directory, g_other_directory);
    start_broker();
}

// ---- steps

Bytes numbers(uint8_t choices)
{
    Bytes      properties;
    const auto add = [&](PropertyId id, uint32_t value) {
        if (value != 0)
            properties = properties + property(id, value);
    };
    add(SessionExpiry, kExpiries[choices & 3]);
    add(MaximumPacketSize, kSizes[choices >> 2 & 3]);
    add(ReceiveMaximum, choices >> 4 & 3);
    add(AliasMaximum, choices >> 6);
    return properties;
}

// Packets of a client's own choice, at its level.
void connect(StandardClient &client, Input &input)
{
    const uint8_t  choices = input.u8();
    const unsigned level   = choices & 1 ? 5 : 4;
    Connect        options;
    options.clean        = choices & 2;
    options.keep_alive_s = choices & 4 ? 10 : 0;
    if (choices & 8) {
        options.will =
            Will{input.one_of(kTopics), choices & 16 ? "gone" : "", choices >> 5 & 1U, (choices & 64) != 0, {}};
        if (level == 5 && choices & 128)
            options.will->properties = property(WillDelay, 5U) + property(MessageExpiry, 7U);
    }
    const std::string &id = input.one_of(kIds);
    if (level == 5)
        options.properties = numbers(input.u8());
    client.hang_up();
    client.open();
    client.send(connect_packet(level, id, options));
}

void subscribe(StandardClient &client, Input &input)
{
    const uint8_t       choices = input.u8();
    std::vector<Filter> filters;
    for (int i = 0; i <= (choices & 1); ++i) {
        const std::string &filter  = input.one_of(kFilters);
        const unsigned     options = input.u8() & (client.level() == 5 ? 0x3F : 0x03);
        filters.push_back({filter, (options & 3) == 3 ? options & 0x3D : options});
    }
    const Bytes identifier = choices & 2 && client.level() == 5 ? property(SubscriptionId, choices >> 2 | 1U) : Bytes{};
    client.send(subscribe_packet(client.level(), client.next_id(), filters, identifier));
}

void publish(StandardClient &client, Input &input)
{
    const uint8_t      choices = input.u8();
    const std::string &topic   = input.one_of(kTopics);
    const size_t       size    = input.one_of(kPayloads);
    Publish            options;
    options.qos    = (choices & 3) % 3;
    options.retain = choices & 4;
    options.dup    = choices & 8 && options.qos > 0;
    options.id     = choices & 16 ? 1U : client.next_id();
    if (client.level() == 5 && choices & 32)
        options.properties = property(MessageExpiry, choices & 64 ? 3U : 30U) + user("name", "value");
    const unsigned alias = client.level() == 5 && choices & 128 ? 1 + choices % 4 : 0;
    if (alias)
        options.properties = options.properties + property(Alias, alias);
    const std::string payload = size ? client.mark() + std::string(size, 'p') : "";
    client.send(publish_packet(client.level(), alias && choices & 64 ? "" : topic, payload, options));
}

void acknowledge_wrongly(StandardClient &client, Input &input)
{
    static constexpr Type kTypes[] = {Type::PUBACK, Type::PUBREC, Type::PUBREL, Type::PUBCOMP};
    const Type            type     = input.one_of(kTypes);
    const unsigned        id       = input.u8() % 8;
    client.send(ack_packet(type, id, client.level() == 5 ? input.one_of(kReasons) : 0));
}

void disconnect(StandardClient &client, Input &input)
{
    const uint8_t choices = input.u8();
    if (client.level() == 4 || choices & 1)
        return client.send(packet(0xE0, {}));
    Bytes body = {static_cast<uint8_t>(choices & 2 ? 4 : 0)};
    if (choices & 4)
        body = body + block(5, property(SessionExpiry, kExpiries[choices >> 3 & 3]));
    client.send(packet(0xE0, body));
}

void kick(const StandardClient &client)
{
    if (const client_ref record = find_client_by_id(client.id().c_str()))
        standard::kick(*record, 0x98);
}

void as_host(StandardClient &client, Input &input)
{
    const uint8_t         choices = input.u8();
    const std::string    &topic   = input.one_of(kTopics);
    static constexpr char kText[] = "0:host";
    char                  list[100];
    standard::SessionInfo info{};
    switch (choices & 7) {
    case 0:
        (void)standard::clear_retained(topic);
        return;
    case 1:
        (void)standard::list_retained_topics(list);
        return;
    case 2:
        (void)standard::describe_session(client.id(), info);
        return;
    case 3:
        return kick(client);
    default:
        (void)standard::publish(
            {.topic    = topic,
             .payload  = {reinterpret_cast<const uint8_t *>(kText), choices & 64 ? 0 : sizeof kText - 1},
             .qos      = static_cast<uint8_t>((choices >> 3 & 3) % 3),
             .retain   = (choices & 32) != 0,
             .expiry_s = choices & 128 ? 5U : 0U});
    }
}

void step(Input &input)
{
    const uint8_t   kind   = input.u8();
    StandardClient &client = *g_clients[(kind & 3) % kClients];
    switch (kind >> 2 & 15) {
    case 0:
    case 1:
        return connect(client, input);
    case 2:
        return subscribe(client, input);
    case 3:
        return client.send(
            unsubscribe_packet(client.level(), client.next_id(), {input.one_of(kFilters), input.one_of(kFilters)}));
    case 4:
    case 5:
        return publish(client, input);
    case 6:
        (void)client.acknowledge_next(kind & 64 ? input.one_of(kReasons) : 0);
        return;
    case 7:
        return acknowledge_wrongly(client, input);
    case 8:
        (void)client.release_next();
        return;
    case 9:
        return disconnect(client, input);
    case 10:
        return client.hang_up();
    case 11:
        return client.send(input.bytes());
    case 12:
        return pass(kind & 64 ? uint64_t{input.u8()} * 1000 : 500);
    case 13:
        return as_host(client, input);
    case 14:
        return client.set_reading(kind & 64);
    default:
        break;
    }
    switch (kind >> 6) {
    case 0:
        return restart(false);
    case 1:
        return restart(true);
    case 2:
        return fill_disk(!g_is_full);
    default:
        g_wants_checkpoint = true;
        standard::turn();
        standard::turn();
    }
}

// ---- the end of a conversation

// Who acknowledges all gets all, and then nothing waits for it.
void drain()
{
    fill_disk(false);
    for (auto &client : g_clients) {
        client->set_reading(true);
        if (client->is_within_packet())
            client->hang_up();
    }
    constexpr int kRounds = 100'000, kQuietRounds = 3; // what waits for the journal comes in the next round
    for (int i = 0, quiet = 0; quiet < kQuietRounds; ++i) {
        PROMISE(i < kRounds);
        turn();
        ++quiet;
        for (auto &client : g_clients)
            if (client->acknowledge_next() || client->release_next())
                quiet = 0;
    }
}

void check_nothing_waits(const StandardClient &client)
{
    const ScopedLock               lock(standard::engine_mutex);
    const standard::Session *const session = standard::running_engine()->state.sessions.find(client.id());
    if (client.id().starts_with('?'))
        return;
    PROMISE(session && session->connection);
    PROMISE(session->deliveries.in_flight() == 0 && session->deliveries.stored().count == 0);
    PROMISE(session->deliveries.waiting_qos0().count == 0);
}

void check_alive(StandardClient &client)
{
    if (!client.is_accepted())
        return;
    (void)client.got_pingresp();
    client.send(packet(0xC0, {}));
    read_all();
    if (!client.is_accepted())
        return;
    PROMISE(client.got_pingresp());
    check_nothing_waits(client);
}

void begin(uint8_t choices)
{
    static int runs = 0;
    g_now_ms        = 1'000'000;
    g_limits        = {};
    if (choices & 1) {
        g_limits.queued_messages        = 4;
        g_limits.queued_bytes           = 4000;
        g_limits.qos0_messages          = 4;
        g_limits.wildcard_subscriptions = 2;
        g_limits.subscriptions          = 3;
        g_limits.retained_messages      = 2;
    }
    if (choices & 2) {
        g_limits.receive_maximum = 1;
        g_limits.sessions        = 2;
        g_limits.max_packet_size = 400;
    }
    if (runs++ % 20 == 0) {
        client_mgr_deinit();
        PROMISE(client_mgr_init(kMaxClients) == 0);
        mqtt_stop_send_thread();
        qos_reliable_destroy(); // the scan thread
        if (runs == 1)          // records do not stand on the heap, but own what does
            __lsan_register_root_region(client::record_at(0), kMaxClients * sizeof(mqtt_client_t));
    }
    g_world.emplace();
    g_world->now_ms = g_now_ms;
    for (int i = 0; i < kClients; ++i)
        g_clients.push_back(std::make_unique<StandardClient>(*g_world));
    start_broker();
}

bool allows(broker_t *, const char *, const char *topic, uint8_t, mqtt_client_t *)
{
    return strcmp(topic, "denied") != 0;
}

} // namespace

extern "C" int LLVMFuzzerInitialize(int *, char ***)
{
    format_all_lines();
    g_directory       = make_state_directory("one");
    g_other_directory = make_state_directory("other");
    g_broker.acl_cb   = allows;
    g_netip_cb        = mqtt_netip_event_cb;
    g_netip_cb_arg    = &g_broker;
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    Input input({data, size});
    begin(input.u8());
    while (!input.is_over()) {
        step(input);
        read_all();
    }
    drain();
    for (auto &client : g_clients)
        check_alive(*client);
    stop_broker();
    g_clients.clear();
    g_world.reset();
    remove_state(g_directory);
    remove_state(g_other_directory);
    return 0;
}
