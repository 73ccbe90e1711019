/*
 * One socket carries the dumps and the notifications, in the order in which the kernel queued them; what
 * belongs to the running dump bears its sequence number.  A notification that arrives in the middle of a
 * dump may have overtaken an older picture of the same entry, so the dump is then made once more.
 */
#include "sources/kernel_source.h"

#include "protocol/wire.h"

#include <pegeir/nd_data.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <libmnl/libmnl.h>
#include <linux/if.h>
#include <linux/neighbour.h>
#include <linux/rtnetlink.h>
#include <poll.h>
#include <sys/socket.h>

namespace pegeir::component {

namespace {

constexpr Topic kLinkTopic = {ND_DATA_KEY_INTERFACE, ND_DATA_LINK};
constexpr Topic kNeighbourTopic = {ND_DATA_KEY_INTERFACE, ND_DATA_NEIGHBOUR};

constexpr size_t kDatagramSize = size_t{1} << 16U;
constexpr unsigned kDatagramsAtOnce = 64;
constexpr unsigned kDumpsInARow = 2; /* then the tick sets the pace */
constexpr int kFirstDumpMs = 5000;

/* The attributes of a message by type; those beyond Count are of no interest. */
template <size_t Count>
using Attributes = std::array<const nlattr *, Count>;

template <size_t Count>
int Collect(const nlattr *attribute, void *data) {
    auto &attributes = *static_cast<Attributes<Count> *>(data);
    if (mnl_attr_get_type(attribute) < Count) {
        attributes.at(mnl_attr_get_type(attribute)) = attribute;
    }
    return MNL_CB_OK;
}

template <size_t Count>
Attributes<Count> Parse(const nlmsghdr &head, size_t fixedSize) {
    Attributes<Count> attributes = {};
    mnl_attr_parse(&head, static_cast<unsigned>(fixedSize), Collect<Count>, &attributes);
    return attributes;
}

/* Copies the fixed part of a message, if it has one. */
template <class Fixed>
bool ReadFixed(const nlmsghdr &head, Fixed &fixed) {
    if (mnl_nlmsg_get_payload_len(&head) < sizeof(fixed)) {
        return false;
    }
    std::memcpy(&fixed, mnl_nlmsg_get_payload(&head), sizeof(fixed));
    return true;
}

/* Copies the payload of an attribute that is there and has exactly this size. */
template <class Value>
bool ReadAttribute(const nlattr *attribute, Value &value) {
    if (attribute == nullptr || mnl_attr_get_payload_len(attribute) != sizeof(value)) {
        return false;
    }
    std::memcpy(&value, mnl_attr_get_payload(attribute), sizeof(value));
    return true;
}

uint8_t Flag(bool set, int flag) {
    return set ? static_cast<uint8_t>(flag) : uint8_t{0};
}

} // namespace

KernelSource::KernelSource(ChangeFunc onChange, std::function<void()> onLinkNames, Log log)
    : onChange_(std::move(onChange)), onLinkNames_(std::move(onLinkNames)), log_(std::move(log)),
      buffer_(kDatagramSize) {}

KernelSource::~KernelSource() {
    if (socket_ != nullptr) {
        mnl_socket_close(socket_);
    }
}

bool KernelSource::Open(std::string &error, int receiveBuffer) {
    socket_ = mnl_socket_open2(NETLINK_ROUTE, SOCK_CLOEXEC | SOCK_NONBLOCK);
    const unsigned groups = 1U << (RTNLGRP_LINK - 1U) | 1U << (RTNLGRP_NEIGH - 1U);
    if (socket_ == nullptr || mnl_socket_bind(socket_, groups, MNL_SOCKET_AUTOPID) < 0) {
        error = Text("no rtnetlink socket: ", std::strerror(errno));
        return false;
    }
    if (setsockopt(Fd(), SOL_SOCKET, SO_RCVBUFFORCE, &receiveBuffer, sizeof(receiveBuffer)) != 0) {
        (void)setsockopt(Fd(), SOL_SOCKET, SO_RCVBUF, &receiveBuffer, sizeof(receiveBuffer));
    }
    if (!StartDump(Dump::kLinks)) {
        error = Text("no interfaces from the kernel: ", std::strerror(errno));
        return false;
    }
    while (dump_ != Dump::kNone) {
        pollfd readable = {Fd(), POLLIN, 0};
        if (poll(&readable, 1, kFirstDumpMs) == 0) {
            error = "no answer from the kernel over rtnetlink";
            return false;
        }
        OnReadable();
    }
    return true;
}

/* ---- What the server asks -------------------------------------------------------------------- */

bool KernelSource::Serves(Topic topic) const {
    return topic == kLinkTopic || topic == kNeighbourTopic;
}

std::optional<RecordId> KernelSource::Next(Topic topic, std::optional<uint32_t> index,
                                           const RecordId *after) const {
    std::optional<RecordId> found;
    if (topic == kLinkTopic) {
        const auto link =
            after != nullptr ? links_.upper_bound(after->index) : links_.lower_bound(index.value_or(0));
        if (link != links_.end()) {
            found = RecordId{topic, link->first, {}};
        }
    } else {
        const auto neighbour = after != nullptr ? neighbours_.upper_bound({after->index, after->address})
                                                : neighbours_.lower_bound({index.value_or(0), {}});
        if (neighbour != neighbours_.end()) {
            found = RecordId{topic, neighbour->first.first, neighbour->first.second};
        }
    }
    return found && index && found->index != *index ? std::nullopt : found;
}

void KernelSource::Encode(const RecordId &id, Writer &writer) const {
    if (id.topic == kLinkTopic) {
        const auto entry = links_.find(id.index);
        const Link link = entry != links_.end() ? entry->second.value : Link{};
        writer.Head(ND_DATA_TLV_LINK, ND_DATA_LINK_LEN + link.name.size());
        writer.U8(entry != links_.end() ? ND_DATA_SET : ND_DATA_DELETE);
        writer.U8(link.flags);
        writer.U16(static_cast<uint16_t>(link.name.size()));
        writer.U32(id.index);
        writer.U32(link.mtu);
        writer.Append(link.mac);
        writer.Append(Bytes(link.name.begin(), link.name.end()));
        return;
    }
    const auto entry = neighbours_.find({id.index, id.address});
    const Neighbour neighbour = entry != neighbours_.end() ? entry->second.value : Neighbour{};
    writer.Head(ND_DATA_TLV_NEIGHBOUR, ND_DATA_NEIGHBOUR_LEN);
    writer.U8(entry != neighbours_.end() ? ND_DATA_SET : ND_DATA_DELETE);
    writer.U8(neighbour.state);
    writer.U8(neighbour.flags);
    writer.U8(neighbour.mac ? sizeof(Mac) : uint8_t{0});
    writer.U32(id.index);
    writer.Append(id.address);
    writer.Append(neighbour.mac.value_or(Mac{}));
}

std::map<uint32_t, std::string> KernelSource::LinkNames() const {
    std::map<uint32_t, std::string> names;
    for (const auto &[index, entry] : links_) {
        names.emplace(index, entry.value.name);
    }
    return names;
}

/* ---- Dumps ----------------------------------------------------------------------------------- */

void KernelSource::Reload() {
    dumpAgain_ = true;
    dumpsInARow_ = 0;
    OnTick();
}

void KernelSource::OnTick() {
    if (dumpAgain_ && dump_ == Dump::kNone && !StartDump(Dump::kLinks)) {
        log_(Severity::kWarning, Text("no dump from the kernel, trying again: ", std::strerror(errno)));
    }
}

bool KernelSource::StartDump(Dump what) {
    if (what == Dump::kLinks) {
        dumpAgain_ = false;
    }
    alignas(nlmsghdr) std::array<char, 256> buffer = {};
    nlmsghdr *head = mnl_nlmsg_put_header(buffer.data());
    head->nlmsg_type = what == Dump::kLinks ? RTM_GETLINK : RTM_GETNEIGH;
    head->nlmsg_flags = NLM_F_REQUEST | NLM_F_DUMP;
    head->nlmsg_seq = ++dumpNumber_;
    if (what == Dump::kLinks) {
        mnl_nlmsg_put_extra_header(head, sizeof(ifinfomsg)); /* family AF_UNSPEC */
    } else {
        ndmsg request = {};
        request.ndm_family = AF_INET6;
        std::memcpy(mnl_nlmsg_put_extra_header(head, sizeof(request)), &request, sizeof(request));
    }
    if (mnl_socket_sendto(socket_, head, head->nlmsg_len) < 0) {
        dump_ = Dump::kNone;
        dumpAgain_ = true;
        return false;
    }
    dump_ = what;
    return true;
}

void KernelSource::EndDump() {
    if (dump_ == Dump::kLinks) {
        SweepLinks();
        (void)StartDump(Dump::kNeighbours); /* or with the next tick */
        return;
    }
    SweepNeighbours();
    dump_ = Dump::kNone;
    if (dumpAgain_ && ++dumpsInARow_ < kDumpsInARow) {
        (void)StartDump(Dump::kLinks);
        return;
    }
    dumpsInARow_ = 0;
    log_(Severity::kDetail,
         Text("kernel: ", links_.size(), " interfaces, ", neighbours_.size(), " IPv6 neighbours"));
}

void KernelSource::SweepLinks() {
    std::vector<uint32_t> unseen;
    for (const auto &[index, entry] : links_) {
        if (entry.dump != dumpNumber_) {
            unseen.push_back(index);
        }
    }
    for (const uint32_t index : unseen) {
        RemoveLink(index);
    }
}

void KernelSource::SweepNeighbours() {
    for (auto entry = neighbours_.begin(); entry != neighbours_.end();) {
        const auto [index, address] = entry->first;
        if (entry->second.dump == dumpNumber_) {
            ++entry;
            continue;
        }
        entry = neighbours_.erase(entry);
        onChange_({kNeighbourTopic, index, address});
    }
}

/* ---- What the kernel says -------------------------------------------------------------------- */

int KernelSource::Fd() const {
    return mnl_socket_get_fd(socket_);
}

void KernelSource::OnReadable() {
    for (unsigned i = 0; i < kDatagramsAtOnce; ++i) {
        const ssize_t got = mnl_socket_recvfrom(socket_, buffer_.data(), buffer_.size());
        if (got > 0) {
            OnDatagram(static_cast<size_t>(got));
        } else if (got == 0 || errno == EAGAIN || errno == EINTR) {
            return;
        } else if (errno == ENOBUFS || errno == ENOSPC) {
            log_(Severity::kDetail, "kernel notifications were lost: reading the tables again");
            Reload();
        } else {
            log_(Severity::kError, Text("rtnetlink: ", std::strerror(errno)));
            return;
        }
    }
}

void KernelSource::OnDatagram(size_t size) {
    int left = static_cast<int>(size);
    const void *position = buffer_.data();
    for (const auto *head = static_cast<const nlmsghdr *>(position); mnl_nlmsg_ok(head, left);
         head = mnl_nlmsg_next(head, &left)) {
        const bool ofDump = dump_ != Dump::kNone && head->nlmsg_seq == dumpNumber_ &&
                            head->nlmsg_pid == mnl_socket_get_portid(socket_);
        if (ofDump) {
            dumpAgain_ = dumpAgain_ || (head->nlmsg_flags & NLM_F_DUMP_INTR) != 0;
        } else if (dump_ != Dump::kNone) {
            dumpAgain_ = true;
        }
        switch (head->nlmsg_type) {
        case RTM_NEWLINK:
        case RTM_DELLINK:
            OnLink(*head);
            break;
        case RTM_NEWNEIGH:
        case RTM_DELNEIGH:
            OnNeighbour(*head);
            break;
        case NLMSG_DONE:
        case NLMSG_ERROR:
            if (ofDump) {
                OnDumpControl(*head);
            }
            break;
        default:
            break;
        }
    }
}

void KernelSource::OnDumpControl(const nlmsghdr &head) {
    int error = 0; /* both types begin with a negative errno or 0 */
    (void)ReadFixed(head, error);
    if (error == 0) {
        EndDump();
        return;
    }
    log_(Severity::kWarning, Text("the kernel's dump failed, trying again: ", std::strerror(-error)));
    dump_ = Dump::kNone;
    dumpAgain_ = true;
}

void KernelSource::OnLink(const nlmsghdr &head) {
    ifinfomsg fixed = {};
    if (!ReadFixed(head, fixed) || fixed.ifi_family != AF_UNSPEC || fixed.ifi_index <= 0) {
        return; /* AF_BRIDGE tells of bridge ports with the same message types */
    }
    const auto index = static_cast<uint32_t>(fixed.ifi_index);
    if (head.nlmsg_type == RTM_DELLINK) {
        RemoveLink(index);
        return;
    }
    const auto attributes = Parse<IFLA_MTU + 1>(head, sizeof(fixed));
    Link link;
    if (const nlattr *name = attributes.at(IFLA_IFNAME);
        name != nullptr && mnl_attr_validate(name, MNL_TYPE_NUL_STRING) >= 0) {
        link.name = mnl_attr_get_str(name);
    }
    (void)ReadAttribute(attributes.at(IFLA_MTU), link.mtu);
    (void)ReadAttribute(attributes.at(IFLA_ADDRESS), link.mac);
    link.flags = Flag((fixed.ifi_flags & IFF_UP) != 0, ND_DATA_LINK_UP) |
                 Flag((fixed.ifi_flags & IFF_RUNNING) != 0, ND_DATA_LINK_RUNNING) |
                 Flag((fixed.ifi_flags & IFF_LOOPBACK) != 0, ND_DATA_LINK_LOOPBACK);
    SetLink(index, std::move(link));
}

void KernelSource::OnNeighbour(const nlmsghdr &head) {
    ndmsg fixed = {};
    if (!ReadFixed(head, fixed) || fixed.ndm_family != AF_INET6 || fixed.ndm_ifindex <= 0 ||
        (fixed.ndm_flags & NTF_PROXY) != 0) {
        return;
    }
    const auto attributes = Parse<NDA_LLADDR + 1>(head, sizeof(fixed));
    NeighbourKey key = {static_cast<uint32_t>(fixed.ndm_ifindex), {}};
    if (!ReadAttribute(attributes.at(NDA_DST), key.second)) {
        return;
    }
    const RecordId id = {kNeighbourTopic, key.first, key.second};
    if (head.nlmsg_type == RTM_DELNEIGH || fixed.ndm_state == NUD_NONE) {
        if (neighbours_.erase(key) != 0) {
            onChange_(id);
        }
        return;
    }
    Neighbour neighbour;
    neighbour.state = static_cast<uint8_t>(fixed.ndm_state);
    neighbour.flags = Flag((fixed.ndm_flags & NTF_ROUTER) != 0, ND_DATA_NEIGHBOUR_ROUTER);
    Mac mac = {};
    if (ReadAttribute(attributes.at(NDA_LLADDR), mac)) {
        neighbour.mac = mac;
    }
    const auto [entry, isNew] = neighbours_.try_emplace(key);
    entry->second.dump = dumpNumber_;
    if (isNew || entry->second.value != neighbour) {
        entry->second.value = neighbour;
        onChange_(id);
    }
}

void KernelSource::SetLink(uint32_t index, Link link) {
    const auto [entry, isNew] = links_.try_emplace(index);
    entry->second.dump = dumpNumber_;
    if (!isNew && entry->second.value == link) {
        return;
    }
    const bool named = isNew || entry->second.value.name != link.name;
    entry->second.value = std::move(link);
    onChange_({kLinkTopic, index, {}});
    if (named) {
        onLinkNames_();
    }
}

void KernelSource::RemoveLink(uint32_t index) {
    if (links_.erase(index) == 0) {
        return;
    }
    onChange_({kLinkTopic, index, {}});
    RemoveNeighboursOf(index);
    onLinkNames_();
}

/* The kernel tells of these as well, but not to whom it could not. */
void KernelSource::RemoveNeighboursOf(uint32_t index) {
    for (auto entry = neighbours_.lower_bound({index, {}});
         entry != neighbours_.end() && entry->first.first == index;) {
        const Address address = entry->first.second;
        entry = neighbours_.erase(entry);
        onChange_({kNeighbourTopic, index, address});
    }
}

} // namespace pegeir::component
