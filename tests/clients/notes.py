"""Why a check fails with a client: what the table says below each number. A failed check without a note is a failure of
the run; so is a note with the name of a departure that docs/deviations.md does not have.
"""
import pathlib
import re
from dataclasses import dataclass

DEVIATIONS = pathlib.Path(__file__).resolve().parents[2] / "docs/deviations.md"

THREE = r".*_4"  # columns at 3.1.1 that connect to the native profile
FIVE = r"mqttjs._5"  # clients of 5.0 that connect to the native profile and go on


NEWEST = "What waited for an absent client comes newest first."


@dataclass(frozen=True)
class Note:
    profile: str
    columns: str  # patterns of whole names
    checks: str
    quirks: tuple
    text: str
    alone: bool = False  # where it fits, nothing else is said

    def in_markdown(self):
        links = ", ".join(f"[`{quirk}`](deviations.md#{quirk})" for quirk in self.quirks)
        return self.text + (f" {links}" if links else "")

    def fits(self, profile, column, check):
        return (self.profile == profile and re.fullmatch(self.columns, column) is not None and
                re.fullmatch(self.checks, check) is not None)


def standard(columns, checks, text):
    return Note("standard", columns, checks, (), text)


def native(columns, checks, quirks, text, alone=False):
    return Note("native", columns, checks, tuple(quirks.split()), text, alone)


NOTES = [
    # ---- what the standards leave to the client
    standard("mosquitto_5", "clean_exit",
             "`mosquitto_sub` ends with the reason 0x04, which asks for its will to be published."),
    standard("bridge_5", "session_.*",
             "At 5.0 this bridge gives no Session Expiry Interval, so its session ends with its connection "
             "(5.0, 3.1.2.11.2)."),
    standard("bridge_4", "both_ways_once",
             "With `try_private false` the bridge does not say that it is one. At 3.1.1 it is then sent its own "
             "messages, as every client is; leave the setting out, or let it speak 5.0, where it asks for No Local."),

    # ---- the native profile: connecting
    native("mosquitto_5|paho_python_5|bridge_5", ".*", "receive-maximum-zero connack-v5-properties",
           "CONNACK gives a Receive Maximum of 0, which this client takes for an error: it never connects. At 3.1.1 it "
           "does.",
           alone=True),
    native("bridge_default", ".*", "connect-unanswered",
           "It says first that it is a bridge, by the level 0x84, and waits for an answer. Set `try_private false`.",
           alone=True),
    native("paho_async_5", ".*", "receive-maximum-zero",
           "It waits for ever to be allowed to send anything, since CONNACK gives a Receive Maximum of 0.", alone=True),
    native("paho_sync_5", "(?!will_retained|take_over|keepalive_silent|clean_exit|filters_17|unsubscribe).*",
           "receive-maximum-zero",
           "It waits for ever to be allowed to publish, at QoS 0 too, since CONNACK gives a Receive Maximum of 0.",
           alone=True),
    native("paho_sync_5", "clean_exit", "disconnect-short-forms",
           "Its DISCONNECT is the short form, which is not understood: its will is published."),
    native("paho_sync_5", "unsubscribe", "unsuback-one-code", "It waits for a code for each filter."),
    native(THREE, "other_level", "receive-maximum-zero connack-v5-properties",
           "Clients of this make at 5.0 do not connect, or do not send."),
    native(THREE, "uuid_id|long_id", "connect-unanswered",
           "A 3.1.1 id has up to 23 characters. A CONNECT with a longer one is not answered."),
    native(".*", "no_id", "auto-client-id", "Clients that come without an id in the same second get the same one."),
    native(".*", "take_over", "no-take-over",
           "The first connection stays open, and hears nothing more: clients need to notice by themselves."),

    # ---- payloads
    native(THREE, "json_300|binary|binary_small", "publish-level-detection",
           "Of a 3.1.1 payload, what looks like the properties of a 5.0 packet is cut off: a first byte below 128 that "
           "is less than the payload's length, and as many bytes behind it as it says. JSON passes up to 123 bytes."),
    native(FIVE, "json_300|binary|binary_small|filters_17|maximum_packet_size",
           "own-limit-inbound packet-size-floor",
           "A 5.0 client that announces no Maximum Packet Size may send packets of up to 256 bytes. Let it announce "
           "4096."),
    native(".*", "kilobytes_20|megabyte|retained_large", "packet-size",
           "A packet has up to 4096 bytes; a larger one ends the connection."),
    native(FIVE, "properties|request|identifier", "properties-not-forwarded",
           "Properties other than the expiry interval are not handed on, nor is a Subscription Identifier."),
    native("mqttjs5_5", "wildcards|burst|aliases", "ack-level-detection",
           "Its short PUBACK reads as one of 3.1.1, and so are the next deliveries to it written, which it cannot "
           "read."),

    # ---- subscriptions
    native(THREE + "|paho_sync_5", "filters_17", "subscribe-partial",
           "The 17th filter of a SUBSCRIBE and those behind it are ignored. Send several packets."),
    native(".*", "dollar_topics", "dollar-topics", "`#` and `+` match topics that begin with `$`."),
    native(".*", "own_messages", "never-own", "Clients are not sent what they publish."),
    native(FIVE, "retain_options", "subscribe-options", "Of a subscription's options only the QoS counts."),
    native(".*", "retained", "retained-qos", "A retained message comes at the QoS it was published with."),

    # ---- wills and sessions
    native(".*", "will_retained", "will-guessed-payload will-once",
           "A will of more than some 125 bytes of topic and payload reaches nobody, and wills are not retained."),
    native(".*", "session_(disconnect|drop|qos_2|restart|kill)", "newest-first offline-late", NEWEST),
    native(".*", "session_on_the_way", "pending-dropped",
           "What was sent to a client that vanished before it acknowledged is not sent again."),
    native(FIVE, "connected_restart", "newest-first offline-late", NEWEST),
    native(THREE, "connected_restart", "session-ends-with-connection",
           "A 3.1.1 session ends when its connection does without a DISCONNECT. Subscribe after every CONNECT."),
    native(".*", "session_expiry", "session-never-expires", "A session does not end with its expiry interval."),
    native(".*", "message_expiry", "offline-unexpiring",
           "A message that is kept for an absent client does not expire."),

    # ---- time
    native(".*", "slow_acknowledgement", "timed-retransmission",
           "What is not acknowledged within seconds is sent again: be ready for messages that come twice."),
    native(".*", "keepalive_silent", "keepalive-late",
           "A client that fell silent is found late, up to a minute after one and a half times its keep-alive."),
]


def of(profile, column, check):
    found = [note for note in NOTES if note.fits(profile, column, check)]
    return [note for note in found if note.alone] or found


def unknown_quirks():
    known = set(re.findall(r"^## (\S+)$", DEVIATIONS.read_text(encoding="utf-8"), re.MULTILINE))
    return sorted({quirk for note in NOTES for quirk in note.quirks} - known)
