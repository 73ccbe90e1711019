/*
 * Messages in memory: the envelope, then the data area that everybody handles them by.
 */
#include "capture.h"
#include "linux_platform.h"

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <new>

namespace pegeir::linux_platform {

uint8_t *NewMessage(uint32_t sender, uint32_t receiver, size_t length) {
    if (length > kMaxDataSize)
        return nullptr;
    void *const block = std::malloc(sizeof(Envelope) + length);
    if (block == nullptr)
        return nullptr;
    new (block) Envelope{sender, receiver, {}, static_cast<uint32_t>(length)};
    return static_cast<uint8_t *>(block) + sizeof(Envelope);
}

void FreeMessage(void *message) {
    if (message != nullptr)
        std::free(&EnvelopeOf(message));
}

Envelope &EnvelopeOf(void *message) {
    return static_cast<Envelope *>(message)[-1];
}

const Envelope &EnvelopeOf(const void *message) {
    return static_cast<const Envelope *>(message)[-1];
}

} // namespace pegeir::linux_platform

using pegeir::linux_platform::CurrentRuntime;
using pegeir::linux_platform::Envelope;
using pegeir::linux_platform::EnvelopeOf;

void *ZEP_MsgFlowCtrlAlloc_F(uint32_t sender, uint32_t receiver, uint32_t size, const char *, uint32_t) {
    return size == 0 ? nullptr : pegeir::linux_platform::NewMessage(sender, receiver, size);
}

uint32_t ZEP_SEND_MSG(uint32_t receiver, uint32_t, uint32_t, void *message, uint32_t length) {
    uint32_t result = PEGEIR_LINUX_SEND_FAILED;
    const auto runtime = CurrentRuntime();
    const Envelope &envelope = EnvelopeOf(message);
    if (!runtime)
        errno = ENOTCONN;
    else if (length > envelope.length)
        errno = EINVAL;
    else
        result = runtime->peers.Send(receiver, envelope, message, length);
    const int reason = errno;
    if (pegeir::linux_platform::Capturing())
        pegeir::linux_platform::CaptureSend(receiver, message, std::min(length, envelope.length), result);
    pegeir::linux_platform::FreeMessage(message);
    errno = reason;
    return result;
}

void DMS_MsgFree(uint32_t, void *message) {
    pegeir::linux_platform::FreeMessage(message);
}

uint32_t DMS_MsgSendCidGet(const void *message) {
    return EnvelopeOf(message).sender;
}

void DMS_MsgRecvCidSet(void *message, uint32_t cid) {
    EnvelopeOf(message).receiver = cid;
}

uint32_t DMS_MsgRecvIidGet(const void *message) {
    return EnvelopeOf(message).head.receiverIid;
}

void DMS_ZEP_MSG_SET_INTF(void *message, uint32_t value) {
    EnvelopeOf(message).head.intf = value;
}

void DMS_ZEP_MSG_SET_SUB_INTF(void *message, uint32_t value) {
    EnvelopeOf(message).head.subIntf = value;
}

uint32_t DMS_ZEP_MSG_GET_SUB_INTF(const void *message) {
    return EnvelopeOf(message).head.subIntf;
}

uint32_t DMS_MsgDataLenGet(const void *message) {
    return EnvelopeOf(message).length;
}
