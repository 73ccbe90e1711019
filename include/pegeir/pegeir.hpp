// pegeir for C++20: the C interface of pegeir.h, with an owner for the instance, spans for keys, data and
// records, an object for the callbacks, and results that cannot be dropped by accident.
//
// pegeir.h stays the contract.  Each function here makes the one call that it names, and what is said
// there about results, asserted arguments and times holds; here stands what C++ adds.  A consumer is an
// object of a class derived from Consumer, and a Client connects it to the component:
//
//     class LinkWatcher final : public pegeir::Consumer {
//         pegeir::Collected OnCollect(pegeir::ClientRef client, void * /*optionData*/) override {
//             const std::uint8_t everyInterface[4] = {0, 0, 0, 0};
//             const auto result = client.Subscribe({1000, everyInterface}, {0});
//             return result == pegeir::Result::kOk ? pegeir::Collected::kDone : pegeir::Collected::kMore;
//         }
//         void OnRecord(pegeir::ClientRef /*client*/, const pegeir::Record &record) override {
//             bytes += record.value.size(); // or look into them
//         }
//         std::size_t bytes = 0;
//     };
//
//     // Feeds the consumer until there are no more messages.  Returns false when it could not start.
//     bool Watch(void *(*nextPlatformMessage)(), void (*report)(const char *)) {
//         LinkWatcher watcher;
//         pegeir::Client client({.component = 100, .self = 200}, watcher);
//         if (!client) {
//             return false;
//         }
//         client.NotifyComponent(true);
//         while (void *const message = nextPlatformMessage()) {
//             const pegeir::Result result = client.Process(message); // every callback but OnLog
//             if (result != pegeir::Result::kOk) {
//                 report(pegeir::Text(result));
//             }
//         }
//         return true;
//     }
//
// Everything is inline, and nothing is allocated but by the library itself.  No exceptions and no RTTI are
// needed.  An exception that leaves a callback ends the program: it may not cross the C interface.
//
// A callback finds its Consumer through the appLocal of the instance, 32 bits, which therefore is not the
// consumer's own here.  Where an address fits, it is the address; else it is an index into a table of
// kMaxClients entries.  The table is the one global of this header, and lock-free: distinct clients may
// live in distinct threads.  The shared objects of a process share it, also when their symbols are hidden,
// unless a linker or loader keeps it apart: a client ends in the shared object that made it.
#ifndef PEGEIR_PEGEIR_HPP
#define PEGEIR_PEGEIR_HPP

#include <pegeir/pegeir.h>

#include <algorithm>
#include <atomic>
#include <cstdarg>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <limits>
#include <new>
#include <span>
#include <string_view>
#include <utility>

namespace pegeir {

// ---- Results -------------------------------------------------------------------------------------

// The result codes of pegeir.h.  To drop one on purpose, cast it to void.
enum class [[nodiscard]] Result : std::uint32_t{
    kOk = ND_LIB_OK,
    kError = ND_LIB_ERR,
    kDiagnoseEnd = ND_LIB_ERR_DIAG_END,
    kSubscribe = ND_LIB_ERR_SUBSCRIBE,
    kParameter = ND_LIB_ERR_PARAM,
    kMessage = ND_LIB_ERR_MSG,
    kSequence = ND_LIB_ERR_SEQUENCE,
    kBufferLength = ND_LIB_ERR_BUFLEN,
};

// Returns what a result says, as a constant text for a log line.
[[nodiscard]] constexpr const char *Text(Result result) noexcept {
    switch (result) {
    case Result::kOk:
        return "success";
    case Result::kError:
        return "no client, no memory, no component, too long option data, or refused inside a callback";
    case Result::kDiagnoseEnd:
        return "this was the last diagnose page";
    case Result::kSubscribe:
        return "the request could not be built or stored";
    case Result::kParameter:
        return "a value is out of its range, or a callback has registered";
    case Result::kMessage:
        return "the message was refused";
    case Result::kSequence:
        return "the download message is out of sequence";
    case Result::kBufferLength:
        return "the diagnose buffer is too short";
    }
    return "a result that this version does not know";
}

// ---- Values --------------------------------------------------------------------------------------

// Bytes in a key or in the data of a request, at most.
inline constexpr std::size_t kMaxItemBytes = 10000;

// The key or the data of a request.  The bytes are read during the call only.
struct Item {
    std::uint16_t type;
    std::span<const std::uint8_t> bytes = {};
};

// A received data record.  The bytes lie in the received message, at any alignment, and are gone when the
// callback returns.
struct Record {
    std::uint16_t type;
    std::span<const std::uint8_t> value;
};

// One diagnose page.
struct [[nodiscard]] Page {
    Result result;         // kOk: more pages follow; kDiagnoseEnd: this is the last; else there is no text
    std::string_view text; // in the caller's buffer; no zero follows it
};

// Who the consumer is and where the component is, as ND_LIB_FrameRegister and ND_LIB_ConsumerRegister
// describe it.  None may be zero.
struct Config {
    std::uint32_t component;     // ndPid
    std::uint32_t self;          // appPid
    std::uint32_t memHandle = 1; // this and the next are handed to the platform
    std::uint32_t timerHandle = 1;
    std::uint32_t funcTable = 1; // shown in the reports
};

// ---- The client in a callback --------------------------------------------------------------------

// A client without its ownership, as callbacks are handed it: it does what is allowed in a callback, and
// outside one as well.  It is valid as long as the instance.  A copy is bound to its instance for good, so
// that nothing can exchange the instance below its owner.
//
// Without an instance, as after the client was moved from, every function returns Result::kError
// (asserted unless pegeir.h says otherwise) or what is said with it.
class ClientRef {
public:
    explicit ClientRef(ND_LIB_Instance *instance) noexcept : native(instance) {}
    ClientRef(const ClientRef &) noexcept = default;
    ClientRef &operator=(const ClientRef &) = delete;
    ~ClientRef() = default;

    // True when there is an instance.
    [[nodiscard]] explicit operator bool() const noexcept { return native != nullptr; }

    // Returns the instance for a call at the C interface, or null.  It stays the client's: do not release
    // it, and do not register other callbacks.
    [[nodiscard]] ND_LIB_Instance *Native() const noexcept { return native; }

    // ND_LIB_Subscribe and ND_LIB_UnSubscribe.  The C interface wants the bytes behind their head, so they
    // are copied once, onto the stack.  More than kMaxItemBytes are refused with kSubscribe before that.
    Result Subscribe(const Item &key, const Item &data) const noexcept {
        return Request(ND_LIB_Subscribe, key, data);
    }
    Result Unsubscribe(const Item &key, const Item &data) const noexcept {
        return Request(ND_LIB_UnSubscribe, key, data);
    }

    // ND_LIB_AddOptionData: keeps a copy of the bytes, which may be none, for the next OnCollect.
    Result AddOptionData(std::span<const std::uint8_t> bytes) const noexcept {
        const void *const data = bytes.empty() ? static_cast<const void *>("") : bytes.data();
        return static_cast<Result>(ND_LIB_AddOptionData(native, data, Length(bytes.size())));
    }

    // ND_LIB_StartVerify, ND_LIB_StopVerify and ND_LIB_SetVerifyCycle.
    Result StartVerify() const noexcept { return static_cast<Result>(ND_LIB_StartVerify(native)); }
    Result StopVerify() const noexcept { return static_cast<Result>(ND_LIB_StopVerify(native)); }
    Result SetVerifyCycle(std::uint32_t seconds) const noexcept {
        constexpr std::uint32_t kMost = std::numeric_limits<std::uint16_t>::max(); // and out of range
        return static_cast<Result>(
            ND_LIB_SetVerifyCycle(native, static_cast<std::uint16_t>(std::min(seconds, kMost))));
    }

    // ND_LIB_GetDiagnoseInfo: writes the next page into buffer; with restart, the first.
    // kDiagnoseEnd without an instance.
    Page Diagnose(std::span<char> buffer, bool restart) const noexcept {
        char none = 0; // an empty span may have no address, and is too short all the same
        char *const memory = buffer.empty() ? &none : buffer.data();
        std::uint32_t length = 0;
        const std::uint32_t result =
            ND_LIB_GetDiagnoseInfo(native, memory, Length(buffer.size()), &length, restart ? 1 : 0);
        return {static_cast<Result>(result), {buffer.data(), std::min<std::size_t>(length, buffer.size())}};
    }

protected:
    ND_LIB_Instance *native;

private:
    using RequestFunc = decltype(&ND_LIB_Subscribe);

    // A length too large for the interface becomes one that it refuses, or, for a buffer, can use.
    static std::uint32_t Length(std::size_t size) noexcept {
        return static_cast<std::uint32_t>(
            std::min<std::size_t>(size, std::numeric_limits<std::uint32_t>::max()));
    }

    static const ND_LIB_ItemHead *Lay(void *memory, const Item &item) noexcept {
        const auto length = static_cast<std::uint16_t>(item.bytes.size());
        if (length != 0) {
            std::memcpy(static_cast<std::byte *>(memory) + sizeof(ND_LIB_ItemHead), item.bytes.data(),
                        length);
        }
        return new (memory) ND_LIB_ItemHead{item.type, length};
    }

    // Takes as much stack as the bytes need, and not inline: a loop would pile it up.  The bound is
    // checked first, so a consumer's build need not warn of it.
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Walloca"
    [[gnu::noinline]] Result Request(RequestFunc request, const Item &key, const Item &data) const noexcept {
        if (key.bytes.size() > kMaxItemBytes || data.bytes.size() > kMaxItemBytes) {
            return Result::kSubscribe;
        }
        void *const keyMemory = __builtin_alloca(sizeof(ND_LIB_ItemHead) + key.bytes.size());
        void *const dataMemory = __builtin_alloca(sizeof(ND_LIB_ItemHead) + data.bytes.size());
        return static_cast<Result>(request(native, Lay(keyMemory, key), Lay(dataMemory, data)));
    }
#pragma GCC diagnostic pop
};

// ---- The callbacks -------------------------------------------------------------------------------

// Answers of Consumer::OnCollect, see ND_LIB_PackSubscribeFunc.
enum class Collected : std::uint32_t {
    kMore = ND_LIB_PACK_MORE, // not finished: ask again in a second
    kDone = ND_LIB_PACK_DONE, // everything has been subscribed
};

enum class LogLevel : std::uint32_t {
    kFailure = ND_LIB_LOG_FAILURE,
    kDetail = ND_LIB_LOG_DETAIL,
    kEvent = ND_LIB_LOG_EVENT,
};

// What the library tells a consumer and asks it.  All but OnLog run from Client::Process; each is handed
// the client that it concerns, so one consumer can serve several clients.
// In a callback the client must not be closed, assigned to or destroyed, nor process, notify or register;
// it may be moved from.  A client that is ended there all the same lets go of its instance, which is asserted
// and not released.  No callback comes from it then; where an address fits appLocal, they come until the
// call under way returns.
class Consumer {
public:
    Consumer(const Consumer &) = delete; // the client holds on to this object
    Consumer &operator=(const Consumer &) = delete;

    // Asks for the subscriptions, before each upload (ND_LIB_PackSubscribeFunc).  optionData is what
    // AddOptionData stored, or null, and valid until the callback returns or calls AddOptionData.
    virtual Collected OnCollect(ClientRef client, void *optionData) = 0;

    // A data record of a download, of a pass or of an update.
    virtual void OnRecord(ClientRef client, const Record &record) = 0;

    // A download begins, or begins again; it is complete.  The end comes again when the component
    // repeats it.
    virtual void OnDownloadBegin(ClientRef /*client*/) {}
    virtual void OnDownloadEnd(ClientRef /*client*/) {}

    // A verification pass is due.  True starts it, false puts it off (ND_LIB_NOTIFY_VERIFY_REQUEST).
    virtual bool OnVerifyRequest(ClientRef /*client*/) { return true; }
    // A verification pass is complete; comes again like the end of a download.
    virtual void OnVerifyEnd(ClientRef /*client*/) {}

    // A report of the library (ND_LIB_LogFunc), from within a call on the client.  format and arguments are
    // printf's, valid during the call, and may be read once.  A callback that makes a request in here must
    // guard against being entered again.
    virtual void OnLog(ClientRef client, LogLevel level, const char *format, std::va_list arguments)
        ND_LIB_PRINTF(4, 0);

protected:
    Consumer() = default;
    ~Consumer() = default; // nobody owns a consumer by this class: a derived class should be final
};

inline void Consumer::OnLog(ClientRef /*client*/, LogLevel /*level*/, const char * /*format*/,
                            std::va_list /*arguments*/) {}

// Clients that can exist at a time in a process whose addresses have more than 32 bits; no limit otherwise.
inline constexpr std::uint32_t kMaxClients = 256;

namespace detail {

inline constexpr bool kWordHoldsAddress = sizeof(void *) <= sizeof(std::uint32_t);

// Where the callbacks find a consumer: a place in a table, and which of the clients that held it one after
// the other.  An instance that was let go of inside a callback still knows its place, but not a later client's.
struct Place {
    std::atomic<Consumer *> consumer;
    std::atomic<std::uint32_t> clientsBefore;
};
[[gnu::visibility("default")]] inline constinit Place places[kMaxClients] = {};

// Returns the place's name as appLocal, which is never 0.
inline std::uint32_t NameOf(std::uint32_t index) noexcept {
    constexpr std::uint32_t kNames = 0xFFFFFFFF / kMaxClients;
    return places[index].clientsBefore.load(std::memory_order_relaxed) % kNames * kMaxClients + index + 1;
}

// Returns the appLocal by which the callbacks find consumer, or 0 when the table is full.
inline std::uint32_t Enter(Consumer &consumer) noexcept {
    if constexpr (kWordHoldsAddress) {
        return static_cast<std::uint32_t>(reinterpret_cast<std::uintptr_t>(&consumer));
    } else {
        for (std::uint32_t index = 0; index < kMaxClients; ++index) {
            Consumer *vacant = nullptr;
            if (places[index].consumer.compare_exchange_strong(vacant, &consumer)) {
                return NameOf(index);
            }
        }
        return 0;
    }
}

inline void Leave(std::uint32_t appLocal) noexcept {
    if constexpr (!kWordHoldsAddress) {
        Place &place = places[(appLocal - 1) % kMaxClients];
        place.clientsBefore.fetch_add(1);
        place.consumer.store(nullptr);
    }
}

// Returns null for an instance that its client has let go of inside a callback.
// Relaxed: whoever calls the library in another thread than the one that made the client has been
// synchronised with it, as pegeir.h demands.
inline Consumer *ConsumerOf(const ND_LIB_Instance *instance) noexcept {
    const std::uint32_t appLocal = ND_LIB_GetAppLocal(instance);
    if constexpr (kWordHoldsAddress) {
        return reinterpret_cast<Consumer *>(static_cast<std::uintptr_t>(appLocal));
    } else {
        const std::uint32_t index = (appLocal - 1) % kMaxClients;
        return NameOf(index) == appLocal ? places[index].consumer.load(std::memory_order_relaxed) : nullptr;
    }
}

// The C callbacks.

inline std::uint32_t Pack(ND_LIB_Instance *instance, void *optionData) noexcept {
    Consumer *const consumer = ConsumerOf(instance);
    return static_cast<std::uint32_t>(
        consumer == nullptr ? Collected::kMore : consumer->OnCollect(ClientRef(instance), optionData));
}

inline std::uint32_t Notify(ND_LIB_Instance *instance, std::uint32_t code, std::uint32_t /*zero*/) noexcept {
    Consumer *const consumer = ConsumerOf(instance);
    if (consumer == nullptr) {
        return 1; // puts a verification pass off
    }
    const ClientRef client(instance);
    switch (code) {
    case ND_LIB_NOTIFY_SMOOTH_BEGIN:
        consumer->OnDownloadBegin(client);
        return 0;
    case ND_LIB_NOTIFY_SMOOTH_END:
        consumer->OnDownloadEnd(client);
        return 0;
    case ND_LIB_NOTIFY_VERIFY_REQUEST:
        return consumer->OnVerifyRequest(client) ? 0 : 1;
    case ND_LIB_NOTIFY_VERIFY_END:
        consumer->OnVerifyEnd(client);
        return 0;
    default:
        return 0;
    }
}

inline std::uint32_t Updata(ND_LIB_Instance *instance, const ND_LIB_TlvHead *record) noexcept {
    if (Consumer *const consumer = ConsumerOf(instance)) {
        const auto *const value = reinterpret_cast<const std::uint8_t *>(record + 1);
        consumer->OnRecord(ClientRef(instance), {record->tlvType, {value, record->tlvLen}});
    }
    return 0;
}

ND_LIB_PRINTF(3, 4)
inline std::uint32_t Log(ND_LIB_Instance *instance, std::uint32_t level, const char *format, ...) noexcept {
    if (Consumer *const consumer = ConsumerOf(instance)) {
        std::va_list arguments;
        va_start(arguments, format);
        consumer->OnLog(ClientRef(instance), static_cast<LogLevel>(level), format, arguments);
        va_end(arguments);
    }
    return 0;
}

} // namespace detail

// ---- The client ----------------------------------------------------------------------------------

// Owns an instance, or none, and is as large as a pointer to it.
class [[nodiscard]] Client : public ClientRef {
public:
    // No instance.
    Client() noexcept : ClientRef(nullptr) {}

    // Creates an instance whose callbacks are consumer's, and registers them (ND_LIB_Init and
    // ND_LIB_RegisterConsumer).  config is copied; consumer must outlive the instance and may have several.
    // There is no instance, so that the client tests false, when config has a zero (asserted), memory is
    // short (asserted) or kMaxClients exist.
    Client(const Config &config, Consumer &consumer) noexcept : ClientRef(nullptr) {
        const std::uint32_t appLocal = detail::Enter(consumer);
        if (appLocal == 0) {
            return;
        }
        const ND_LIB_FrameRegister frame = {
            config.component, config.self, config.memHandle, config.timerHandle, appLocal, detail::Log, 0, 0};
        native = ND_LIB_Init(&frame);
        if (native == nullptr) {
            detail::Leave(appLocal);
        } else if (Register(config.funcTable) != Result::kOk) {
            Close();
        }
    }

    // The instance changes its owner; the one it came from has none then.  An instance that is assigned to
    // is closed first.
    Client(Client &&other) noexcept : ClientRef(std::exchange(other.native, nullptr)) {}
    Client &operator=(Client &&other) noexcept {
        if (this != &other) {
            Close();
            native = std::exchange(other.native, nullptr);
        }
        return *this;
    }
    ~Client() { Close(); }

    // ND_LIB_Deinit, while the platform's services are still there and the consumer too.  Harmless without
    // an instance.
    void Close() noexcept {
        if (native == nullptr) {
            return;
        }
        const std::uint32_t appLocal = ND_LIB_GetAppLocal(native);
        ND_LIB_Deinit(native);
        detail::Leave(appLocal);
        native = nullptr;
    }

    // ND_LIB_RegisterConsumer, with the same callbacks: drops pending requests and option data.  funcTable
    // may not be zero.  kParameter without an instance (not asserted).
    Result Register(std::uint32_t funcTable = 1) noexcept {
        const ND_LIB_ConsumerRegister table = {funcTable, detail::Pack, detail::Notify, detail::Updata};
        return static_cast<Result>(ND_LIB_RegisterConsumer(native, &table));
    }

    // ND_LIB_MsgProcess: handles a message that the platform delivered, given by its data area.
    Result Process(void *message) noexcept { return static_cast<Result>(ND_LIB_MsgProcess(native, message)); }

    // ND_LIB_NotifyNdCompState: the component has come (true) or gone.
    void NotifyComponent(bool available) noexcept {
        const ND_LIB_CompState state = {
            0, static_cast<std::uint32_t>(available ? ND_LIB_COMP_AVAILABLE : ND_LIB_COMP_NOT_AVAILABLE)};
        ND_LIB_NotifyNdCompState(native, &state);
    }
};

} // namespace pegeir

#endif
