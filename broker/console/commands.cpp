#include "commands.h"

#include "../profile.h"
#include "../query.h"
#include "../text.h"

#include <cstdint>
#include <ctime>
#include <vector>

#include <tarn_sdk_mqtt_broker.h>
#include <tarn_sdk_mqtt_broker/base/limits.h>
#include <tarn_sdk_mqtt_broker/sub/retain.h>

namespace tarn::broker {
namespace {

constexpr size_t kTopicMax = 255; // what the library's publish takes without cutting it
// Topic and payload, so that every subscriber gets it: first byte, two of length, the topic's length, packet identifier,
// properties' length and an expiry interval stand beside them in the library's buffer.
constexpr size_t kMessageMax = PACKET_DELIVERY_SIZE - (1 + 2 + 2 + 2 + 1 + 5);

using Arguments = std::vector<std::string>; // without the command's own name

// An answer under way: its lines so far, and what went wrong.
struct Answer {
    std::string text;
    std::string error;
    void        line(const std::string &line_text) { text += line_text + '\n'; }
    void        take_result(int32_t code) { error = code == TARN_OK ? "" : tarn_sdk_mqtt_broker_error_str(code); }
};

struct Command {
    const char *name;
    const char *arguments;
    const char *what;
    size_t      least, most; // arguments
    void (*act)(broker_t *broker, const Arguments &arguments, Answer &answer);
};

void list_clients(broker_t *broker, const Arguments & /*none*/, Answer &answer)
{
    for (const std::string &id : clients_online(broker))
        if (const auto info = client_info(broker, id))
            answer.line(quote_word(id) + ' ' + address_of(*info) + " keep-alive " + std::to_string(info->keepalive) +
                        " idle " + std::to_string(info->idle_seconds));
}

void describe_client(broker_t *broker, const Arguments &arguments, Answer &answer)
{
    tarn_sdk_mqtt_client_info_t info{};
    answer.take_result(tarn_sdk_mqtt_broker_get_client_info(broker, arguments[0].c_str(), &info));
    if (!answer.error.empty())
        return;
    answer.line("id " + quote_word(info.client_id));
    answer.line("address " + address_of(info));
    answer.line("keep-alive " + std::to_string(info.keepalive));
    answer.line(std::string("online ") + (info.online ? "yes" : "no"));
    answer.line("idle " + std::to_string(info.idle_seconds));
}

void kick(broker_t *broker, const Arguments &arguments, Answer &answer)
{
    answer.take_result(tarn_sdk_mqtt_broker_kick_client(broker, arguments[0].c_str()));
}

// What the library would cut or hand on unchecked is refused here, where the caller gets an error. The standard profile
// takes any length.
std::string fault_of_message(const std::string &topic, const std::string &text)
{
    if (topic.empty() || (topic.size() > kTopicMax && !g_serves_standard))
        return "a topic has 1 to " + std::to_string(kTopicMax) + " bytes";
    if (topic.find_first_of("+#") != topic.npos)
        return "a topic to publish to has no + or #";
    if (text.empty())
        return "there is no empty message; clear removes a retained one";
    if (topic.size() + text.size() > kMessageMax && !g_serves_standard)
        return "topic and text have " + std::to_string(kMessageMax) + " bytes at most";
    return "";
}

void publish(broker_t *broker, const Arguments &arguments, Answer &answer)
{
    uint32_t qos    = 0;
    bool     retain = false;
    size_t   at     = 2;
    if (at < arguments.size() && arguments[at].size() == 1 && arguments[at] >= "0" && arguments[at] <= "2")
        qos = static_cast<uint32_t>(arguments[at++][0] - '0');
    if (at < arguments.size() && arguments[at] == "retain") {
        retain = true;
        ++at;
    }
    answer.error = at < arguments.size()
                       ? "after topic and text come 0, 1 or 2 and then retain, not '" + quote_word(arguments[at]) + "'"
                       : fault_of_message(arguments[0], arguments[1]);
    if (answer.error.empty())
        answer.take_result(tarn_sdk_mqtt_broker_publish(broker, arguments[0].c_str(), arguments[1].data(),
                                                        static_cast<int32_t>(arguments[1].size()), qos, retain, 0));
}

void list_retained(broker_t * /*broker*/, const Arguments & /*none*/, Answer &answer)
{
    for (const std::string &topic : retained_topics()) {
        retain_msg_t message;
        if (g_serves_standard)
            answer.line(quote_word(topic));
        else if (retain_msg_get(topic.c_str(), &message) == 0)
            answer.line(quote_word(topic) + " qos " + std::to_string(message.qos) + " bytes " +
                        std::to_string(message.payload_len) + " age " +
                        std::to_string(std::max<int64_t>(time(nullptr) - message.store_time, 0)));
    }
}

void clear(broker_t *broker, const Arguments &arguments, Answer &answer)
{
    answer.take_result(tarn_sdk_mqtt_broker_clear_retain(broker, arguments[0].c_str()));
}

void tell_statistics(broker_t * /*broker*/, const Arguments & /*none*/, Answer &answer)
{
    answer.line(statistics_json());
}

void help(broker_t *broker, const Arguments &arguments, Answer &answer);

constexpr Command kCommands[] = {
    {"clients", "", "who is online: ID ADDRESS keep-alive S idle S", 0, 0, list_clients},
    {"info", "ID", "one client", 1, 1, describe_client},
    {"kick", "ID", "disconnect a client; its will is published, a saved session stays", 1, 1, kick},
    {"publish", "TOPIC TEXT [0|1|2] [retain]", "send a message at that QoS (0)", 2, 4, publish},
    {"retained", "", "the retained messages: TOPIC qos N bytes N age S", 0, 0, list_retained},
    {"clear", "TOPIC", "remove a retained message", 1, 1, clear},
    {"stats", "", "all counters as JSON", 0, 0, tell_statistics},
    {"help", "", "this list", 0, 0, help},
};

std::string usage_of(const Command &command)
{
    return std::string(command.name) + (*command.arguments ? " " : "") + command.arguments;
}

void help(broker_t * /*broker*/, const Arguments & /*none*/, Answer &answer)
{
    for (const Command &command : kCommands) {
        std::string usage = usage_of(command);
        usage.resize(36, ' ');
        answer.line(usage + command.what);
    }
    answer.line(R"(Words with blanks stand in "quotes", where \" \\ \n \r \t and \xHH are known.)");
}

Answer answer_words(broker_t *broker, std::vector<std::string> words)
{
    Answer answer;
    if (words.empty())
        return answer;
    for (const Command &command : kCommands) {
        if (words[0] != command.name)
            continue;
        words.erase(words.begin());
        if (words.size() < command.least || words.size() > command.most)
            answer.error = "usage: " + usage_of(command);
        else
            command.act(broker, words, answer);
        return answer;
    }
    answer.error = "no command '" + quote_word(words[0]) + "'; help lists them";
    return answer;
}

} // namespace

std::string answer_command(broker_t *broker, std::string_view line)
{
    Words        read   = split_words(line);
    const Answer answer = read.error.empty() ? answer_words(broker, std::move(read.words)) : Answer{"", read.error};
    return answer.error.empty() ? answer.text + "ok\n" : answer.text + "error: " + answer.error + '\n';
}

} // namespace tarn::broker
