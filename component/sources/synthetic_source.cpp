/* Numbered items with a revision each. */
#include "sources/synthetic_source.h"

#include "protocol/wire.h"

#include <pegeir/nd_data.h>

#include <algorithm>
#include <utility>

namespace pegeir::component {

namespace {

constexpr Topic kTopic = {ND_DATA_KEY_SYNTHETIC, ND_DATA_SYNTHETIC};

} // namespace

SyntheticSource::SyntheticSource(uint32_t count, size_t valueSize, ChangeFunc onChange)
    : revisions_(count, 1), valueSize_(std::max(valueSize, size_t{ND_DATA_SYNTHETIC_LEN})),
      onChange_(std::move(onChange)) {}

bool SyntheticSource::Serves(Topic topic) const {
    return topic == kTopic;
}

std::optional<RecordId> SyntheticSource::Next(Topic topic, std::optional<uint32_t> index,
                                              const RecordId *after) const {
    if (index && after != nullptr) {
        return std::nullopt; /* one key, one record */
    }
    const uint32_t next = index ? *index : after != nullptr ? after->index + 1 : 0;
    if (next >= revisions_.size()) {
        return std::nullopt;
    }
    return RecordId{topic, next, {}};
}

void SyntheticSource::Encode(const RecordId &id, Writer &writer) const {
    const bool exists = id.index < revisions_.size();
    const size_t size = exists ? valueSize_ : size_t{ND_DATA_SYNTHETIC_LEN};
    writer.Head(ND_DATA_TLV_SYNTHETIC, size);
    writer.U8(exists ? ND_DATA_SET : ND_DATA_DELETE);
    writer.Fill(3, 0);
    writer.U32(id.index);
    writer.U32(exists ? revisions_[id.index] : 0);
    writer.Fill(size - ND_DATA_SYNTHETIC_LEN, static_cast<uint8_t>(id.index));
}

void SyntheticSource::Change(uint64_t count) {
    const uint64_t bounded = std::min(count, uint64_t{revisions_.size()});
    for (uint64_t i = 0; i < bounded; ++i) {
        nextChange_ = nextChange_ + 1 < revisions_.size() ? nextChange_ + 1 : 0;
        ++revisions_[nextChange_];
        onChange_({kTopic, nextChange_, {}});
    }
}

void SyntheticSource::Resize(uint32_t count) {
    const auto before = static_cast<uint32_t>(revisions_.size());
    revisions_.resize(count, 1);
    for (uint32_t index = std::min(before, count); index < std::max(before, count); ++index) {
        onChange_({kTopic, index, {}});
    }
}

} // namespace pegeir::component
