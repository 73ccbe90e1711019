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
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>
#include <vector>

using namespace std::chrono_literals;

namespace {

using Lines = std::vector<std::string>;

struct Seen {
    uint32_t from, iid;
    std::string data;
};
std::vector<Seen> g_seen;
Lines g_reports, g_told; // g_told: what the other callbacks were told
std::function<void(void *)> g_onMessage;

void OnMessage(void *, void *message) {
    EXPECT_EQ(reinterpret_cast<uintptr_t>(message) % 8, 0U);
    g_seen.push_back({DMS_MsgSendCidGet(message), DMS_MsgRecvIidGet(message),
                      std::string(static_cast<char *>(message), DMS_MsgDataLenGet(message))});
    if (g_onMessage)
        g_onMessage(message);
}

void OnPeer(void *, uint32_t peer, int available) {
    g_told.push_back(std::to_string(peer) + (available != 0 ? " came" : " went"));
}

void OnWritable(void *, uint32_t) {
    g_told.emplace_back("writable");
}

uint32_t OnExpiry(uint32_t timer, uint32_t, void *param, void *arg) {
    g_told.push_back(std::to_string(timer) + static_cast<char *>(param) + static_cast<char *>(arg));
    return 0;
}

uint32_t Send(uint32_t to, const std::string &text) {
    const auto size = static_cast<uint32_t>(text.size());
    void *message = ZEP_MsgFlowCtrlAlloc_F(1, to, size, "test", 1);
    std::memcpy(message, text.data(), size);
    return ZEP_SEND_MSG(to, 6, 932, message, size);
}

bool Until(const std::function<bool()> &condition, std::chrono::milliseconds limit = 5s) {
    const auto end = std::chrono::steady_clock::now() + limit;
    while (!condition() && std::chrono::steady_clock::now() < end)
        PEGEIR_LinuxDispatch(10);
    return condition();
}

// Returns what the callbacks are told, at least count lines, and what comes soon after them.
Lines Told(size_t count) {
    Until([&] { return g_told.size() >= count; });
    Until([&] { return g_told.size() > count; }, 250ms);
    return std::exchange(g_told, {});
}

class Linux : public testing::Test {
protected:
    void SetUp() override {
        char name[] = "/tmp/pegeir-test-XXXXXX";
        base = mkdtemp(name);
        directory = base + "/run";
        g_seen.clear(), g_reports.clear(), g_told.clear(), g_onMessage = nullptr;
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
            g_onMessage = [](void *) {
                if (g_seen.back().data == "start over") {
                    (void)PEGEIR_LinuxStartOver(g_seen.back().from);
                } else {
                    Send(g_seen.back().from, g_seen.back().data);
                }
            };
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

    // Sends bytes to id 1 from a socket with this name in the directory, or without one; control adds a
    // descriptor or, as another user, false credentials.
    void SendRaw(const std::string &name, const std::string &bytes, int control = 0) {
        const int raw = socket(AF_UNIX, SOCK_DGRAM, 0);
        sockaddr_un to{AF_UNIX, {}}, from{AF_UNIX, {}};
        (directory + "/1.sock").copy(to.sun_path, sizeof to.sun_path - 1);
        (directory + "/" + name).copy(from.sun_path, sizeof from.sun_path - 1);
        EXPECT_TRUE(name.empty() || bind(raw, reinterpret_cast<sockaddr *>(&from), sizeof from) == 0);
        iovec part{const_cast<char *>(bytes.data()), bytes.size()};
        const ucred stranger{getpid(), 65534, 65534};
        const size_t size = control == SCM_RIGHTS ? sizeof raw : sizeof stranger;
        alignas(cmsghdr) char space[CMSG_SPACE(sizeof stranger)] = {};
        msghdr message{&to, sizeof to, &part, 1, space, control != 0 ? CMSG_SPACE(size) : 0, 0};
        auto *head = static_cast<cmsghdr *>(static_cast<void *>(space));
        *head = {CMSG_LEN(size), SOL_SOCKET, control};
        std::memcpy(CMSG_DATA(head), control == SCM_RIGHTS ? static_cast<const void *>(&raw) : &stranger,
                    size);
        EXPECT_GE(sendmsg(raw, &message, 0), 0);
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
        const std::string text = std::string(size - 1, 'x') + 'y';
        EXPECT_EQ(Send(2, text), 0U);
        ASSERT_TRUE(Until([&] { return !g_seen.empty() && g_seen.back().data == text; })) << size;
        EXPECT_TRUE(g_seen.back().from == 2 && g_seen.back().iid == 0);
    }
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
        int control = 0;
    };
    std::vector<Case> cases = {{"12.1.sock", timer, "timer service"},
                               {"12.1.sock", version, "no packet of this version"},
                               {"12.1.sock", "", "too short"},
                               {"12.1.sock", head.substr(0, 15), "too short"},
                               {"12.1.sock", head + std::string(65536, 'x'), "more than 65535"},
                               {"12.1.sock", head + std::string(99999, 'x'), "more than 65535"},
                               {"12.1.sock", head, "file descriptors", SCM_RIGHTS}};
    for (const char *name :
         {"", "12x.1.sock", "012.1.sock", "12.2.sock", "12.sock", "0.1.sock", "4294967296.1.sock"})
        cases.push_back({name, head, "no socket of a pegeir process"});
    if (geteuid() == 0)
        cases.push_back({"12.1.sock", head, "another user", SCM_CREDENTIALS});
    Start(13); // whose name somebody else binds
    cases.push_back({"13.1.sock", head, "another process has"});
    for (const Case &entry : cases) {
        g_reports.clear();
        ASSERT_EQ(Open(directory, 1), "");
        SendRaw(entry.name, entry.bytes, entry.control);
        SendRaw("", "once more");
        SendRaw("12.1.sock", head + "good");
        ASSERT_TRUE(Until([] { return !g_seen.empty(); })) << entry.reason;
        PEGEIR_LinuxClose();
        EXPECT_TRUE(g_seen.size() == 1 && g_seen[0].data == "good" && g_seen[0].from == 12) << entry.reason;
        g_seen.clear();
        // The first is told at once, the second only counted until the close.
        ASSERT_EQ(g_reports.size(), 2U);
        EXPECT_NE(g_reports[0].find(entry.reason), std::string::npos) << g_reports[0];
    }
}

TEST_F(Linux, FullQueueFailsAtOnceAndTellsWhenItHasRoom) {
    ASSERT_EQ(Open(directory, 1), "");
    const pid_t stopped = Start(2, true);
    const auto fill = [] {
        uint32_t result = 0;
        for (int i = 0; i < 10000 && result == 0; i++)
            result = Send(2, std::string(8000, 'x'));
        EXPECT_EQ(result, uint32_t{PEGEIR_LINUX_SEND_FULL});
        EXPECT_EQ(PEGEIR_LinuxWhenWritable(2, OnWritable, nullptr), 0);
    };
    fill();
    EXPECT_EQ(Told(0), Lines{});
    kill(stopped, SIGCONT);
    EXPECT_EQ(Told(1), Lines{"writable"});
    kill(stopped, SIGSTOP);
    fill();
    End(stopped);
    EXPECT_EQ(Told(1), Lines{"writable"});
    EXPECT_EQ(Send(2, "gone"), uint32_t{PEGEIR_LINUX_SEND_NO_PEER});
}

TEST_F(Linux, WatchedPeerComesAndGoes) {
    ASSERT_EQ(Open(directory, 1), "");
    ASSERT_EQ(PEGEIR_LinuxWatchPeer(2, OnPeer, nullptr), 0);
    EXPECT_EQ(Told(0), Lines{});
    pid_t peer = Start(2);
    EXPECT_EQ(Told(1), Lines{"2 came"});
    End(peer);
    peer = Start(2, true); // replaced while we do not look
    EXPECT_EQ(Told(2), (Lines{"2 went", "2 came"}));
    EXPECT_EQ(PEGEIR_LinuxWatchPeer(2, nullptr, nullptr), 0);
    End(peer);
    EXPECT_EQ(Told(0), Lines{});
}

TEST_F(Linux, TakesNobodyForGoneForWantOfADescriptor) {
    ASSERT_EQ(Open(directory, 1), "");
    ASSERT_EQ(PEGEIR_LinuxWatchPeer(2, OnPeer, nullptr), 0);
    const pid_t peer = Start(2);
    EXPECT_EQ(Told(1), Lines{"2 came"});
    rlimit limit{};
    ASSERT_EQ(getrlimit(RLIMIT_NOFILE, &limit), 0);
    const rlimit none{3, limit.rlim_max};
    ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &none), 0);
    EXPECT_EQ(Told(0), Lines{});
    EXPECT_EQ(Send(2, "no socket to send it from"), uint32_t{PEGEIR_LINUX_SEND_FAILED});
    ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &limit), 0);
    EXPECT_EQ(Told(0), Lines{});
    End(peer);
    EXPECT_EQ(Told(1), Lines{"2 went"});
}

TEST_F(Linux, StartsOverWithAPeerWhenEitherSideAsks) {
    ASSERT_EQ(Open(directory, 1), "");
    ASSERT_EQ(PEGEIR_LinuxWatchPeer(2, OnPeer, nullptr), 0);
    Start(2);
    EXPECT_EQ(Told(1), Lines{"2 came"});
    Send(2, "start over");
    EXPECT_EQ(Told(2), (Lines{"2 went", "2 came"}));
    EXPECT_TRUE(g_seen.empty()); // that was no message
    // Something written into its lock file is no new run of it.
    std::ofstream(directory + "/2.lock", std::ios::app) << "a line of somebody's log\n";
    EXPECT_EQ(Told(0), Lines{});
    std::filesystem::remove(directory + "/1.sock");
    EXPECT_EQ(Told(2), (Lines{"2 went", "2 came"})); // who took its id again does not know what it missed
    EXPECT_EQ(PEGEIR_LinuxStartOver(3), uint32_t{PEGEIR_LINUX_SEND_NO_PEER});
}

TEST_F(Linux, IdBelongsToOneLivingProcess) {
    const pid_t holder = Start(2, true);
    const std::string error = Open(directory, 2);
    EXPECT_NE(error.find("id 2 is in use by process " + std::to_string(holder)), std::string::npos) << error;
    End(holder);
    EXPECT_EQ(Open(directory, 2), ""); // takes over what was left
    PEGEIR_LinuxClose();
    EXPECT_TRUE(std::filesystem::is_empty(directory));
}

TEST_F(Linux, EndsWhenAnotherProcessHasTakenItsId) {
    ASSERT_EQ(Open(directory, 1), "");
    std::filesystem::remove(directory + "/1.lock");
    Start(1, true);
    int result = 0;
    const auto end = std::chrono::steady_clock::now() + 5s;
    while (result == 0 && std::chrono::steady_clock::now() < end)
        result = PEGEIR_LinuxDispatch(100);
    EXPECT_TRUE(result == -1 && errno == EADDRINUSE);
    ASSERT_EQ(g_reports.size(), 1U);
    EXPECT_NE(g_reports[0].find("id 1 is in use by process"), std::string::npos);
    EXPECT_EQ(PEGEIR_LinuxRun(), -1);
}

TEST_F(Linux, LooksForItsDirectoryWhereNobodyElseCanBeFirst) {
    unsetenv("PEGEIR_RUNTIME_DIR");
    unsetenv("XDG_RUNTIME_DIR");
    const std::string id = std::to_string(geteuid());
    const std::string parent = geteuid() == 0 ? "/run" : "/run/user/" + id;
    const bool isThere = std::filesystem::is_directory(parent);
    EXPECT_EQ(PEGEIR_LinuxDirectory(), isThere ? parent + "/pegeir" : "/tmp/pegeir-" + id);
    setenv("XDG_RUNTIME_DIR", "/x", 1);
    EXPECT_STREQ(PEGEIR_LinuxDirectory(), "/x/pegeir");
    unsetenv("XDG_RUNTIME_DIR");
}

TEST_F(Linux, RefusesDirectoriesThatAreNotOursAlone) {
    for (const char *name : {"/real", "/open", "/other"})
        std::filesystem::create_directories(base + name);
    std::filesystem::create_directory_symlink(base + "/real", base + "/link");
    chmod((base + "/open").c_str(), 0750);
    std::vector<std::pair<std::string, std::string>> cases = {
        {"/link", "symbolic link"},
        {"/link/", "symbolic link"},
        {"/link/.", "symbolic link"},
        {"/open", "run: chmod 700"},
        {"/" + std::string(90, 'x'), "choose a shorter one"}};
    if (chown((base + "/other").c_str(), 65534, 65534) == 0)
        cases.push_back({"/other", "belongs to user 65534, not to user 0"});
    for (const auto &[name, text] : cases)
        EXPECT_NE(Open(base + name, 1).find(text), std::string::npos) << Open(base + name, 1);
    EXPECT_EQ(Open(base + "/real/../run/", 1), "");
}

TEST_F(Linux, TimersExpireThroughMessages) {
    char param[] = " param", arg[] = " arg";
    const uint32_t words[] = {1, 120, 500};
    ASSERT_EQ(Open(directory, 1), "");
    const uint32_t lib = APPTMR_CreateLib2(1, OnExpiry, 1);
    const uint32_t instance = APPTMR_CreateInstance(lib, words, 500, 1);
    const uint32_t timer = APPTMR_CreatePeriodTimer(instance, 50, 0, param, APP_TIMER_FLAG_SHADOW);
    EXPECT_EQ(APPTMR_GetTimerParam(instance, timer), param);
    g_onMessage = [&](void *message) { EXPECT_EQ(APPTMR_LibRcvMsg(lib, message, 0, arg), 0U); };
    usleep(230000);
    for (int i = 0; i < 5; i++)
        PEGEIR_LinuxDispatch(0);
    EXPECT_LE(g_told.size(), 2U) << "four expiries were missed and are not made up for";
    EXPECT_EQ(g_told.at(0), std::to_string(timer) + " param arg");
    EXPECT_EQ(g_seen.at(0).iid, 3U);

    g_onMessage = [&](void *message) { // the expiry is under way when the timer is deleted
        EXPECT_EQ(APPTMR_DeleteTimer(instance, timer), 0U);
        EXPECT_EQ(APPTMR_LibRcvMsg(lib, message, 0, arg), 0U);
    };
    g_told.clear(), g_seen.clear();
    EXPECT_TRUE(Until([&] { return !g_seen.empty(); }));
    APPTMR_CreatePeriodTimer(instance, 1, 0, param, APP_TIMER_FLAG_SHADOW);
    APPTMR_DeleteLib(lib);
    EXPECT_EQ(Told(0), Lines{});
    EXPECT_EQ(g_seen.size(), 1U);
}

TEST_F(Linux, EmbedsThroughItsDescriptorAndClosesFromACallback) {
    ASSERT_EQ(Open(directory, 1), "");
    PEGEIR_LinuxDispatch(0);
    pollfd watched{PEGEIR_LinuxFd(), POLLIN, 0};
    EXPECT_EQ(poll(&watched, 1, 0), 0);
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
    const SysTime gmt{2044, 7, 31, 23, 10, 5, 0, 77}, expected{2044, 8, 1, 5, 40, 5, 1, 77};
    SysTime local{};
    uint32_t flag = 1;
    EXPECT_EQ(ZEP_Gmt2LocalTime(&gmt, &local, &flag), 0U);
    EXPECT_EQ(std::memcmp(&local, &expected, sizeof local), 0);
    unsetenv("TZ");
}

} // namespace
