// journal_support.h - what the tests of the journal share: a disk that fails on demand, directories copied at a moment,
// records as texts.
#ifndef TARN_TESTS_JOURNAL_SUPPORT_H
#define TARN_TESTS_JOURNAL_SUPPORT_H

#include "standard/journal/journal.h"

#include <cerrno>
#include <fcntl.h>
#include <filesystem>
#include <fstream>
#include <functional>
#include <iterator>
#include <map>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>
#include <sys/stat.h>
#include <unistd.h>
#include <vector>

namespace tarn::test {

namespace fs = std::filesystem;

using Files = std::map<std::string, std::string>; // name and content

inline std::string content_of(const fs::path &path)
{
    std::ifstream file(path, std::ios::binary);
    return {std::istreambuf_iterator<char>(file), {}};
}

inline void write_file(const fs::path &path, std::string_view content)
{
    std::ofstream(path, std::ios::binary) << content;
}

inline Files files_in(const fs::path &directory)
{
    Files files;
    for (const auto &entry : fs::directory_iterator(directory))
        if (entry.is_regular_file())
            files[entry.path().filename()] = content_of(entry.path());
    return files;
}

inline std::vector<std::string> names_in(const fs::path &directory)
{
    std::vector<std::string> names;
    for (const auto &[name, content] : files_in(directory))
        names.push_back(name);
    return names;
}

inline void write_files(const fs::path &directory, const Files &files)
{
    fs::remove_all(directory);
    fs::create_directories(directory);
    for (const auto &[name, content] : files)
        write_file(directory / name, content);
}

inline std::span<const uint8_t> bytes_of(std::string_view text)
{
    return {reinterpret_cast<const uint8_t *>(text.data()), text.size()};
}

// Holds the threads that come to it until it is opened.
class Gate {
public:
    void pass()
    {
        ++waiting_;
        closed_.wait(true);
    }
    void open()
    {
        closed_ = false;
        closed_.notify_all();
    }
    int waiting() const { return waiting_; }

private:
    std::atomic<bool> closed_{true};
    std::atomic<int>  waiting_{0};
};

enum class DiskCall { Open, Read, Write, Sync, Truncate, Rename, Remove, SyncDirectory };

// The system's disk, but each call is shown to the test first, which says what becomes of it. It also knows what a loss
// of power would leave: contents as they were synced last, under the names that a synced directory had.
class TestDisk final : public standard::Disk {
public:
    // The errno value to fail with, or 0. Called on any thread, one at a time, and not while another is put in.
    class Before {
    public:
        template <class Function> Before &operator=(Function function)
        {
            const std::lock_guard lock(mutex_);
            function_ = std::move(function);
            return *this;
        }

    private:
        friend TestDisk;
        std::mutex                   mutex_;
        std::function<int(DiskCall)> function_;
    } before;
    size_t most_at_once   = SIZE_MAX; // bytes that one write takes
    bool   loses_unsynced = false;    // a sync that fails spoils what was written since the last

    // The next call of this kind waits at the gate.
    Gate gate;
    void hold_next(DiskCall call)
    {
        const std::lock_guard lock(before.mutex_);
        held_ = call;
    }

    Files after_power_loss()
    {
        const std::lock_guard lock(mutex_);
        Files                 files;
        for (const auto &[name, id] : durable_names_)
            files[name] = durable_[id];
        return files;
    }

    Fd open(int directory, const char *name, int flags) noexcept override
    {
        if (fails(DiskCall::Open))
            return {};
        Fd file(openat(directory, name, flags | O_CLOEXEC, 0666));
        if (file && (flags & O_CREAT)) {
            const std::lock_guard lock(mutex_);
            ids_[inode_of(file.get())] = ++last_id_;
        }
        return file;
    }
    ssize_t read(int file, std::span<uint8_t> to, uint64_t offset) noexcept override
    {
        return fails(DiskCall::Read)
                   ? -1
                   : pread(file, to.data(), std::min(to.size(), most_at_once), static_cast<off_t>(offset));
    }
    ssize_t write(int file, std::span<const uint8_t> bytes, uint64_t offset) noexcept override
    {
        return fails(DiskCall::Write)
                   ? -1
                   : pwrite(file, bytes.data(), std::min(bytes.size(), most_at_once), static_cast<off_t>(offset));
    }
    bool sync(int file) noexcept override
    {
        if (fails(DiskCall::Sync)) {
            if (loses_unsynced)
                spoil_unsynced(file);
            return false;
        }
        const std::lock_guard lock(mutex_);
        durable_[ids_[inode_of(file)]] = read_all(file);
        return true; // the real one only takes time
    }
    bool truncate(int file, uint64_t size) noexcept override
    {
        return !fails(DiskCall::Truncate) && ftruncate(file, static_cast<off_t>(size)) == 0;
    }
    bool rename(int directory, const char *from, const char *to) noexcept override
    {
        return !fails(DiskCall::Rename) && renameat(directory, from, directory, to) == 0;
    }
    bool remove(int directory, const char *name) noexcept override
    {
        if (fails(DiskCall::Remove))
            return false;
        const std::lock_guard lock(mutex_);
        durable_names_.erase(name); // unlike a new name, this may be durable at once
        return unlinkat(directory, name, 0) == 0;
    }
    bool sync_directory(int directory) noexcept override
    {
        if (fails(DiskCall::SyncDirectory))
            return false;
        const std::lock_guard lock(mutex_);
        durable_names_.clear();
        for (const auto &entry : fs::directory_iterator("/proc/self/fd/" + std::to_string(directory)))
            if (struct stat status; entry.is_regular_file() && stat(entry.path().c_str(), &status) == 0)
                durable_names_[entry.path().filename()] = ids_[status.st_ino];
        return true;
    }

private:
    bool fails(DiskCall call)
    {
        const std::lock_guard lock(before.mutex_);
        if (held_ == call) {
            held_.reset();
            gate.pass();
        }
        const int error = before.function_ ? before.function_(call) : 0;
        errno           = error;
        return error != 0;
    }
    static ino_t inode_of(int file)
    {
        struct stat status = {};
        fstat(file, &status);
        return status.st_ino;
    }
    static std::string read_all(int file)
    {
        struct stat status = {};
        fstat(file, &status);
        std::string content(static_cast<size_t>(status.st_size), '\0');
        return pread(file, content.data(), content.size(), 0) >= 0 ? content : std::string();
    }
    void spoil_unsynced(int file)
    {
        const std::lock_guard lock(mutex_);
        const size_t          synced = durable_[ids_[inode_of(file)]].size();
        const std::string     now    = read_all(file);
        const std::string     spoilt(now.size() - std::min(synced, now.size()), '\0');
        if (pwrite(file, spoilt.data(), spoilt.size(), static_cast<off_t>(synced)) < 0)
            abort();
    }

    std::optional<DiskCall>    held_;
    std::mutex                 mutex_; // what follows
    std::map<ino_t, int>       ids_;   // of the files, as inodes are used again
    int                        last_id_ = 0;
    std::map<int, std::string> durable_;
    std::map<std::string, int> durable_names_;
};

// Keeps what is replayed, each record as "<type>:<bytes>".
struct Replayed final : standard::JournalVisitor {
    std::vector<std::string> records;
    size_t                   most = SIZE_MAX; // then it refuses

    bool record(uint8_t type, std::span<const uint8_t> bytes) noexcept override
    {
        if (records.size() == most)
            return false;
        records.push_back(std::to_string(type) + ":" + std::string(bytes.begin(), bytes.end()));
        return true;
    }
};

// Counts how often it is told.
struct Waiter final : persist::SaveWaiter {
    std::atomic<int> told{0};

    Waiter()
    {
        saved = [](persist::SaveWaiter &waiter) noexcept { ++static_cast<Waiter &>(waiter).told; };
    }
    bool none_is_left() const { return unsaved == 1; } // but its own
};

} // namespace tarn::test

#endif
