/* inotify on the directory of one file. */
#include "sources/file_watcher.h"

#include <array>
#include <cstddef>
#include <cstring>
#include <filesystem>
#include <string_view>
#include <sys/inotify.h>
#include <unistd.h>

namespace pegeir::component {

namespace {

/* A file is read once its writer has closed it.  Being created says something of a symbolic link only,
 * which is complete from the start. */
constexpr uint32_t kFileEvents = IN_CLOSE_WRITE | IN_MOVED_TO | IN_CREATE | IN_DELETE | IN_MOVED_FROM;
constexpr uint32_t kDirectoryEvents = IN_DELETE_SELF | IN_MOVE_SELF;

} // namespace

FileWatcher::FileWatcher(const std::string &path) : fd_(inotify_init1(IN_NONBLOCK | IN_CLOEXEC)) {
    const std::filesystem::path file(path);
    directory_ = file.has_parent_path() ? file.parent_path().string() : ".";
    name_ = file.filename().string();
    (void)Retry();
}

FileWatcher::~FileWatcher() {
    if (fd_ >= 0) {
        close(fd_);
    }
}

bool FileWatcher::OnReadable() {
    std::array<char, 4096> buffer;
    bool changed = false;
    for (;;) {
        const ssize_t got = read(fd_, buffer.data(), buffer.size());
        if (got <= 0) {
            return changed;
        }
        const std::string_view events(buffer.data(), static_cast<size_t>(got));
        for (size_t offset = 0; offset + sizeof(inotify_event) <= events.size();) {
            inotify_event event;
            std::memcpy(&event, events.data() + offset, sizeof(event));
            const std::string_view padded = events.substr(offset + sizeof(event), event.len);
            const std::string_view name = padded.substr(0, padded.find('\0'));
            offset += sizeof(event) + event.len;
            if ((event.mask & IN_Q_OVERFLOW) != 0) {
                changed = true;
            } else if (event.wd != watch_) {
                continue; /* of a directory that has been replaced */
            } else if ((event.mask & (kDirectoryEvents | IN_IGNORED)) != 0) {
                inotify_rm_watch(fd_, watch_);
                watch_ = -1;
                changed = true;
            } else if (name == name_) {
                const std::filesystem::path file = std::filesystem::path(directory_) / name_;
                std::error_code ignored;
                changed = changed || (event.mask & IN_CREATE) == 0 ||
                          std::filesystem::is_symlink(std::filesystem::symlink_status(file, ignored));
            }
        }
    }
}

bool FileWatcher::Retry() {
    if (fd_ < 0) {
        return true;
    }
    if (watch_ >= 0) {
        return false;
    }
    watch_ = inotify_add_watch(fd_, directory_.c_str(), kFileEvents | kDirectoryEvents | IN_ONLYDIR);
    return watch_ >= 0;
}

} // namespace pegeir::component
