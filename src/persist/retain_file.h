// retain_file.h - the retained store's file, for the saver thread and the start and stop of the module.
#ifndef TARN_PERSIST_RETAIN_FILE_H
#define TARN_PERSIST_RETAIN_FILE_H

#include "saver.h"

namespace tarn::persist {

// Saves the store if that was asked for; false if not. The lock is dropped meanwhile.
bool save_store_if_asked() noexcept REQUIRES(g_save_mutex);
// A thread is at it.
bool is_store_written() noexcept REQUIRES(g_save_mutex);

} // namespace tarn::persist

#endif
