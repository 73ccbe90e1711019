/*
 * pegeir: client of the IPv6 Neighbor Discovery component.
 *
 * A process (the consumer) creates one instance, tells it which items it wants, and feeds it every
 * platform message that arrives.  The instance registers with the ND component, uploads the
 * subscriptions, downloads the data, follows it as it changes, and repairs whatever goes wrong on
 * the way: a lost acknowledgement, a gap in a download, a restarted component.
 *
 * A complete life, in the order of the sections below:
 *
 *     static uint32_t Pack(ND_LIB_Instance *nd, void *option)
 *     {
 *         struct { ND_LIB_ItemHead head; uint8_t ifindex[4]; } key = { { 1000, 4 }, { 0, 0, 0, 2 } };
 *         ND_LIB_ItemHead data = { 1, 0 };
 *         (void)option;
 *         return ND_LIB_Subscribe(nd, &key.head, &data) == ND_LIB_OK ? ND_LIB_PACK_DONE
 *                                                                    : ND_LIB_PACK_MORE;
 *     }
 *
 *     ND_LIB_Instance *nd = ND_LIB_Init(&frame);              // who am I, where is the component
 *     ND_LIB_RegisterConsumer(nd, &consumer);                 // my callbacks, Pack among them
 *     ND_LIB_NotifyNdCompState(nd, &up);                      // the component is there: go
 *     while (running)
 *         ND_LIB_MsgProcess(nd, next_platform_message());     // everything happens in here
 *     ND_LIB_Deinit(nd);
 *
 * Rules that hold for every call
 *  - There is no thread, no lock and no global state.  All calls on one instance are made from one
 *    task, one at a time; distinct instances know nothing of each other.
 *  - From inside a callback the consumer may call ND_LIB_Subscribe, ND_LIB_UnSubscribe,
 *    ND_LIB_AddOptionData, ND_LIB_StartVerify, ND_LIB_StopVerify, ND_LIB_SetVerifyCycle,
 *    ND_LIB_GetAppLocal and ND_LIB_GetDiagnoseInfo, on the instance it was handed.  It must not call
 *    ND_LIB_MsgProcess, ND_LIB_NotifyNdCompState, ND_LIB_RegisterConsumer or ND_LIB_Deinit there: these
 *    would pull the instance out from under the call that runs the callback.  Each is asserted then and
 *    does nothing; it returns ND_LIB_ERR, or ND_LIB_ERR_PARAM where it registers.
 *    A state of the component that is notified there is lost: notify it again afterwards.  Callbacks return:
 *    one that is left by longjmp or an exception leaves an instance that refuses every call.
 *    Requests report through the log function themselves, so a log function that makes one must guard
 *    against being entered again.
 *  - With several instances in one process, hand a timer message to each, and an ndpi message only to the
 *    instance whose component sent it.
 *  - Pointers handed in are read during the call and not kept, unless a declaration says otherwise.
 *  - Times are seconds of the platform's monotonic clock.  Numbers are in host byte order, except
 *    inside key, data and record bytes, which the library passes through untouched.
 *  - A missing argument is reported through the platform's ZEP_Assert where a declaration says
 *    "asserted"; the assertion returns, and the call then fails with its result code.
 */
#ifndef PEGEIR_PEGEIR_H
#define PEGEIR_PEGEIR_H

#include <stdint.h>

#if defined(__GNUC__)
#define ND_LIB_API __attribute__((visibility("default")))
#define ND_LIB_PRINTF(text, first) __attribute__((format(printf, text, first)))
#define ND_LIB_PACKED __attribute__((packed))
#define ND_LIB_NODISCARD __attribute__((warn_unused_result))
#else
#error "pegeir.h needs a compiler with GNU attributes"
#endif

#ifdef __cplusplus
extern "C" {
#endif

/* One consumer's connection to the ND component; its contents are the library's own. */
typedef struct ND_LIB_Instance ND_LIB_Instance;

/* ---- Result codes ---------------------------------------------------------------------------- */

enum {
    ND_LIB_OK = 0,            /* success */
    ND_LIB_ERR = 1,           /* missing argument, no memory, component not available, option data
                                 above 10000 bytes, refused inside a callback */
    ND_LIB_ERR_DIAG_END = 2,  /* this was the last diagnose page */
    ND_LIB_ERR_SUBSCRIBE = 5, /* a request could not be built or stored */
    ND_LIB_ERR_PARAM = 6,     /* invalid registration table, registration without an instance or inside
                                 a callback, verification cycle out of range */
    ND_LIB_ERR_MSG = 7,       /* received message refused */
    ND_LIB_ERR_SEQUENCE = 8,  /* received download message out of sequence */
    ND_LIB_ERR_BUFLEN = 10    /* diagnose buffer shorter than ND_LIB_DIAG_MIN_BUFFER */
};

/* ---- Creating an instance -------------------------------------------------------------------- */

/* Levels of the log function.  Each record of an acknowledgement is reported at level 0 as well. */
enum { ND_LIB_LOG_FAILURE = 0, ND_LIB_LOG_DETAIL = 2, ND_LIB_LOG_EVENT = 3 };

/*
 * The consumer's log function.  format is printf-like and always begins
 * "[ND_LIB] NdPid=0X%X, "; the first argument after it is the ndPid of the instance.  It and its
 * arguments are valid during the call only.  The result is ignored.
 */
typedef uint32_t (*ND_LIB_LogFunc)(ND_LIB_Instance *instance, uint32_t level, const char *format, ...)
    ND_LIB_PRINTF(3, 4);

/* Who the consumer is and where the ND component is: eight words, of which the first six must not be
 * zero. */
typedef struct ND_LIB_FrameRegister {
    uint32_t ndPid;         /* address of the ND component in the platform's message service */
    uint32_t appPid;        /* address of the consumer's own process; owner of sent messages */
    uint32_t memHandle;     /* memory module that the library's heap memory is charged to */
    uint32_t timerHandle;   /* handed unchanged to the platform's timer library */
    uint32_t appLocal;      /* the consumer's own value, see ND_LIB_GetAppLocal */
    ND_LIB_LogFunc logFunc; /* receives every report */
    uint32_t reserved1;     /* copied and otherwise unused, may be 0 */
    uint32_t reserved2;     /* likewise */
} ND_LIB_FrameRegister;

/*
 * Creates an instance from *frame, which is copied.  The component counts as not available, the
 * state is "Init", verification is off with a cycle of 60 seconds.
 * Returns the instance, to be released with ND_LIB_Deinit, or null when frame is missing, one of its
 * first six words is zero, or memory is short (asserted).  An instance whose timer service could not
 * be set up is returned all the same; it registers and asks packSubscribeFunc when the component comes, but
 * gets no further: all that follows is driven by the one-second timer.
 */
ND_LIB_API ND_LIB_NODISCARD ND_LIB_Instance *ND_LIB_Init(const ND_LIB_FrameRegister *frame);

/* ---- Registering the consumer ---------------------------------------------------------------- */

/* Answers of ND_LIB_PackSubscribeFunc.  Any other value takes no step, and the question that led here
 * comes again: after a registration with the next acknowledgement of the repeated request, at the start
 * of a verification pass with ND_LIB_NOTIFY_VERIFY_REQUEST, else in a second. */
enum {
    ND_LIB_PACK_MORE = 0, /* not finished: call again in a second */
    ND_LIB_PACK_DONE = 2  /* everything has been subscribed: upload it */
};

/*
 * Asks the consumer to subscribe its items with ND_LIB_Subscribe, before each upload: after every
 * registration with the component, and at the start of every verification pass.
 * optionData is what ND_LIB_AddOptionData stored, or null; it is valid until the callback returns or
 * calls ND_LIB_AddOptionData.  After ND_LIB_PACK_DONE whatever is stored by then is released, also a
 * copy made during this call: add it again later if the next collection needs it.
 */
typedef uint32_t (*ND_LIB_PackSubscribeFunc)(ND_LIB_Instance *instance, void *optionData);

/* Codes of ND_LIB_NotifyEventFunc. */
enum {
    ND_LIB_NOTIFY_SMOOTH_BEGIN = 0,   /* a download begins, or begins again; result ignored */
    ND_LIB_NOTIFY_SMOOTH_END = 1,     /* the download is complete, the instance ready; comes again
                                         when the component repeats its end; result ignored */
    ND_LIB_NOTIFY_VERIFY_REQUEST = 2, /* a verification pass is due: 0 starts it, any other result
                                         moves the due time by 10 seconds; while that lies in the
                                         past, as after the first ND_LIB_StartVerify, the question
                                         comes again every second */
    ND_LIB_NOTIFY_VERIFY_END = 3      /* a verification pass is complete; comes again when the
                                         component repeats its end; result ignored */
};

/* Tells the consumer where downloads and verification passes stand.  zero is always 0. */
typedef uint32_t (*ND_LIB_NotifyEventFunc)(ND_LIB_Instance *instance, uint32_t code, uint32_t zero);

/*
 * Head of one received data record: tlvLen value bytes follow directly behind it.  Both fields are in
 * host byte order here; the value is as the component sent it.  The record lies in the received
 * message at any alignment.
 */
typedef struct ND_LIB_PACKED ND_LIB_TlvHead {
    uint16_t tlvType;
    uint16_t tlvLen; /* bytes of the value, head excluded */
} ND_LIB_TlvHead;

/* Receives each data record of a download or an update, valid during the call only.  The library
 * ignores the result. */
typedef uint32_t (*ND_LIB_UpdataInfoFunc)(ND_LIB_Instance *instance, const ND_LIB_TlvHead *record);

/* The consumer's callbacks: four words, none of which may be zero. */
typedef struct ND_LIB_ConsumerRegister {
    uint32_t funcTable; /* the consumer's own number for this table; shown in the reports */
    ND_LIB_PackSubscribeFunc packSubscribeFunc;
    ND_LIB_NotifyEventFunc notifyEventFunc;
    ND_LIB_UpdataInfoFunc updataInfoFunc;
} ND_LIB_ConsumerRegister;

/*
 * Sets the callbacks from *consumer, which is copied, and an empty store.  As a rule it is called once,
 * right after ND_LIB_Init.  Every registration, the first as well as a later one, begins by releasing
 * pending requests and option data; the state machine goes on where it stands, and the new
 * packSubscribeFunc is asked when it next collects.
 * Returns ND_LIB_OK, or ND_LIB_ERR_PARAM without an instance (not asserted) or for a table that is
 * missing or has a zero word (asserted, nothing changed).
 */
ND_LIB_API uint32_t ND_LIB_RegisterConsumer(ND_LIB_Instance *instance,
                                            const ND_LIB_ConsumerRegister *consumer);

/* ---- Settings -------------------------------------------------------------------------------- */

/* Returns the appLocal given at creation, so that a callback finds its own context; 0 without an
 * instance.  It is 32 bits wide: an index or a number, not a pointer, on a 64-bit host. */
ND_LIB_API uint32_t ND_LIB_GetAppLocal(const ND_LIB_Instance *instance);

/*
 * Keeps a copy of length bytes (0 to 10000) for packSubscribeFunc, in place of an earlier copy, which is
 * released first: data must not lie in it.
 * Returns ND_LIB_OK, or ND_LIB_ERR when instance or data is missing (nothing changed) or the copy
 * cannot be had (reported; the earlier copy is gone).  Whether a copy of 0 bytes can be had is the
 * platform's.
 */
ND_LIB_API uint32_t ND_LIB_AddOptionData(ND_LIB_Instance *instance, const void *data, uint32_t length);

/*
 * Enables and disables the periodic verification passes.  Neither breaks off a pass that has begun; a gap
 * in its download does (a whole download follows, codes 0 and 1 in place of 3), and so does the
 * component's going.  The due time is kept over both calls; an instance that has neither run a pass nor
 * been refused one is due as soon as it is ready.
 * Return ND_LIB_OK, or ND_LIB_ERR without an instance (asserted).
 */
ND_LIB_API uint32_t ND_LIB_StartVerify(ND_LIB_Instance *instance);
ND_LIB_API uint32_t ND_LIB_StopVerify(ND_LIB_Instance *instance);

enum { ND_LIB_VERIFY_CYCLE_MIN = 60, ND_LIB_VERIFY_CYCLE_MAX = 3600 };

/*
 * Sets the seconds from the end of one verification pass to the next; takes effect when the current
 * or next pass ends.
 * Returns ND_LIB_OK, ND_LIB_ERR without an instance (asserted), or ND_LIB_ERR_PARAM outside
 * ND_LIB_VERIFY_CYCLE_MIN to ND_LIB_VERIFY_CYCLE_MAX.
 */
ND_LIB_API uint32_t ND_LIB_SetVerifyCycle(ND_LIB_Instance *instance, uint16_t seconds);

/* ---- Subscribing ----------------------------------------------------------------------------- */

/*
 * Describes a key or the data of a request: len bytes follow directly behind the head, which is aligned to
 * 2 bytes.  The library does not look into the bytes.  The reports know key type 1000, an interface index
 * of 4 bytes in network order, and data type 1, the smallest and the largest router-advertisement
 * interval, 4 bytes each in network order.
 */
typedef struct ND_LIB_ItemHead {
    uint16_t type;
    uint16_t len; /* a key has 1 to 10000 bytes, data 0 to 10000 */
} ND_LIB_ItemHead;

/*
 * Asks for an item (ND_LIB_Subscribe) or gives it up (ND_LIB_UnSubscribe).  The item is named by the
 * key and by the type of the data; both heads are needed even when the item has no data bytes.  The
 * request is stored.  A subscribe goes out with the upload under way or, after that, in the ready state
 * or a verification pass; an unsubscribe only in the last two.  A later request for the same item takes
 * the place of an earlier one.  Allowed in every state.  A request whose record cannot fit
 * an ndpi message of 8000 bytes (key and data together above 7972 bytes) is accepted, and reported
 * and set aside when its turn comes.  When the component goes down, pending requests are dropped:
 * packSubscribeFunc is asked again once it is back.
 * One shortage is not told: when memory for the data bytes is missing at the very last step, the call
 * returns ND_LIB_OK, and the item goes out without data bytes and, if there was an earlier request for it,
 * with the kind of that one, or not at all when that was sent and is acknowledged before.
 * Return ND_LIB_OK when stored, ND_LIB_ERR for a missing argument or before
 * ND_LIB_RegisterConsumer (asserted), ND_LIB_ERR_SUBSCRIBE when the key is empty, a length is above 10000 or
 * memory is short.
 */
ND_LIB_API uint32_t ND_LIB_Subscribe(ND_LIB_Instance *instance, const ND_LIB_ItemHead *keyHead,
                                     const ND_LIB_ItemHead *dataHead);
ND_LIB_API uint32_t ND_LIB_UnSubscribe(ND_LIB_Instance *instance, const ND_LIB_ItemHead *keyHead,
                                       const ND_LIB_ItemHead *dataHead);

/* ---- Feeding --------------------------------------------------------------------------------- */

/*
 * Handles one platform message: an expiry of the timer service or a message of the ND component.
 * Every callback but the log function runs from here only.
 * message is the data area of a message that the platform delivered; it stays the caller's, but data
 * records in it are rewritten in place.
 * Returns ND_LIB_OK, also for every timer message and for an ndpi message of an unknown type; ND_LIB_ERR
 * for a missing argument (asserted) or an ndpi message while the component is not available;
 * ND_LIB_ERR_MSG for a message that is not ndpi or breaks its rules; ND_LIB_ERR_SEQUENCE for a download
 * message out of sequence: within a download the library asks for a new one by itself, at any other time
 * the message is ignored.
 */
ND_LIB_API uint32_t ND_LIB_MsgProcess(ND_LIB_Instance *instance, void *message);

enum { ND_LIB_COMP_AVAILABLE = 0, ND_LIB_COMP_NOT_AVAILABLE = 1 };

/* A change of the component's availability. */
typedef struct ND_LIB_CompState {
    uint32_t compReserved; /* not read */
    uint32_t newState;     /* ND_LIB_COMP_AVAILABLE; any other value means not available */
} ND_LIB_CompState;

/*
 * Tells the library that the ND component has come or gone.  Coming starts the registration and the
 * one-second timer; going drops all pending requests and stops the timer.  Repeating the present
 * state refreshes the time and is reported, nothing else.  If the timer cannot be started, nothing more
 * is sent by itself until the component has gone and come again; one that the platform refuses to stop
 * goes on without effect and serves the next time.  A missing argument is asserted.
 */
ND_LIB_API void ND_LIB_NotifyNdCompState(ND_LIB_Instance *instance, const ND_LIB_CompState *state);

/* ---- Diagnosing ------------------------------------------------------------------------------ */

enum { ND_LIB_DIAG_MIN_BUFFER = 20 };

/*
 * Writes the next page of the diagnose text into buffer of bufferLen bytes: the instance with its pending
 * requests, the history of the state machine, the statistics, and the two trace boxes, which take as many
 * pages as they need.  The first three reports take one page each and are cut off when it is too small.
 * *pageLen must be 0 before each call and is then the length of the page, which is at most bufferLen - 1
 * bytes: the text is those bytes, a terminating zero is not promised.
 * restart 1 begins again at the first report, any other value goes on.  A trace box is read on from where the
 * last read stopped: a pass that is begun again in the middle of one shows what had not been shown.  Whether
 * the passes after that show a box from its oldest line, or only what is new, is the platform's.  There is one
 * pass an instance: two readers would share out its pages.
 * Returns ND_LIB_OK when more pages follow; ND_LIB_ERR_DIAG_END with the last page, after which the next
 * call begins again, or for a missing argument (asserted); ND_LIB_ERR_BUFLEN, with nothing changed and
 * before pageLen is looked at, when bufferLen is below ND_LIB_DIAG_MIN_BUFFER.
 */
ND_LIB_API uint32_t ND_LIB_GetDiagnoseInfo(ND_LIB_Instance *instance, char *buffer, uint32_t bufferLen,
                                           uint32_t *pageLen, uint32_t restart);

/* ---- Destroying ------------------------------------------------------------------------------ */

/* Releases the instance and everything it holds; nothing is sent.  A null instance is ignored. */
ND_LIB_API void ND_LIB_Deinit(ND_LIB_Instance *instance);

#ifdef __cplusplus
}
#endif

#endif
