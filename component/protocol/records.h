/*
 * What is subscribed, what is served, and where it comes from.
 *
 * A consumer subscribes items.  A source holds records and knows which of them an item stands for.  The
 * server keeps neither a copy of a record nor a list of them: it remembers identities, and asks the
 * source for the present bytes at the moment of sending.  So whatever is sent is the latest, and what
 * changes ten times between two messages is sent once.
 */
#ifndef PEGEIR_COMPONENT_RECORDS_H
#define PEGEIR_COMPONENT_RECORDS_H

#include <array>
#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <tuple>
#include <vector>

namespace pegeir::component {

class Writer;

/* A kind of data under a kind of key. */
struct Topic {
    uint16_t keyType = 0;
    uint16_t dataType = 0;
    bool operator==(const Topic &) const = default;
    bool operator<(const Topic &other) const {
        return std::tie(keyType, dataType) < std::tie(other.keyType, other.dataType);
    }
};

/* What one subscription names. */
struct Item {
    Topic topic;
    std::string key; /* the key bytes as received */
    bool operator==(const Item &) const = default;
    bool operator<(const Item &other) const {
        return std::tie(topic, key) < std::tie(other.topic, other.key);
    }
};

/* Names one record: the number in its key, and the address where one key has several records. */
struct RecordId {
    Topic topic;
    uint32_t index = 0;
    std::array<uint8_t, 16> address = {};
    bool operator==(const RecordId &) const = default;
    bool operator<(const RecordId &other) const {
        return std::tie(topic, index, address) < std::tie(other.topic, other.index, other.address);
    }
};

/* Returns the number that stands for "every" in a key of this type. */
[[nodiscard]] uint32_t WildcardIndex(uint16_t keyType);

/* Told which record has changed, come or gone, after the source has taken the change over. */
using ChangeFunc = std::function<void(const RecordId &)>;

class Source {
public:
    Source() = default;
    Source(const Source &) = delete;
    Source &operator=(const Source &) = delete;
    virtual ~Source() = default;

    [[nodiscard]] virtual bool Serves(Topic topic) const = 0;

    /*
     * Returns the first record of topic behind *after, or the very first when after is null, in the
     * order of their identities; only those with this index unless it is absent.  Nothing at the end.
     * The table may change between two calls.
     */
    [[nodiscard]] virtual std::optional<RecordId> Next(Topic topic, std::optional<uint32_t> index,
                                                       const RecordId *after) const = 0;

    /* Appends the record as it is now; one that does not exist is appended as deleted. */
    virtual void Encode(const RecordId &id, Writer &writer) const = 0;
};

/* All sources; they stay the caller's and outlive the catalog. */
class Catalog {
public:
    void Add(const Source &source) { sources_.push_back(&source); }

    [[nodiscard]] bool Serves(Topic topic) const { return Find(topic) != nullptr; }

    /* As Source::Next, for the records that an item stands for.  An item of an unknown topic, or with
     * a key of another length than 4, stands for none. */
    [[nodiscard]] std::optional<RecordId> Next(const Item &item, const RecordId *after) const;

    void Encode(const RecordId &id, Writer &writer) const;

private:
    [[nodiscard]] const Source *Find(Topic topic) const;

    std::vector<const Source *> sources_;
};

} // namespace pegeir::component

#endif
