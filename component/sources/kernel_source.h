/*
 * The interfaces and IPv6 neighbours of this machine, as the kernel tells them over rtnetlink.
 *
 * Both tables are dumped at the start and followed by notifications after that.  When the kernel says
 * that notifications were lost or a dump was interrupted, they are dumped again, and only what differs
 * from the tables is reported.
 */
#ifndef PEGEIR_COMPONENT_KERNEL_SOURCE_H
#define PEGEIR_COMPONENT_KERNEL_SOURCE_H

#include "protocol/records.h"
#include "protocol/report.h"

#include <map>
#include <utility>

struct mnl_socket;
struct nlmsghdr;

namespace pegeir::component {

class KernelSource : public Source {
public:
    /* onLinkNames is called after an interface has come, gone or changed its name. */
    KernelSource(ChangeFunc onChange, std::function<void()> onLinkNames, Log log);
    ~KernelSource() override;

    /* Opens the socket and reads both tables, waiting for them a few seconds at most.  Returns false
     * with the reason in error. */
    [[nodiscard]] bool Open(std::string &error, int receiveBuffer = 1 << 20);

    [[nodiscard]] bool Serves(Topic topic) const override;
    [[nodiscard]] std::optional<RecordId> Next(Topic topic, std::optional<uint32_t> index,
                                               const RecordId *after) const override;
    void Encode(const RecordId &id, Writer &writer) const override;

    [[nodiscard]] std::map<uint32_t, std::string> LinkNames() const;
    [[nodiscard]] size_t NeighbourCount() const { return neighbours_.size(); }

    [[nodiscard]] int Fd() const;
    void OnReadable();
    void OnTick(); /* once a second */
    void Reload(); /* dumps both tables again */

private:
    using Mac = std::array<uint8_t, 6>;
    using Address = std::array<uint8_t, 16>;
    using NeighbourKey = std::pair<uint32_t, Address>;

    struct Link {
        std::string name;
        uint32_t mtu = 0;
        uint8_t flags = 0;
        Mac mac = {};
        bool operator==(const Link &) const = default;
    };

    struct Neighbour {
        uint8_t state = 0;
        uint8_t flags = 0;
        std::optional<Mac> mac;
        bool operator==(const Neighbour &) const = default;
    };

    /* A table entry, and the last dump in which it was seen. */
    template <class Value>
    struct Entry {
        Value value;
        uint32_t dump = 0;
    };

    enum class Dump { kNone, kLinks, kNeighbours };

    [[nodiscard]] bool StartDump(Dump what);
    void EndDump();
    void SweepLinks();
    void SweepNeighbours();
    void OnDatagram(size_t size);
    void OnDumpControl(const nlmsghdr &head);
    void OnLink(const nlmsghdr &head);
    void OnNeighbour(const nlmsghdr &head);
    void SetLink(uint32_t index, Link link);
    void RemoveLink(uint32_t index);
    void RemoveNeighboursOf(uint32_t index);

    ChangeFunc onChange_;
    std::function<void()> onLinkNames_;
    Log log_;
    std::vector<char> buffer_; /* the datagram that was received last */
    mnl_socket *socket_ = nullptr;
    std::map<uint32_t, Entry<Link>> links_;
    std::map<NeighbourKey, Entry<Neighbour>> neighbours_;
    Dump dump_ = Dump::kNone;
    uint32_t dumpNumber_ = 0; /* also the sequence number of its request */
    bool dumpAgain_ = false;
    unsigned dumpsInARow_ = 0;
};

} // namespace pegeir::component

#endif
