/*
 * Other processes: sending to them, waiting until they can take more, knowing whether they are there.
 *
 * Whether a peer is there is read from its lock file.  Nothing notifies of a lock, so the housekeeping
 * looks at it several times a second; the end of a process is noticed at once through its process
 * descriptor.  Looking at names anew each time also works when the directory is removed and made again.
 */
#include "capture.h"
#include "linux_platform.h"

#include <cerrno>
#include <fcntl.h>
#include <sys/epoll.h>
#include <sys/socket.h>
#include <sys/syscall.h>
#include <unistd.h>

namespace pegeir::linux_platform {

uint32_t Peers::Send(uint32_t peer, const Envelope &envelope, void *data, size_t length) {
    auto head = EncodePacketHead(envelope.head);
    std::array<iovec, 2> parts{{{head.data(), head.size()}, {data, length}}};
    msghdr message{};
    message.msg_iov = parts.data();
    message.msg_iovlen = parts.size();
    /* A link to a peer that has ended fails once; its successor listens under the same name. */
    for (int attempt = 0; attempt < 2; attempt++) {
        if (!Connect(peer))
            return errno == ENOENT || errno == ECONNREFUSED ? PEGEIR_LINUX_SEND_NO_PEER
                                                            : PEGEIR_LINUX_SEND_FAILED;
        Fd &link = peers_[peer].link;
        if (sendmsg(link.Get(), &message, MSG_DONTWAIT | MSG_NOSIGNAL) >= 0)
            return 0;
        if (errno == EAGAIN)
            return PEGEIR_LINUX_SEND_FULL;
        if (errno == EMSGSIZE)
            return PEGEIR_LINUX_SEND_TOO_LONG;
        if (errno != ECONNREFUSED && errno != ENOTCONN)
            return PEGEIR_LINUX_SEND_FAILED;
        link.Reset();
    }
    return PEGEIR_LINUX_SEND_NO_PEER;
}

bool Peers::Connect(uint32_t peer) {
    const auto found = peers_.find(peer);
    if (found != peers_.end() && found->second.link.Valid())
        return true;
    Fd link = ConnectToPeer(runtime_.directory, runtime_.config.pid, peer);
    if (!link.Valid())
        return false;
    peers_[peer].link = std::move(link);
    return true;
}

int Peers::WhenWritable(uint32_t peer, PEGEIR_LinuxWritableFunc onWritable, void *context) {
    if (!Connect(peer))
        return -1;
    Peer &entry = peers_[peer];
    Forget(entry.waiting);
    entry.waiting = Fd(fcntl(entry.link.Get(), F_DUPFD_CLOEXEC, 0));
    const auto call = [this, peer, onWritable, context] {
        Forget(peers_[peer].waiting);
        onWritable(context, peer);
    };
    if (entry.waiting.Valid() && runtime_.loop.Add(entry.waiting.Get(), EPOLLOUT, call))
        return 0;
    entry.waiting.Reset();
    return -1;
}

int Peers::Watch(uint32_t peer, PEGEIR_LinuxPeerFunc onPeer, void *context) {
    Peer &entry = peers_[peer];
    entry.onPeer = onPeer;
    entry.context = context;
    entry.presence.reset();
    Forget(entry.process);
    return runtime_.Housekeep() ? 0 : -1;
}

bool Peers::Watching() const {
    for (const auto &[id, peer] : peers_)
        if (peer.onPeer != nullptr)
            return true;
    return false;
}

/* A callback may change peers_, so whoever calls one goes by these. */
std::vector<uint32_t> Peers::Ids() const {
    std::vector<uint32_t> ids;
    for (const auto &[id, peer] : peers_)
        ids.push_back(id);
    return ids;
}

void Peers::LookAtAll() {
    for (const uint32_t id : Ids())
        Look(id);
}

void Peers::Look(uint32_t id) {
    const auto found = peers_.find(id);
    if (found == peers_.end() || runtime_.closed)
        return;
    Peer &peer = found->second;
    const auto presence = id == runtime_.config.pid ? Presence{getpid(), 0, ""}
                                                    : LookForPeer(runtime_.directory, id, peer.presence);
    if (!presence)
        peer.link.Reset();
    if (peer.onPeer == nullptr) {
        if (!peer.link.Valid() && !peer.waiting.Valid())
            peers_.erase(found);
        return;
    }
    if (presence != peer.presence)
        Tell(id, presence);
}

void Peers::Tell(uint32_t id, const std::optional<Presence> &presence) {
    Peer &peer = peers_[id];
    const auto onPeer = peer.onPeer;
    void *const context = peer.context;
    const bool was = peer.presence.has_value();
    Forget(peer.process);
    if (was)
        peer.link.Reset();
    peer.presence = presence;
    if (presence)
        WatchProcess(id, peer);
    const auto tell = [&](bool available) {
        if (Capturing())
            CapturePeer(id, available);
        onPeer(context, id, available ? 1 : 0);
    };
    if (was)
        tell(false);
    /* That call may have closed the runtime or watched anew. */
    const auto found = peers_.find(id);
    if (presence && found != peers_.end() && found->second.presence == presence)
        tell(true);
}

void Peers::StartOver(uint32_t id) {
    const auto found = peers_.find(id);
    if (found == peers_.end() || found->second.onPeer == nullptr)
        return;
    if (const std::optional<Presence> presence = found->second.presence)
        Tell(id, presence);
}

void Peers::StartOverAll() {
    for (const uint32_t id : Ids())
        StartOver(id);
}

/* Without a descriptor of the process, for whatever reason, the housekeeping notices its end. */
void Peers::WatchProcess(uint32_t id, Peer &peer) {
    if (peer.presence->holder <= 0)
        return;
    peer.process = Fd(static_cast<int>(syscall(SYS_pidfd_open, peer.presence->holder, 0)));
    const auto ended = [this, id] {
        Forget(peers_[id].process);
        Look(id);
    };
    if (peer.process.Valid() && !runtime_.loop.Add(peer.process.Get(), EPOLLIN, ended))
        peer.process.Reset();
}

void Peers::Forget(Fd &fd) {
    runtime_.loop.Remove(fd.Get());
    fd.Reset();
}

} // namespace pegeir::linux_platform
