/*
 * shared_sub.h - which member of a "$share/" group receives a message.
 */
#ifndef TARN_HANDLER_SHARED_SUB_H
#define TARN_HANDLER_SHARED_SUB_H

#include <stdbool.h>
#include "../sub/sub_types.h"

TARN_API_BEGIN

extern int32_t g_rr_counter; /* round robin of all shared groups, kept for the life of the process */

void               shared_sub_mark_selected(const sub_entry_t *matches, int count, uint8_t *selected);
bool               shared_is_shared_subscription(const char *filter);
const sub_entry_t *shared_select_client(const char *key, const sub_entry_t *candidates, int count);

TARN_API_END

#endif
