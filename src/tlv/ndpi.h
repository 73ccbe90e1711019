// The ndpi wire format.
//
//   message  := header body
//   header   := msgLen:u16 flags:u8 msgType:u8 transNumber:u32 reserved:u32 sequenceNum:u32
//   body     := element*                     ; msgLen - 16 bytes
//   element  := tlvType:u16 tlvLen:u16 value ; tlvLen bytes of value, no padding
//   record   := element of tlvType 18 whose value is
//               keyType:u16 keyLen:u16 key dataType:u16 dataLen:u16 data
//
// msgLen counts the header.  Bit 7 of flags marks an acknowledgement, which has the type and the
// transNumber of what it answers.  Requests of the library (16 to 22, 29) are acknowledged by the
// component; of the component's messages the library acknowledges all but the data of a download,
// as far as its present state takes them.
#ifndef PEGEIR_TLV_NDPI_H
#define PEGEIR_TLV_NDPI_H

#include "tlv/wire.h"

constexpr uint16_t NDPI_HEADER_LEN = 16;
constexpr uint8_t NDPI_ACK_FLAG = 0x80;

// Envelope of every ndpi message; only the sub-interface is looked at on receipt.
constexpr uint32_t NDPI_MSG_INTF = 3;
constexpr uint32_t NDPI_MSG_SUB_INTF = 164;

constexpr uint16_t NDPI_TLV_SUBSCRIBE_RECORD = 18;

enum NdpiMsgType : uint8_t {
    NDPI_MSG_REGISTER = 16,
    NDPI_MSG_SUBSCRIBE_BEGIN = 17,
    NDPI_MSG_SUBSCRIBE_DATA = 18,
    NDPI_MSG_SUBSCRIBE_END = 19,
    NDPI_MSG_UNSUBSCRIBE_DATA = 20,
    NDPI_MSG_VERIFY_SUBSCRIBE_BEGIN = 21,
    NDPI_MSG_VERIFY_SUBSCRIBE_END = 22,
    NDPI_MSG_SMOOTH_BEGIN = 23,
    NDPI_MSG_SMOOTH_DATA = 24,
    NDPI_MSG_SMOOTH_END = 25,
    NDPI_MSG_REAL_UPDATE = 26,
    NDPI_MSG_VERIFY_DATA_BEGIN = 27,
    NDPI_MSG_VERIFY_DATA_END = 28,
    NDPI_MSG_SEQUENCE_ERROR = 29
};

namespace pegeir::ndpi {

// Where the header fields lie.
constexpr size_t kMsgLenOffset = 0;
constexpr size_t kFlagsOffset = 2;
constexpr size_t kMsgTypeOffset = 3;
constexpr size_t kTransNumberOffset = 4;

constexpr uint32_t kTlvHeadLen = 4;
constexpr uint32_t kRecordFixedLen = 12; // a subscription record without its key and data bytes

struct Header {
    uint16_t msgLen = 0;
    uint8_t flags = 0;
    uint8_t msgType = 0;
    uint32_t transNumber = 0;
    uint32_t sequenceNum = 0;

    [[nodiscard]] bool IsAck() const { return (flags & NDPI_ACK_FLAG) != 0; }
};

// Reads the header of a message that has at least NDPI_HEADER_LEN bytes, as every message has that
// passed ND_LIB_MsgRecv.
inline Header ReadHeader(const void *message) {
    wire::Reader reader(static_cast<const uint8_t *>(message), NDPI_HEADER_LEN);
    Header header;
    uint32_t reserved = 0;
    (void)(reader.U16(header.msgLen) && reader.U8(header.flags) && reader.U8(header.msgType) &&
           reader.U32(header.transNumber) && reader.U32(reserved) && reader.U32(header.sequenceNum));
    return header;
}

} // namespace pegeir::ndpi

#endif
