// will.cpp - wills: what a client has published for it when its connection ends without its DISCONNECT [MQTT-3.1.2-8].
#include "../base/clock.h"
#include "../stats/stats.hpp"
#include "engine.h"

namespace tarn::standard {
namespace {

// Its expiry begins when it is published (5.0 3.1.3.2.4).
MessageRef message_of(Engine &engine, const Session &session)
{
    const StoredWill &will   = session.will;
    const Message    &stored = *will.message;
    return MessageRef::make({.number     = ++engine.state.last_message,
                             .expires_ms = will.expiry_s ? wall_ms() + uint64_t{*will.expiry_s} * 1000 : 0,
                             .sender     = session.number,
                             .qos        = stored.qos(),
                             .retain     = stored.retain(),
                             .topic      = stored.topic(),
                             .properties = stored.properties(),
                             .payload    = stored.payload()});
}

void note_told(Engine &engine, const MessageRef &message, const Session &session) REQUIRES(engine_mutex)
{
    auto *const told = make_object<ToldWill>();
    if (!told)
        return;
    told->message = message;
    told->client  = stored_id(session.text, engine.state.id_key);
    told->next    = std::exchange(engine.told_wills, told);
}

} // namespace

void publish_will(Engine &engine, Session &session) noexcept
{
    if (!session.will.message)
        return;
    const MessageRef message = message_of(engine, session);
    session.will             = {};
    if (message) {
        stats::count(stats::Counter::will_sent);
        Draft draft(message);
        (void)publish(engine, {.draft = draft});
        note_told(engine, message, session);
    }
    if (session.is_known_to_files) // behind the publication: a kill in between publishes it twice and loses none
        (void)engine.recorder.session(session);
}

} // namespace tarn::standard
