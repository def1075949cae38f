// One conversation of two clients, every line at INFO and every byte.
#include "handler_fixture.h"
#include "support/log_lines/client.h"
#include "support/log_lines/codec.h"
#include "support/log_lines/handler.h"
#include "support/log_lines/qos.h"
#include "support/log_lines/sub.h"

using namespace tarn;
using namespace tarn::test;
using testing::ElementsAre;

namespace {

std::vector<LogLine> ack_trace(const Bytes &head, const Bytes &codes = {}, const Bytes &packet = {},
                               bool suback = false)
{
    std::vector<LogLine> lines;
    char                 text[100];
    const auto           list = [&](const char *name, const Bytes &bytes) {
        for (size_t i = 0; i < 16; i++) {
            snprintf(text, sizeof text, "%s[%zu] = 0x%02X", name, i, i < bytes.size() ? bytes[i] : 0);
            lines.push_back(info(text));
        }
    };
    lines.push_back(logged::suback_variable_header());
    list("var_header", head);
    if (suback) {
        lines.push_back(logged::suback_payload());
        list("payload_buf", codes);
    }
    if (!packet.empty()) {
        lines.push_back(logged::suback_final(packet.size()));
        list("ack_buf", packet);
    }
    return lines;
}

std::vector<LogLine> operator+(std::vector<LogLine> left, const std::vector<LogLine> &right)
{
    left.insert(left.end(), right.begin(), right.end());
    return left;
}

using Lines = std::vector<LogLine>;

} // namespace

TEST(transcript, at_level_4)
{
    Handling   broker;
    Client     dev(broker), app(broker);
    LogCapture log(AGENT_LOG_INFO);

    dev.sends(connect_v4("dev"));
    EXPECT_EQ(log.take(),
              (Lines{logged::max_packet_size_unsupported(4096, "dev"), logged::subscription_removed("dev", "所有", 0),
                     logged::session_cleared(), logged::will_delay_cancelled("dev"), logged::connack_sent("dev", 0)}));
    EXPECT_THAT(dev.gets(), ElementsAre(wire("20 02 00 00")));

    dev.sends("82 08 | 00 01 | 00 03 'a/b' 01");
    EXPECT_EQ(log.take(),
              (Lines{logged::subscribe_received("dev", 1, 1), logged::subscribe_filter(0, "a/b", 1),
                     logged::subscription_added("dev", "a/b", 1, 1), logged::subscribe_filter_granted(0, "a/b", 1, 1),
                     logged::subscribe_code_v4(1, 0x01)} +
               ack_trace(wire("00 01"), wire("01"), {}, true) + Lines{logged::suback_sent("dev", 1, 1, 0x01)}));
    EXPECT_THAT(dev.gets(), ElementsAre(wire("90 03 00 01 01")));

    app.sends(connect_v4("app"));
    app.gets();
    log.take();
    const uint16_t id = next_id();
    app.sends("34 09 | 00 03 'a/b' 00 07 | 'hi'");
    EXPECT_EQ(log.take(), (Lines{logged::publish_received("app", "a/b", 2, 0, 7), logged::topic_matched("a/b", 1),
                                 logged::message_forwarded("dev", "a/b", 1), logged::publish_ended(1, 1)} +
                           ack_trace(wire("00 07")) + Lines{logged::pubrec_sent("app", 7)}));
    EXPECT_THAT(dev.gets(), ElementsAre(wire("32 09 | 00 03 'a/b'") + u16(id) + text("hi")));
    EXPECT_THAT(app.gets(), ElementsAre(wire("50 02 00 07")));

    app.sends("62 02 00 07");
    EXPECT_EQ(log.take(), (Lines{logged::pubrel_received("app", 7)} + ack_trace(wire("00 07")) +
                           Lines{logged::pubcomp_sent("app", 7)}));
    EXPECT_THAT(app.gets(), ElementsAre(wire("70 02 00 07")));

    dev.sends(wire("40 02") + u16(id));
    EXPECT_EQ(log.take(), (Lines{logged::puback_received("dev", id), logged::qos1_completed("PUBACK", id)}));

    dev.sends("E0 00");
    EXPECT_EQ(log.take(), (Lines{logged::client_disconnects("dev"), logged::will_delay_cancelled("dev"),
                                 logged::session_data_cleared("dev"), logged::deliveries_dropped_of("dev"),
                                 logged::deliveries_dropped("dev", 0), logged::subscription_removed("dev", "所有", 1),
                                 logged::subscriptions_removed_at_disconnect("dev", 1), logged::client_closed("dev"),
                                 logged::deliveries_dropped_of("dev"), logged::deliveries_dropped("dev", 0)}));
}

TEST(transcript, at_level_5)
{
    Handling   broker;
    Client     dev(broker), app(broker);
    LogCapture log(AGENT_LOG_INFO);

    dev.sends(connect_v5("dev"));
    EXPECT_EQ(log.take(),
              (Lines{logged::session_expiry_negotiated("dev", 0), logged::max_packet_size_negotiated("dev", 4096),
                     logged::subscription_removed("dev", "所有", 0), logged::session_cleared(),
                     logged::will_delay_cancelled("dev"), logged::connack_properties(4096, 0),
                     logged::connack_sent("dev", 0)}));
    EXPECT_THAT(dev.gets(), ElementsAre(wire("20 0B 00 00 08 21 00 00 27 00 00 10 00")));

    dev.sends("82 09 | 00 01 00 | 00 03 'a/b' 02");
    Lines lines = log.take();
    std::erase_if(lines,
                  [](const LogLine &line) { return line.text.rfind("【QoS溯源5】", 0) == 0; }); // an address in it
    EXPECT_EQ(lines,
              (Lines{logged::subscribe_received("dev", 1, 1), logged::subscribe_filter(0, "a/b", 2),
                     logged::subscription_added("dev", "a/b", 2, 1), logged::subscribe_filter_granted(0, "a/b", 2, 2),
                     logged::subscribe_code_v5(2, 0x02), logged::suback_code_forced(0x02)} +
               ack_trace(wire("00 01 00"), wire("02"), wire("90 04 00 01 00 02"), true) +
               Lines{logged::suback_sent("dev", 1, 2, 0x02)}));
    EXPECT_THAT(dev.gets(), ElementsAre(wire("90 04 00 01 00 02")));

    app.sends(connect_v5("app"));
    app.gets();
    log.take();
    const uint16_t id = next_id();
    app.sends("32 0A | 00 03 'a/b' 00 07 00 | 'hi'");
    EXPECT_EQ(log.take(), (Lines{logged::publish_received("app", "a/b", 1, 0, 7), logged::topic_matched("a/b", 1),
                                 logged::message_forwarded("dev", "a/b", 1), logged::publish_ended(1, 1)} +
                           ack_trace(wire("00 07 00")) + Lines{logged::puback_sent("app", 7)}));
    EXPECT_THAT(dev.gets(), ElementsAre(wire("32 0A | 00 03 'a/b'") + u16(id) + wire("00 'hi'")));
    EXPECT_THAT(app.gets(), ElementsAre(wire("40 03 00 07 00")));

    dev.sends("E0 02 00 00");
    EXPECT_EQ(log.take(), (Lines{logged::client_disconnects("dev"), logged::will_delay_cancelled("dev"),
                                 logged::disconnect_session(0, 1), logged::session_expiry_clears(),
                                 logged::deliveries_dropped_of("dev"), logged::deliveries_dropped("dev", 1),
                                 logged::subscription_removed("dev", "所有", 1),
                                 logged::subscriptions_removed_at_disconnect("dev", 1), logged::client_closed("dev"),
                                 logged::deliveries_dropped_of("dev"), logged::deliveries_dropped("dev", 0)}));
}
