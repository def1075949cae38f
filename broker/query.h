// query.h - the library's answers in C++: lists as vectors, the statistics as JSON and as plain numbers.
#ifndef TARN_BROKER_QUERY_H
#define TARN_BROKER_QUERY_H

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include <tarn_sdk_mqtt_broker.h>

namespace tarn::broker {

std::vector<std::string> clients_online(broker_t *broker); // ids, each once
// The same as the library lists them, separated by commas: an id that contains commas comes in pieces, and two clients with
// the same id come twice.
std::vector<std::string> online_id_pieces();

std::optional<tarn_sdk_mqtt_client_info_t> client_info(broker_t *broker, const std::string &id); // if there is one

std::string address_of(const tarn_sdk_mqtt_client_info_t &info); // IP:PORT

std::vector<std::string> retained_topics(); // in the standard profile one with a newline in it comes in pieces

// Of sessions in the standard profile. Before it serves, each id may have one that is kept.
size_t subscriptions_of(const std::string &client_id);
bool   session_is_kept(const std::string &client_id);
bool   has_will(const std::string &client_id);

std::vector<std::string> subscriber_ids(); // of the native profile; one for each subscription

// Whether a record of a client has a will that waits, or stays for one that was published.
bool holds_will(const void *record);

std::string statistics_json(); // one line

// What has been counted since the start, and how things stand now.
struct Counters {
    uint64_t messages_in; // PUBLISH packets from clients
    uint64_t packets_in;  // of any type
    uint64_t packets_out; // of any type; the library does not count messages apart
    uint64_t bytes_in;    // over TCP, see traffic.h
    uint64_t bytes_out;
    uint64_t drop_offline, drop_queue_full, drop_too_big, drop_invalid, drop_failed; // outbound packets
    uint64_t stored_offline;                                                         // messages kept for absent clients
    uint64_t timeouts, wills, undecodable;
    uint32_t online, most_online;
    uint32_t pool_used, pool_capacity; // client records
    uint32_t subscriptions, retained;
    uint64_t uptime_s;
};
Counters read_counters(); // all but the bytes

// Whether the library's init, which does not say so, got memory for subscriptions and retained messages.
bool has_tables();

// Whether the library has the port for TCP. It keeps it from the first start on until the process ends.
bool tcp_is_open();

// Whether datagrams are served. All UDP clients share one socket, which is closed with the first of them that ends.
bool udp_is_open();

} // namespace tarn::broker

#endif
