/*
 * The tap of the message service: turns what passes it into the packets of docs/capture.md.
 *
 * Whoever lets something pass asks Capturing first, so that a process that records nothing spends a
 * branch.  None of the functions calls anybody back or fails: when the file can take no more, the
 * recording ends, and ReportCapture tells.
 */
#ifndef PEGEIR_PLATFORM_LINUX_CAPTURE_H
#define PEGEIR_PLATFORM_LINUX_CAPTURE_H

#include <cstdint>
#include <ctime>
#include <string>

#include <pegeir/capture.h>

namespace pegeir::linux_platform {

struct Envelope;

extern bool g_capturing;
inline bool Capturing() {
    return g_capturing;
}

/* Starts the recording of process id self, if one is wanted (PEGEIR_LinuxCapture, $PEGEIR_CAPTURE). */
void StartCapture(uint32_t self, const std::string &directory);

/* Ends it in order.  Harmless when there is none. */
void StopCapture();

/* Reports, once, why there is no recording although one was wanted. */
void ReportCapture();

/* ---- While Capturing() ----------------------------------------------------------------------- */

/* A message that is about to be handed to the process, from a peer or the timer service. */
void CaptureDelivery(const void *message);

/* A message that was sent, or not, with the result of the send.  length bytes, not more than it has. */
void CaptureSend(uint32_t receiver, const void *message, uint32_t length, uint32_t result);

/* What the process is about to be told of a peer. */
void CapturePeer(uint32_t peer, bool available);

/* A request PEGEIR_CAPTURE_TIMER_* with its result. */
void CaptureTimer(uint32_t request, uint32_t timerId, uint32_t periodMs, uint32_t result);

/* What the process is about to be told when it reads the clock. */
void CaptureClock(const timespec &now);

} // namespace pegeir::linux_platform

#endif
