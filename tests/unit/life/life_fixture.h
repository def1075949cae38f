// life_fixture.h - the whole library without its threads and its network: clients of the pool whose connections are
// socket pairs, packets handed to the event bridge as the network layer hands them on, clocks in the test's hand.
#ifndef TARN_TESTS_LIFE_FIXTURE_H
#define TARN_TESTS_LIFE_FIXTURE_H

#include "client/client_internal.h"
#include "net/netip_internal.h"
#include "unit/handler/handler_fixture.h"
#include "wire/support/packets.h"

namespace tarn::test {

// A connection of the table whose socket is one end of a pair; the other is read here.
class Line {
public:
    explicit Line(Handling &handling) : sink_{mqtt_netip_event_cb, &handling.host.broker}
    {
        int pair[2];
        EXPECT_EQ(socketpair(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0, pair), 0);
        end_ = pair[1];
        ScopedLock lock(g_netip_lock);
        connection_ = net::open_slot(NETIP_TCP, pair[0], {});
        const net::SlotHold accepted(connection_, net::SlotHold::Counted);
    }
    ~Line()
    {
        drop();
        close(end_);
    }
    Line(const Line &)            = delete;
    Line &operator=(const Line &) = delete;

    // Null once it is closed.
    mqtt_client_t *record() const
    {
        return net::is_current(connection_) ? client_find_by_handle(connection_.handle) : nullptr;
    }
    void send(const Bytes &packet) { sink_.data(connection_, packet.data(), static_cast<uint32_t>(packet.size())); }
    // The peer is gone, as the I/O thread finds it.
    void drop()
    {
        if (const net::SlotHold hold(connection_); hold)
            net::hang_up(hold, sink_);
    }
    // What has been sent so far. Sends what is queued first, as the send thread would.
    Bytes gets()
    {
        if (mqtt_client_t *const client = record())
            client_send_flush(client);
        Bytes   all;
        uint8_t part[4096];
        for (ssize_t got; (got = recv(end_, part, sizeof part, MSG_DONTWAIT)) > 0;)
            all.insert(all.end(), part, part + got);
        return all;
    }
    bool is_closed()
    {
        (void)gets();
        char byte;
        return recv(end_, &byte, 1, MSG_DONTWAIT) == 0;
    }

private:
    net::EventSink  sink_;
    net::Connection connection_;
    int             end_;
};

// Packet handling, files and pool, no thread.
struct World : Handling {
    explicit World(int32_t max_clients = 300)
    {
        const LogCapture quiet;
        if (client_mgr_init(max_clients) != 0)
            abort();
        mqtt_stop_send_thread();
        qos_reliable_destroy(); // the scan thread
    }
    ~World()
    {
        const LogCapture quiet;
        client_mgr_deinit();
    }
};

} // namespace tarn::test

#endif
