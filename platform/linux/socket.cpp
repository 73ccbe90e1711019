/*
 * Receiving and connecting.
 *
 * A process listens on one socket and sends through one socket per peer.  That way messages which a
 * stopped peer does not read use up the send buffer towards that peer alone, and the kernel tells for
 * each peer by itself when it can take more.  A sending socket is bound to a name of its own, which
 * tells the receiver who sent; the name is removed from the directory at once, and the kernel goes on
 * reporting it.
 */
#include "linux_platform.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

namespace pegeir::linux_platform {
namespace {

constexpr int kBatch = 64;
constexpr std::chrono::seconds kReportPause{5};

struct Origin {
    std::string name; /* of the sender's socket, empty when it has none */
    pid_t pid = 0;
    uid_t uid = static_cast<uid_t>(-1);
};

Origin OriginOf(msghdr &message, const sockaddr_un &address) {
    Origin origin;
    const size_t begin = offsetof(sockaddr_un, sun_path);
    if (message.msg_namelen > begin)
        origin.name.assign(address.sun_path, strnlen(address.sun_path, message.msg_namelen - begin));
    for (cmsghdr *item = CMSG_FIRSTHDR(&message); item != nullptr; item = CMSG_NXTHDR(&message, item)) {
        if (item->cmsg_level != SOL_SOCKET || item->cmsg_type != SCM_CREDENTIALS)
            continue;
        ucred credentials{};
        std::memcpy(&credentials, CMSG_DATA(item), sizeof credentials);
        origin.pid = credentials.pid;
        origin.uid = credentials.uid;
    }
    return origin;
}

std::string Describe(const Origin &origin) {
    std::string name = origin.name.empty() ? "a socket without a name" : origin.name;
    std::replace_if(
        name.begin(), name.end(), [](char c) { return c < ' ' || c > '~'; }, '?');
    return name + ", process " + std::to_string(origin.pid) + ", user " + std::to_string(origin.uid);
}

} // namespace

int CallWithPath(int (*call)(int, const sockaddr *, socklen_t), int socket, const std::string &path) {
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    path.copy(address.sun_path, sizeof address.sun_path - 1);
    return call(socket, reinterpret_cast<const sockaddr *>(&address), sizeof address);
}

void Inbox::Receive() {
    for (int i = 0; i < kBatch && ReceiveOne(); i++) {
    }
}

bool Inbox::ReceiveOne() {
    sockaddr_un address{};
    iovec bytes{buffer_.data(), buffer_.size()};
    /* Room for the credentials and nothing else, so that no descriptor can be slipped in. */
    alignas(cmsghdr) std::array<uint8_t, CMSG_SPACE(sizeof(ucred))> control{};
    msghdr message{};
    message.msg_name = &address;
    message.msg_namelen = sizeof address;
    message.msg_iov = &bytes;
    message.msg_iovlen = 1;
    message.msg_control = control.data();
    message.msg_controllen = control.size();
    const ssize_t got = recvmsg(runtime_.identity.Socket(), &message, MSG_DONTWAIT | MSG_CMSG_CLOEXEC);
    if (got < 0)
        return false;

    const Origin origin = OriginOf(message, address);
    const std::optional<uint32_t> sender = SenderOf(origin.name, runtime_.directory, runtime_.config.pid);
    Packet packet{};
    const char *fault = nullptr;
    if (origin.uid != geteuid())
        fault = "it comes from another user";
    else if ((message.msg_flags & MSG_CTRUNC) != 0)
        fault = "it carries file descriptors";
    else if (!sender)
        fault = "it comes from no socket of a pegeir process";
    else if (!IsOwner(*sender, origin.pid))
        fault = "it comes in the name of an id that another process has";
    else
        fault = DecodePacket(std::span(buffer_).first(static_cast<size_t>(got)), packet);
    if (fault == nullptr && packet.head.receiverIid == kStartOverIid) {
        runtime_.peers.StartOver(*sender);
        return true;
    }
    uint8_t *const data =
        fault == nullptr ? NewMessage(*sender, runtime_.config.pid, packet.data.size()) : nullptr;
    if (data == nullptr) {
        Refuse((fault != nullptr ? fault : "memory is short") + (" (" + Describe(origin) + ")"));
        return true;
    }
    EnvelopeOf(data).head = packet.head;
    std::copy(packet.data.begin(), packet.data.end(), data);
    runtime_.Deliver(data); /* once that has closed the runtime there is no socket to read from */
    return true;
}

/*
 * A name can be bound by any process of ours, an id is held by one.  Who had it when it was last looked at is
 * believed; nobody having it is no reason to refuse, because its process may have ended since.
 */
bool Inbox::IsOwner(uint32_t sender, pid_t pid) {
    if (sender == runtime_.config.pid)
        return pid == getpid();
    const auto known = owners_.find(sender);
    if (known != owners_.end() && known->second == pid)
        return true;
    const auto presence = LookForPeer(runtime_.directory, sender, std::nullopt);
    const bool isTold = presence && presence->holder > 0 && pid > 0;
    if (isTold && presence->holder == pid)
        owners_[sender] = pid;
    return !isTold || presence->holder == pid;
}

void Inbox::Refuse(const std::string &text) {
    refused_++;
    lastRefusal_ = text;
    ReportRefusals();
}

void Inbox::ReportRefusals() {
    const auto now = std::chrono::steady_clock::now();
    if (refused_ == 0 || now < nextReport_)
        return;
    nextReport_ = now + kReportPause;
    ReportRest();
}

void Inbox::ReportRest() {
    if (refused_ == 0)
        return;
    const std::string count =
        refused_ == 1 ? "a message: " : std::to_string(refused_) + " messages, the last one: ";
    refused_ = 0;
    Report(ListenPath(runtime_.directory, runtime_.config.pid) + " refused " + count + lastRefusal_);
}

Fd ConnectToPeer(const std::string &directory, uint32_t self, uint32_t peer) {
    const std::string name = SendPath(directory, self, peer);
    Fd link(socket(AF_UNIX, SOCK_DGRAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0));
    if (!link.Valid() || CallWithPath(connect, link.Get(), ListenPath(directory, peer)) != 0)
        return {};
    unlink(name.c_str());
    if (CallWithPath(bind, link.Get(), name) != 0)
        return {};
    unlink(name.c_str());
    return link;
}

} // namespace pegeir::linux_platform
