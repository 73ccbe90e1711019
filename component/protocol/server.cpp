/* Finds the session of each consumer, and refuses what belongs to none. */
#include "protocol/server.h"

#include "protocol/session.h"

#include <utility>

namespace pegeir::component {

Server::Server(Transport &transport, const Catalog &catalog, Clock clock, ConsumerLog log, Limits limits)
    : context_{transport, catalog, std::move(clock), std::move(log), limits}, drops_(context_.log) {}

Server::~Server() = default;

void Server::OnMessage(uint32_t consumer, ByteView bytes) {
    std::string wrong;
    const std::optional<Message> message = ReadMessage(bytes, wrong);
    if (!message) {
        Drop(consumer, wrong);
        return;
    }
    auto session = sessions_.find(consumer);
    if (session == sessions_.end()) {
        if (message->type != MsgType::kRegister || message->ack) {
            Drop(consumer, Text("type ", static_cast<unsigned>(message->type),
                                " from a consumer that has not registered"));
            TurnAway(consumer);
            return;
        }
        session = sessions_.emplace(consumer, std::make_unique<Session>(consumer, context_)).first;
    }
    if (!session->second->OnMessage(*message, wrong)) {
        Drop(consumer, wrong);
    }
    RemoveForgotten();
}

void Server::OnWritable(uint32_t consumer) {
    const auto session = sessions_.find(consumer);
    if (session != sessions_.end()) {
        session->second->OnWritable();
    }
}

void Server::OnTick() {
    const uint64_t now = context_.clock();
    drops_.OnTick(now);
    std::erase_if(turnedAwayMs_,
                  [&](const auto &entry) { return now >= entry.second + context_.limits.startOverMs; });
    for (const auto &[consumer, session] : sessions_) {
        session->OnTick();
    }
    RemoveForgotten();
}

void Server::OnChange(const RecordId &id) {
    for (const auto &[consumer, session] : sessions_) {
        session->OnChange(id);
    }
    RemoveForgotten();
}

void Server::Drop(uint32_t consumer, const std::string &why) {
    ++dropped_;
    drops_.Add(context_.clock(), consumer, "message dropped: " + why);
}

/* It believes that it is registered, so it would never do so by itself. */
void Server::TurnAway(uint32_t consumer) {
    if (turnedAwayMs_.emplace(consumer, context_.clock()).second) {
        (void)context_.transport.StartOver(consumer); /* if not now, then with a later message */
    }
}

void Server::RemoveForgotten() {
    std::erase_if(sessions_, [](const auto &entry) { return entry.second->Forgotten(); });
}

} // namespace pegeir::component
