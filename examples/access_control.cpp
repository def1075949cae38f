// Gives each user a branch of the topics: alice reads and writes alice/..., everybody reads news/... . Serves until
// Enter is pressed.
//
// The access-control rule is told the client id alone, and the broker lets everybody choose any id, also one that is in
// use. So an id says whose it is, "alice" or "alice.phone", and a CONNECT with somebody else's is refused. Wills are
// published without asking; this host tells of them.
#include <cstdio>
#include <tarn_sdk_mqtt_broker.hpp>

using std::string_view;
using tarn_sdk::Action;

namespace {

bool knows(string_view user, string_view password)
{
    return (user == "alice" && password == "wonderland") || (user == "bob" && password == "builder");
}

string_view owner_of(string_view client_id)
{
    return client_id.substr(0, client_id.find('.'));
}

bool starts_with(string_view text, string_view start)
{
    return text.substr(0, start.size()) == start;
}

// The broker does not look at the bytes of a topic, but some of its clients will.
bool is_utf8(string_view text)
{
    static constexpr unsigned least[] = {0, 0, 0x80, 0x800, 0x10000}; // of so many bytes
    while (!text.empty()) {
        const auto   byte   = [&](size_t i) { return i < text.size() ? static_cast<unsigned char>(text[i]) : 0u; };
        const size_t length = byte(0) < 0x80 ? 1 : byte(0) < 0xE0 ? 2 : byte(0) < 0xF0 ? 3 : 4;
        unsigned     point  = length == 1 ? byte(0) : byte(0) & 0x7F >> length;
        for (size_t i = 1; i < length; ++i) {
            if ((byte(i) & 0xC0) != 0x80)
                return false;
            point = point << 6 | (byte(i) & 0x3F);
        }
        const bool is_surrogate = point >= 0xD800 && point < 0xE000;
        if ((byte(0) & 0xC0) == 0x80 || byte(0) > 0xF4 || point < least[length] || point > 0x10FFFF || is_surrogate)
            return false;
        text.remove_prefix(length);
    }
    return true;
}

bool may_connect(string_view client_id, string_view user, string_view password)
{
    return knows(user, password) && owner_of(client_id) == user;
}

bool may_use(string_view client_id, string_view topic, Action action)
{
    const string_view user = owner_of(client_id);
    if (user.empty() || !is_utf8(topic)) // empty: a packet that came before any CONNECT
        return false;
    if (action == Action::Publish && topic.find_first_of("+#") != topic.npos) // the broker would take it
        return false;
    if (starts_with(topic, user) && starts_with(topic.substr(user.size()), "/"))
        return true;
    return action == Action::Subscribe && starts_with(topic, "news/");
}

} // namespace

int main()
{
    tarn_sdk::Broker broker;
    if (failed(broker.init()) || failed(broker.on_auth(may_connect)) || failed(broker.on_acl(may_use)))
        return 1;
    broker.on_event([](tarn_sdk::Event event, string_view text) {
        if (event == tarn_sdk::Event::Will)
            std::printf("will: %s\n", text.data());
    });
    if (failed(broker.start()))
        return 1;
    std::puts("Serving alice and bob, press Enter to end");
    std::getchar();
}
