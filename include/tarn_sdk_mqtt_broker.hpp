/*
 * tarn_sdk_mqtt_broker.hpp - the broker for hosts in C++17 and later: an owning instance, callables as callbacks,
 * results as an enum.
 *
 *     tarn_sdk::Broker broker;
 *     if (failed(broker.init()) || failed(broker.on_auth(MyUsers(file))) || failed(broker.start()))
 *         return 1;
 *     ... the host's own life; the destructor ends the broker's ...
 *
 * Each function is the one of tarn_sdk_mqtt_broker.h with the same name, and nothing but a call of it; that header has
 * the limits, results and threads. Here stands what is different: lifetime and callables. All of it is inline, needs
 * neither exceptions nor RTTI, and throws nothing of its own.
 */
#ifndef TARN_SDK_MQTT_BROKER_HPP
#define TARN_SDK_MQTT_BROKER_HPP

#include "tarn_sdk_mqtt_broker.h"

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <new>
#include <string_view>
#include <type_traits>
#include <utility>

/* A program and its plug-ins share one list of instances. */
#pragma GCC visibility push(default)

namespace tarn_sdk {

/* What functions return; TARN_* of the C header. */
enum class Result : int32_t {
    Ok               = TARN_OK,
    InitFailed       = TARN_E_INIT, /* never returned */
    InvalidParameter = TARN_E_PARAM,
    ResourceError    = TARN_E_RESOURCE,
    NotRunning       = TARN_E_NOT_RUNNING, /* the standard profile does not serve */
    NotFound         = TARN_E_NOT_FOUND,
    Denied           = TARN_E_DENIED,
    Busy             = TARN_E_BUSY,
    Timeout          = TARN_E_TIMEOUT /* never returned */
};

constexpr bool failed(Result result) noexcept
{
    return result != Result::Ok;
}

/* "OK", "Invalid parameter" ... "Unknown error" for any other number. Constant. */
inline const char *to_text(Result result) noexcept
{
    return tarn_sdk_mqtt_broker_error_str(static_cast<int32_t>(result));
}

/* What an event callable is told about. */
enum class Event : uint32_t {
    Connected    = BROKER_EVENT_CONNECTED,
    Disconnected = BROKER_EVENT_DISCONNECTED,
    Publish      = BROKER_EVENT_PUBLISH,
    Subscribe    = BROKER_EVENT_SUBSCRIBE,
    Unsubscribe  = BROKER_EVENT_UNSUBSCRIBE,
    Will         = BROKER_EVENT_WILL
};

/* What an access-control callable is asked about. */
enum class Action : uint8_t { Subscribe = BROKER_ACL_SUBSCRIBE, Publish = BROKER_ACL_PUBLISH };

/* What the broker speaks. */
enum class Profile : uint32_t { Native = TARN_PROFILE_NATIVE, Standard = TARN_PROFILE_STANDARD };

/* How much the standard profile keeps. */
enum class Limit : uint32_t {
    QueuedMessages        = TARN_LIMIT_QUEUED_MESSAGES,
    QueuedBytes           = TARN_LIMIT_QUEUED_BYTES,
    Qos0Messages          = TARN_LIMIT_QOS0_MESSAGES,
    Qos0Bytes             = TARN_LIMIT_QOS0_BYTES,
    WildcardSubscriptions = TARN_LIMIT_WILDCARD_SUBSCRIPTIONS,
    Subscriptions         = TARN_LIMIT_SUBSCRIPTIONS,
    ReceiveMaximum        = TARN_LIMIT_RECEIVE_MAXIMUM,
    SessionExpiry         = TARN_LIMIT_SESSION_EXPIRY,
    Sessions              = TARN_LIMIT_SESSIONS,
    RetainedMessages      = TARN_LIMIT_RETAINED_MESSAGES,
    RetainedBytes         = TARN_LIMIT_RETAINED_BYTES,
    ConnectTimeout        = TARN_LIMIT_CONNECT_TIMEOUT
};

enum class LogLevel : uint32_t { Debug, Info, Warn, Error, Fatal };

using ClientInfo  = tarn_sdk_mqtt_client_info_t;
using SessionInfo = tarn_sdk_mqtt_session_info_t;
using Stats       = tarn_sdk_mqtt_broker_stats_t;

struct PublishOptions {
    uint32_t qos      = 0;
    bool     retain   = false;
    uint32_t expiry_s = 0;
};

/* ------------------------------------------------------------------------------------------- behind the class below */

namespace detail {

/* A callable, and how many need it: the instance it is registered with, and each call that is under way. */
template <class R, class... Arguments> class Callable {
public:
    Callable()                            = default;
    Callable(const Callable &)            = delete;
    Callable &operator=(const Callable &) = delete;

    virtual R call(Arguments... arguments) = 0;

    void hold() noexcept { users_.fetch_add(1, std::memory_order_relaxed); }
    void release() noexcept
    {
        if (users_.fetch_sub(1, std::memory_order_acq_rel) == 1)
            delete this;
    }

protected:
    virtual ~Callable() = default;

private:
    std::atomic<int> users_{1};
};

template <class F, class R, class... Arguments> class CallableOf final : public Callable<R, Arguments...> {
public:
    explicit CallableOf(F &&function) : function_(std::move(function)) {}
    R call(Arguments... arguments) override { return static_cast<R>(function_(arguments...)); }

private:
    F function_;
};

/* Pointers, and what tells explicitly that it is empty. A lambda's implicit way to a pointer is never null. */
template <class F>
inline constexpr bool can_be_empty = std::is_pointer_v<F> || (std::is_constructible_v<bool, const F &> &&
                                                              !std::is_convertible_v<const F &, bool>);

using EventCallable = Callable<void, Event, std::string_view>;
using AuthCallable  = Callable<bool, std::string_view, std::string_view, std::string_view>;
using AclCallable   = Callable<bool, std::string_view, std::string_view, Action>;

/* The C callbacks know the instance and nothing else, so what belongs to it is found in a list. */
struct Instance {
    broker_t      *broker      = nullptr;
    Instance      *next        = nullptr;
    EventCallable *event       = nullptr;
    AuthCallable  *auth        = nullptr;
    AclCallable   *acl         = nullptr;
    bool           initialised = false;
    bool           started     = false;
};

inline pthread_mutex_t g_mutex = PTHREAD_MUTEX_INITIALIZER; /* guards the list; nothing of the host runs under it */
inline Instance       *g_first = nullptr;

class Lock {
public:
    Lock() noexcept { pthread_mutex_lock(&g_mutex); }
    ~Lock() { pthread_mutex_unlock(&g_mutex); }
    Lock(const Lock &)            = delete;
    Lock &operator=(const Lock &) = delete;
};

/* The link that leads to it, or the null one at the end. Under the lock. */
inline Instance **link_to(const broker_t *broker) noexcept
{
    Instance **link = &g_first;
    while (*link && (*link)->broker != broker)
        link = &(*link)->next;
    return link;
}

/* One call of a callback: keeps the callable that was registered when it began, whatever is registered meanwhile. */
template <class C> struct Call {
    Call(const broker_t *broker, C *Instance::*slot) noexcept
    {
        const Lock lock;
        if (const Instance *const instance = *link_to(broker)) {
            known    = true;
            callable = instance->*slot;
        }
        if (callable)
            callable->hold();
    }
    ~Call()
    {
        if (callable)
            callable->release();
    }
    Call(const Call &)            = delete;
    Call &operator=(const Call &) = delete;

    C   *callable = nullptr;
    bool known    = false;
};

inline void on_event(broker_t *broker, uint32_t kind, const char *text) noexcept
{
    const Call call(broker, &Instance::event);
    if (call.callable)
        call.callable->call(static_cast<Event>(kind), text);
}

/* A rule that was taken back a moment ago allows everything; an instance whose Broker is gone allows nothing more. */
inline bool on_auth(broker_t *broker, const char *client_id, const char *username, const char *password) noexcept
{
    const Call call(broker, &Instance::auth);
    return call.callable ? call.callable->call(client_id, username, password) : call.known;
}

/* Another function, since a function is a quick callback for all instances or for none. */
inline bool on_quick_auth(broker_t *broker, const char *client_id, const char *username, const char *password) noexcept
{
    return on_auth(broker, client_id, username, password);
}

inline bool on_acl(broker_t *broker, const char *client_id, const char *topic, uint8_t action, mqtt_client_t *) noexcept
{
    const Call call(broker, &Instance::acl);
    return call.callable ? call.callable->call(client_id, topic, static_cast<Action>(action)) : call.known;
}

/* Callable and C callback change in one step. */
template <class C, class Callback>
Result put(broker_t *broker, C *Instance::*slot, C *callable, void (*set)(broker_t *, Callback), Callback callback)
{
    Result result   = Result::InvalidParameter;
    C     *unneeded = callable;
    {
        const Lock lock;
        if (Instance *const instance = *link_to(broker)) {
            unneeded = std::exchange(instance->*slot, callable);
            set(broker, callable ? callback : nullptr);
            result = Result::Ok;
        }
    }
    if (unneeded) /* unlocked: what it holds may call in here when it goes */
        unneeded->release();
    return result;
}

/* Enters the instance into the list; without memory it is freed. */
inline broker_t *enter(broker_t *broker) noexcept
{
    if (!broker)
        return nullptr;
    auto *const instance = new (std::nothrow) Instance;
    if (!instance) {
        tarn_sdk_mqtt_broker_destroy(broker);
        return nullptr;
    }
    const Lock lock;
    instance->broker = broker;
    instance->next   = g_first;
    g_first          = instance;
    return broker;
}

inline void mark(broker_t *broker, bool Instance::*flag) noexcept
{
    const Lock lock;
    if (Instance *const instance = *link_to(broker))
        instance->*flag = true;
}

/* Whether deinit is this instance's business. One that was only initialised leaves it to another that serves. */
inline bool is_in_charge(broker_t *broker) noexcept
{
    const Lock            lock;
    const Instance *const self    = *link_to(broker);
    bool                  serving = false;
    for (const Instance *other = g_first; other; other = other->next)
        serving |= other->started;
    return self && (self->started || (self->initialised && !serving));
}

/* Takes the instance out of the list and frees it. Calls that are under way keep their callables. */
inline void end(broker_t *broker) noexcept
{
    Instance *instance = nullptr;
    {
        const Lock       lock;
        Instance **const link = link_to(broker);
        instance              = *link;
        if (instance)
            *link = instance->next;
    }
    tarn_sdk_mqtt_broker_destroy(broker); /* only now, as the next instance may get its address */
    if (!instance)
        return;
    if (instance->event)
        instance->event->release();
    if (instance->auth)
        instance->auth->release();
    if (instance->acl)
        instance->acl->release();
    delete instance;
}

} // namespace detail

/*
 * An instance that ends with its scope. It can be moved, not copied. An empty one (memory ran out, or moved from) may
 * be called all the same: it answers as the C functions do for a null instance.
 *
 * The destructor ends what the instance began, as stop, deinit and destroy do; wills are published and told before it
 * returns. An instance that was initialised but never served does not disturb another one that does.
 *
 * It may run inside a callable, also one of this instance: calls that are under way keep all they need until they end.
 * As with the C functions it does not wait there for a thread of the host that is inside init, start, stop or a
 * destructor; the instance is then left serving for good, and its rules refuse everything.
 */
class Broker {
public:
    Broker() noexcept : broker_(detail::enter(tarn_sdk_mqtt_broker_create())) {}
    Broker(Broker &&other) noexcept : broker_(std::exchange(other.broker_, nullptr)) {}
    Broker &operator=(Broker &&other) noexcept
    {
        const Broker old(std::move(*this));
        broker_ = std::exchange(other.broker_, nullptr);
        return *this;
    }
    ~Broker()
    {
        if (!broker_)
            return;
        if (detail::is_in_charge(broker_)) {
            tarn_sdk_mqtt_broker_stop(broker_);
            tarn_sdk_mqtt_broker_deinit(broker_);
        }
        detail::end(broker_);
    }

    explicit operator bool() const noexcept { return broker_; }

    /* For the C functions; null for an empty one. Stays with this object: do not destroy it. */
    broker_t *get() const noexcept { return broker_; }

    /* ------------------------------------------------------------------------------------------------- lifecycle */

    /* Sets the log level to Warn. */
    [[nodiscard]] Result init() noexcept
    {
        broker_t *const broker = broker_;
        const Result    result{tarn_sdk_mqtt_broker_init(broker)};
        if (!failed(result))
            detail::mark(broker, &detail::Instance::initialised);
        return result;
    }

    /* The broker listens on port 1883 whatever is given here. */
    [[nodiscard]] Result start(int32_t port = 1883, int32_t max_clients = 5000) noexcept
    {
        broker_t *const broker = broker_;
        const Result    result{tarn_sdk_mqtt_broker_start(broker, port, max_clients)};
        if (!failed(result))
            detail::mark(broker, &detail::Instance::started);
        return result;
    }

    /* Clients stay and are served on; start goes on with them. */
    Result stop() noexcept { return Result{tarn_sdk_mqtt_broker_stop(broker_)}; }

    bool is_running() const noexcept { return tarn_sdk_mqtt_broker_is_running(broker_); }

    /* -------------------------------------------------------------------------------------------------- settings */

    /* Of the whole process. */
    static void set_log_level(LogLevel level) noexcept
    {
        tarn_sdk_mqtt_broker_set_log_level(nullptr, static_cast<uint32_t>(level));
    }

    [[nodiscard]] Result set_keepalive_timeout(int32_t seconds) noexcept
    {
        return Result{tarn_sdk_mqtt_broker_set_keepalive_timeout(broker_, seconds)};
    }

    [[nodiscard]] Result set_max_packet_size(int32_t bytes) noexcept
    {
        return Result{tarn_sdk_mqtt_broker_set_max_packet_size(broker_, bytes)};
    }

    /* Of the whole process, as are the limits. */
    [[nodiscard]] Result set_profile(Profile profile) noexcept
    {
        return Result{tarn_sdk_mqtt_broker_set_profile(broker_, static_cast<uint32_t>(profile))};
    }

    [[nodiscard]] Result set_limit(Limit limit, uint64_t value) noexcept
    {
        return Result{tarn_sdk_mqtt_broker_set_limit(broker_, static_cast<uint32_t>(limit), value)};
    }

    static const char *version() noexcept { return tarn_sdk_mqtt_broker_version(); }

    /* --------------------------------------------------------------------------------------------------- queries */

    uint32_t online_count() const noexcept { return tarn_sdk_mqtt_broker_get_online_count(broker_); }

    /* Ids with commas between. */
    Result client_id_list(char *buf, int32_t size) const noexcept
    {
        return Result{tarn_sdk_mqtt_broker_get_client_id_list(broker_, buf, size)};
    }

    Result client_info(const char *client_id, ClientInfo &info) const noexcept
    {
        return Result{tarn_sdk_mqtt_broker_get_client_info(broker_, client_id, &info)};
    }

    Result session_info(const char *client_id, SessionInfo &info) const noexcept
    {
        return Result{tarn_sdk_mqtt_broker_get_session_info(broker_, client_id, &info)};
    }

    Stats stats() const noexcept
    {
        Stats stats;
        tarn_sdk_mqtt_broker_get_stats(broker_, &stats);
        return stats;
    }

    /* Topics with a newline behind each. */
    Result retain_topic_list(char *buf, int32_t size) const noexcept
    {
        return Result{tarn_sdk_mqtt_broker_get_retain_topic_list(broker_, buf, size)};
    }

    /* --------------------------------------------------------------------------------------------------- control */

    Result kick_client(const char *client_id) noexcept
    {
        return Result{tarn_sdk_mqtt_broker_kick_client(broker_, client_id)};
    }

    Result publish(const char *topic, std::string_view payload, const PublishOptions &options = {}) noexcept
    {
        return publish_bytes(topic, payload.data(), payload.size(), options);
    }

    Result publish_bytes(const char *topic, const void *payload, size_t size,
                         const PublishOptions &options = {}) noexcept
    {
        const auto length = static_cast<int32_t>(size < INT32_MAX ? size : INT32_MAX);
        return Result{tarn_sdk_mqtt_broker_publish(broker_, topic, payload, length, options.qos, options.retain,
                                                   options.expiry_s)};
    }

    Result clear_retain(const char *topic) noexcept
    {
        return Result{tarn_sdk_mqtt_broker_clear_retain(broker_, topic)};
    }

    /* ------------------------------------------------------------------------------------------------- callables
     * A callable is copied or moved into the instance, and replaces the one before; nullptr takes it back. This may be
     * done at any time, from any thread, and inside a callable. A call that is under way still goes to the old one,
     * which is destroyed when nobody needs it any more, on the thread that needed it last.
     *
     * Callables run where the C callbacks run, on several threads at once: what they share they have to guard. They
     * must not throw, that ends the process. Texts are terminated and valid during the call only.
     *
     *   returns   Result::Ok
     *             InvalidParameter   the Broker is empty, or the callable is: a null pointer, an empty std::function
     *             ResourceError      memory ran out; the one before stays */

    /* void (Event, std::string_view text); text is the one of broker_event_cb_t. */
    template <class F> Result on_event(F &&tell)
    {
        return put<void, Event, std::string_view>(&detail::Instance::event, std::forward<F>(tell),
                                                  tarn_sdk_mqtt_broker_register_event_callback, detail::on_event);
    }

    /* bool (std::string_view client_id, std::string_view username, std::string_view password): true accepts. */
    template <class F> [[nodiscard]] Result on_auth(F &&ask)
    {
        return put<bool, std::string_view, std::string_view, std::string_view>(
            &detail::Instance::auth, std::forward<F>(ask), tarn_sdk_mqtt_broker_register_auth_callback,
            detail::on_auth);
    }

    /* The same for one that answers at once: see tarn_sdk_mqtt_broker_register_quick_auth_callback. */
    template <class F> [[nodiscard]] Result on_quick_auth(F &&ask)
    {
        return put<bool, std::string_view, std::string_view, std::string_view>(
            &detail::Instance::auth, std::forward<F>(ask), tarn_sdk_mqtt_broker_register_quick_auth_callback,
            detail::on_quick_auth);
    }

    /* bool (std::string_view client_id, std::string_view topic, Action): true allows. */
    template <class F> [[nodiscard]] Result on_acl(F &&ask)
    {
        return put<bool, std::string_view, std::string_view, Action>(
            &detail::Instance::acl, std::forward<F>(ask), tarn_sdk_mqtt_broker_register_acl_callback, detail::on_acl);
    }

private:
    template <class R, class... Arguments, class F, class C, class Callback>
    Result put(C *detail::Instance::*slot, F &&from, void (*set)(broker_t *, Callback),
               std::common_type_t<Callback> callback)
    {
        using Function = std::decay_t<F>;
        if constexpr (std::is_null_pointer_v<Function>) {
            return detail::put(broker_, slot, static_cast<C *>(nullptr), set, callback);
        } else {
            static_assert(std::is_invocable_r_v<R, Function &, Arguments...>, "not a callable of this callback");
            Function function(std::forward<F>(from));
            if constexpr (detail::can_be_empty<Function>)
                if (!static_cast<bool>(function))
                    return Result::InvalidParameter;
            C *const callable = new (std::nothrow) detail::CallableOf<Function, R, Arguments...>(std::move(function));
            return callable ? detail::put(broker_, slot, callable, set, callback) : Result::ResourceError;
        }
    }

    broker_t *broker_;
};

} // namespace tarn_sdk

#pragma GCC visibility pop

#endif
