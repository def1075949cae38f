#include "serve.h"

#include "access/guard.h"
#include "attachments.h"
#include "connections.h"
#include "data_directory.h"
#include "disk_watch.h"
#include "events.h"
#include "loop.h"
#include "output.h"
#include "privileges.h"
#include "profile.h"
#include "query.h"
#include "refusals.h"
#include "shortage.h"
#include "used_records.h"

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstring>
#include <iterator>
#include <netinet/in.h>
#include <optional>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <tarn_sdk_mqtt_broker.h>
#include <tarn_sdk_mqtt_broker/base/limits.h>
#include <tarn_sdk_mqtt_broker/log/agent_log.h>

namespace tarn::broker {
namespace {

constexpr uint16_t                  kPort           = NETIP_PORT; // the library serves no other
constexpr std::chrono::milliseconds kGuardPeriod    = std::chrono::seconds(5);
constexpr std::chrono::milliseconds kUdpPeriod      = std::chrono::seconds(1);
constexpr std::chrono::milliseconds kSilencePeriod  = std::chrono::seconds(1);
constexpr std::chrono::milliseconds kRecordPeriod   = std::chrono::seconds(1);
constexpr std::chrono::milliseconds kShortagePeriod = std::chrono::seconds(10);

// Each client takes a descriptor, and the usual soft limit is 1024. When it cannot be raised, fewer clients fit.
void raise_descriptor_limit()
{
    rlimit limit{};
    if (getrlimit(RLIMIT_NOFILE, &limit) != 0 || limit.rlim_cur == limit.rlim_max)
        return;
    limit.rlim_cur = limit.rlim_max;
    if (setrlimit(RLIMIT_NOFILE, &limit) != 0)
        perror("tarn-broker: cannot raise the limit of open files");
}

// A broker without clients has some ten files open, opens up to 64 at once for sessions, and closes up to 64 sockets
// of clients that left only when their files are written.
void warn_of_descriptor_limit(int32_t clients)
{
    constexpr rlim_t kOwn = 160;
    rlimit           limit{};
    if (getrlimit(RLIMIT_NOFILE, &limit) == 0 && limit.rlim_cur < static_cast<rlim_t>(clients) + kOwn)
        fprintf(stderr, "tarn-broker: %d clients do not fit into the limit of %llu open files (ulimit -n)\n", clients,
                static_cast<unsigned long long>(limit.rlim_cur));
}

void end_on_signals(Loop &loop)
{
    for (const int number : {SIGINT, SIGTERM})
        loop.on_signal(number, [&loop] { loop.end(); });
}

// Why the port cannot be had: the library tells only that it could not, so one asks the system again. 0 when it can.
int port_error(int type)
{
    const int fd = socket(AF_INET, type | SOCK_CLOEXEC, 0);
    if (fd < 0)
        return errno;
    const int on = 1;
    setsockopt(fd, SOL_SOCKET, SO_REUSEADDR, &on, sizeof on); // as the library: left-over connections are no obstacle
    sockaddr_in any{};
    any.sin_family      = AF_INET;
    any.sin_port        = htons(kPort);
    any.sin_addr.s_addr = htonl(INADDR_ANY);
    const bool can      = bind(fd, reinterpret_cast<const sockaddr *>(&any), sizeof any) == 0 &&
                     (type == SOCK_DGRAM || listen(fd, 1) == 0);
    const int error = can ? 0 : errno;
    close(fd);
    return error;
}

// A start that failed half-way may have opened the port.
void explain_failed_start(int32_t code)
{
    if (const int error = tcp_is_open() ? 0 : port_error(SOCK_STREAM))
        fprintf(stderr, "tarn-broker: cannot listen on port %d: %s\n", kPort, strerror(error));
    else
        fprintf(stderr, "tarn-broker: cannot start: %s\n", tarn_sdk_mqtt_broker_error_str(code));
}

void warn_of_empty_files(const Access &access)
{
    for (const std::string &text : access.warnings())
        fprintf(stderr, "tarn-broker: %s\n", text.c_str());
}

// Everything that can be wrong with the surroundings, before there are threads. Privileges go first: no file that a
// later reload could not read, and no packet, is read with them. The port needs none. Empty when all is well.
std::string prepare(const Options &options, Access &access, DataDirectory &data)
{
    if (!options.directory.empty() && chdir(options.directory.c_str()) != 0)
        return "cannot go to " + options.directory + ": " + strerror(errno);
    if (!options.user.empty())
        if (std::string mistake = become_user(options.user); !mistake.empty())
            return mistake;
    if (Mistake mistake = access.load(); !mistake.empty())
        return mistake;
    warn_of_empty_files(access);
    if (std::string mistake = data.take(); !mistake.empty())
        return mistake;
    return access.restore_owners();
}

void reload(Access &access)
{
    if (const Mistake mistake = access.load(); !mistake.empty()) {
        fprintf(stderr, "tarn-broker: %s\ntarn-broker: users and rules stay as they were\n", mistake.c_str());
        return;
    }
    fprintf(stderr, "tarn-broker: users and rules were read again\n");
    warn_of_empty_files(access);
}

// Whether this process had a terminal that was closed. Its descriptors stay, and give EIO.
bool terminal_is_gone()
{
    for (const int fd : {STDIN_FILENO, STDOUT_FILENO, STDERR_FILENO})
        if (!isatty(fd) && errno == EIO)
            return true;
    return false;
}

// SIGHUP has two meanings. Where there are files it asks for them, as ever; else who sent it matters: a service manager
// reloads, a terminal goes away.
void reload_on_signal(Loop &loop, Access &access)
{
    loop.on_signal(SIGHUP, [&] {
        if (access.is_wanted())
            reload(access);
        else if (terminal_is_gone())
            loop.end();
        else
            fprintf(stderr, "tarn-broker: there is nothing to read again without --user-file and --acl-file\n");
    });
}

void log_where_it_serves(int32_t clients, bool udp_is_wanted)
{
    const bool udp = udp_is_open();
    fprintf(stderr, "tarn-broker: serving MQTT 3.1.1 and 5.0%s on 0.0.0.0:%d (%s), at most %d clients\n",
            g_serves_standard ? " (standard profile)" : "", kPort, udp ? "TCP and UDP" : "TCP", clients);
    if (udp || !udp_is_wanted)
        return;
    const int error = port_error(SOCK_DGRAM);
    fprintf(stderr, "tarn-broker: UDP port %d could not be opened%s%s\n", kPort, error ? ": " : "",
            error ? strerror(error) : "");
}

// Who sends datagrams is told nothing, so the administrator is.
void log_when_udp_closes(Loop &loop)
{
    loop.every(kUdpPeriod, [was_open = udp_is_open()]() mutable {
        if (was_open && !udp_is_open())
            fprintf(stderr, "tarn-broker: UDP is closed until the next start: one of its clients has ended, and all of "
                            "them share one socket\n");
        was_open = udp_is_open();
    });
}

// Four fifths of what there is leave some to others, and so much a site does not come near to. Of little nobody can leave
// much.
size_t quota(const Options &options, int32_t asked, int32_t there_is)
{
    constexpr int32_t kMany = 100;
    if (!options.quotas)
        return 0;
    if (asked > 0)
        return static_cast<size_t>(asked);
    return there_is >= kMany ? static_cast<size_t>(there_is) * 4 / 5 : 0;
}

Quotas::Limits quotas_of(const Options &options)
{
    // What the standard profile has room for, unless a host says otherwise.
    constexpr int32_t kStandardRoom = 100000;
    const auto        room          = [&](int32_t native) { return options.standard ? kStandardRoom : native; };
    return {quota(options, options.quota_connections, options.max_clients),
            quota(options, options.quota_ids, room(CLIENT_MAX)),
            quota(options, options.quota_sessions, room(SUB_CAPACITY)),
            quota(options, options.quota_subscriptions, room(SUB_CAPACITY)),
            quota(options, options.quota_retained, room(RETAIN_CAPACITY)),
            quota(options, options.quota_wills, options.max_clients)};
}

Ids online_ids()
{
    std::vector<std::string> ids = online_id_pieces();
    return Ids{std::make_move_iterator(ids.begin()), std::make_move_iterator(ids.end())};
}

Holdings library_holdings()
{
    if (g_serves_standard)
        return {.subscriber_ids   = {},
                .subscriptions_of = subscriptions_of,
                .retained_topics  = retained_topics,
                .online           = online_ids,
                .has_session      = session_is_kept,
                .holds_will       = [](const WillHolder &holder) { return has_will(std::get<std::string>(holder)); }};
    return {.subscriber_ids   = subscriber_ids,
            .subscriptions_of = {},
            .retained_topics  = retained_topics,
            .online           = online_ids,
            .has_session      = has_saved_session,
            .holds_will       = [](const WillHolder &holder) { return holds_will(std::get<const void *>(holder)); }};
}

// A connection without CONNECT is closed as natively, but by the library.
int32_t choose_standard(broker_t *broker, const Options &options)
{
    const int32_t within_s = options.connect_s > 0 ? options.connect_s : options.keepalive_s;
    if (const int32_t code = tarn_sdk_mqtt_broker_set_profile(broker, TARN_PROFILE_STANDARD); code != TARN_OK)
        return code;
    return tarn_sdk_mqtt_broker_set_limit(broker, TARN_LIMIT_CONNECT_TIMEOUT, static_cast<uint64_t>(within_s) * 1000);
}

int32_t configure(broker_t *broker, const Options &options)
{
    tarn_sdk_mqtt_broker_set_log_level(broker, options.level()); // again, since init sets it back
    tarn_sdk_mqtt_broker_set_keepalive_timeout(broker, options.keepalive_s);
    if (options.has_packet_size || !options.standard)
        tarn_sdk_mqtt_broker_set_max_packet_size(broker, options.max_packet_size);
    return options.standard ? choose_standard(broker, options) : TARN_OK;
}

int32_t start(broker_t *broker, const Options &options, Access &access, Quotas &quotas, RefusalLog &refusals)
{
    tarn_sdk_mqtt_broker_init(broker);
    if (!has_tables())
        return TARN_E_RESOURCE;
    if (const int32_t code = configure(broker, options); code != TARN_OK)
        return code;
    guard(broker, access, quotas, access.is_wanted() || options.quotas, [&](const Refusal &refusal) {
        refusals.report(refusal);
        write_refusal(refusal);
    });
    std::optional<HeldUdpPort> held_port;
    if (!options.udp && !options.standard)
        held_port.emplace();
    const int32_t code = tarn_sdk_mqtt_broker_start(broker, kPort, options.max_clients);
    guard_connections(broker);
    return code;
}

void tell_shortages()
{
    if (const uint64_t count = take_shortages())
        fprintf(stderr,
                "tarn-broker: there was no memory %llu times: logins and messages were refused, or lines left out\n",
                static_cast<unsigned long long>(count));
}

int64_t now_ms()
{
    return std::chrono::duration_cast<std::chrono::milliseconds>(std::chrono::steady_clock::now().time_since_epoch())
        .count();
}

// Ends the loop when almost all records are used up: the next start has all of them, and all sessions.
void watch_records(Loop &loop, const Options &options, bool &used_up)
{
    const auto records = static_cast<size_t>(options.max_clients);
    loop.every(kRecordPeriod, [&loop, &used_up, records, keeps_running = options.keep_running,
                               watch = RecordWatch(records)]() mutable {
        const size_t            used = used_up_records();
        const RecordWatch::News news = watch.look(used);
        if (news == RecordWatch::None)
            return;
        log_warning(std::to_string(used) + " of " + std::to_string(records) +
                    " client records are used up by wills without a delay until the next start");
        write_used_records(used, records);
        if (news == RecordWatch::Many || keeps_running)
            return;
        fprintf(stderr, "tarn-broker: %zu of %zu client records are used up: it ends, to be started again\n", used,
                records);
        used_up = true;
        loop.end();
    });
}

// What the main thread does every few seconds.
void keep_house(Loop &loop, broker_t *broker, const Options &options, Access &access, Quotas &quotas,
                RefusalLog &refusals, DiskWatch &disk)
{
    loop.every(kGuardPeriod, [&access, &quotas, broker] { guard_turn(broker, access, quotas); });
    loop.every(RefusalLog::kPeriod, [&refusals] { refusals.end_period(); });
    if (options.connect_s > 0 && !options.standard)
        loop.every(kSilencePeriod,
                   [limit_ms = int64_t{options.connect_s} * 1000] { close_silent_connections(now_ms(), limit_ms); });
    if (options.udp)
        log_when_udp_closes(loop);
    loop.every(kShortagePeriod, tell_shortages);
    if (options.standard) // its own journal is not what the native files are
        return;
    loop.every(DiskWatch::kPeriod, [&disk] {
        if (const std::string news = disk.look(); !news.empty())
            fprintf(stderr, "tarn-broker: %s\n", news.c_str());
    });
}

} // namespace

ExitStatus serve(const Options &options)
{
    g_serves_standard = options.standard;
    umask(077);         // files hold what clients sent: only this user may read them
    DataDirectory data; // locked until all else is gone
    Access        access(options.user_file, options.acl_file, options.password_wait_s);
    if (options.standard)
        access.be_standard("broker_data/standard_owners", session_is_kept);
    Loop loop;
    end_on_signals(loop);
    reload_on_signal(loop, access);
    raise_descriptor_limit();
    if (const std::string mistake = prepare(options, access, data); !mistake.empty()) {
        fprintf(stderr, "tarn-broker: %s\n", mistake.c_str());
        return kCannotServe;
    }
    tarn_sdk_mqtt_broker_set_log_level(nullptr, options.level());
    Output output(static_cast<size_t>(options.log_limit));
    loop.every(std::chrono::seconds(1), [&output] { output.end_second(); });

    Attachments attachments(loop, options);
    if (const std::string fault = attachments.open(); !fault.empty()) {
        fprintf(stderr, "tarn-broker: %s\n", fault.c_str());
        return kCannotServe;
    }
    broker_t *broker = tarn_sdk_mqtt_broker_create();
    if (!broker) {
        fprintf(stderr, "tarn-broker: out of memory\n");
        return kCannotServe;
    }
    attachments.watch(broker);

    Quotas        quotas(quotas_of(options), library_holdings());
    RefusalLog    refusals(log_warning); // at every level: they are this program's own news, and few
    DiskWatch     disk;
    const int32_t code   = start(broker, options, access, quotas, refusals);
    bool          served = false, used_up = false;
    if (code == TARN_OK) {
        served = unless_short([&] { // before it says that it serves: after that nothing may end it
            keep_house(loop, broker, options, access, quotas, refusals, disk);
            if (!options.standard) // whose wills leave no records behind
                watch_records(loop, options, used_up);
            attachments.serve(broker);
        });
        if (served) {
            log_where_it_serves(options.max_clients, options.udp);
            warn_of_descriptor_limit(options.max_clients);
            loop.run();
        } else {
            fputs("tarn-broker: out of memory\n", stderr);
        }
        attachments.end();
        for (const int number : {SIGINT, SIGTERM}) // the next one ends the process at once
            loop.release_signal(number);
        fprintf(stderr, "tarn-broker: ending\n");
        tarn_sdk_mqtt_broker_stop(broker);
    } else {
        explain_failed_start(code);
    }
    tarn_sdk_mqtt_broker_deinit(broker);
    unless_short([&] {
        refusals.end_period();
        if (const Mistake mistake = access.save_owners(); !mistake.empty())
            fprintf(stderr, "tarn-broker: %s\n", mistake.c_str());
    });
    tarn_sdk_mqtt_broker_destroy(broker);
    return served && !used_up ? kEnded : kCannotServe;
}

} // namespace tarn::broker
