#include "support/play.hpp"

#include <algorithm>
#include <cstdlib>
#include <utility>

namespace pegeir::tests {
namespace {

constexpr uint16_t kDownloadRecord = 200;
constexpr uint16_t kUpdateRecord = 300;

} // namespace

Play::Play(const PlayOptions &someOptions)
    : options(someOptions), world({.liberties = options.liberties}),
      component(world, Driver::kNd, Driver::kApp, options.firstNumber), random(options.seed) {
    component.beforeMessage = [this] { Boundary(); };
    component.mostBody = std::max<size_t>(options.items * 3, 60); // a few messages a download
    component.recordOf = [](const sim::ItemName &item) {
        return Tlv(kDownloadRecord,
                   Bytes(item.key.begin(), item.key.begin() + std::min<ptrdiff_t>(8, std::ssize(item.key))));
    };
    world.SetSeconds(options.firstSecond);
    for (uint32_t number = 1; number <= options.items; ++number) {
        wanted.insert(number);
    }
}

// ---- The consumer --------------------------------------------------------------------------------

void Play::Create() {
    d.reset();
    d.emplace(world);
    packed = 0;
    if (d->nd == nullptr) {
        ++failedInits;
        d.reset();
        return;
    }
    d->nd->transNumber = options.firstNumber;
    d->nd->logFunc = options.silent ? nullptr : d->nd->logFunc;
    d->onPack = [this] { return Pack(); };
    d->onEvent = [this](uint32_t code) { return OnEvent(code); };
    d->onRecord = [this](const Delivered &) { Misbehave(); };
    d->onLog = [this](const LogLine &) { Misbehave(); };
    const auto feed = [this](void *message) {
        (void)ND_LIB_MsgProcess(d->nd, message);
        Look();
    };
    world.AttachTimers(0x22, feed);
    world.Attach(Driver::kApp, [this, feed](void *message) {
        Boundary();
        feed(message);
    });
    (void)ND_LIB_AddOptionData(d->nd, "option", 6);
}

void Play::Remedy() {
    const ND_LIB_TmrCtx *timers = d ? d->nd->tmrCtx : nullptr;
    if (timers == nullptr || timers->tmrInstHandle == 0) {
        remedies += d ? 1U : 0U;
        component.NewConsumer();
        Create();
        downFor = downFor == 0 ? 1 : downFor;
    } else if (downFor == 0 && d->nd->consumer.backupTimer == 0) {
        ++remedies;
        d->Down();
        d->Up();
        packed = 0;
        owed.clear();
    }
}

void Play::Up() {
    downFor = 0;
    if (d) {
        d->Up();
        Look();
    }
}

void Play::StartOver(uint32_t seconds) {
    component.Restart();
    if (d && downFor == 0) {
        d->Down(); // which drops what is pending
        Look();
    }
    owed.clear();
    packed = 0;
    downFor = seconds;
    if (seconds == 0) {
        Up();
    }
}

void Play::Boundary() {
    if (++boundaries == startOverAt) {
        StartOver(0);
    }
}

Item Play::ItemOf(uint32_t number) const {
    Item item = NumberedItem(number, number % 5 == 0 ? 2 : 1);
    item.key.resize(options.keyLen);
    if (number % 3 == 0) {
        item.data = Join({U32(number), U32(600)});
    }
    return item;
}

// An item is given up without its data bytes: then no shortage of memory can turn the request into its
// opposite, as the header warns.
bool Play::Request(uint32_t number) {
    const uint32_t outer = std::exchange(requesting, number);
    const bool subscribe = wanted.contains(number);
    Item item = ItemOf(number);
    item.data.resize(subscribe ? item.data.size() : 0);
    const bool done = d && (subscribe ? d->Subscribe(item) : d->UnSubscribe(item)) == ND_LIB_OK;
    if (done) {
        owed.erase(number);
    } else {
        owed.insert(number);
    }
    requesting = outer;
    return done;
}

void Play::Want(uint32_t number) {
    wanted.insert(number);
    (void)Request(number);
}

void Play::GiveUp(uint32_t number) {
    wanted.erase(number);
    (void)Request(number);
}

void Play::ReadPage(uint32_t bufferLen, uint32_t restart) {
    std::vector<char> buffer(bufferLen, '#');
    uint32_t length = 0;
    if (d) {
        (void)ND_LIB_GetDiagnoseInfo(d->nd, buffer.data(), bufferLen, &length, restart);
    }
    if (length >= bufferLen || buffer.back() != '#') {
        broken = "a page does not end before the last byte of its buffer";
    }
}

// A third of the items at a time.
uint32_t Play::Pack() {
    Misbehave();
    for (uint32_t left = options.items / 3 + 1;; --left) {
        const auto next = wanted.upper_bound(packed);
        if (next == wanted.end()) {
            break;
        }
        if (left == 0 || !Request(*next)) {
            return ND_LIB_PACK_MORE;
        }
        packed = std::max(packed, *next);
    }
    if (options.hostile && Random(4) == 0) {
        return 0xFFFFFFFF;
    }
    packed = 0;
    return ND_LIB_PACK_DONE;
}

uint32_t Play::OnEvent(uint32_t code) {
    Misbehave();
    const bool refuses = code == ND_LIB_NOTIFY_VERIFY_REQUEST && !agrees;
    if (code == ND_LIB_NOTIFY_SMOOTH_BEGIN || (code == ND_LIB_NOTIFY_VERIFY_REQUEST && !refuses)) {
        d->records.clear();
    }
    lastCode = code;
    return refuses ? 0xFFFFFFFF : 0;
}

// Whatever a callback may do, from each of them; never from within itself, as the header demands.
void Play::Misbehave() {
    if (!options.hostile || misbehaving || Random(8) != 0) {
        return;
    }
    misbehaving = true;
    const uint32_t number = 1 + Random(2 * options.items);
    switch (Random(6)) {
    case 0:
        if (number != requesting) {
            Want(number);
        }
        break;
    case 1:
        if (number != requesting) {
            GiveUp(number);
        }
        break;
    case 2:
        (void)ND_LIB_AddOptionData(d->nd, "odd", Random(4));
        break;
    case 3:
        ReadPage(19 + Random(300), Random(2));
        break;
    case 4:
        (void)(Random(2) == 0 ? ND_LIB_StartVerify(d->nd) : ND_LIB_StopVerify(d->nd));
        break;
    default:
        (void)ND_LIB_SetVerifyCycle(d->nd, static_cast<uint16_t>(58 + Random(4)));
        break;
    }
    misbehaving = false;
}

// ---- Time ----------------------------------------------------------------------------------------

void Play::Look() {
    if (d && broken.empty()) {
        broken = BrokenInvariant(d->nd);
    }
}

void Play::Second() {
    Remedy();
    if (downFor != 0 && d && --downFor == 0) {
        Up();
    }
    for (const uint32_t number : std::set(owed)) {
        if (!Request(number)) {
            break;
        }
    }
    const uint64_t sends = world.Calls(sim::Op::kSend);
    world.Run(1000);
    if (downFor != 0 && world.Calls(sim::Op::kSend) != sends) {
        broken = "something is sent while the component is down";
    }
}

void Play::Story() {
    component.LeaveGap(); // in the first download
    for (uint32_t second = 1; second <= 40; ++second) {
        Second();
        switch (second) {
        case 2: // while the items are collected
            for (uint32_t page = 0; page < 12; ++page) {
                ReadPage(200);
            }
            break;
        case 13: // ready
            Want(options.items + 1);
            Want(options.items + 3);
            GiveUp(1);
            GiveUp(3);
            break;
        case 15:
            component.Update(Tlv(kUpdateRecord, {1}));
            component.Update(Tlv(kUpdateRecord, Bytes(20, 2)));
            break;
        case 17:
            if (d) {
                (void)ND_LIB_StartVerify(d->nd);
            }
            break;
        case 19: // in the verification pass
            Want(options.items + 2);
            GiveUp(2);
            break;
        case 28:
            StartOver(2);
            break;
        default:
            ReadPage(48);
            break;
        }
    }
}

// ---- The end -------------------------------------------------------------------------------------

bool Play::IsQuiet() const {
    return d && d->State() == ND_LIB_FSM_READY && d->nd->consumer.subscribeTree.count == 0 && owed.empty() &&
           component.IsIdle();
}

std::string Play::Difference() const {
    std::map<sim::ItemName, Bytes> expected;
    for (const uint32_t number : wanted) {
        const Item item = ItemOf(number);
        expected[{item.keyType, item.key, item.dataType}] = item.data;
    }
    for (const auto &[name, data] : component.Items()) {
        const auto found = expected.find(name);
        if (found == expected.end()) {
            return "the component holds an item that nobody wants";
        }
        if (data != found->second && !(mayLackData && data.empty())) {
            return "the component holds other data bytes for an item";
        }
    }
    if (expected.size() != component.Items().size()) {
        return "the component lacks an item";
    }
    // A pass tells of its end alone: one that began twice on a bad link has told its first records twice.
    std::vector<Bytes> seen;
    for (const Delivered &record : d->records) {
        if (record.type != kUpdateRecord) {
            seen.push_back(Tlv(record.type, record.value));
        }
    }
    const bool exact = seen == component.LastDownload() || lastCode == ND_LIB_NOTIFY_VERIFY_END;
    return exact ? "" : "the consumer saw other records than the last download had";
}

std::string Play::Settle(uint32_t mostSeconds) {
    options.hostile = false;
    agrees = true;
    for (uint32_t second = 0; second < mostSeconds; ++second) {
        if (d) {
            (void)ND_LIB_StopVerify(d->nd);
        }
        // What was under way on a bad link arrives within two seconds.
        if (second > 2 && IsQuiet()) {
            slowest = std::max(slowest, second);
            return Difference();
        }
        Second();
    }
    return "nothing settled: state " + (d ? std::to_string(d->State()) : std::string("none"));
}

std::string Play::Verify(uint32_t mostSeconds) {
    (void)ND_LIB_StartVerify(d->nd);
    lastCode = 9;
    for (uint32_t second = 0; second < mostSeconds && lastCode != ND_LIB_NOTIFY_VERIFY_END; ++second) {
        Second();
    }
    if (lastCode != ND_LIB_NOTIFY_VERIFY_END) {
        return "a verification pass does not come to its end";
    }
    lastCode = 9; // the link is clean: its records are exact as well
    const std::string wrong = Settle(mostSeconds);
    return wrong.empty() ? "" : "after a verification pass: " + wrong;
}

std::string Play::Finish(uint32_t mostSeconds, bool verify) {
    std::string wrong = Settle(mostSeconds);
    if (wrong.empty() && verify) {
        wrong = Verify(mostSeconds);
    }
    return wrong + End();
}

std::string Play::End() {
    options.hostile = false;
    d.reset();
    std::string wrong = broken + world.Leaks();
    for (const std::string &violation : world.Violations()) {
        wrong += violation + "\n";
    }
    // An instance that cannot be had is asserted, nothing else is.
    return wrong + (world.Assertions().size() == failedInits ? "" : "an assertion");
}

uint32_t FromEnvironment(const char *name) {
    const char *text = std::getenv(name);
    return text == nullptr ? 0 : static_cast<uint32_t>(std::strtoul(text, nullptr, 10));
}

uint32_t MillisecondsSince(std::chrono::steady_clock::time_point begin) {
    const auto taken = std::chrono::steady_clock::now() - begin;
    return static_cast<uint32_t>(std::chrono::duration_cast<std::chrono::milliseconds>(taken).count());
}

} // namespace pegeir::tests
