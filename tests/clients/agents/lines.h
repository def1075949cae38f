// lines.h - orders to a test's client, one a line on standard input: a word and fields like qos=1 with spaces between.
// Answers and events are lines of standard output; payloads are hexadecimal (agent.py says what there is).
#ifndef TARN_CLIENTS_LINES_H
#define TARN_CLIENTS_LINES_H

#include <stdarg.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

enum { kMostFields = 32, kMostFilters = 32 };

typedef struct {
    char  *text; // cut into pieces
    size_t room;
    char  *word;
    char  *fields[kMostFields];
    int    count;
} Order;

// 0 at the end of the input.
static inline int read_order(Order *order)
{
    if (getline(&order->text, &order->room, stdin) < 0)
        return 0;
    char *rest  = NULL;
    order->word = strtok_r(order->text, " \n", &rest);
    for (order->count = 0; order->count < kMostFields; ++order->count)
        if (!(order->fields[order->count] = strtok_r(NULL, " \n", &rest)))
            break;
    return order->word != NULL;
}

// NULL when it was not given.
static inline char *text_field(const Order *order, const char *name)
{
    const size_t length = strlen(name);
    for (int i = 0; i < order->count; ++i)
        if (!strncmp(order->fields[i], name, length) && order->fields[i][length] == '=')
            return order->fields[i] + length + 1;
    return NULL;
}

static inline int number_field(const Order *order, const char *name)
{
    const char *text = text_field(order, name);
    return text ? atoi(text) : 0;
}

typedef struct {
    unsigned char *bytes; // to be freed
    int            length;
} Bytes;

static inline Bytes bytes_field(const Order *order, const char *name)
{
    const char *text  = text_field(order, name);
    Bytes       bytes = {NULL, text ? (int)(strlen(text) / 2) : 0};
    bytes.bytes       = malloc(bytes.length + 1);
    for (int i = 0; i < bytes.length; ++i) {
        const char pair[] = {text[2 * i], text[2 * i + 1], 0};
        bytes.bytes[i]    = (unsigned char)strtoul(pair, NULL, 16);
    }
    return bytes;
}

// Cuts a list at its commas.
static inline int list_field(const Order *order, const char *name, char **items)
{
    int   count = 0;
    char *rest  = NULL;
    for (char *item = strtok_r(text_field(order, name), ",", &rest); item && count < kMostFilters;
         item       = strtok_r(NULL, ",", &rest))
        items[count++] = item;
    return count;
}

// One line of several threads is never torn: each is written by one call.
__attribute__((format(printf, 1, 2))) static inline void say(const char *format, ...)
{
    va_list arguments;
    va_start(arguments, format);
    char *line = NULL;
    if (vasprintf(&line, format, arguments) >= 0) {
        fputs(line, stdout);
        free(line);
    }
    va_end(arguments);
    fflush(stdout);
}

// To be freed.
static inline char *as_hex(const void *bytes, int length)
{
    char                *text = malloc(2 * (size_t)length + 1);
    const unsigned char *from = bytes;
    for (int i = 0; i < length; ++i) {
        text[2 * i]     = "0123456789abcdef"[from[i] >> 4];
        text[2 * i + 1] = "0123456789abcdef"[from[i] & 15];
    }
    text[2 * length] = 0;
    return text;
}

#endif
