/*
 * The runtime directory and the id of this process in it.
 *
 * The directory is what keeps other users out, so it must be one that nobody else can write, replace or
 * look into.  Inside it an id is taken by a write lock on its lock file, which the kernel releases
 * however the process ends; a socket whose lock is free is therefore left over and may be removed.  The
 * lock is a POSIX one because that tells who holds it.  It is lost as soon as this process closes any
 * descriptor of the lock file, so nothing here opens our own lock file a second time.
 */
#include "linux_platform.h"

#include <array>
#include <cerrno>
#include <cstdlib>
#include <fcntl.h>
#include <sys/random.h>
#include <sys/un.h>
#include <unistd.h>

namespace pegeir::linux_platform {
namespace {

/* The longest name made in the directory: "/", two ids, "." between them and ".sock". */
constexpr size_t kMaxFileName = 1 + 10 + 1 + 10 + 5;
/* Bytes of a lock file that count: its first line. */
constexpr size_t kMaxMark = 64;
constexpr size_t kMaxDirectory = sizeof(sockaddr_un::sun_path) - 1 - kMaxFileName;

struct flock WholeFile() {
    struct flock lock {};
    lock.l_type = F_WRLCK;
    lock.l_whence = SEEK_SET;
    return lock;
}

/* Returns the pid of who locks file, 0 when the kernel does not tell, or none. */
std::optional<pid_t> Holder(int file) {
    struct flock lock = WholeFile();
    if (fcntl(file, F_GETLK, &lock) != 0 || lock.l_type == F_UNLCK)
        return std::nullopt;
    return lock.l_pid > 0 ? lock.l_pid : 0;
}

bool NamesInode(const std::string &path, ino_t inode) {
    struct stat status {};
    return lstat(path.c_str(), &status) == 0 && status.st_ino == inode;
}

ino_t InodeOf(const std::string &path) {
    struct stat status {};
    return lstat(path.c_str(), &status) == 0 ? status.st_ino : 0;
}

/* Says what is wrong with an existing directory, or nothing. */
std::string DirectoryFault(const std::string &path) {
    struct stat status {};
    if (lstat(path.c_str(), &status) != 0)
        return ErrnoText("cannot look at it");
    if (S_ISLNK(status.st_mode))
        return "it is a symbolic link; name the directory itself";
    if (!S_ISDIR(status.st_mode))
        return "it is not a directory; remove it or choose another";
    if (status.st_uid != geteuid())
        return "it belongs to user " + std::to_string(status.st_uid) + ", not to user " +
               std::to_string(geteuid()) + "; choose another";
    if ((status.st_mode & 077) != 0)
        return "other users can get into it; choose another directory, or if it is for pegeir alone run: "
               "chmod 700 " +
               path;
    return "";
}

} // namespace

bool PrepareDirectory(const std::string &wanted, std::string &resolved, std::string &error) {
    std::string path = wanted;
    while (path.size() > 1 && (path.back() == '/' || path.ends_with("/.")))
        path.pop_back(); /* these would look through a symbolic link */
    error = "runtime directory " + path + ": ";
    const bool made = mkdir(path.c_str(), 0700) == 0;
    if (!made && errno != EEXIST) {
        error += ErrnoText("cannot make it") +
                 (errno == ENOENT ? "; make the directory above it first" : "; choose another");
        return false;
    }
    const Fd directory(open(path.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
    struct stat status {};
    /* Whatever the umask took away is given back to what was opened, and to nothing that has its name now. */
    if (made && directory.Valid() && fstat(directory.Get(), &status) == 0 && status.st_uid == geteuid())
        (void)!fchmod(directory.Get(), 0700);
    if (const std::string fault = DirectoryFault(path); !fault.empty()) {
        error += fault;
        return false;
    }
    /* Peers compare the names that datagrams come from, so all of them must spell the directory alike. */
    char *const real = realpath(path.c_str(), nullptr);
    if (real == nullptr) {
        error += ErrnoText("cannot resolve it");
        return false;
    }
    resolved = real;
    std::free(real);
    if (resolved.size() > kMaxDirectory) {
        error += "its name has " + std::to_string(resolved.size()) + " bytes, at most " +
                 std::to_string(kMaxDirectory) + " are possible; choose a shorter one";
        return false;
    }
    error.clear();
    return true;
}

std::optional<Presence> LookForPeer(const std::string &directory, uint32_t id,
                                    const std::optional<Presence> &before) {
    const Fd file(open(LockPath(directory, id).c_str(), O_RDONLY | O_NOFOLLOW | O_CLOEXEC));
    if (!file.Valid() && errno != ENOENT && errno != ENOTDIR && errno != ELOOP)
        return before; /* we cannot look, for want of a descriptor perhaps; that says nothing of the peer */
    struct stat status {};
    if (!file.Valid() || fstat(file.Get(), &status) != 0 || status.st_size == 0)
        return std::nullopt;
    const std::optional<pid_t> holder = Holder(file.Get());
    std::array<char, kMaxMark> mark{};
    const ssize_t length = pread(file.Get(), mark.data(), mark.size(), 0);
    if (!holder || length <= 0)
        return std::nullopt;
    return Presence{*holder, status.st_ino, std::string(mark.data(), static_cast<size_t>(length))};
}

bool Identity::Take(const std::string &directory, uint32_t id, std::string &error) {
    lockPath_ = LockPath(directory, id);
    socketPath_ = ListenPath(directory, id);
    owner_ = getpid();
    inUse_ = false;
    if (Lock(id, error) && Bind(error))
        return true;
    Release();
    return false;
}

bool Identity::Lock(uint32_t id, std::string &error) {
    /* Whoever gives the id up removes the file, maybe between our open and our lock; hence again. */
    for (;;) {
        lock_ = Fd(open(lockPath_.c_str(), O_RDWR | O_CREAT | O_NOFOLLOW | O_CLOEXEC, 0600));
        if (!lock_.Valid()) {
            error = ErrnoText("cannot make " + lockPath_) + "; check that the directory can be written";
            return false;
        }
        struct flock lock = WholeFile();
        if (fcntl(lock_.Get(), F_SETLK, &lock) != 0) {
            if (errno != EACCES && errno != EAGAIN) {
                error = ErrnoText("cannot lock " + lockPath_) + "; choose a directory on a local disk";
                return false;
            }
            const std::optional<pid_t> holder = Holder(lock_.Get());
            lock_ = Fd();
            if (!holder)
                continue;
            inUse_ = true;
            error = "id " + std::to_string(id) + " is in use by process " + std::to_string(*holder) + " (" +
                    lockPath_ + "); end that process or choose another id";
            return false;
        }
        struct stat status {};
        fstat(lock_.Get(), &status);
        lockInode_ = status.st_ino;
        if (NamesInode(lockPath_, lockInode_))
            return true;
    }
}

bool Identity::Bind(std::string &error) {
    const int on = 1;
    unlink(socketPath_.c_str());
    socket_ = Fd(socket(AF_UNIX, SOCK_DGRAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0));
    if (!socket_.Valid() || setsockopt(socket_.Get(), SOL_SOCKET, SO_PASSCRED, &on, sizeof on) != 0 ||
        CallWithPath(bind, socket_.Get(), socketPath_) != 0) {
        error = ErrnoText("cannot listen at " + socketPath_);
        return false;
    }
    socketInode_ = InodeOf(socketPath_);
    uint64_t run = 0;
    (void)!getrandom(&run, sizeof run, GRND_NONBLOCK);
    std::string text = std::to_string(owner_) + " " + std::to_string(run) + " ";
    text.resize(kMaxMark - 1, '.'); /* whatever else is written into the file comes behind what counts */
    text += '\n';
    if (ftruncate(lock_.Get(), 0) != 0 ||
        pwrite(lock_.Get(), text.data(), text.size(), 0) != static_cast<ssize_t>(text.size())) {
        error = ErrnoText("cannot write " + lockPath_);
        return false;
    }
    return true;
}

void Identity::Release() {
    if (lock_.Valid() && owner_ == getpid()) {
        if (NamesInode(socketPath_, socketInode_))
            unlink(socketPath_.c_str());
        if (NamesInode(lockPath_, lockInode_))
            unlink(lockPath_.c_str());
    }
    socket_ = Fd();
    lock_ = Fd();
}

bool Identity::Intact() const {
    return socket_.Valid() && NamesInode(lockPath_, lockInode_) && NamesInode(socketPath_, socketInode_);
}

} // namespace pegeir::linux_platform
