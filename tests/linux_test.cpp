// The Linux platform as processes see it: children are forked, strangers are sockets of the test's own.
#include <pegeir/linux.h>

#include <gtest/gtest.h>

#include <chrono>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <functional>
#include <poll.h>
#include <string>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>
#include <vector>

using namespace std::chrono_literals;

namespace {

struct Seen {
    uint32_t from, iid, subIntf;
    std::string data;
};
std::vector<Seen> g_seen;
std::vector<std::string> g_reports, g_peers;
std::function<void(void *)> g_onMessage;

void OnMessage(void *, void *message) {
    EXPECT_EQ(reinterpret_cast<uintptr_t>(message) % 8, 0U);
    g_seen.push_back({DMS_MsgSendCidGet(message), DMS_MsgRecvIidGet(message),
                      DMS_ZEP_MSG_GET_SUB_INTF(message),
                      std::string(static_cast<char *>(message), DMS_MsgDataLenGet(message))});
    if (g_onMessage)
        g_onMessage(message);
}

void OnPeer(void *, uint32_t peer, int available) {
    g_peers.push_back(std::to_string(peer) + (available != 0 ? " came" : " went"));
}

uint32_t Send(uint32_t to, const std::string &text, uint32_t more = 0) {
    const auto size = static_cast<uint32_t>(text.size());
    void *message = ZEP_MsgFlowCtrlAlloc_F(1, to, size, "test", 1);
    std::memcpy(message, text.data(), size);
    DMS_ZEP_MSG_SET_SUB_INTF(message, 164);
    return ZEP_SEND_MSG(to, 6, 932, message, size + more);
}

bool Until(const std::function<bool()> &condition, std::chrono::milliseconds limit = 5s) {
    const auto end = std::chrono::steady_clock::now() + limit;
    while (!condition() && std::chrono::steady_clock::now() < end)
        PEGEIR_LinuxDispatch(10);
    return condition();
}

void SpinFor(std::chrono::milliseconds time) {
    Until([] { return false; }, time);
}

class Linux : public testing::Test {
protected:
    void SetUp() override {
        char name[] = "/tmp/pegeir-test-XXXXXX";
        base = mkdtemp(name);
        directory = base + "/run";
        g_seen.clear(), g_reports.clear(), g_peers.clear(), g_onMessage = nullptr;
        PEGEIR_LinuxOnReport([](const char *line) { g_reports.emplace_back(line); });
    }
    void TearDown() override {
        while (!children.empty())
            End(children.back());
        PEGEIR_LinuxClose();
        std::filesystem::remove_all(base);
    }

    // Returns the error text, empty when it went well.
    static std::string Open(const std::string &where, uint32_t id) {
        char error[300] = "";
        const PEGEIR_LinuxConfig config{id, where.c_str(), OnMessage, nullptr};
        const bool opened = PEGEIR_LinuxOpen(&config, error, sizeof error) == 0;
        EXPECT_EQ(opened, *error == '\0');
        return error;
    }

    // Starts a process with an id that sends every message back, stopped from the start on request.
    pid_t Start(uint32_t id, bool stopped = false) {
        const pid_t child = fork();
        if (child == 0) {
            prctl(PR_SET_PDEATHSIG, SIGKILL);
            PEGEIR_LinuxClose(); // what was inherited; must not disturb the parent
            g_onMessage = [](void *) { Send(g_seen.back().from, g_seen.back().data); };
            if (!Open(directory, id).empty())
                _exit(1);
            if (stopped)
                raise(SIGSTOP);
            PEGEIR_LinuxRun();
            _exit(0);
        }
        children.push_back(child);
        if (stopped)
            waitpid(child, nullptr, WUNTRACED);
        return child;
    }
    void End(pid_t child) {
        std::erase(children, child);
        kill(child, SIGKILL);
        waitpid(child, nullptr, 0);
    }

    // Sends bytes to id 1 from a socket with this name in the directory, or without one.
    void SendRaw(const std::string &name, const std::string &bytes, bool withDescriptor = false,
                 uid_t user = geteuid()) {
        const int raw = socket(AF_UNIX, SOCK_DGRAM, 0);
        sockaddr_un to{AF_UNIX, {}}, from{AF_UNIX, {}};
        (directory + "/1.sock").copy(to.sun_path, sizeof to.sun_path - 1);
        (directory + "/" + name).copy(from.sun_path, sizeof from.sun_path - 1);
        EXPECT_TRUE(name.empty() || bind(raw, reinterpret_cast<sockaddr *>(&from), sizeof from) == 0);
        EXPECT_EQ(connect(raw, reinterpret_cast<sockaddr *>(&to), sizeof to), 0);
        iovec part{const_cast<char *>(bytes.data()), bytes.size()};
        alignas(cmsghdr) char control[CMSG_SPACE(sizeof raw)] = {};
        msghdr message{nullptr, 0, &part, 1, control, sizeof control, 0};
        *CMSG_FIRSTHDR(&message) = {CMSG_LEN(sizeof raw), SOL_SOCKET, SCM_RIGHTS};
        std::memcpy(CMSG_DATA(CMSG_FIRSTHDR(&message)), &raw, sizeof raw);
        if (!withDescriptor)
            message.msg_controllen = 0;
        const pid_t child = fork();
        if (child == 0)
            _exit(setuid(user) == 0 && sendmsg(raw, &message, 0) >= 0 ? 0 : 1);
        int status = 1;
        waitpid(child, &status, 0);
        EXPECT_EQ(status, 0);
        close(raw);
        unlink(from.sun_path);
    }

    std::string base, directory;
    std::vector<pid_t> children;
};

TEST_F(Linux, MessagesTravelBetweenProcesses) {
    ASSERT_EQ(Open(directory, 1), "");
    EXPECT_EQ(Send(2, "nobody there"), uint32_t{PEGEIR_LINUX_SEND_NO_PEER});
    const pid_t peer = Start(2);
    ASSERT_TRUE(Until([] { return Send(2, "there?") == 0; }));
    for (const size_t size : {1U, 8000U, 65535U}) {
        std::string text(size, 'x');
        text.back() = 'y';
        g_seen.clear();
        EXPECT_EQ(Send(2, text), 0U);
        ASSERT_TRUE(Until([&] { return !g_seen.empty() && g_seen.back().data.size() == size; })) << size;
        EXPECT_EQ(g_seen.back().data, text);
        EXPECT_EQ(g_seen.back().from, 2U);
        EXPECT_EQ(g_seen.back().iid, 0U);
        EXPECT_EQ(g_seen.back().subIntf, 164U);
    }
    EXPECT_EQ(Send(2, "longer than allocated", 1), uint32_t{PEGEIR_LINUX_SEND_FAILED});
    EXPECT_EQ(ZEP_MsgFlowCtrlAlloc_F(1, 2, 65536, "test", 1), nullptr);
    End(peer);
    Start(2, true);
    EXPECT_EQ(Send(2, "to its successor"), 0U);
}

TEST_F(Linux, RefusesStrangersAndGarbage) {
    const std::string head("PGR\1\0\0\0\3\0\0\0\xa4\0\0\0\0", 16);
    std::string timer = head, version = head;
    timer[15] = 3, version[3] = 2;
    struct Case {
        const char *name;
        std::string bytes, reason;
        bool descriptor = false;
        uid_t user = geteuid();
    };
    std::vector<Case> cases = {{"12.1.sock", timer, "timer service"},
                               {"12.1.sock", version, "no packet of this version"},
                               {"12.1.sock", "", "too short"},
                               {"12.1.sock", head.substr(0, 15), "too short"},
                               {"12.1.sock", head + std::string(65536, 'x'), "more than 65535"},
                               {"12.1.sock", head + std::string(99999, 'x'), "more than 65535"},
                               {"12.1.sock", head, "file descriptors", true}};
    for (const char *name :
         {"", "12x.1.sock", "012.1.sock", "12.2.sock", "12.sock", "0.1.sock", "4294967296.1.sock"})
        cases.push_back({name, head, "no socket of a pegeir process"});
    if (geteuid() == 0)
        cases.push_back({"12.1.sock", head, "another user", false, 65534});
    for (const Case &entry : cases) {
        g_reports.clear();
        ASSERT_EQ(Open(directory, 1), "");
        SendRaw(entry.name, entry.bytes, entry.descriptor, entry.user);
        SendRaw("", "once more");
        SendRaw("12.1.sock", head + "good");
        ASSERT_TRUE(Until([] { return !g_seen.empty(); })) << entry.reason;
        PEGEIR_LinuxClose();
        EXPECT_EQ(g_seen.size(), 1U) << entry.reason;
        EXPECT_EQ(g_seen[0].data, "good");
        EXPECT_EQ(g_seen[0].from, 12U);
        g_seen.clear();
        // The first is told at once, the second only counted until the close.
        ASSERT_EQ(g_reports.size(), 2U);
        EXPECT_NE(g_reports[0].find(entry.reason), std::string::npos) << g_reports[0];
    }
}

TEST_F(Linux, FullQueueFailsAtOnceAndTellsWhenItHasRoom) {
    static std::vector<uint32_t> writable;
    writable.clear();
    const auto onWritable = [](void *, uint32_t peer) { writable.push_back(peer); };
    ASSERT_EQ(Open(directory, 1), "");
    EXPECT_EQ(PEGEIR_LinuxWhenWritable(2, onWritable, nullptr), -1);
    const pid_t stopped = Start(2, true);
    uint32_t result = 0;
    for (int i = 0; i < 10000 && result == 0; i++)
        result = Send(2, std::string(8000, 'x'));
    EXPECT_EQ(result, uint32_t{PEGEIR_LINUX_SEND_FULL});
    EXPECT_EQ(PEGEIR_LinuxWhenWritable(2, nullptr, nullptr), 0);
    EXPECT_EQ(PEGEIR_LinuxWhenWritable(2, onWritable, nullptr), 0); // in place of the first

    Start(3); // another peer does not notice
    ASSERT_TRUE(Until([] { return Send(3, std::string(65535, 'x')) == 0; }));
    ASSERT_TRUE(Until([] { return !g_seen.empty(); }));
    EXPECT_TRUE(writable.empty());

    kill(stopped, SIGCONT);
    ASSERT_TRUE(Until([] { return !writable.empty(); }));
    EXPECT_EQ(Send(2, "again"), 0U);
    SpinFor(50ms);
    EXPECT_EQ(writable, std::vector<uint32_t>{2});

    kill(stopped, SIGSTOP);
    while (Send(2, std::string(8000, 'x')) == 0)
        ;
    EXPECT_EQ(PEGEIR_LinuxWhenWritable(2, onWritable, nullptr), 0);
    End(stopped);
    EXPECT_TRUE(Until([] { return writable.size() == 2; }));
    EXPECT_EQ(Send(2, "gone"), uint32_t{PEGEIR_LINUX_SEND_NO_PEER});
}

TEST_F(Linux, WatchedPeerComesAndGoes) {
    const auto told = [](const std::vector<std::string> &expected) {
        Until([&] { return g_peers.size() >= expected.size(); });
        return std::exchange(g_peers, {}) == expected;
    };
    ASSERT_EQ(Open(directory, 1), "");
    ASSERT_EQ(PEGEIR_LinuxWatchPeer(2, OnPeer, nullptr), 0);
    SpinFor(300ms);
    EXPECT_TRUE(g_peers.empty());
    pid_t peer = Start(2);
    ASSERT_TRUE(told({"2 came"}));
    EXPECT_EQ(Send(2, "hello"), 0U); // who is reported there listens
    End(peer);
    ASSERT_TRUE(told({"2 went"}));
    peer = Start(2);
    ASSERT_TRUE(told({"2 came"}));
    End(peer);
    peer = Start(2, true); // replaced while we do not look
    ASSERT_TRUE(told({"2 went", "2 came"}));

    End(peer);
    std::filesystem::remove_all(directory);
    Start(2);
    ASSERT_TRUE(told({"2 went", "2 came"}));
    // The peer reaches us again, too.
    ASSERT_TRUE(Until([] { return !g_reports.empty() && Send(2, "back?") == 0; }));
    EXPECT_TRUE(Until([] { return !g_seen.empty() && g_seen.back().data == "back?"; }));
    EXPECT_NE(g_reports[0].find("was cleared; id 1 is there again"), std::string::npos);

    EXPECT_EQ(PEGEIR_LinuxWatchPeer(1, OnPeer, nullptr), 0); // ourselves
    ASSERT_TRUE(told({"1 came"}));
    EXPECT_EQ(PEGEIR_LinuxWatchPeer(2, nullptr, nullptr), 0);
    End(children.back());
    SpinFor(300ms);
    EXPECT_TRUE(g_peers.empty());
}

TEST_F(Linux, IdBelongsToOneLivingProcess) {
    const pid_t holder = Start(2, true);
    const std::string error = Open(directory, 2);
    EXPECT_NE(error.find("id 2 is in use by process " + std::to_string(holder)), std::string::npos) << error;
    End(holder);
    EXPECT_TRUE(std::filesystem::exists(directory + "/2.sock")); // left over
    EXPECT_EQ(Open(directory, 2), "");
    EXPECT_NE(Open(directory, 2), "") << "open already";
    PEGEIR_LinuxClose();
    EXPECT_TRUE(std::filesystem::is_empty(directory));
}

TEST_F(Linux, RefusesDirectoriesThatAreNotOursAlone) {
    std::filesystem::create_directories(base + "/real");
    std::filesystem::create_directory_symlink(base + "/real", base + "/link");
    std::filesystem::create_directories(base + "/open");
    chmod((base + "/open").c_str(), 0750);
    std::ofstream(base + "/file") << "x";
    std::vector<std::pair<std::string, std::string>> cases = {
        {"/link", "symbolic link"},
        {"/link/", "symbolic link"},
        {"/file", "not a directory"},
        {"/open", "run: chmod 700"},
        {"/none/run", "make the directory above it first"},
        {"/" + std::string(90, 'x'), "choose a shorter one"}};
    std::filesystem::create_directories(base + "/other");
    if (geteuid() == 0 && chown((base + "/other").c_str(), 65534, 65534) == 0)
        cases.push_back({"/other", "belongs to user 65534, not to user 0"});
    if (geteuid() != 0 && chmod((base + "/other").c_str(), 0500) == 0)
        cases.push_back({"/other", "check that the directory can be written"});
    for (const auto &[name, text] : cases)
        EXPECT_NE(Open(base + name, 1).find(text), std::string::npos) << Open(base + name, 1);
    EXPECT_EQ(Open(base + "/real/../run/", 1), "");
}

TEST_F(Linux, TimersExpireThroughMessages) {
    static std::vector<std::string> expired;
    expired.clear();
    const auto onExpiry = [](uint32_t id, uint32_t, void *param, void *arg) {
        expired.push_back(std::to_string(id) + static_cast<char *>(param) + static_cast<char *>(arg));
        return 0U;
    };
    char param[] = " param", arg[] = " arg";
    const uint32_t words[] = {1, 120, 500};
    ASSERT_EQ(Open(directory, 1), "");
    const uint32_t lib = APPTMR_CreateLib2(1, onExpiry, 1);
    const uint32_t otherLib = APPTMR_CreateLib2(1, onExpiry, 1);
    const uint32_t instance = APPTMR_CreateInstance(lib, words);
    EXPECT_EQ(APPTMR_CreatePeriodTimer(0, 50, 0, param, APP_TIMER_FLAG_SHADOW), 0U);
    const uint32_t timer = APPTMR_CreatePeriodTimer(instance, 50, 0, param, APP_TIMER_FLAG_SHADOW);
    ASSERT_NE(timer, 0U);
    EXPECT_EQ(APPTMR_GetTimerParam(instance, timer), param);
    EXPECT_EQ(APPTMR_GetTimerParam(instance + 1, timer), nullptr);
    g_onMessage = [&](void *message) {
        EXPECT_EQ(APPTMR_LibRcvMsg(otherLib, message, 0, arg), 0U);
        EXPECT_EQ(APPTMR_LibRcvMsg(lib, message, 0, arg), 0U);
    };
    usleep(230000);
    for (int i = 0; i < 5; i++)
        PEGEIR_LinuxDispatch(0);
    EXPECT_LE(expired.size(), 2U) << "four expiries were missed and are not made up for";
    EXPECT_EQ(expired.at(0), std::to_string(timer) + " param arg");
    EXPECT_EQ(g_seen.at(0).iid, 3U);

    g_onMessage = [&](void *message) { // the expiry is under way when the timer is deleted
        EXPECT_EQ(APPTMR_DeleteTimer(instance, timer), 0U);
        EXPECT_EQ(APPTMR_LibRcvMsg(lib, message, 0, arg), 0U);
    };
    const size_t before = expired.size();
    EXPECT_TRUE(Until([&] { return g_seen.size() == before + 1; }));
    EXPECT_EQ(expired.size(), before);
    EXPECT_NE(APPTMR_DeleteTimer(instance, timer), 0U);

    const uint32_t second = APPTMR_CreatePeriodTimer(instance, 1, 0, param, APP_TIMER_FLAG_SHADOW);
    APPTMR_DeleteLib(lib);
    APPTMR_DeleteLib(otherLib);
    SpinFor(20ms);
    EXPECT_EQ(g_seen.size(), before + 1);
    EXPECT_EQ(APPTMR_GetTimerParam(instance, second), nullptr);
}

TEST_F(Linux, EmbedsThroughItsDescriptorAndClosesFromACallback) {
    ASSERT_EQ(Open(directory, 1), "");
    PEGEIR_LinuxDispatch(0);
    pollfd watched{PEGEIR_LinuxFd(), POLLIN, 0};
    EXPECT_EQ(poll(&watched, 1, 0), 0);
    // Two are readable; the first to be called puts an empty pipe in the place of the other.
    static int full[2][2], empty[2], calls;
    calls = 0;
    ASSERT_EQ(pipe(full[0]) + pipe(full[1]) + pipe(empty), 0);
    const auto onReadable = [](void *, int fd) {
        const int other = full[fd == full[0][0] ? 1 : 0][0];
        calls++;
        PEGEIR_LinuxRemoveFd(fd);
        PEGEIR_LinuxRemoveFd(other);
        dup2(empty[0], other);
        EXPECT_EQ(PEGEIR_LinuxAddFd(
                      other, [](void *, int) { calls++; }, nullptr),
                  0);
    };
    for (const auto &ends : full)
        EXPECT_EQ(PEGEIR_LinuxAddFd(ends[0], onReadable, nullptr) + (write(ends[1], "x", 1) - 1), 0);
    PEGEIR_LinuxDispatch(0);
    EXPECT_EQ(calls, 1);
    for (const int fd : {full[0][0], full[0][1], full[1][0], full[1][1], empty[0], empty[1]})
        close(fd);

    g_onMessage = [](void *) { PEGEIR_LinuxClose(); };
    EXPECT_EQ(Send(1, "to myself"), 0U);
    EXPECT_EQ(Send(1, "never read"), 0U);
    EXPECT_EQ(poll(&watched, 1, 1000), 1);
    EXPECT_EQ(PEGEIR_LinuxRun(), 0); // ends because of the close
    EXPECT_EQ(g_seen.size(), 1U);
    EXPECT_EQ(PEGEIR_LinuxDispatch(0), -1);
}

TEST_F(Linux, LocalTimeIsOfTheInstantGiven) {
    setenv("TZ", "XYZ-5:30ABC,M3.5.0/2,M10.5.0/3", 1);
    tzset();
    using Case = std::pair<SysTime, SysTime>;
    for (const auto &[gmt, expected] : {Case{{2024, 12, 31, 23, 10, 5, 2, 77}, {2025, 1, 1, 4, 40, 5, 3, 77}},
                                        Case{{2024, 2, 29, 18, 29, 0, 4, 0}, {2024, 2, 29, 23, 59, 0, 4, 0}},
                                        Case{{2024, 7, 1, 0, 0, 0, 1, 0}, {2024, 7, 1, 6, 30, 0, 1, 0}}}) {
        SysTime local{};
        uint32_t flag = 1;
        EXPECT_EQ(ZEP_Gmt2LocalTime(&gmt, &local, &flag), 0U);
        EXPECT_EQ(std::memcmp(&local, &expected, sizeof local), 0) << int{gmt.month};
    }
    unsetenv("TZ");
    tzset();
}

} // namespace
