/*
 * The platform contract: every service that libpegeir imports, and nothing else.
 *
 * There is no implementation here.  Whoever brings pegeir to a platform provides these operations
 * with C linkage; platform/linux and platform/sim are two such providers, platform/common holds what
 * both share.  The library calls them from the consumer's task only, never from a thread or a signal
 * handler of its own, and expects none of them to call back into it, except
 * APPTMR_LibRcvMsg, which runs the expiry callback.
 *
 * "source" and "line" arguments name the calling module and its source line, for accounting: source
 * points to a constant string that stays valid for the life of the process.
 */
#ifndef PEGEIR_PLATFORM_H
#define PEGEIR_PLATFORM_H

#include <stdarg.h>
#include <stddef.h>
#include <stdint.h>

#if defined(__GNUC__)
#define PEGEIR_PLATFORM_API __attribute__((visibility("default")))
#define PEGEIR_PLATFORM_PRINTF(text, first) __attribute__((format(printf, text, first)))
#else
#define PEGEIR_PLATFORM_API
#define PEGEIR_PLATFORM_PRINTF(text, first)
#endif

#ifdef __cplusplus
extern "C" {
#endif

/* ---- Memory ---------------------------------------------------------------------------------- */

/* The memory partitions of the process; the library allocates from the one named by the first byte. */
PEGEIR_PLATFORM_API extern uint8_t g_aucZepMemPt[];

/*
 * Returns size bytes, aligned for any type and of any content, charged to memHandle and memPartition,
 * or null when they cannot be had.  size 0 is answered with null or with any address that ZEP_Free_F takes
 * back.  The block is the caller's until ZEP_Free_F.
 */
PEGEIR_PLATFORM_API void *ZEP_Malloc_F(uint32_t memHandle, uint8_t memPartition, uint32_t size,
                                       const char *source, uint32_t line);

/* Takes back a block of ZEP_Malloc_F.  memory is never null. */
PEGEIR_PLATFORM_API void ZEP_Free_F(void *memory, const char *source, uint32_t line);

/* ---- Assertion ------------------------------------------------------------------------------- */

/* Reports a broken precondition at source:line.  It returns; it never stops the process. */
PEGEIR_PLATFORM_API void ZEP_Assert(const char *source, uint32_t line, uint32_t value);

/* ---- Messages -------------------------------------------------------------------------------- */

/*
 * A message is handled by the address of its data area.  Around the data the platform keeps an
 * envelope: sender and receiver address ("cid"), the receiver's instance ("IID"), an interface and a
 * sub-interface value.  The operations below take the data address of a message that
 * ZEP_MsgFlowCtrlAlloc_F returned or that the platform delivered to the consumer.  The data of a delivered
 * message is written by nobody but the library until the call that it was handed to returns.
 */

/*
 * Returns a message with a data area of size bytes (1 to 65535, at any address, of any content)
 * from sender to receiver, or null when none can be had now.
 * It is the caller's until ZEP_SEND_MSG or DMS_MsgFree.
 */
PEGEIR_PLATFORM_API void *ZEP_MsgFlowCtrlAlloc_F(uint32_t sender, uint32_t receiver, uint32_t size,
                                                 const char *source, uint32_t line);

/*
 * Sends the first length data bytes of message to receiver; arg1 and arg2 are always 6 and 932.
 * Never blocks.  Returns 0 when the platform has taken the message, else an error code; in both cases
 * the message belongs to the platform from here on, which releases a message whose send it refused.
 */
PEGEIR_PLATFORM_API uint32_t ZEP_SEND_MSG(uint32_t receiver, uint32_t arg1, uint32_t arg2, void *message,
                                          uint32_t length);

/* Releases a message that was allocated by owner and is not sent. */
PEGEIR_PLATFORM_API void DMS_MsgFree(uint32_t owner, void *message);

/* Returns the address of the sender of a received message, fit as the receiver of an answer.  It is
 * what the platform knows, not what the sender claims. */
PEGEIR_PLATFORM_API uint32_t DMS_MsgSendCidGet(const void *message);

/* Sets the receiver address in the envelope of an outgoing message. */
PEGEIR_PLATFORM_API void DMS_MsgRecvCidSet(void *message, uint32_t cid);

/* Returns the receiver instance of a received message; 3 marks a message of the timer service. */
PEGEIR_PLATFORM_API uint32_t DMS_MsgRecvIidGet(const void *message);

/* Set the interface (3 for ndpi) and the sub-interface (164 for ndpi) of an outgoing message; the
 * receiver reads the latter with DMS_ZEP_MSG_GET_SUB_INTF. */
PEGEIR_PLATFORM_API void DMS_ZEP_MSG_SET_INTF(void *message, uint32_t value);
PEGEIR_PLATFORM_API void DMS_ZEP_MSG_SET_SUB_INTF(void *message, uint32_t value);

/* Returns the sub-interface of a received message. */
PEGEIR_PLATFORM_API uint32_t DMS_ZEP_MSG_GET_SUB_INTF(const void *message);

/*
 * Returns the number of data bytes of a received message: the library touches no byte behind them.
 * The one optional operation: where it is missing, the library takes a message at its word, and reads, rewrites
 * and echoes as many bytes as its header claims.  A platform may allow itself that where only trusted code can
 * send, and nothing arrives cut short.
 */
PEGEIR_PLATFORM_API uint32_t DMS_MsgDataLenGet(const void *message);

/* ---- Clock ----------------------------------------------------------------------------------- */

/* Date and time of day. */
typedef struct SysTime {
    uint16_t year;
    uint8_t month; /* 1 to 12 */
    uint8_t day;   /* 1 to 31 */
    uint8_t hour;
    uint8_t minute;
    uint8_t second;
    uint8_t weekday;
    uint32_t millisecond;
} SysTime;

/* Stores the seconds of a clock into *seconds, and a value of the platform's own into *second.  Neither
 * pointer is null.  The clock should not jump: what waits ends early when it goes forward, and when it goes
 * back waits until it has caught up. */
PEGEIR_PLATFORM_API void KAL_SecondNow(uint32_t *seconds, uint32_t *second);

/* Stores the present GMT date and time into *gmt.  Returns 0, or an error code. */
PEGEIR_PLATFORM_API uint32_t ZEP_GMT_SystimeGet(SysTime *gmt);

/* Converts *gmt to local time into *local.  *flag is 1 on entry.  What it returns is not looked at; a
 * conversion that fails should leave *local as it was, which is *gmt: lines are then stamped with that. */
PEGEIR_PLATFORM_API uint32_t ZEP_Gmt2LocalTime(const SysTime *gmt, SysTime *local, uint32_t *flag);

/* ---- Red-black tree -------------------------------------------------------------------------- */

enum { KAL_RBT_RED = 0, KAL_RBT_BLACK = 1 };

/*
 * Links of one tree element, which is the first field of the element's record.  A missing child is
 * the tree's sentinel, and so is the parent of the root.  The subtree of the first child holds the
 * greater keys, that of the second child the lesser ones.
 */
typedef struct KAL_RBT_Node {
    struct KAL_RBT_Node *parent;
    struct KAL_RBT_Node *child[2];
    uint32_t colour; /* KAL_RBT_RED, KAL_RBT_BLACK */
} KAL_RBT_Node;

/* A tree.  It is empty when root points at sentinel; the sentinel is black.  It must not be moved
 * while it holds nodes.  A port may use the sentinel's parent link as scratch. */
typedef struct KAL_RBT_Tree {
    KAL_RBT_Node *root;
    KAL_RBT_Node sentinel;
    uint32_t reserved; /* the platform's */
    uint32_t count;    /* nodes in the tree */
} KAL_RBT_Tree;

/* Returns the first node in traversal order, which is the platform's own, or null for an empty tree. */
PEGEIR_PLATFORM_API KAL_RBT_Node *KAL_RBT_FirstNode(KAL_RBT_Tree *tree);

/* Returns the node behind node in traversal order, or null after the last one and for a null node.
 * Every node of the tree comes up exactly once. */
PEGEIR_PLATFORM_API KAL_RBT_Node *KAL_RBT_NextNode(KAL_RBT_Tree *tree, KAL_RBT_Node *node);

/* Unlinks node, restores the red-black properties, lowers count by 1.  The links of node are of no
 * use afterwards. */
PEGEIR_PLATFORM_API void KAL_RBT_RemoveNode(KAL_RBT_Tree *tree, KAL_RBT_Node *node);

/* Restores the red-black properties after node, red and with two sentinel children, has been linked
 * in as a leaf; raises count by 1.  Any other balance, or none, does as well: the library reads root, children
 * and count alone. */
PEGEIR_PLATFORM_API void KAL_RBT_InsertNodeFixup(KAL_RBT_Tree *tree, KAL_RBT_Node *node);

/* ---- Application timers ---------------------------------------------------------------------- */

/* Called by APPTMR_LibRcvMsg for each expired timer with its id, a value without meaning, the param of
 * its creation and the arg of APPTMR_LibRcvMsg. */
typedef uint32_t (*APPTMR_ExpiryFunc)(uint32_t timerId, uint32_t value, void *param, void *arg);

/* Returns a nonzero handle of a timer library, whose timers run expiry, or 0.  timerHandle is the
 * consumer's own word, which the library hands on unread; memHandle is as for ZEP_Malloc_F. */
PEGEIR_PLATFORM_API uint32_t APPTMR_CreateLib2(uint32_t timerHandle, APPTMR_ExpiryFunc expiry,
                                               uint32_t memHandle);

/* Returns a nonzero handle of a timer instance in lib, or 0.  params points at three words, 1, 120
 * and 500, whose meaning is the timer service's own.  The third and the first of them are handed over as
 * arguments as well, for a service that takes them so; one that does not need not look at them. */
PEGEIR_PLATFORM_API uint32_t APPTMR_CreateInstance(uint32_t lib, const uint32_t *params, uint32_t word3,
                                                   uint32_t word1);

/* The flag of every APPTMR_CreatePeriodTimer. */
enum { APP_TIMER_FLAG_SHADOW = 2 };

/* Starts a timer that expires every periodMs milliseconds until it is deleted.  Each expiry arrives
 * at the consumer's task as a message with receiver IID 3.  zero is 0.  Returns a nonzero timer id, or
 * 0, also when instance is 0.  param stays the caller's. */
PEGEIR_PLATFORM_API uint32_t APPTMR_CreatePeriodTimer(uint32_t instance, uint32_t periodMs, uint32_t zero,
                                                      void *param, uint32_t flag);

/* Returns the param of a running timer, or null for an id that instance does not know.  A timer stays
 * known until APPTMR_DeleteTimer has answered 0 or its instance is deleted: a service that forgets one
 * earlier leaks its param and leaves the library without timeouts. */
PEGEIR_PLATFORM_API void *APPTMR_GetTimerParam(uint32_t instance, uint32_t timerId);

/* Deletes a timer: it expires no more, also when an expiry message is already under way; the expiry callback
 * may then still be run with a null param, and never with the timer's.  Returns 0, or an error code when the
 * timer goes on running. */
PEGEIR_PLATFORM_API uint32_t APPTMR_DeleteTimer(uint32_t instance, uint32_t timerId);

/* Processes a message with receiver IID 3: runs the expiry callback of lib for each timer that the
 * message tells of and that still exists in lib; a timer of another library is left alone.  zero is 0.
 * Returns 0, or an error code, also when lib is 0. */
PEGEIR_PLATFORM_API uint32_t APPTMR_LibRcvMsg(uint32_t lib, void *message, uint32_t zero, void *arg);

/* Release a timer instance with its timers, and a timer library. */
PEGEIR_PLATFORM_API void APPTMR_DeleteInstance(uint32_t instance);
PEGEIR_PLATFORM_API void APPTMR_DeleteLib(uint32_t lib);

/* ---- Black boxes ----------------------------------------------------------------------------- */

enum { BLACK_BOX_LINE_SIZE = 256 };

/*
 * How each box object begins; all but usable may hold anything.  The library formats a line in place and hands
 * it to WriteBlackBox; it writes no line, and takes no box in place of another, while usable is 0.
 */
typedef struct BlackBoxHead {
    uint32_t reserved1;
    uint32_t usable; /* byte offset 4 */
    uint32_t reserved2[4];
    char line[BLACK_BOX_LINE_SIZE]; /* byte offset 24 */
} BlackBoxHead;

/*
 * Returns a new, empty box that stores size bytes of lines, or null.  The object begins with a
 * BlackBoxHead.  It is released with DestroyBlackBox.
 */
PEGEIR_PLATFORM_API void *CreateBlackBox(uint32_t size, uint32_t memHandle);
PEGEIR_PLATFORM_API void DestroyBlackBox(void *box);

/*
 * Appends length bytes, which may lie in the box's own line buffer: one line ending in a line feed, or
 * several such lines, of which the first may be the rest of one.  What a full box does is the platform's: drop
 * its oldest lines or bytes, or refuse.  Returns a status of the platform's own.
 */
PEGEIR_PLATFORM_API int32_t WriteBlackBox(void *box, const void *bytes, uint32_t length);

/*
 * Copies up to length bytes of the stored lines into buffer, oldest first, going on where the last
 * call stopped; fewer than there are may be copied.  Returns the number of bytes copied; 0 once everything
 * has been read, after which the next call begins at the oldest line again or finds what has been written
 * since, as the platform has it; -1 on failure.  Reading removes nothing from the content.
 */
PEGEIR_PLATFORM_API int32_t ReadBlockFromBlackBox(void *box, void *buffer, uint32_t length);

/* Return the bytes stored, at least as many as can be read, and the bytes that can be stored. */
PEGEIR_PLATFORM_API int32_t GetBlackBoxContentLength(void *box);
PEGEIR_PLATFORM_API int32_t GetBlackBoxBufferLen(void *box);

/* ---- Bounded memory and text ----------------------------------------------------------------- */

/*
 * memcpy and memset with the size of the destination.  They return 0, or an error code when a pointer
 * is null or count is above destinationSize; nothing is written then.  They may refuse a count of 0, with
 * which the library does not call them.  Areas must not overlap.
 */
PEGEIR_PLATFORM_API int memcpy_s(void *destination, size_t destinationSize, const void *source, size_t count);
PEGEIR_PLATFORM_API int memset_s(void *destination, size_t destinationSize, int value, size_t count);

/*
 * printf into size bytes at text.  Text that does not fit is cut to size - 1 characters; a
 * terminating zero always follows.  Return the number of characters written, the zero not counted, or
 * a negative value on error, which includes a null pointer and size 0.
 */
PEGEIR_PLATFORM_API int snprintf_truncated_s(char *text, size_t size, const char *format, ...)
    PEGEIR_PLATFORM_PRINTF(3, 4);
PEGEIR_PLATFORM_API int vsnprintf_truncated_s(char *text, size_t size, const char *format, va_list arguments)
    PEGEIR_PLATFORM_PRINTF(3, 0);

/* memcmp and strcmp: negative, 0 or positive, of any magnitude. */
PEGEIR_PLATFORM_API int KAL_MemCmp(const void *left, const void *right, size_t count);
PEGEIR_PLATFORM_API int KAL_StrCmp(const char *left, const char *right);

#ifdef __cplusplus
}
#endif

#endif
