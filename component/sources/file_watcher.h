/*
 * Tells when a file has new content, however it got there: written in place, or put in its place by a
 * rename as editors do.  The directory is watched and not the file, since a rename leaves a watched file
 * behind.
 */
#ifndef PEGEIR_COMPONENT_FILE_WATCHER_H
#define PEGEIR_COMPONENT_FILE_WATCHER_H

#include <string>

namespace pegeir::component {

class FileWatcher {
public:
    explicit FileWatcher(const std::string &path);
    FileWatcher(const FileWatcher &) = delete;
    FileWatcher &operator=(const FileWatcher &) = delete;
    ~FileWatcher();

    /* Polls readable when OnReadable has something to say; -1 when the kernel gave no watcher, in which
     * case Retry goes by the clock alone. */
    [[nodiscard]] int Fd() const { return fd_; }

    /* Returns whether the file is to be read again.  Never blocks. */
    [[nodiscard]] bool OnReadable();

    /* Watches the directory if that was not possible before, because it is not there or was replaced.
     * Returns whether the file is to be read again. */
    [[nodiscard]] bool Retry();

private:
    std::string directory_;
    std::string name_;
    int fd_ = -1;
    int watch_ = -1;
};

} // namespace pegeir::component

#endif
