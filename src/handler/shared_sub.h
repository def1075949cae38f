/*
 * shared_sub.h - which member of a "$share/" group receives a message [MQTT 5.0 4.8.2].
 *
 * The module owns the round robin that all groups share. Every route of a message makes its list of matches (sub.h) and
 * asks here whom to pass over.
 *
 *   threads   any, at once
 *   locks     none taken, any may be held
 *   memory    what is passed in is only read during the call
 *   log       nothing
 */
#ifndef TARN_HANDLER_SHARED_SUB_H
#define TARN_HANDLER_SHARED_SUB_H

#include <stdbool.h>
#include "../sub/sub_types.h"

TARN_API_BEGIN

/* Turns taken so far, by all groups together; wraps. Kept for the life of the process. Any thread. */
extern TARN_SHARED(int32_t) g_rr_counter;

/*
 * Chooses one member of each shared group in a list of matches. Groups take their turns, one step of the counter each,
 * in the order in which the list first names them. Members of a group whose name begins with another's belong to that
 * one too. A group with a name above 255 characters has no turn of its own, and entries without a group ("$share/g" is
 * none) are never chosen.
 *
 *   matches   `count` entries; null does nothing
 *   count     0 or less does nothing
 *   selected  `count` bytes, zeroed by the caller; those of the chosen become 1. Null does nothing. When memory runs
 *             out all of them stay 0.
 */
void shared_sub_mark_selected(const sub_entry_t *matches, int count, uint8_t *selected);

/*
 * Tells whether a filter begins with "$share/"; false for null.
 */
bool shared_is_shared_subscription(const char *filter);

/*
 * Chooses by a hash of a text, so that the same text always meets the same of equally many candidates. The broker
 * itself does not use it.
 *
 *   key         bytes up to a NUL; null chooses nobody
 *   candidates  `count` entries; null chooses nobody
 *   count       below 1 chooses nobody
 *   returns     one of the candidates, inside the caller's array; null for nobody
 */
const sub_entry_t *shared_select_client(const char *key, const sub_entry_t *candidates, int count);

TARN_API_END

#endif
