/*
 * One write for each packet: the stream's buffer holds a whole one and is flushed behind it, so that a
 * killed process leaves whole packets.  What a failed write left of a packet is cut off again, and taken
 * out of the buffer before closing the stream would try it once more.
 *
 * libpcap is loaded when the first file is opened: it brings a dozen other libraries into the process,
 * which one that records nothing need not bear.
 */
#include "capture_file.h"

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <dlfcn.h>
#include <fcntl.h>
#include <pcap/pcap.h>
#include <stdio_ext.h>
#include <sys/file.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <type_traits>
#include <unistd.h>
#include <vector>

#include <pegeir/capture.h>

namespace pegeir::linux_platform {
namespace {

constexpr uint64_t kFileHeadSize = 24;
constexpr uint64_t kPacketHeadSize = 16;

struct CloseStream {
    void operator()(FILE *stream) const { (void)std::fclose(stream); }
};

/* What we use of libpcap. */
struct Pcap {
    decltype(&pcap_open_dead_with_tstamp_precision) open;
    decltype(&pcap_close) close;
    decltype(&pcap_geterr) error;
    decltype(&pcap_dump_fopen) dumpOpen;
    decltype(&pcap_dump) dump;
    decltype(&pcap_dump_flush) dumpFlush;
    decltype(&pcap_dump_close) dumpClose;
};

/* Returns it, loaded once and for good, or null with a text in error. */
const Pcap *Load(std::string &error) {
    static Pcap pcap{};
    if (pcap.dumpClose != nullptr)
        return &pcap;
    void *library = dlopen("libpcap.so.0.8", RTLD_NOW | RTLD_LOCAL); /* Debian's name */
    if (library == nullptr)
        library = dlopen("libpcap.so.1", RTLD_NOW | RTLD_LOCAL);
    bool complete = library != nullptr;
    const auto find = [&](auto &function, const char *name) {
        if (complete)
            function = reinterpret_cast<std::remove_reference_t<decltype(function)>>(dlsym(library, name));
        complete = complete && function != nullptr;
    };
    find(pcap.open, "pcap_open_dead_with_tstamp_precision");
    find(pcap.close, "pcap_close");
    find(pcap.error, "pcap_geterr");
    find(pcap.dumpOpen, "pcap_dump_fopen");
    find(pcap.dump, "pcap_dump");
    find(pcap.dumpFlush, "pcap_dump_flush");
    find(pcap.dumpClose, "pcap_dump_close");
    if (complete)
        return &pcap;
    const char *const reason = dlerror();
    error = std::string("libpcap cannot be loaded: ") + (reason != nullptr ? reason : "it is too old") +
            "; install it";
    return nullptr;
}

/* Writing beyond the limit would not fail but end the process. */
uint64_t SizeLimit() {
    rlimit limit{};
    return getrlimit(RLIMIT_FSIZE, &limit) == 0 ? limit.rlim_cur : UINT64_MAX;
}

} // namespace

struct CaptureFile::Parts {
    explicit Parts(const Pcap &loaded)
        : pcap(loaded), format(nullptr, loaded.close), dumper(nullptr, loaded.dumpClose) {}
    const Pcap &pcap;
    std::vector<char> buffer = std::vector<char>(kFileHeadSize + kPacketHeadSize + kMaxCapturePacket);
    std::unique_ptr<pcap_t, decltype(Pcap::close)> format;
    std::unique_ptr<pcap_dumper_t, decltype(Pcap::dumpClose)> dumper; /* owns the stream */
    FILE *stream = nullptr;
    uint64_t size = kFileHeadSize; /* of what is whole */
    uint64_t limit = SizeLimit();
};

CaptureFile::CaptureFile() = default;
CaptureFile::~CaptureFile() = default;

bool CaptureFile::Open(const std::string &name, std::string &error) {
    const auto refuse = [&error](const std::string &text) {
        error = text;
        return false;
    };
    const Pcap *const pcap = Load(error);
    if (pcap == nullptr)
        return false;
    /* Without waiting, which a pipe would make us do. */
    const int fd =
        open(name.c_str(), O_WRONLY | O_CREAT | O_NOFOLLOW | O_NONBLOCK | O_NOCTTY | O_CLOEXEC, 0600);
    if (fd < 0 && errno == ELOOP)
        return refuse("it is a symbolic link; name the file itself");
    std::unique_ptr<FILE, CloseStream> stream(fd >= 0 ? fdopen(fd, "w") : nullptr);
    struct stat status {};
    if (!stream || fstat(fd, &status) != 0)
        return refuse(std::string(std::strerror(errno)) + "; name a file that can be written");
    /* In a folder that others can write, they may have put there what is to be overwritten. */
    if (S_ISREG(status.st_mode) && (status.st_uid != geteuid() || status.st_nlink != 1))
        return refuse(status.st_nlink != 1 ? "the file has other names as well; remove it or name another"
                                           : "it belongs to another user; name another");
    if (S_ISREG(status.st_mode) && fchmod(fd, 0600) != 0)
        return refuse(std::strerror(errno));
    if (!S_ISREG(status.st_mode) && !S_ISCHR(status.st_mode))
        return refuse("it is no file; name one");
    if (flock(fd, LOCK_EX | LOCK_NB) != 0)
        return refuse(errno == EWOULDBLOCK ? "another process records into it; put %p into the name"
                                           : std::strerror(errno));
    if (S_ISREG(status.st_mode) && ftruncate(fd, 0) != 0)
        return refuse(std::strerror(errno));

    auto parts = std::make_unique<Parts>(*pcap);
    (void)std::setvbuf(stream.get(), parts->buffer.data(), _IOFBF, parts->buffer.size());
    parts->format.reset(pcap->open(PEGEIR_CAPTURE_LINKTYPE, kMaxCapturePacket, PCAP_TSTAMP_PRECISION_NANO));
    if (!parts->format)
        return refuse("memory is short");
    parts->stream = stream.release(); /* closed by libpcap from here on, also when this fails */
    parts->dumper.reset(pcap->dumpOpen(parts->format.get(), parts->stream));
    if (!parts->dumper)
        return refuse(pcap->error(parts->format.get()));
    parts_ = std::move(parts);
    return true;
}

bool CaptureFile::Append(uint32_t seconds, uint32_t nanoseconds, std::span<const uint8_t> packet,
                         std::string &error) {
    Parts &parts = *parts_;
    const uint64_t size = parts.size + kPacketHeadSize + packet.size();
    pcap_pkthdr head{};
    head.ts.tv_sec = static_cast<time_t>(seconds);
    head.ts.tv_usec = static_cast<suseconds_t>(nanoseconds); /* as the precision of the file is */
    head.caplen = head.len = static_cast<bpf_u_int32>(packet.size());
    errno = EFBIG;
    if (size <= parts.limit) {
        parts.pcap.dump(reinterpret_cast<u_char *>(parts.dumper.get()), &head, packet.data());
        if (parts.pcap.dumpFlush(parts.dumper.get()) == 0 && std::ferror(parts.stream) == 0) {
            parts.size = size;
            return true;
        }
    }
    error = std::strerror(errno);
    __fpurge(parts.stream);
    (void)!ftruncate(fileno(parts.stream), static_cast<off_t>(parts.size));
    return false;
}

} // namespace pegeir::linux_platform
