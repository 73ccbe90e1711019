/*
 * The component's side of the protocol, for any number of consumers and without any I/O: bytes come in
 * through OnMessage, go out through a Transport, and time passes through OnTick.
 *
 *     Server server(transport, catalog, clock, log);
 *     server.OnMessage(consumer, bytes);    // each message that arrives
 *     server.OnChange(id);                  // each change that a source reports
 *     server.OnWritable(consumer);          // as asked for through the transport
 *     server.OnTick();                      // a few times a second
 *
 * What it promises a consumer
 *  1. Every well-formed request of a registered consumer is acknowledged; a record that is subscribed
 *     beyond a limit is acknowledged as well, and reported.
 *  2. A download holds every record as it is when its message is built, and every change that happens
 *     after that follows as an update once the download is over.
 *  3. Messages of one consumer keep their order, and none but acknowledgements are ever given up;
 *     a request whose acknowledgement was given up comes again.
 *  4. At most one update is under way; changes that wait are kept by name, not by content.  When more wait
 *     than the limit allows, they are dropped, and the consumer has to register and download anew.
 *  5. Nobody who is alive is forgotten and left in the belief that all is well: whoever speaks without being
 *     registered is told to start over.
 * Malformed and unexpected messages are dropped and counted, never answered, and reported as often as
 * somebody can read.
 */
#ifndef PEGEIR_COMPONENT_SERVER_H
#define PEGEIR_COMPONENT_SERVER_H

#include "protocol/records.h"
#include "protocol/report.h"
#include "protocol/wire.h"

#include <cstdint>
#include <map>
#include <memory>
#include <string>

namespace pegeir::component {

class Session;

/* Bounds on what one consumer can make the component keep, and its patience. */
struct Limits {
    size_t subscriptions = size_t{1} << 21U;
    size_t keyBytes = size_t{64} << 20U;      /* of all subscriptions together */
    size_t waitingChanges = size_t{1} << 20U; /* beyond that they are dropped, and the consumer starts over */
    size_t waitingAckBytes = size_t{32} << 20U; /* beyond that acknowledgements are given up */
    unsigned messageBurst = 64;                 /* download messages in a row before others get their turn */
    unsigned endAttempts = 60;   /* sends of the end of a download before it counts as received */
    uint64_t repeatMs = 1000;    /* between two sends of the same message */
    uint64_t startOverMs = 3000; /* between two requests to start over */
    uint64_t probeMs = 10000;    /* between two looks whether a silent consumer is there */
    uint64_t goneMs = 30000;     /* how long a consumer may be gone before it is forgotten */
};

enum class SendResult {
    kSent,
    kFull, /* cannot be taken now */
    kGone  /* nobody is there to take it */
};

class Transport {
public:
    Transport() = default;
    Transport(const Transport &) = delete;
    Transport &operator=(const Transport &) = delete;
    virtual ~Transport() = default;

    /* Sends a copy of the bytes; never blocks and never calls back. */
    virtual SendResult Send(uint32_t consumer, ByteView bytes) = 0;

    /* Has the consumer register anew, without a word to the others.  As Send. */
    virtual SendResult StartOver(uint32_t consumer) = 0;

    /* Asks for one later call of Server::OnWritable, when the consumer can take a message.  Returns false
     * when the consumer is not there. */
    virtual bool WhenWritable(uint32_t consumer) = 0;
};

struct ServerContext {
    Transport &transport;
    const Catalog &catalog;
    Clock clock;
    ConsumerLog log;
    Limits limits;
};

class Server {
public:
    /* transport and catalog stay the caller's and outlive the server. */
    Server(Transport &transport, const Catalog &catalog, Clock clock, ConsumerLog log, Limits limits = {});
    Server(const Server &) = delete;
    Server &operator=(const Server &) = delete;
    ~Server();

    void OnMessage(uint32_t consumer, ByteView bytes);

    /* Counts and reports a message that is none of this protocol. */
    void Drop(uint32_t consumer, const std::string &why);
    void OnWritable(uint32_t consumer);
    void OnTick();
    void OnChange(const RecordId &id);

    [[nodiscard]] size_t ConsumerCount() const { return sessions_.size(); }
    [[nodiscard]] uint64_t DroppedCount() const { return dropped_; }

private:
    void RemoveForgotten();
    void TurnAway(uint32_t consumer);

    ServerContext context_;
    std::map<uint32_t, std::unique_ptr<Session>> sessions_;
    SeldomLog drops_;
    uint64_t dropped_ = 0;
    std::map<uint32_t, uint64_t> turnedAwayMs_; /* who was told to register, and when; forgotten soon after */
};

} // namespace pegeir::component

#endif
