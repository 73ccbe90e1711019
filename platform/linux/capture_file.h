/*
 * The file of a recording.  capture_file.cpp writes it through libpcap; capture_file_none.cpp takes its
 * place in a build without.
 */
#ifndef PEGEIR_PLATFORM_LINUX_CAPTURE_FILE_H
#define PEGEIR_PLATFORM_LINUX_CAPTURE_FILE_H

#include <cstdint>
#include <memory>
#include <span>
#include <string>

namespace pegeir::linux_platform {

/* The most bytes that a packet may have. */
inline constexpr size_t kMaxCapturePacket = 66000;

class CaptureFile {
public:
    CaptureFile();
    ~CaptureFile();
    CaptureFile(const CaptureFile &) = delete;
    CaptureFile &operator=(const CaptureFile &) = delete;

    /* Makes or overwrites the file.  Returns false with what is wrong and what to do about it in error; a
     * file that another process records into is left as it is. */
    [[nodiscard]] bool Open(const std::string &name, std::string &error);

    /* Hands a packet, stamped with the time since 1970, to the kernel.  REQUIRES: Open and every Append before returned true.  Returns false
     * with what is wrong in error; the packets before are then whole in the file, and this one is not. */
    [[nodiscard]] bool Append(uint32_t seconds, uint32_t nanoseconds, std::span<const uint8_t> packet,
                              std::string &error);

private:
    struct Parts;
    std::unique_ptr<Parts> parts_;
};

} // namespace pegeir::linux_platform

#endif
