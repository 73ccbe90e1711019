/*
 * The one runtime of the process, and the operations of pegeir/linux.h.
 */
#include "capture.h"
#include "linux_platform.h"

#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <sys/epoll.h>
#include <sys/stat.h>
#include <unistd.h>

namespace pegeir::linux_platform {
namespace {

std::shared_ptr<Runtime> g_runtime;
volatile std::sig_atomic_t g_stop = 0;
PEGEIR_LinuxReportFunc g_onReport = nullptr;

} // namespace

std::shared_ptr<Runtime> CurrentRuntime() {
    return g_runtime;
}

void Report(const std::string &line) {
    if (g_onReport != nullptr)
        g_onReport(line.c_str());
    else
        std::fprintf(stderr, "pegeir: %s\n", line.c_str());
}

std::string ErrnoText(const std::string &what) {
    return what + ": " + std::strerror(errno);
}

Runtime::Runtime(const PEGEIR_LinuxConfig &given) : config(given), inbox(*this), peers(*this) {
    config.directory = nullptr; /* the caller's; directory holds what it led to */
}

bool Runtime::Open(const std::string &wanted, std::string &error) {
    wanted_ = wanted;
    if (!PrepareDirectory(wanted_, directory, error) || !identity.Take(directory, config.pid, error))
        return false;
    if (loop.Open() && Listen() && Housekeep())
        return true;
    error = ErrnoText("cannot set up the event loop");
    identity.Release();
    return false;
}

void Runtime::Close() {
    closed = true;
    loop.RemoveAll();
    inbox.ReportRest();
    peers.Clear();
    identity.Release();
}

void Runtime::Deliver(uint8_t *message) {
    if (Capturing())
        CaptureDelivery(message);
    config.onMessage(config.context, message);
    FreeMessage(message);
}

bool Runtime::Listen() {
    return loop.Add(identity.Socket(), EPOLLIN, [this] { inbox.Receive(); });
}

bool Runtime::Housekeep() {
    using namespace std::chrono_literals;
    loop.Remove(housekeeping_.Get());
    housekeeping_ = MakeTimer(peers.Watching() ? 200ms : 1000ms, 1ns);
    return housekeeping_.Valid() && loop.Add(housekeeping_.Get(), EPOLLIN, [this] {
        ReadTimer(housekeeping_.Get());
        LookAround();
    });
}

void Runtime::LookAround() {
    inbox.ReportRefusals();
    ReportCapture();
    if (!identity.Intact())
        Recover();
    if (!closed)
        peers.LookAtAll();
}

/* Somebody cleared the directory: nobody can reach us until we stand in it again. */
void Runtime::Recover() {
    std::string error;
    loop.Remove(identity.Socket());
    identity.Release();
    if (PrepareDirectory(wanted_, directory, error) && identity.Take(directory, config.pid, error) &&
        Listen()) {
        lost_ = false;
        Report("runtime directory " + directory + ": was cleared; id " + std::to_string(config.pid) +
               " is there again");
        peers.StartOverAll();
    } else if (identity.InUse()) {
        /* Our lock file was removed, and somebody else has taken the id: two of them cannot be. */
        Report(error + "; this one, which had the id before, ends");
        loop.Fail(EADDRINUSE);
    } else if (!lost_) {
        lost_ = true;
        Report(error + "; nobody reaches id " + std::to_string(config.pid) + " until then");
    }
}

} // namespace pegeir::linux_platform

using namespace pegeir::linux_platform;

namespace {

/* Returns the open runtime, or null with errno. */
std::shared_ptr<Runtime> OpenRuntime() {
    if (!g_runtime)
        errno = ENOTCONN;
    return g_runtime;
}

} // namespace

namespace {

/* Where nobody else can be before us, if the system has such a place. */
std::string OwnFolder() {
    const std::string id = std::to_string(geteuid());
    const std::string parent = geteuid() == 0 ? "/run" : "/run/user/" + id;
    struct stat status {};
    const bool isOurs = lstat(parent.c_str(), &status) == 0 && S_ISDIR(status.st_mode) &&
                        status.st_uid == geteuid() && (status.st_mode & 022) == 0;
    return isOurs ? parent + "/pegeir" : "/tmp/pegeir-" + id;
}

} // namespace

const char *PEGEIR_LinuxDirectory(void) {
    static std::string directory;
    const char *const own = std::getenv("PEGEIR_RUNTIME_DIR");
    const char *const user = std::getenv("XDG_RUNTIME_DIR");
    if (own != nullptr && *own != '\0')
        directory = own;
    else if (user != nullptr && *user != '\0')
        directory = std::string(user) + "/pegeir";
    else
        directory = OwnFolder();
    return directory.c_str();
}

void PEGEIR_LinuxOpenStandardStreams(void) {
    for (int fd = STDIN_FILENO; fd <= STDERR_FILENO; fd++) {
        /* The lowest free number is the one that is closed, since those below it are open by now. */
        if (fcntl(fd, F_GETFD) < 0 && errno == EBADF)
            (void)!open("/dev/null", O_RDWR);
    }
}

int PEGEIR_LinuxOpen(const PEGEIR_LinuxConfig *config, char *error, size_t errorSize) {
    std::string text;
    PEGEIR_LinuxOpenStandardStreams();
    if (g_runtime) {
        text = "the runtime is open already; close it first";
    } else if (config == nullptr || config->pid == 0 || config->onMessage == nullptr) {
        text = "the configuration lacks a process id other than 0 or the message callback";
    } else {
        const char *const given = config->directory;
        auto runtime = std::make_shared<Runtime>(*config);
        if (runtime->Open(given != nullptr ? given : PEGEIR_LinuxDirectory(), text)) {
            g_stop = 0;
            g_runtime = std::move(runtime);
            StartCapture(g_runtime->config.pid, g_runtime->directory);
            ReportCapture();
            return 0;
        }
    }
    if (error != nullptr && errorSize != 0)
        std::snprintf(error, errorSize, "%s", text.c_str());
    return -1;
}

void PEGEIR_LinuxClose(void) {
    const std::shared_ptr<Runtime> runtime = std::move(g_runtime);
    if (!runtime)
        return;
    runtime->Close();
    DeleteAllTimers();
    StopCapture();
    ReportCapture();
}

int PEGEIR_LinuxFd(void) {
    const auto runtime = OpenRuntime();
    return runtime ? runtime->loop.PollFd() : -1;
}

int PEGEIR_LinuxDispatch(int timeoutMs) {
    const auto runtime = OpenRuntime();
    return runtime ? runtime->loop.Dispatch(timeoutMs) : -1;
}

int PEGEIR_LinuxRun(void) {
    int result = OpenRuntime() ? 0 : -1;
    while (result == 0 && g_stop == 0 && g_runtime)
        result = PEGEIR_LinuxDispatch(-1);
    g_stop = 0;
    return result;
}

void PEGEIR_LinuxStop(void) {
    g_stop = 1;
}

int PEGEIR_LinuxWatchPeer(uint32_t peer, PEGEIR_LinuxPeerFunc onPeer, void *context) {
    const auto runtime = OpenRuntime();
    return runtime ? runtime->peers.Watch(peer, onPeer, context) : -1;
}

uint32_t PEGEIR_LinuxStartOver(uint32_t peer) {
    const auto runtime = OpenRuntime();
    const Envelope envelope{0, peer, {0, 0, kStartOverIid}, 0};
    return runtime ? runtime->peers.Send(peer, envelope, nullptr, 0) : uint32_t{PEGEIR_LINUX_SEND_FAILED};
}

int PEGEIR_LinuxWhenWritable(uint32_t peer, PEGEIR_LinuxWritableFunc onWritable, void *context) {
    const auto runtime = OpenRuntime();
    return runtime ? runtime->peers.WhenWritable(peer, onWritable, context) : -1;
}

int PEGEIR_LinuxAddFd(int fd, PEGEIR_LinuxFdFunc onReadable, void *context) {
    const auto runtime = OpenRuntime();
    const auto call = [fd, onReadable, context] { onReadable(context, fd); };
    return runtime && runtime->loop.Add(fd, EPOLLIN, call) ? 0 : -1;
}

void PEGEIR_LinuxRemoveFd(int fd) {
    if (g_runtime)
        g_runtime->loop.Remove(fd);
}

void PEGEIR_LinuxOnReport(PEGEIR_LinuxReportFunc onReport) {
    g_onReport = onReport;
}
