// Everything tarn_sdk_mqtt_broker.hpp has, each used as hosts use it. It only has to compile: warnings are errors here.
#include <tarn_sdk_mqtt_broker.hpp>
#include <tarn_sdk_mqtt_broker.hpp>

#include <functional>
#include <memory>

using std::string_view;
using tarn_sdk::Action;
using tarn_sdk::Broker;
using tarn_sdk::Event;
using tarn_sdk::LogLevel;
using tarn_sdk::Result;

static_assert(sizeof(Broker) == sizeof(broker_t *), "the instance, and nothing beside it");
static_assert(std::is_nothrow_move_constructible_v<Broker> && std::is_nothrow_move_assignable_v<Broker>);
static_assert(!std::is_copy_constructible_v<Broker> && !std::is_copy_assignable_v<Broker>);
static_assert(std::is_nothrow_default_constructible_v<Broker> && std::is_nothrow_destructible_v<Broker>);
static_assert(failed(Result::Busy) && !failed(Result::Ok));

namespace {

bool function(string_view, string_view, string_view)
{
    return true;
}
void event_function(Event, string_view) {}

struct Rule {
    std::unique_ptr<int> state; // only to be moved
    bool operator()(string_view, string_view, Action action) { return action == Action::Publish && ++*state; }
};

} // namespace

Result use_everything(Broker &broker);
Result use_everything(Broker &broker)
{
    if (!broker || failed(broker.init()) || failed(broker.set_keepalive_timeout(100)) ||
        failed(broker.set_max_packet_size(1000)) || failed(broker.set_profile(tarn_sdk::Profile::Standard)) ||
        failed(broker.set_limit(tarn_sdk::Limit::Sessions, 10)))
        return Result::NotRunning;
    Broker::set_log_level(LogLevel::Error);

    int        asked = 0;
    const auto plain = [](auto...) { return true; };
    if (failed(broker.on_auth(function)) || failed(broker.on_auth(&function)) || failed(broker.on_auth(plain)) ||
        failed(broker.on_auth([&asked](string_view, string_view, string_view) { return ++asked; })) ||
        failed(broker.on_auth(std::function<bool(string_view, string_view, string_view)>(function))) ||
        failed(broker.on_auth(nullptr)) || failed(broker.on_acl(Rule{nullptr})) || failed(broker.on_acl(plain)) ||
        failed(broker.on_acl(nullptr)))
        return Result::ResourceError;
    broker.on_event(event_function);
    broker.on_event([](Event event, string_view) { return event == Event::Will; }); // what it returns is dropped
    broker.on_event(nullptr);

    const unsigned char   bytes[] = {1, 2, 3};
    char                  text[100];
    tarn_sdk::ClientInfo  client;
    tarn_sdk::SessionInfo session;
    if (failed(broker.session_info("a", session)))
        return Result::NotRunning;
    if (failed(broker.start()) || failed(broker.start(1883)) || failed(broker.start(1883, 100)))
        return Result::ResourceError;
    broker.publish("t", "text");
    broker.publish_bytes("t", bytes, sizeof bytes, {1, true, 60});
    broker.publish("t", "text", {2});
    broker.clear_retain("t");
    broker.kick_client("a");
    broker.client_id_list(text, sizeof text);
    broker.retain_topic_list(text, sizeof text);
    broker.client_info("a", client);
    const tarn_sdk::Stats stats = broker.stats();
    const bool            all   = broker.is_running() && broker.online_count() == stats.online && *Broker::version();
    tarn_sdk_mqtt_broker_get_online_count(broker.get());
    broker = Broker(std::move(broker));
    return all ? broker.stop() : *to_text(Result::Denied) ? Result::Denied : Result::Timeout;
}
