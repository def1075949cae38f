// retain_file.h - the retained store's file, for the saver thread and the start and stop of the module.
#ifndef TARN_PERSIST_RETAIN_FILE_H
#define TARN_PERSIST_RETAIN_FILE_H

#include "saver.h"

namespace tarn::persist {

// Saves the store if that was asked for; false if not. The lock is dropped meanwhile.
bool save_store_if_asked() noexcept REQUIRES(g_save_mutex);
// How often it was asked for so far, and whether the disk has what the store was then.
uint64_t store_changes() noexcept REQUIRES(g_save_mutex);
bool     is_store_saved_up_to(uint64_t change) noexcept REQUIRES(g_save_mutex);

} // namespace tarn::persist

#endif
