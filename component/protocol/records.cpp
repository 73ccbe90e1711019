/* The way from a topic to its source. */
#include "protocol/records.h"

#include "protocol/wire.h"

#include <pegeir/nd_data.h>

namespace pegeir::component {

uint32_t WildcardIndex(uint16_t keyType) {
    return keyType == ND_DATA_KEY_SYNTHETIC ? 0xFFFFFFFFU : 0U;
}

const Source *Catalog::Find(Topic topic) const {
    for (const Source *source : sources_) {
        if (source->Serves(topic)) {
            return source;
        }
    }
    return nullptr;
}

std::optional<RecordId> Catalog::Next(const Item &item, const RecordId *after) const {
    const Source *source = Find(item.topic);
    std::optional<uint32_t> index = KeyIndex(item);
    if (source == nullptr || !index) {
        return std::nullopt;
    }
    if (index == WildcardIndex(item.topic.keyType)) {
        index.reset();
    }
    return source->Next(item.topic, index, after);
}

void Catalog::Encode(const RecordId &id, Writer &writer) const {
    if (const Source *source = Find(id.topic)) {
        source->Encode(id, writer);
    }
}

} // namespace pegeir::component
