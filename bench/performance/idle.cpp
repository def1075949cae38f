#include "idle.h"

#include "ids.h"

#include <algorithm>

namespace tarn::performance {
namespace {

constexpr unsigned kKeepAlive_s        = 600;
constexpr unsigned kClientsOfAnAddress = 500; // quotas of an address are far above
constexpr unsigned kFiltersOfAClient   = 100;
constexpr unsigned kRetainedOfAClient  = 500;
constexpr unsigned kAtOnce             = 500;
constexpr unsigned kPendingOfAClient   = 1000; // what is tracked for a client in the native profile

std::string address_of(unsigned index)
{
    return "127.0.2." + std::to_string(index + 1);
}

// As many at a time as a listening socket takes.
bool come(Links &links, std::span<Link *const> clients, unsigned first, unsigned of_an_address, bool clean)
{
    for (size_t i = 0; i < clients.size(); ++i)
        if (!links.open(*clients[i], address_of((first + static_cast<unsigned>(i)) / of_an_address)))
            return false;
    const auto packet = [&](size_t) {
        return test::connect_packet(4, crowd_id(), {.clean = clean, .keep_alive_s = kKeepAlive_s});
    };
    return links.ask_all(clients, packet, beside::kConnack);
}

// New clients of these links; none when one of them could not connect.
std::vector<Link *> come(Links &links, unsigned clients, unsigned of_an_address, bool clean = true)
{
    std::vector<Link *> all(clients);
    for (Link *&link : all)
        link = &links.add();
    for (unsigned first = 0; first < clients; first += kAtOnce)
        if (!come(links, std::span(all).subspan(first, std::min(kAtOnce, clients - first)), first, of_an_address,
                  clean))
            return {};
    return all;
}

} // namespace

bool IdleClients::connect(unsigned clients)
{
    clients_ = come(links_, clients, kClientsOfAnAddress);
    return clients_.size() == clients;
}

bool IdleClients::ping()
{
    return links_.ask_all(
        clients_,
        [](size_t) {
            return Bytes{0xC0, 0};
        },
        beside::kPingresp);
}

LoadOptions pending_of(unsigned clients)
{
    return {.name = "pending", .qos = 1, .subscribers = clients, .window = 16, .acknowledge = false};
}

bool make_pending(Load &load)
{
    return load.set_up() && load.publish(kPendingOfAClient, 60);
}

bool subscribe_to_others(Links &links, unsigned filters)
{
    const std::vector<Link *> clients = come(links, (filters + kFiltersOfAClient - 1) / kFiltersOfAClient, 10);
    if (clients.empty())
        return false;
    for (unsigned i = 0; i < filters / clients.size(); ++i) {
        const auto packet = [&](size_t client) {
            return test::subscribe_packet(4, i + 1, "other/" + std::to_string(client) + "/" + std::to_string(i), 1);
        };
        if (!links.ask_all(clients, packet, beside::kSuback))
            return false;
    }
    return true;
}

bool publish_retained(Links &links, unsigned messages)
{
    const std::vector<Link *> clients = come(links, (messages + kRetainedOfAClient - 1) / kRetainedOfAClient, 1);
    if (clients.empty())
        return false;
    for (unsigned i = 0; i < messages / clients.size(); ++i) {
        const auto packet = [&](size_t client) {
            return test::publish_packet(4, "kept/" + std::to_string(client) + "/" + std::to_string(i),
                                        std::string(64, 'z'), {.qos = 1, .retain = true, .id = i + 1});
        };
        if (!links.ask_all(clients, packet, kPuback))
            return false;
    }
    return true;
}

bool leave_sessions(unsigned clients)
{
    Links                     links;
    const std::vector<Link *> all = come(links, clients, 100, false);
    const auto packet = [](size_t i) { return test::subscribe_packet(4, 1, "absent/" + std::to_string(i), 1); };
    if (all.empty() || !links.ask_all(all, packet, beside::kSuback))
        return false;
    for (Link *const link : all) {
        link->queue(test::disconnect_packet(4));
        link->flush();
        link->close();
    }
    return true;
}

} // namespace tarn::performance
