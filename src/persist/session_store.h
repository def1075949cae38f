// session_store.h - saved sessions for the packet handler: loading with the answer to "was there one?", and a record
// to load into that does not need 150 KB of stack.
#ifndef TARN_PERSIST_SESSION_STORE_H
#define TARN_PERSIST_SESSION_STORE_H

#include "persist.h"

namespace tarn::persist {

// persist_load, and in *files_opened how many of the client's three files were there. A saved session exists when at
// least one was.
int load_session(persist_session_t *record, int *files_opened) noexcept;

// The calling thread's own scratch record with this id (127 characters) and everything else empty; null when memory
// ran out. Valid until the thread's next call.
persist_session_t *scratch_session(const char *client_id) noexcept;

} // namespace tarn::persist

#endif
