// A client as one would write it at first: the pending items in a std::map of keys with a std::vector of
// data types each, std::lists for the order in which they go out and wait, std::vectors for bytes.  It
// does the same work as the library for subscribing, sending, acknowledging and deleting, asks the same
// platform for the time, and writes the same lines.
#ifndef PEGEIR_BENCH_MAP_CLIENT_HPP
#define PEGEIR_BENCH_MAP_CLIENT_HPP

#include <cstdint>
#include <deque>
#include <list>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "consumer.hpp"

namespace pegeir::bench {

class MapClient {
public:
    void Subscribe(const ND_LIB_ItemHead *key, const ND_LIB_ItemHead *data);
    // Sends what waits, as messages of at most 8000 bytes, and returns them.
    std::vector<Bytes> Send(uint32_t now);
    void ReceiveAck(const Bytes &message);
    [[nodiscard]] size_t Pending() const { return store.size(); }

private:
    struct Key {
        uint16_t type;
        Bytes bytes;
        bool operator<(const Key &other) const;
    };
    struct Item;
    using Queue = std::list<Item *>;
    struct Item {
        const Key *key;
        uint16_t type;
        Bytes bytes;
        uint8_t sends = 0;
        uint32_t stamp = 0;
        uint32_t nextSend = 0;
        Queue *queue = nullptr;
        Queue::iterator place = {};
    };

    void MoveTo(Queue &queue, Item &item);
    void Settle(uint16_t keyType, const uint8_t *key, uint16_t keyLen, uint16_t dataType, uint32_t stamp);
    __attribute__((format(printf, 2, 3))) void Trace(const char *format, ...);
    void Close(std::vector<Bytes> &messages, Bytes &message, uint32_t now);

    std::map<Key, std::vector<std::unique_ptr<Item>>> store;
    Queue pending;
    Queue sending;
    Queue waiting;
    size_t maxKey = 0;
    size_t maxData = 0;
    uint32_t number = 0;
    LineStore log;
    std::deque<std::string> box; // 100 KiB of lines
    size_t boxBytes = 0;
};

} // namespace pegeir::bench

#endif
