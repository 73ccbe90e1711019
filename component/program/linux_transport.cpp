/* Bytes into platform messages, and the platform's refusals into the three that the server knows. */
#include "program/linux_transport.h"

#include <cerrno>
#include <cstring>
#include <pegeir/linux.h>
#include <utility>

namespace pegeir::component {

namespace {

constexpr uint32_t kInterface = 3;
constexpr uint32_t kSubInterface = 164;
constexpr uint32_t kSendArg1 = 6;
constexpr uint32_t kSendArg2 = 932;
constexpr const char *kSourceName = "nd_component";

/* Whether a call failed for want of something that passes, and says nothing of the consumer. */
bool IsShortage(int error) {
    return error == EMFILE || error == ENFILE || error == ENOMEM || error == ENOBUFS;
}

} // namespace

LinuxTransport::LinuxTransport(uint32_t id, std::function<void(uint32_t)> onWritable, Clock clock,
                               ConsumerLog log)
    : id_(id), onWritable_(std::move(onWritable)), clock_(std::move(clock)), log_(std::move(log)),
      failures_(log_) {}

SendResult LinuxTransport::Send(uint32_t consumer, ByteView bytes) {
    const auto length = static_cast<uint32_t>(bytes.size());
    void *message = ZEP_MsgFlowCtrlAlloc_F(id_, consumer, length, kSourceName, __LINE__);
    if (message == nullptr) {
        return SendResult::kFull;
    }
    std::memcpy(message, bytes.data(), bytes.size());
    DMS_ZEP_MSG_SET_INTF(message, kInterface);
    DMS_ZEP_MSG_SET_SUB_INTF(message, kSubInterface);
    return ResultOf(ZEP_SEND_MSG(consumer, kSendArg1, kSendArg2, message, length), consumer);
}

SendResult LinuxTransport::StartOver(uint32_t consumer) {
    return ResultOf(PEGEIR_LinuxStartOver(consumer), consumer);
}

SendResult LinuxTransport::ResultOf(uint32_t code, uint32_t consumer) {
    switch (code) {
    case 0:
        return SendResult::kSent;
    case PEGEIR_LINUX_SEND_FULL:
        return SendResult::kFull;
    case PEGEIR_LINUX_SEND_NO_PEER:
        return SendResult::kGone;
    default:
        const int error = errno;
        failures_.Add(clock_(), consumer, Text("cannot be sent to: ", std::strerror(error)));
        return IsShortage(error) ? SendResult::kFull : SendResult::kGone;
    }
}

bool LinuxTransport::WhenWritable(uint32_t consumer) {
    const int result = PEGEIR_LinuxWhenWritable(
        consumer,
        [](void *context, uint32_t peer) { static_cast<LinuxTransport *>(context)->onWritable_(peer); },
        this);
    return result == 0 || IsShortage(errno); /* the next tick tries again */
}

} // namespace pegeir::component
