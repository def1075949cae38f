// standard_restore.cpp - any bytes as the records of a journal: restored, and then used as the engine would.
//
// input:  (type:u8 size:u16 bytes)*      size little endian; the last record may be cut
#include "promise.h"
#include "standard/records/restore.h"

using namespace tarn;
using namespace tarn::fuzz;
using namespace tarn::standard;

namespace {

constexpr uint64_t kNow_ms = 1'800'000'000'000;

struct AnyLimits final : ReceiverLimits {
    uint16_t receive_maximum() const override { return 65535; }
    bool     takes(const Outgoing &) const override { return true; }
};

struct Matches {
    size_t count = 0;
    void   plain(uint64_t, const SubscriptionOptions &options) { count += options.qos < 3; }
    void   shared(SharedGroup &group) { count += !group.members().empty(); }
};

void restore(State &state, ByteSpan input)
{
    Restorer    restorer(state, kNow_ms);
    FieldReader reader(input);
    while (reader.left() > 0) {
        uint8_t  type = 0;
        uint16_t size = 0;
        reader.numbers(type, size);
        PROMISE(restorer.record(type, reader.bytes(size < reader.left() ? size : reader.left())));
    }
    restorer.finish();
}

void check(const State &state, const Session &session)
{
    PROMISE(session.is_kept() && !session.text.empty());
    PROMISE(session.number > 0 && session.number <= state.sessions.last_number());
    PROMISE(session.away_ms > 0 && session.away_ms <= kNow_ms);
    PROMISE(state.sessions.find(session.text) == &session && state.sessions.find(session.number) == &session);
    session.deliveries.for_each([&](const DeliveryRecord &delivery) {
        PROMISE(delivery.message ? !delivery.received : delivery.received);
        PROMISE(delivery.number > 0 && delivery.number <= session.deliveries.last_number());
    });
}

// All is sent and acknowledged, and then nothing is left.
void use(Session &session)
{
    session.deliveries.resume();
    session.incoming.connected(10);
    for (bool any = true; any;) {
        const Outgoing packet = session.deliveries.next(kNow_ms, AnyLimits{});
        any                   = packet.kind != Outgoing::Kind::Nothing;
        if (packet.kind == Outgoing::Kind::Pubrel)
            session.deliveries.pubcomp(packet.packet_id, 0);
        else if (any && packet.qos == 2)
            session.deliveries.pubrec(packet.packet_id, 0x80);
        else if (any)
            session.deliveries.puback(packet.packet_id, 0);
    }
    PROMISE(session.deliveries.stored().count == 0 && session.deliveries.stored().bytes == 0);
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    State state{Limits{}};
    restore(state, {data, size});
    size_t subscriptions = 0;
    for (Session *session = state.sessions.first(); session; session = session->next) {
        check(state, *session);
        use(*session);
        subscriptions += state.subscriptions.count_of(session->number);
    }
    PROMISE(subscriptions == state.subscriptions.count());
    Matches matches;
    for (const char *topic : {"a", "a/b", "a/b/c/d", "$SYS/x"})
        state.subscriptions.match(topic, matches);
    size_t retained = 0;
    for (const MessageRef &message : state.retained)
        retained += state.retained.find(message->topic())->number() == message->number();
    PROMISE(retained == state.retained.count());
    state.retained.match("+/#", [&](const MessageRef &message) { matches.count += !message->topic().empty(); });
    return 0;
}
