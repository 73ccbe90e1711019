/*
 * The server's transport over the Linux platform's message service.
 */
#ifndef PEGEIR_COMPONENT_LINUX_TRANSPORT_H
#define PEGEIR_COMPONENT_LINUX_TRANSPORT_H

#include "protocol/server.h"

namespace pegeir::component {

class LinuxTransport : public Transport {
public:
    /* id is this process's address; onWritable is called as the server asks for it. */
    LinuxTransport(uint32_t id, std::function<void(uint32_t consumer)> onWritable, Clock clock,
                   ConsumerLog log);

    SendResult Send(uint32_t consumer, ByteView bytes) override;
    SendResult StartOver(uint32_t consumer) override;
    bool WhenWritable(uint32_t consumer) override;

private:
    SendResult ResultOf(uint32_t code, uint32_t consumer);

    uint32_t id_;
    std::function<void(uint32_t)> onWritable_;
    Clock clock_;
    ConsumerLog log_;
    SeldomLog failures_;
};

} // namespace pegeir::component

#endif
