// Bytes of the wire: everything that arrives is read, and everything that goes out is written, through
// these.  Multi-byte fields are big-endian and lie at any alignment.
#ifndef PEGEIR_TLV_WIRE_H
#define PEGEIR_TLV_WIRE_H

#include <cstddef>
#include <cstdint>

namespace pegeir::wire {

inline uint16_t LoadU16(const uint8_t *bytes) {
    return static_cast<uint16_t>((bytes[0] << 8) | bytes[1]);
}

inline uint32_t LoadU32(const uint8_t *bytes) {
    return (static_cast<uint32_t>(LoadU16(bytes)) << 16) | LoadU16(bytes + 2);
}

inline void StoreU16(uint8_t *bytes, uint16_t value) {
    bytes[0] = static_cast<uint8_t>(value >> 8);
    bytes[1] = static_cast<uint8_t>(value);
}

inline void StoreU32(uint8_t *bytes, uint32_t value) {
    StoreU16(bytes, static_cast<uint16_t>(value >> 16));
    StoreU16(bytes + 2, static_cast<uint16_t>(value));
}

// Reads fields one behind the other and never past the end: a field that does not fit is not read and
// answers false or null.
class Reader {
public:
    Reader(const uint8_t *bytes, size_t size) : m_next(bytes), m_left(size) {}

    [[nodiscard]] bool U8(uint8_t &value) {
        const uint8_t *bytes = Bytes(1);
        if (bytes != nullptr) {
            value = bytes[0];
        }
        return bytes != nullptr;
    }

    [[nodiscard]] bool U16(uint16_t &value) {
        const uint8_t *bytes = Bytes(2);
        if (bytes != nullptr) {
            value = LoadU16(bytes);
        }
        return bytes != nullptr;
    }

    [[nodiscard]] bool U32(uint32_t &value) {
        const uint8_t *bytes = Bytes(4);
        if (bytes != nullptr) {
            value = LoadU32(bytes);
        }
        return bytes != nullptr;
    }

    // Returns count bytes in place, or null when fewer are left.
    [[nodiscard]] const uint8_t *Bytes(size_t count) {
        if (count > m_left) {
            return nullptr;
        }
        const uint8_t *bytes = m_next;
        m_next += count;
        m_left -= count;
        return bytes;
    }

private:
    const uint8_t *m_next;
    size_t m_left;
};

} // namespace pegeir::wire

#endif
