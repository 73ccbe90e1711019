/*
 * pegeir-component: the sources, the server and the Linux platform put together on one event loop.
 */
#include "program/linux_transport.h"
#include "program/options.h"
#include "protocol/server.h"
#include "sources/kernel_source.h"
#include "sources/ra_source.h"
#include "sources/synthetic_source.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <chrono>
#include <climits>
#include <csignal>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <exception>
#include <memory>
#include <pegeir/linux.h>
#include <poll.h>
#include <sys/resource.h>
#include <sys/signalfd.h>
#include <sys/timerfd.h>
#include <unistd.h>

namespace pegeir::component {

namespace {

constexpr uint32_t kTickMs = 250;
constexpr uint64_t kTicksPerSecond = 1000 / kTickMs;
constexpr uint32_t kNdpiSubInterface = 164;
constexpr uint32_t kTimerIid = 3;

uint64_t NowMs() {
    const auto now = std::chrono::steady_clock::now().time_since_epoch();
    return static_cast<uint64_t>(std::chrono::duration_cast<std::chrono::milliseconds>(now).count());
}

/*
 * The log: lines on standard error.  Whoever reads them may have stopped, and must not stop us by that: what
 * cannot be written now is counted, and the count goes out before the next line that can be.
 */
class LogWriter {
public:
    void Write(Severity severity, const std::string &text) {
        static constexpr std::array<const char *, 4> kNames = {"error", "warning", "info", "detail"};
        const std::string name = kNames.at(static_cast<size_t>(severity));
        if (lost_ != 0 && Put(Text("warning: ", lost_, " lines of this log could not be written"))) {
            lost_ = 0;
        }
        if (lost_ != 0 || !Put(name + ": " + text)) {
            ++lost_;
        }
    }

private:
    /* A pipe that polls writable takes this much in one piece; a longer line is cut. */
    static constexpr size_t kLongest = PIPE_BUF;

    [[nodiscard]] static bool Put(const std::string &text) {
        timespec now = {};
        clock_gettime(CLOCK_REALTIME, &now);
        tm local = {};
        localtime_r(&now.tv_sec, &local);
        std::array<char, 32> time = {};
        (void)std::strftime(time.data(), time.size(), "%Y-%m-%d %H:%M:%S", &local);
        std::array<char, 8> fraction = {};
        (void)std::snprintf(fraction.data(), fraction.size(), ".%03ld ", now.tv_nsec / 1'000'000 % 1000);
        std::string line = std::string(time.data()) + fraction.data() + text;
        line.resize(std::min(line.size(), kLongest - 1));
        line += '\n';
        pollfd output = {STDERR_FILENO, POLLOUT, 0};
        return poll(&output, 1, 0) == 1 && (output.revents & POLLOUT) != 0 &&
               write(STDERR_FILENO, line.data(), line.size()) == static_cast<ssize_t>(line.size());
    }

    uint64_t lost_ = 0;
};

void WriteLog(Severity severity, const std::string &text) {
    static LogWriter writer;
    writer.Write(severity, text);
}

/* A readable descriptor that counts what has happened: a timer or a signal. */
class EventFd {
public:
    explicit EventFd(int fd) : fd_(fd) {}
    EventFd(const EventFd &) = delete;
    EventFd &operator=(const EventFd &) = delete;
    ~EventFd() {
        if (fd_ >= 0) {
            close(fd_);
        }
    }
    [[nodiscard]] int Get() const { return fd_; }

    template <class Value>
    [[nodiscard]] bool Read(Value &value) const {
        return read(fd_, &value, sizeof(value)) == static_cast<ssize_t>(sizeof(value));
    }

private:
    int fd_;
};

int MakeTimer(uint32_t periodMs) {
    const int fd = timerfd_create(CLOCK_MONOTONIC, TFD_NONBLOCK | TFD_CLOEXEC);
    const timespec period = {static_cast<time_t>(periodMs / 1000),
                             static_cast<long>(periodMs % 1000) * 1'000'000};
    const itimerspec setting = {period, period};
    if (fd >= 0 && timerfd_settime(fd, 0, &setting, nullptr) != 0) {
        close(fd);
        return -1;
    }
    return fd;
}

int MakeSignals() {
    sigset_t signals;
    sigemptyset(&signals);
    for (const int signal : {SIGINT, SIGTERM, SIGHUP}) {
        sigaddset(&signals, signal);
    }
    return sigprocmask(SIG_BLOCK, &signals, nullptr) == 0 ? signalfd(-1, &signals, SFD_NONBLOCK | SFD_CLOEXEC)
                                                          : -1;
}

/* Each consumer takes a few descriptors; the soft limit is there for programs that cannot cope with many. */
void RaiseDescriptorLimit() {
    rlimit limit = {};
    if (getrlimit(RLIMIT_NOFILE, &limit) == 0) {
        limit.rlim_cur = limit.rlim_max;
        (void)setrlimit(RLIMIT_NOFILE, &limit);
    }
}

class Program {
public:
    explicit Program(Options options);
    Program(const Program &) = delete;
    Program &operator=(const Program &) = delete;
    ~Program() { PEGEIR_LinuxClose(); }

    int Run();

private:
    [[nodiscard]] bool Start();
    [[nodiscard]] bool OpenSources();
    [[nodiscard]] bool Watch(int fd, PEGEIR_LinuxFdFunc onReadable, const char *what);
    void OnMessage(void *message);
    void OnTick();
    void OnSignal();
    void OnChangeTimer();
    void Say(Severity severity, const std::string &text) const {
        if (severity <= options_.verbosity) {
            WriteLog(severity, text);
        }
    }

    /* Calls the member Handler of the program that was given as context. */
    template <auto Handler>
    static void Call(void *context, int) {
        (static_cast<Program *>(context)->*Handler)();
    }

    Options options_;
    Log log_;
    ConsumerLog consumerLog_;
    ChangeFunc onChange_;
    EventFd signals_;
    EventFd tick_;
    EventFd changeTimer_;
    uint64_t ticks_ = 0;
    Catalog catalog_;
    LinuxTransport transport_;
    Server server_;
    std::unique_ptr<KernelSource> kernel_;
    std::unique_ptr<RaSource> ra_;
    std::unique_ptr<SyntheticSource> synthetic_;
};

Program::Program(Options options)
    : options_(std::move(options)),
      log_([this](Severity severity, const std::string &text) { Say(severity, text); }),
      consumerLog_([this](Severity severity, uint32_t consumer, const std::string &text) {
          if (severity <= options_.verbosity) {
              Say(severity, Text("consumer ", consumer, ": ", text));
          }
      }),
      onChange_([this](const RecordId &id) { server_.OnChange(id); }), signals_(MakeSignals()),
      tick_(MakeTimer(kTickMs)),
      changeTimer_(options_.changeEveryMs != 0 ? MakeTimer(options_.changeEveryMs) : -1),
      transport_(
          options_.id, [this](uint32_t consumer) { server_.OnWritable(consumer); }, NowMs, consumerLog_),
      server_(transport_, catalog_, NowMs, consumerLog_) {}

int Program::Run() {
    if (!Start()) {
        return kExitNotStarted;
    }
    if (std::printf("ready id=%u directory=%s\n", options_.id,
                    options_.directory.empty() ? PEGEIR_LinuxDirectory() : options_.directory.c_str()) < 0 ||
        std::fflush(stdout) != 0) {
        Say(Severity::kError, Text("cannot say on standard output that it is ready: ", std::strerror(errno),
                                   "; whoever waits for that would wait for ever"));
        return kExitFailed;
    }
    if (PEGEIR_LinuxRun() != 0) {
        Say(Severity::kError, Text("the event loop failed: ", std::strerror(errno)));
        return kExitFailed;
    }
    Say(Severity::kInfo, Text("stopped, ", server_.ConsumerCount(), " consumers, ", server_.DroppedCount(),
                              " messages dropped"));
    return kExitStopped;
}

/* The tables are filled before the first consumer can ask for them. */
bool Program::Start() {
    if (!OpenSources()) {
        return false;
    }
    PEGEIR_LinuxOnReport([](const char *line) { WriteLog(Severity::kWarning, line); });
    PEGEIR_LinuxConfig config = {};
    config.pid = options_.id;
    config.directory = options_.directory.empty() ? nullptr : options_.directory.c_str();
    config.onMessage = [](void *context, void *message) {
        static_cast<Program *>(context)->OnMessage(message);
    };
    config.context = this;
    PEGEIR_LinuxCapture(options_.capture.empty() ? nullptr : options_.capture.c_str());
    std::array<char, 512> error = {};
    if (PEGEIR_LinuxOpen(&config, error.data(), error.size()) != 0) {
        Say(Severity::kError, error.data());
        return false;
    }
    return Watch(signals_.Get(), Call<&Program::OnSignal>, "signals") &&
           Watch(tick_.Get(), Call<&Program::OnTick>, "the timer") &&
           (options_.changeEveryMs == 0 ||
            Watch(changeTimer_.Get(), Call<&Program::OnChangeTimer>, "the timer of the changes")) &&
           (!kernel_ ||
            Watch(
                kernel_->Fd(),
                [](void *context, int) { static_cast<Program *>(context)->kernel_->OnReadable(); },
                "rtnetlink")) &&
           (!ra_ || ra_->Fd() < 0 ||
            Watch(
                ra_->Fd(), [](void *context, int) { static_cast<Program *>(context)->ra_->OnReadable(); },
                "the configuration file"));
}

bool Program::OpenSources() {
    if (options_.kernel) {
        const auto onLinkNames = [this] {
            if (ra_) {
                ra_->SetLinks(kernel_->LinkNames());
            }
        };
        kernel_ = std::make_unique<KernelSource>(onChange_, onLinkNames, log_);
        std::string error;
        if (!kernel_->Open(error)) {
            Say(Severity::kError, error);
            return false;
        }
        catalog_.Add(*kernel_);
    }
    if (!options_.raConfig.empty()) {
        ra_ = std::make_unique<RaSource>(options_.raConfig, onChange_, log_);
        ra_->SetLinks(kernel_->LinkNames());
        catalog_.Add(*ra_);
    }
    if (options_.synthetic != 0) {
        synthetic_ = std::make_unique<SyntheticSource>(options_.synthetic, options_.syntheticSize, onChange_);
        catalog_.Add(*synthetic_);
    }
    return true;
}

bool Program::Watch(int fd, PEGEIR_LinuxFdFunc onReadable, const char *what) {
    if (fd >= 0 && PEGEIR_LinuxAddFd(fd, onReadable, this) == 0) {
        return true;
    }
    Say(Severity::kError, Text("cannot watch ", what, ": ", std::strerror(errno)));
    return false;
}

void Program::OnMessage(void *message) {
    const uint32_t sender = DMS_MsgSendCidGet(message);
    const uint32_t subInterface = DMS_ZEP_MSG_GET_SUB_INTF(message);
    if (DMS_MsgRecvIidGet(message) == kTimerIid || subInterface != kNdpiSubInterface) {
        server_.Drop(sender, Text("sub-interface ", subInterface, " is not ", kNdpiSubInterface));
        return;
    }
    server_.OnMessage(sender, ByteView(static_cast<const uint8_t *>(message), DMS_MsgDataLenGet(message)));
}

void Program::OnTick() {
    uint64_t expirations = 0;
    if (!tick_.Read(expirations)) {
        return;
    }
    server_.OnTick();
    if (++ticks_ % kTicksPerSecond == 0) {
        if (kernel_) {
            kernel_->OnTick();
        }
        if (ra_) {
            ra_->OnTick();
        }
    }
}

void Program::OnSignal() {
    signalfd_siginfo signal = {};
    if (!signals_.Read(signal)) {
        return;
    }
    if (signal.ssi_signo != SIGHUP) {
        PEGEIR_LinuxStop();
        return;
    }
    Say(Severity::kInfo, "reading everything again");
    if (kernel_) {
        kernel_->Reload();
    }
    if (ra_) {
        ra_->Load();
    }
}

void Program::OnChangeTimer() {
    uint64_t expirations = 0;
    if (changeTimer_.Read(expirations)) {
        synthetic_->Change(expirations);
    }
}

} // namespace

} // namespace pegeir::component

int main(int argc, char **argv) {
    using namespace pegeir::component;
    PEGEIR_LinuxOpenStandardStreams();   /* before anything else takes their numbers */
    (void)std::signal(SIGPIPE, SIG_IGN); /* a log whose reader has gone must not end us */
    RaiseDescriptorLimit();
    try {
        Options options;
        if (const std::optional<int> code = ReadOptions(argc, argv, options)) {
            return *code;
        }
        return Program(std::move(options)).Run();
    } catch (const std::exception &error) {
        WriteLog(Severity::kError, error.what());
        return kExitFailed;
    }
}
