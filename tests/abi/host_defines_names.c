/*
 * A host whose own functions are called like the library's, all of them. The library goes on calling its own: every
 * function here ends the test. The host itself reaches the library's through the loader.
 */
#include <arpa/inet.h>
#include <dlfcn.h>
#include <netinet/in.h>
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/socket.h>
#include <unistd.h>

void taken_over(const char *name);
void taken_over(const char *name)
{
    fprintf(stderr, "the host's %s was called instead of the library's\n", name);
    abort();
}

static void *the_librarys(const char *name)
{
    void *found = dlsym(RTLD_NEXT, name);
    if (!found) {
        fprintf(stderr, "%s\n", dlerror());
        abort();
    }
    return found;
}

/* Calls a function of the library whose result and parameters are of these types. */
#define CALL(result, name, types, ...) ((result(*) types)the_librarys(name))(__VA_ARGS__)

/* Connects, subscribes to "a", publishes to it and disconnects: the longest way through the library. */
static int talk(void)
{
    static const char conversation[] = "\x10\x0d\x00\x04MQTT\x04\x02\x00\x3c\x00\x01h" /* CONNECT */
                                       "\x82\x06\x00\x01\x00\x01\x61\x01"              /* SUBSCRIBE */
                                       "\x32\x06\x00\x01\x61\x00\x02!"                 /* PUBLISH */
                                       "\xc0\x00"                                      /* PINGREQ */
                                       "\xe0";                                         /* DISCONNECT, with the NUL */
    struct sockaddr_in address = {.sin_family = AF_INET, .sin_port = htons(1883)};
    address.sin_addr.s_addr    = htonl(INADDR_LOOPBACK);
    const int fd               = socket(AF_INET, SOCK_STREAM, 0);
    if (fd < 0 || connect(fd, (struct sockaddr *)&address, sizeof address) != 0)
        return -1;
    if (send(fd, conversation, sizeof conversation, 0) != (ssize_t)sizeof conversation)
        return -1;
    char    replies[256];
    ssize_t length, total = 0;
    while ((length = recv(fd, replies, sizeof replies, 0)) > 0)
        total += length;
    close(fd);
    return total > 0 ? 0 : -1;
}

int main(void)
{
    void *broker = CALL(void *, "tarn_sdk_mqtt_broker_create", (void));
    CALL(int32_t, "tarn_sdk_mqtt_broker_init", (void *), broker);
    CALL(int32_t, "tarn_sdk_mqtt_broker_set_log_level", (void *, uint32_t), broker, 0);
    if (CALL(int32_t, "tarn_sdk_mqtt_broker_start", (void *, int32_t, int32_t), broker, 1883, 100) != 0)
        return 1;
    const int talked = talk();
    CALL(int32_t, "tarn_sdk_mqtt_broker_publish",
         (void *, const char *, const void *, int32_t, uint32_t, uint8_t, uint32_t), broker, "a", "!", 1, 1, 1, 0);
    CALL(int32_t, "tarn_sdk_mqtt_broker_stop", (void *), broker);
    CALL(void, "tarn_sdk_mqtt_broker_deinit", (void *), broker);
    CALL(void, "tarn_sdk_mqtt_broker_destroy", (void *), broker);
    if (talked != 0) {
        fprintf(stderr, "the broker did not answer\n");
        return 1;
    }
    return 0;
}
