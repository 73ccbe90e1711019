/*
 * Making the packets of a recording.
 *
 * The clock needs care.  A replay must give the library the seconds that it was given, and a second may
 * begin between a packet and the reading that the packet leads to.  Each packet therefore carries the
 * clock, and a reading that differs from the packet before in its seconds becomes a packet itself.
 */
#include "capture.h"

#include "capture_file.h"
#include "linux_platform.h"

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <span>
#include <unistd.h>

namespace pegeir::linux_platform {

bool g_capturing = false;

namespace {

using Bytes = std::vector<uint8_t>;

void Put16(Bytes &to, size_t value) {
    to.push_back(static_cast<uint8_t>(value >> 8));
    to.push_back(static_cast<uint8_t>(value));
}

void Put32(Bytes &to, uint32_t value) {
    Put16(to, value >> 16);
    Put16(to, value & 0xFFFF);
}

void PutText(Bytes &to, const std::string &text) {
    Put16(to, text.size());
    to.insert(to.end(), text.begin(), text.end());
}

/* The head of a packet, as far as it differs from one to the next by more than time and number. */
struct Head {
    uint8_t kind;
    uint8_t direction = 0;
    uint32_t sender = 0;
    uint32_t receiver = 0;
    PacketHead envelope{};
    uint32_t result = 0;
};

timespec Now(clockid_t clock) {
    timespec now{};
    clock_gettime(clock, &now);
    return now;
}

/* One recording, from its start to its end. */
class Recording {
public:
    explicit Recording(uint32_t self) : self_(self) {}
    Recording(const Recording &) = delete;
    Recording &operator=(const Recording &) = delete;
    ~Recording() { g_capturing = false; } /* also when the process ends without closing the runtime */

    [[nodiscard]] bool Open(const std::string &name, std::string &error) {
        name_ = name;
        if (file_.Open(name, error))
            return true;
        error = "cannot record into " + name_ + ": " + error;
        return false;
    }

    /* Returns false with a text in error when the recording cannot go on. */
    [[nodiscard]] bool Write(const Head &head, std::span<const uint8_t> data, const timespec &clock,
                             std::string &error) {
        packet_.assign({'P', 'G', 'C', PEGEIR_CAPTURE_VERSION, head.kind, head.direction});
        Put16(packet_, PEGEIR_CAPTURE_HEAD_SIZE);
        for (const uint32_t word :
             {head.sender, head.receiver, head.envelope.intf, head.envelope.subIntf,
              head.envelope.receiverIid, head.result, static_cast<uint32_t>(clock.tv_sec),
              static_cast<uint32_t>(clock.tv_nsec), number_})
            Put32(packet_, word);
        packet_.insert(packet_.end(), data.begin(), data.end());
        const timespec now = Now(CLOCK_REALTIME);
        if (!file_.Append(static_cast<uint32_t>(now.tv_sec), static_cast<uint32_t>(now.tv_nsec), packet_,
                          error)) {
            error = "recording into " + name_ + " has stopped: " + error + "; it holds " +
                    std::to_string(number_) + " packets";
            return false;
        }
        number_++;
        second_ = clock.tv_sec;
        return true;
    }

    [[nodiscard]] uint32_t Self() const { return self_; }
    [[nodiscard]] bool Ours() const { return owner_ == getpid(); } /* and not a forked child's copy */
    [[nodiscard]] time_t Second() const { return second_; }

private:
    uint32_t self_;
    pid_t owner_ = getpid();
    std::string name_;
    CaptureFile file_;
    Bytes packet_;
    uint32_t number_ = 0; /* packets written */
    time_t second_ = -1;  /* of the last one */
};

std::unique_ptr<Recording> g_recording;
std::optional<std::string> g_wanted; /* as PEGEIR_LinuxCapture said */
std::string g_fault;                 /* to be reported */

/* Writes a packet, if the recording still goes on. */
void Write(const Head &head, std::span<const uint8_t> data = {},
           const timespec &clock = Now(CLOCK_MONOTONIC)) {
    const int reason = errno; /* of what is recorded */
    if (g_recording && !g_recording->Write(head, data, clock, g_fault))
        g_recording.reset();
    errno = reason;
}

std::string Expand(const std::string &pattern, uint32_t self) {
    std::string name;
    for (size_t i = 0; i < pattern.size(); i++) {
        const char next = i + 1 < pattern.size() ? pattern[i + 1] : '\0';
        if (pattern[i] != '%' || (next != 'p' && next != 'i' && next != '%')) {
            name += pattern[i];
            continue;
        }
        name += next == 'p' ? std::to_string(getpid()) : next == 'i' ? std::to_string(self) : "%";
        i++;
    }
    return name;
}

std::string Wanted() {
    if (g_wanted)
        return *g_wanted;
    const char *const given = secure_getenv("PEGEIR_CAPTURE");
    return given != nullptr ? given : "";
}

Bytes StartData(const std::string &directory) {
    const time_t now = std::time(nullptr);
    tm local{};
    localtime_r(&now, &local);
    Bytes data;
    Put32(data, static_cast<uint32_t>(getpid()));
    Put32(data, static_cast<uint32_t>(local.tm_gmtoff));
    PutText(data, program_invocation_short_name);
    PutText(data, directory);
    return data;
}

} // namespace

void StartCapture(uint32_t self, const std::string &directory) {
    const std::string name = Expand(Wanted(), self);
    if (name.empty())
        return;
    auto recording = std::make_unique<Recording>(self);
    if (!recording->Open(name, g_fault))
        return;
    g_recording = std::move(recording);
    g_capturing = true;
    Write({.kind = PEGEIR_CAPTURE_START, .sender = self}, StartData(directory));
}

void StopCapture() {
    if (g_recording && g_recording->Ours())
        Write({.kind = PEGEIR_CAPTURE_END, .sender = g_recording->Self()});
    g_recording.reset();
}

void ReportCapture() {
    if (!g_fault.empty())
        Report(std::exchange(g_fault, {}));
}

void CaptureDelivery(const void *message) {
    const Envelope &envelope = EnvelopeOf(message);
    const std::span<const uint8_t> data(static_cast<const uint8_t *>(message), envelope.length);
    Head head{.kind = PEGEIR_CAPTURE_MESSAGE,
              .direction = PEGEIR_CAPTURE_IN,
              .sender = envelope.sender,
              .receiver = envelope.receiver,
              .envelope = envelope.head};
    uint32_t timerId = 0;
    if (envelope.head.receiverIid != kTimerServiceIid || data.size() != sizeof timerId) {
        Write(head, data);
        return;
    }
    std::memcpy(&timerId, data.data(), sizeof timerId);
    Bytes inOrder;
    Put32(inOrder, timerId);
    head.kind = PEGEIR_CAPTURE_EXPIRY;
    Write(head, inOrder);
}

void CaptureSend(uint32_t receiver, const void *message, uint32_t length, uint32_t result) {
    Write({.kind = PEGEIR_CAPTURE_MESSAGE,
           .direction = PEGEIR_CAPTURE_OUT,
           .sender = g_recording->Self(),
           .receiver = receiver,
           .envelope = EnvelopeOf(message).head,
           .result = result},
          std::span(static_cast<const uint8_t *>(message), length));
}

void CapturePeer(uint32_t peer, bool available) {
    Bytes data;
    Put32(data, available ? 1 : 0);
    Write({.kind = PEGEIR_CAPTURE_PEER,
           .direction = PEGEIR_CAPTURE_IN,
           .sender = peer,
           .receiver = g_recording->Self()},
          data);
}

void CaptureTimer(uint32_t request, uint32_t timerId, uint32_t periodMs, uint32_t result) {
    Bytes data;
    for (const uint32_t word : {request, timerId, periodMs})
        Put32(data, word);
    Write({.kind = PEGEIR_CAPTURE_TIMER,
           .direction = PEGEIR_CAPTURE_OUT,
           .sender = g_recording->Self(),
           .result = result},
          data);
}

void CaptureClock(const timespec &now) {
    if (now.tv_sec != g_recording->Second())
        Write({.kind = PEGEIR_CAPTURE_CLOCK, .direction = PEGEIR_CAPTURE_IN, .sender = g_recording->Self()},
              {}, now);
}

} // namespace pegeir::linux_platform

void PEGEIR_LinuxCapture(const char *file) {
    if (file != nullptr)
        pegeir::linux_platform::g_wanted = file;
    else
        pegeir::linux_platform::g_wanted.reset();
}
