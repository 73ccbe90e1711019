/*
 * Any number of items out of thin air, for tests and measurements: item i is the key i, and holds a
 * revision that grows with each change.
 */
#ifndef PEGEIR_COMPONENT_SYNTHETIC_SOURCE_H
#define PEGEIR_COMPONENT_SYNTHETIC_SOURCE_H

#include "protocol/records.h"

#include <cstddef>

namespace pegeir::component {

class SyntheticSource : public Source {
public:
    /* valueSize is the size of each record's value; it is at least ND_DATA_SYNTHETIC_LEN. */
    SyntheticSource(uint32_t count, size_t valueSize, ChangeFunc onChange);

    [[nodiscard]] bool Serves(Topic topic) const override;
    [[nodiscard]] std::optional<RecordId> Next(Topic topic, std::optional<uint32_t> index,
                                               const RecordId *after) const override;
    void Encode(const RecordId &id, Writer &writer) const override;

    /* Changes the next items, one after the other and round again. */
    void Change(uint64_t count);

    /* Adds items at the end, or removes them from there. */
    void Resize(uint32_t count);

private:
    std::vector<uint32_t> revisions_;
    size_t valueSize_;
    ChangeFunc onChange_;
    uint32_t nextChange_ = 0;
};

} // namespace pegeir::component

#endif
