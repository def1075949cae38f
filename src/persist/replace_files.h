// replace_files.h - files replaced so that a reader, or a start after a kill, finds the old text or the new one.
#ifndef TARN_PERSIST_REPLACE_FILES_H
#define TARN_PERSIST_REPLACE_FILES_H

#include "../base/limits.h"

#include <cstdio>
#include <span>

namespace tarn::persist {

// Long enough for every root, directory and id, so that a path is judged by its real length.
struct Path {
    char text[PERSIST_PATH_SIZE + 256];
    bool usable; // may reach the file system
};

struct NewFile {
    Path        path;
    const char *text; // null: there is to be no file

    FILE *stream   = nullptr; // of the text under its temporary name, until that is on the disk
    bool  written  = false;   // the whole text is on the disk, under its temporary name
    bool  replaced = false;
};

// All are written, then synced, then put in place: the waits for the disk fall together. Three attempts each; a line
// tells of a file that stays as it was. Not for two files of one path.
void replace_files(std::span<NewFile> files) noexcept;

// fopen() for what no peer has to open, too: a pipe in the place of a file counts as none.
FILE *open_stream(const char *path, const char *mode) noexcept;

} // namespace tarn::persist

#endif
