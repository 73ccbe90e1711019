/*
 * The parts of the Linux runtime, from the bottom up: event loop, identity in the runtime directory,
 * messages, peers, timers, and the runtime that holds them.  Everything runs on one thread.
 *
 * Any callback of the consumer may close the runtime.  The objects outlive that, because the dispatch
 * that runs the callback keeps the runtime alive; who called the callback looks at Runtime::closed, or
 * finds its entry gone, and goes no further.
 */
#ifndef PEGEIR_PLATFORM_LINUX_LINUX_PLATFORM_H
#define PEGEIR_PLATFORM_LINUX_LINUX_PLATFORM_H

#include "packet.h"

#include <pegeir/linux.h>

#include <chrono>
#include <cstddef>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/types.h>
#include <utility>
#include <vector>

namespace pegeir::linux_platform {

/* ---- Descriptors and reports ----------------------------------------------------------------- */

/* Owns a file descriptor. */
class Fd {
public:
    Fd() = default;
    explicit Fd(int fd) : fd_(fd) {}
    Fd(Fd &&other) noexcept : fd_(std::exchange(other.fd_, -1)) {}
    Fd &operator=(Fd &&other) noexcept {
        std::swap(fd_, other.fd_);
        return *this;
    }
    Fd(const Fd &) = delete;
    Fd &operator=(const Fd &) = delete;
    ~Fd() { Reset(); }

    [[nodiscard]] int Get() const { return fd_; }
    [[nodiscard]] bool Valid() const { return fd_ >= 0; }
    void Reset();

private:
    int fd_ = -1;
};

/* Hands one line about something refused or lost to the function of PEGEIR_LinuxOnReport. */
void Report(const std::string &line);

/* Returns "what: the text of errno". */
std::string ErrnoText(const std::string &what);

/* ---- Event loop (loop.cpp) ------------------------------------------------------------------- */

class Loop {
public:
    using Handler = std::function<void()>;

    /* Returns false with errno. */
    [[nodiscard]] bool Open();

    /* Runs handler whenever events (EPOLLIN, EPOLLOUT) hold on fd, which stays the caller's and is
     * removed before it is closed.  Returns false with errno. */
    [[nodiscard]] bool Add(int fd, uint32_t events, Handler handler);

    /* Safe at any time, also from a handler that runs: a removed handler is not called again. */
    void Remove(int fd);
    void RemoveAll() { sources_.clear(); }

    /* Has this and every later dispatch answer with this errno. */
    void Fail(int error) { failed_ = error; }

    /* As PEGEIR_LinuxDispatch. */
    int Dispatch(int timeoutMs);

    [[nodiscard]] int PollFd() const { return epoll_.Get(); }

private:
    struct Source {
        uint32_t generation; /* tells a source from a later one with the same descriptor */
        Handler handler;
    };
    Fd epoll_;
    std::map<int, std::shared_ptr<Source>> sources_;
    uint32_t generation_ = 0;
    int failed_ = 0;
};

/* Returns a periodic timer descriptor, or an invalid one with errno.  first 0 means one period. */
Fd MakeTimer(std::chrono::milliseconds period, std::chrono::nanoseconds first = {});

/* Takes the expiries of a timer descriptor.  Returns how many there were. */
uint64_t ReadTimer(int fd);

/* ---- Identity (directory.cpp) ---------------------------------------------------------------- */

/* Makes the directory if it is not there, checks that it is ours alone and stores its resolved name.
 * Returns false with a text in error. */
[[nodiscard]] bool PrepareDirectory(const std::string &wanted, std::string &resolved, std::string &error);

/* When a process took an id: differs between two processes and between two runs of one. */
struct Presence {
    pid_t holder; /* 0 when the kernel does not tell */
    ino_t inode;
    std::string mark; /* what it wrote into its lock file: chosen anew for each run */
    bool operator==(const Presence &) const = default;
};

/* Returns who listens under id in directory, or before where that cannot be told now.  id must not be our
 * own: closing its lock file gives up the lock. */
std::optional<Presence> LookForPeer(const std::string &directory, uint32_t id,
                                    const std::optional<Presence> &before);

/*
 * The id of this process while it is taken.
 * Invariant: from Take to Release the lock file is locked and the socket is bound; a lock file with
 * content says that its holder listens.
 */
class Identity {
public:
    /* Returns false with a text in error, and then holds nothing. */
    [[nodiscard]] bool Take(const std::string &directory, uint32_t id, std::string &error);

    /* Gives the id up.  Nothing of it stays in the directory. */
    void Release();

    /* Whether both files are still there; somebody may have cleared the directory. */
    [[nodiscard]] bool Intact() const;

    [[nodiscard]] int Socket() const { return socket_.Get(); }

    /* Whether the last Take failed because another process has the id. */
    [[nodiscard]] bool InUse() const { return inUse_; }

private:
    [[nodiscard]] bool Lock(uint32_t id, std::string &error);
    [[nodiscard]] bool Bind(std::string &error);

    std::string lockPath_;
    std::string socketPath_;
    Fd lock_;
    Fd socket_;
    ino_t lockInode_ = 0;
    ino_t socketInode_ = 0;
    bool inUse_ = false;
    pid_t owner_ = 0; /* a forked child must not remove its parent's files */
};

/* ---- Messages (message.cpp) ------------------------------------------------------------------ */

/* What stands in front of the data area of each message. */
struct alignas(std::max_align_t) Envelope {
    uint32_t sender;
    uint32_t receiver;
    PacketHead head;
    uint32_t length; /* data bytes */
};

/* Returns the data area of a new message, or null. */
uint8_t *NewMessage(uint32_t sender, uint32_t receiver, size_t length);
void FreeMessage(void *message);

/* Returns the envelope of a message given by its data area. */
Envelope &EnvelopeOf(void *message);
const Envelope &EnvelopeOf(const void *message);

/* ---- Sockets (socket.cpp) -------------------------------------------------------------------- */

class Runtime;

/* Reads what arrived at the listening socket, a bounded number of datagrams, refuses what is not
 * proper, and hands the rest to the consumer. */
class Inbox {
public:
    explicit Inbox(Runtime &runtime) : runtime_(runtime), buffer_(kMaxPacketSize + 1) {}
    void Receive();

    /* Reports the refusals since the last report, unless that was only just now. */
    void ReportRefusals();

    /* Reports them in any case. */
    void ReportRest();

private:
    bool ReceiveOne();
    [[nodiscard]] bool IsOwner(uint32_t sender, pid_t pid);
    void Refuse(const std::string &text);

    Runtime &runtime_;
    std::vector<uint8_t> buffer_;
    std::map<uint32_t, pid_t> owners_; /* of ids that something came from */
    uint64_t refused_ = 0;             /* since the last report */
    std::string lastRefusal_;
    std::chrono::steady_clock::time_point nextReport_{};
};

/* Calls call, which is bind or connect, for the socket with this name; as call. */
int CallWithPath(int (*call)(int, const sockaddr *, socklen_t), int socket, const std::string &path);

/* Returns a socket bound to our send path for peer and connected to where peer listens, or an invalid
 * one with errno.  Its buffer is used up by messages to that peer only. */
Fd ConnectToPeer(const std::string &directory, uint32_t self, uint32_t peer);

/* ---- Peers (peers.cpp) ----------------------------------------------------------------------- */

/* What we keep about other processes: the socket to send through, who watches, who waits to send. */
class Peers {
public:
    explicit Peers(Runtime &runtime) : runtime_(runtime) {}

    /* Returns 0 or a PEGEIR_LINUX_SEND_ code.  The message stays the caller's. */
    uint32_t Send(uint32_t peer, const Envelope &envelope, void *data, size_t length);

    /* Return 0, or -1 with errno. */
    int Watch(uint32_t peer, PEGEIR_LinuxPeerFunc onPeer, void *context);
    int WhenWritable(uint32_t peer, PEGEIR_LinuxWritableFunc onWritable, void *context);

    /* Tells who watches that peer, or any, that it has gone and come, if it is there. */
    void StartOver(uint32_t id);
    void StartOverAll();

    /* Looks after every peer. */
    void LookAtAll();
    [[nodiscard]] bool Watching() const;
    void Clear() { peers_.clear(); }

private:
    struct Peer {
        Fd link;
        Fd waiting; /* a duplicate of link while onWritable waits */
        PEGEIR_LinuxPeerFunc onPeer = nullptr;
        void *context = nullptr;
        std::optional<Presence> presence; /* as reported last */
        Fd process;
    };
    [[nodiscard]] std::vector<uint32_t> Ids() const;
    void Look(uint32_t id);
    /* presence must not be the one kept of the peer, which a callback may change. */
    void Tell(uint32_t id, const std::optional<Presence> &presence);
    void WatchProcess(uint32_t id, Peer &peer);

    /* Makes sure that there is a link.  Returns false with errno. */
    [[nodiscard]] bool Connect(uint32_t peer);

    /* Removes fd from the loop and closes it. */
    void Forget(Fd &fd);

    Runtime &runtime_;
    std::map<uint32_t, Peer> peers_;
};

/* ---- Timers (timers.cpp) --------------------------------------------------------------------- */

/* Stops and forgets every timer; libraries and instances stay, so that they can be deleted later. */
void DeleteAllTimers();

/* ---- Runtime (runtime.cpp) ------------------------------------------------------------------- */

class Runtime {
public:
    explicit Runtime(const PEGEIR_LinuxConfig &given);
    [[nodiscard]] bool Open(const std::string &wanted, std::string &error);
    void Close();

    /* Hands a message to the consumer and releases it. */
    void Deliver(uint8_t *message);

    /* Looks after directory and peers at once, then in the pace that the watches need. */
    [[nodiscard]] bool Housekeep();

    PEGEIR_LinuxConfig config;
    std::string directory;
    Loop loop;
    Identity identity;
    Inbox inbox;
    Peers peers;
    bool closed = false;

private:
    [[nodiscard]] bool Listen();
    void LookAround();
    void Recover();

    std::string wanted_;
    Fd housekeeping_;
    bool lost_ = false; /* the id could not be taken again; reported */
};

/* Returns the open runtime or null. */
std::shared_ptr<Runtime> CurrentRuntime();

} // namespace pegeir::linux_platform

#endif
