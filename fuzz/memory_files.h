// memory_files.h - a data directory in memory, so that an input costs no system call.
//
// The linker leads the library's fopen, stat, rename, unlink and fsync here. Files below kRoot are in memory, without
// directories between them; all others are the machine's. For one thread.
#ifndef TARN_FUZZ_MEMORY_FILES_H
#define TARN_FUZZ_MEMORY_FILES_H

#include <cstddef>
#include <cstdint>
#include <string_view>

namespace tarn::fuzz {

inline constexpr std::string_view kRoot = "/memory/";

// Without persist_init, whose loading is no part of an input.
void enter_data_directory();

// These take names below the root.
void   write_file(std::string_view name, const uint8_t *data, size_t size);
size_t size_of(std::string_view name); // 0 when there is none

// None may be open.
void remove_files();

} // namespace tarn::fuzz

#endif
