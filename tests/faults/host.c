/*
 * host.c - a host that does what it is told, a word a line on standard input, and answers each with a line on standard
 * output when it is done:
 *
 *     up         create, init, callbacks, start              "up" or "failed"
 *     publish    at each QoS and retained, to the clients
 *     look       all lists, statistics, one client
 *     online     answers with the number of clients that are
 *     kick ID    disconnects a client
 *     again      stop and start
 *     down       stop, deinit, destroy
 *
 * With the argument "standard" the broker is in the standard profile. It goes on whatever a function of the library
 * returns. With the end of its input it takes the broker down and says what is left of its memory. The log is on
 * standard error.
 */
#include <tarn_sdk_mqtt_broker.h>

#include <stdio.h>
#include <string.h>
#include <sys/syscall.h>
#include <unistd.h>

void fail_nth_report(void) __attribute__((weak));

static int       answers; /* the standard output that was given to it */
static broker_t *broker;
static uint32_t  profile = TARN_PROFILE_NATIVE;
static char      text[65536];

static void on_event(broker_t *from, uint32_t kind, const char *what)
{
    (void)from, (void)kind, (void)what;
}

static bool on_auth(broker_t *from, const char *client_id, const char *username, const char *password)
{
    (void)from, (void)client_id, (void)username, (void)password;
    return true;
}

static bool on_acl(broker_t *from, const char *client_id, const char *topic, uint8_t action, mqtt_client_t *client)
{
    (void)from, (void)client_id, (void)topic, (void)action, (void)client;
    return true;
}

static void take_down(void)
{
    if (!broker)
        return;
    tarn_sdk_mqtt_broker_stop(broker);
    tarn_sdk_mqtt_broker_deinit(broker);
    tarn_sdk_mqtt_broker_destroy(broker);
    broker = NULL;
}

static const char *bring_up(void)
{
    broker = tarn_sdk_mqtt_broker_create();
    if (!broker)
        return "failed";
    const bool ready =
        tarn_sdk_mqtt_broker_set_profile(broker, profile) == TARN_OK && tarn_sdk_mqtt_broker_init(broker) == TARN_OK;
    tarn_sdk_mqtt_broker_register_event_callback(broker, on_event);
    tarn_sdk_mqtt_broker_register_auth_callback(broker, on_auth);
    tarn_sdk_mqtt_broker_register_acl_callback(broker, on_acl);
    if (ready && tarn_sdk_mqtt_broker_start(broker, 1883, 100) == TARN_OK)
        return "up";
    take_down();
    return "failed";
}

static void publish_all(void)
{
    for (int qos = 0; qos <= 2; ++qos)
        tarn_sdk_mqtt_broker_publish(broker, "kept/host", "hello", 5, qos, qos == 1, 0);
}

static void look_at_all(void)
{
    tarn_sdk_mqtt_broker_stats_t stats;
    tarn_sdk_mqtt_client_info_t  info;
    tarn_sdk_mqtt_broker_get_client_id_list(broker, text, sizeof text);
    tarn_sdk_mqtt_broker_get_retain_topic_list(broker, text, sizeof text);
    tarn_sdk_mqtt_broker_get_stats(broker, &stats);
    tarn_sdk_mqtt_broker_get_client_info(broker, "plain", &info);
}

static const char *obey(const char *word)
{
    if (strcmp(word, "up") == 0)
        return bring_up();
    if (!broker)
        return "failed";
    if (strcmp(word, "publish") == 0)
        publish_all();
    else if (strcmp(word, "look") == 0)
        look_at_all();
    else if (strcmp(word, "online") == 0) {
        snprintf(text, sizeof text, "%u", tarn_sdk_mqtt_broker_get_online_count(broker));
        return text;
    } else if (strncmp(word, "kick ", 5) == 0)
        tarn_sdk_mqtt_broker_kick_client(broker, word + 5);
    else if (strcmp(word, "again") == 0) {
        tarn_sdk_mqtt_broker_stop(broker);
        return tarn_sdk_mqtt_broker_start(broker, 1883, 100) == TARN_OK ? "up" : "failed";
    } else if (strcmp(word, "down") == 0)
        take_down();
    return "done";
}

/* Without stdio, whose calls would be counted with those of the library. */
static bool read_line(char *line, size_t size)
{
    size_t length = 0;
    while (length + 1 < size && read(STDIN_FILENO, line + length, 1) == 1) {
        if (line[length] == '\n') {
            line[length] = 0;
            return true;
        }
        ++length;
    }
    return false;
}

int main(int argc, char **argv)
{
    char line[100];
    if (argc > 1 && strcmp(argv[1], "standard") == 0)
        profile = TARN_PROFILE_STANDARD;
    answers = dup(STDOUT_FILENO);
    dup2(STDERR_FILENO, STDOUT_FILENO);
    while (read_line(line, sizeof line)) {
        const char *const answer = obey(line);
        syscall(SYS_write, answers, answer, strlen(answer));
        syscall(SYS_write, answers, "\n", 1);
    }
    take_down();
    if (fail_nth_report)
        fail_nth_report();
    return 0;
}
