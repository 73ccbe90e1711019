/*
 * In place of capture_file.cpp in a build without libpcap.
 */
#include "capture_file.h"

namespace pegeir::linux_platform {

struct CaptureFile::Parts {};

CaptureFile::CaptureFile() = default;
CaptureFile::~CaptureFile() = default;

bool CaptureFile::Open(const std::string &, std::string &error) {
    error = "this build cannot record; configure one with -DPEGEIR_CAPTURE=ON";
    return false;
}

bool CaptureFile::Append(uint32_t, uint32_t, std::span<const uint8_t>, std::string &) {
    return false;
}

} // namespace pegeir::linux_platform
