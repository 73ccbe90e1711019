// End to end: a second process sends data messages through the Linux platform to the library, beside raw
// datagrams of the same sizes between two processes, once with the lines that are promised for each record
// and once bare.  Time counts from the first message to the last.

#include <pegeir/linux.h>
#include <pegeir/pegeir.h>

#include <benchmark/benchmark.h>

#include <csignal>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <string>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>
#include <vector>

namespace {

constexpr uint32_t kComponent = 100;
constexpr uint32_t kConsumer = 200;
constexpr size_t kMessage = 8000;
constexpr size_t kHeader = 16;
constexpr uint8_t kSmoothBegin = 23, kSmoothData = 24, kSmoothEnd = 25, kAckFlag = 0x80;

ND_LIB_Instance *g_instance;
int64_t g_records;
char g_line[512];

void Store(uint8_t *bytes, uint32_t value, int count) {
    for (int i = 0; i < count; ++i) {
        bytes[i] = static_cast<uint8_t>(value >> (8 * (count - 1 - i)));
    }
}

// A message of the component; a body of elements of `element` bytes for the data of a download.
std::vector<uint8_t> Message(uint8_t type, uint32_t sequence, size_t element) {
    std::vector<uint8_t> bytes(kHeader);
    while (element != 0 && bytes.size() + element <= kMessage) {
        const size_t at = bytes.size();
        bytes.resize(at + element, 0x5A);
        Store(&bytes[at], 1, 2);
        Store(&bytes[at + 2], static_cast<uint32_t>(element - 4), 2);
    }
    Store(&bytes[0], static_cast<uint32_t>(bytes.size()), 2);
    bytes[3] = type;
    Store(&bytes[12], sequence, 4);
    return bytes;
}

bool Send(const std::vector<uint8_t> &bytes) {
    const auto size = static_cast<uint32_t>(bytes.size());
    void *message = ZEP_MsgFlowCtrlAlloc_F(kComponent, kConsumer, size, "bench", __LINE__);
    std::memcpy(message, bytes.data(), size);
    DMS_ZEP_MSG_SET_INTF(message, 3);
    DMS_ZEP_MSG_SET_SUB_INTF(message, 164);
    return ZEP_SEND_MSG(kConsumer, 6, 932, message, size) == 0;
}

// Sends bytes as soon as there is room for them.
void SendAll(const std::vector<uint8_t> &bytes) {
    while (!Send(bytes)) {
        static bool writable = false;
        writable = false;
        if (PEGEIR_LinuxWhenWritable(
                kConsumer, [](void *, uint32_t) { writable = true; }, nullptr) != 0) {
            PEGEIR_LinuxDispatch(1); // the consumer is not there yet
            continue;
        }
        while (!writable) {
            PEGEIR_LinuxDispatch(-1);
        }
    }
}

// The component's process: acknowledges whatever asks for it, and then sends the download.
void Component(const std::string &directory, int64_t messages, size_t element) {
    prctl(PR_SET_PDEATHSIG, SIGKILL);
    static bool uploaded = false;
    const auto onMessage = [](void *, void *message) {
        const auto *bytes = static_cast<const uint8_t *>(message);
        std::vector<uint8_t> ack(bytes, bytes + DMS_MsgDataLenGet(message));
        if ((ack[2] & kAckFlag) == 0) {
            ack[2] |= kAckFlag;
            SendAll(ack);
            uploaded = uploaded || ack[3] == 19; // the end of the upload
        }
    };
    const PEGEIR_LinuxConfig config{kComponent, directory.c_str(), onMessage, nullptr};
    char error[256];
    if (PEGEIR_LinuxOpen(&config, error, sizeof error) != 0) {
        _exit(1);
    }
    while (!uploaded) {
        PEGEIR_LinuxDispatch(100);
    }
    SendAll(Message(kSmoothBegin, 1, 0));
    auto data = Message(kSmoothData, 1, element);
    for (int64_t message = 0; message < messages; ++message) {
        Store(&data[12], static_cast<uint32_t>(message + 1), 4);
        SendAll(data);
    }
    SendAll(Message(kSmoothEnd, static_cast<uint32_t>(messages + 1), 0));
    for (;;) {
        PEGEIR_LinuxDispatch(1000);
    }
}

uint32_t Log(ND_LIB_Instance *, uint32_t, const char *format, ...) {
    va_list arguments;
    va_start(arguments, format);
    (void)vsnprintf(g_line, sizeof g_line, format, arguments);
    va_end(arguments);
    return 0;
}
uint32_t Pack(ND_LIB_Instance *, void *) {
    return ND_LIB_PACK_DONE;
}

std::chrono::steady_clock::time_point g_begin;
uint32_t Event(ND_LIB_Instance *, uint32_t code, uint32_t) {
    if (code == ND_LIB_NOTIFY_SMOOTH_BEGIN) {
        g_begin = std::chrono::steady_clock::now();
    } else if (code == ND_LIB_NOTIFY_SMOOTH_END) {
        PEGEIR_LinuxStop();
    }
    return 0;
}
uint32_t Update(ND_LIB_Instance *, const ND_LIB_TlvHead *) {
    ++g_records;
    return 0;
}

double Seconds() {
    return std::chrono::duration<double>(std::chrono::steady_clock::now() - g_begin).count();
}

int64_t RecordsAMessage(size_t element) {
    return static_cast<int64_t>((kMessage - kHeader) / element);
}

void Ours(benchmark::State &state) {
    const auto element = static_cast<size_t>(state.range(1));
    const int64_t messages = state.range(0) / RecordsAMessage(element);
    for (auto _ : state) {
        char name[] = "/tmp/pegeir-bench-XXXXXX";
        const std::string directory = std::string(mkdtemp(name)) + "/run";
        const pid_t child = fork();
        if (child == 0) {
            Component(directory, messages, element);
        }
        const PEGEIR_LinuxConfig config{
            kConsumer, directory.c_str(),
            [](void *, void *message) { (void)ND_LIB_MsgProcess(g_instance, message); }, nullptr};
        const ND_LIB_FrameRegister frame = {kComponent, kConsumer, 1, 1, 1, Log, 0, 0};
        const ND_LIB_ConsumerRegister consumer = {1, Pack, Event, Update};
        char error[256];
        g_records = 0;
        if (PEGEIR_LinuxOpen(&config, error, sizeof error) != 0) {
            state.SkipWithError(error);
            return;
        }
        g_instance = ND_LIB_Init(&frame);
        (void)ND_LIB_RegisterConsumer(g_instance, &consumer);
        (void)PEGEIR_LinuxWatchPeer(
            kComponent,
            [](void *, uint32_t, int available) {
                const ND_LIB_CompState now = {0, available != 0 ? 0U : 1U};
                ND_LIB_NotifyNdCompState(g_instance, &now);
            },
            nullptr);
        (void)PEGEIR_LinuxRun();
        state.SetIterationTime(Seconds());
        ND_LIB_Deinit(g_instance);
        PEGEIR_LinuxClose();
        kill(child, SIGKILL);
        waitpid(child, nullptr, 0);
        std::filesystem::remove_all(name);
        if (g_records != messages * RecordsAMessage(element)) {
            state.SkipWithError("records were lost");
        }
    }
    state.SetItemsProcessed(state.iterations() * state.range(0));
}

// The two lines that are promised for each record, formatted with the C library.
void FormatLines(size_t element) {
    static char log[512];
    static char line[256];
    for (int64_t record = 0; record < RecordsAMessage(element); ++record) {
        (void)snprintf(log, sizeof log, "[ND_LIB] NdPid=0X%X, ParseUpdateData tlvType:%u, tlvLen:%u",
                       kComponent, 1U, static_cast<unsigned>(element - 4));
        (void)snprintf(line, sizeof line, "%u-%u %u:%u:%u:%u%s ParseUpdateData tlvType:%u, tlvLen:%u\n", 1U,
                       1U, 2U, 3U, 4U, 567U, "-01:00", 1U, static_cast<unsigned>(element - 4));
    }
}

void Raw(benchmark::State &state, bool formats) {
    const auto element = static_cast<size_t>(state.range(1));
    const int64_t messages = state.range(0) / RecordsAMessage(element);
    for (auto _ : state) {
        int ends[2];
        if (socketpair(AF_UNIX, SOCK_DGRAM, 0, ends) != 0) {
            state.SkipWithError("no socket pair");
            return;
        }
        const pid_t child = fork();
        if (child == 0) {
            const auto data = Message(kSmoothData, 1, element);
            for (int64_t message = 0; message < messages; ++message) {
                (void)!send(ends[1], data.data(), data.size(), 0);
            }
            _exit(0);
        }
        char buffer[kMessage];
        (void)!recv(ends[0], buffer, sizeof buffer, 0);
        g_begin = std::chrono::steady_clock::now();
        for (int64_t message = 1; message < messages; ++message) {
            (void)!recv(ends[0], buffer, sizeof buffer, 0);
            if (formats) {
                FormatLines(element);
            }
        }
        state.SetIterationTime(Seconds());
        waitpid(child, nullptr, 0);
        close(ends[0]);
        close(ends[1]);
    }
    state.SetItemsProcessed(state.iterations() * state.range(0));
}

void Sizes(benchmark::internal::Benchmark *benchmark) {
    benchmark->ArgNames({"", "record"})->UseManualTime()->Unit(benchmark::kMillisecond)->Iterations(1);
    for (const int64_t record : {12, 200}) {
        benchmark->Args({1000000, record});
    }
}

BENCHMARK(Ours)->Name("sockets/ours")->Apply(Sizes);
BENCHMARK_CAPTURE(Raw, traced, true)->Name("sockets/peer")->Apply(Sizes);
BENCHMARK(Ours)->Name("sockets_bare/ours")->Apply(Sizes);
BENCHMARK_CAPTURE(Raw, bare, false)->Name("sockets_bare/peer")->Apply(Sizes);

} // namespace

BENCHMARK_MAIN();
