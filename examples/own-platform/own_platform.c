/*
 * A platform of one's own: everything that libpegeir asks of a system, in one file.
 *
 * The process has no system around it but memory and a clock.  Messages wait in a queue, and one loop (Run)
 * hands each to the task it is for.  There are two tasks: a consumer of pegeir, and a stub of the component
 * that answers it.  Parts 1 to 7 are the platform, in the order of pegeir/platform.h; take them as they are
 * and put your own services in.  Parts 8 to 10 are the stub, the consumer and the loop.
 *
 * The program ends with 0 when the consumer has been served, and everything was given back.
 */
#define _POSIX_C_SOURCE 200809L

#include <pegeir/pegeir.h>
#include <pegeir/platform.h>

#include <inttypes.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <time.h>

enum { COMPONENT = 100, CONSUMER = 200 }; /* the tasks, by their address in the message service */

/* ---- 1. Memory ------------------------------------------------------------------------------- */

uint8_t g_aucZepMemPt[] = {0}; /* one partition, number 0 */

static unsigned g_blocks; /* how many are out: the least of an account */

void *ZEP_Malloc_F(uint32_t memHandle, uint8_t memPartition, uint32_t size, const char *source,
                   uint32_t line) {
    void *memory = malloc(size > 0 ? size : 1); /* null would say that there is no memory */
    (void)memHandle, (void)memPartition, (void)source, (void)line;
    g_blocks += memory != NULL;
    return memory;
}

void ZEP_Free_F(void *memory, const char *source, uint32_t line) {
    (void)source, (void)line;
    --g_blocks;
    free(memory);
}

/* ---- 2. Assertion ---------------------------------------------------------------------------- */

void ZEP_Assert(const char *source, uint32_t line, uint32_t value) {
    fprintf(stderr, "assertion at %s:%" PRIu32 ", value %" PRIu32 "\n", source, line, value);
}

/* ---- 3. Messages ----------------------------------------------------------------------------- */

/* The envelope lies in front of the data, whose address is the message's. */
typedef struct Message {
    struct Message *next;
    uint32_t sender, receiver, iid, intf, subIntf;
    uint32_t size, length; /* bytes allocated, bytes sent */
    uint32_t padding;
} Message;

enum { TIMER_IID = 3, NDPI_SUB_INTF = 164 };

static Message *g_first; /* the queue: what was sent and not delivered */
static Message **g_end = &g_first;
static unsigned g_messages; /* how many there are, wherever they are */

static Message *EnvelopeOf(void *data) {
    return (Message *)data - 1;
}
static const Message *ReadEnvelope(const void *data) {
    return (const Message *)data - 1;
}

void *ZEP_MsgFlowCtrlAlloc_F(uint32_t sender, uint32_t receiver, uint32_t size, const char *source,
                             uint32_t line) {
    Message *message = calloc(1, sizeof *message + size);
    (void)source, (void)line;
    if (message == NULL)
        return NULL;
    ++g_messages;
    message->sender = sender;
    message->receiver = receiver;
    message->size = size;
    return message + 1;
}

void DMS_MsgFree(uint32_t owner, void *data) {
    (void)owner;
    --g_messages;
    free(EnvelopeOf(data));
}

static void Enqueue(Message *message) {
    message->next = NULL;
    *g_end = message;
    g_end = &message->next;
}

/* Queues and returns: delivering here would call the library while it calls us. */
uint32_t ZEP_SEND_MSG(uint32_t receiver, uint32_t arg1, uint32_t arg2, void *data, uint32_t length) {
    Message *message = EnvelopeOf(data);
    (void)arg1, (void)arg2;
    if (length > message->size || (receiver != COMPONENT && receiver != CONSUMER)) {
        DMS_MsgFree(message->sender, data); /* a refused message is ours too */
        return 1;
    }
    message->receiver = receiver;
    message->length = length;
    Enqueue(message);
    return 0;
}

uint32_t DMS_MsgSendCidGet(const void *data) {
    return ReadEnvelope(data)->sender;
}
void DMS_MsgRecvCidSet(void *data, uint32_t cid) {
    EnvelopeOf(data)->receiver = cid;
}
uint32_t DMS_MsgRecvIidGet(const void *data) {
    return ReadEnvelope(data)->iid;
}
void DMS_ZEP_MSG_SET_INTF(void *data, uint32_t value) {
    EnvelopeOf(data)->intf = value;
}
void DMS_ZEP_MSG_SET_SUB_INTF(void *data, uint32_t value) {
    EnvelopeOf(data)->subIntf = value;
}
uint32_t DMS_ZEP_MSG_GET_SUB_INTF(const void *data) {
    return ReadEnvelope(data)->subIntf;
}

/*
 * The library takes a received message at its word, because here only its own two tasks send.  Where others
 * can, this should be DMS_MsgDataLenGet, the one optional operation: the library then refuses what is shorter
 * than it says.
 */
static uint32_t LengthOf(const void *data) {
    return ReadEnvelope(data)->length;
}

/* ---- 4. Clock -------------------------------------------------------------------------------- */

static uint64_t NowMs(void) {
    struct timespec now;
    clock_gettime(CLOCK_MONOTONIC, &now);
    return (uint64_t)now.tv_sec * 1000 + (uint64_t)now.tv_nsec / 1000000;
}

void KAL_SecondNow(uint32_t *seconds, uint32_t *second) {
    *seconds = (uint32_t)(NowMs() / 1000);
    *second = 0;
}

uint32_t ZEP_GMT_SystimeGet(SysTime *gmt) {
    struct timespec now;
    struct tm date;
    if (clock_gettime(CLOCK_REALTIME, &now) != 0 || gmtime_r(&now.tv_sec, &date) == NULL)
        return 1;
    memset(gmt, 0, sizeof *gmt);
    gmt->year = (uint16_t)(date.tm_year + 1900);
    gmt->month = (uint8_t)(date.tm_mon + 1);
    gmt->day = (uint8_t)date.tm_mday;
    gmt->hour = (uint8_t)date.tm_hour;
    gmt->minute = (uint8_t)date.tm_min;
    gmt->second = (uint8_t)date.tm_sec;
    gmt->weekday = (uint8_t)date.tm_wday;
    gmt->millisecond = (uint32_t)(now.tv_nsec / 1000000);
    return 0;
}

/* This device is in Greenwich. */
uint32_t ZEP_Gmt2LocalTime(const SysTime *gmt, SysTime *local, uint32_t *flag) {
    (void)flag;
    *local = *gmt;
    return 0;
}

/* ---- 5. Tree --------------------------------------------------------------------------------- */

/*
 * The library searches, and links new leaves in; the balance is kept here: a red node has no red child,
 * and each way down from a node meets as many black ones.  child[0] has the greater keys.
 */
typedef KAL_RBT_Node Node;
typedef KAL_RBT_Tree Tree;

static int SideOf(const Node *node) {
    return node->parent->child[1] == node;
}

/* Hangs `other` where `node` hangs. */
static void Exchange(Tree *tree, const Node *node, Node *other) {
    if (tree->root == node)
        tree->root = other;
    else
        node->parent->child[SideOf(node)] = other;
    other->parent = node->parent; /* also that of the sentinel, which a removal climbs by */
}

/* Moves node down to `side`, and its child of the other side up. */
static void Rotate(Tree *tree, Node *node, int side) {
    Node *up = node->child[!side];
    Node *inner = up->child[side];
    node->child[!side] = inner;
    if (inner != &tree->sentinel)
        inner->parent = node;
    Exchange(tree, node, up);
    up->child[side] = node;
    node->parent = up;
}

static Node *Furthest(Tree *tree, Node *node, int side) {
    while (node->child[side] != &tree->sentinel)
        node = node->child[side];
    return node;
}

KAL_RBT_Node *KAL_RBT_FirstNode(KAL_RBT_Tree *tree) {
    if (tree->root == NULL || tree->root == &tree->sentinel)
        return NULL;
    return Furthest(tree, tree->root, 1);
}

KAL_RBT_Node *KAL_RBT_NextNode(KAL_RBT_Tree *tree, KAL_RBT_Node *node) {
    if (node == NULL)
        return NULL;
    if (node->child[0] != &tree->sentinel)
        return Furthest(tree, node->child[0], 1);
    while (node != tree->root && SideOf(node) == 0)
        node = node->parent;
    return node == tree->root ? NULL : node->parent;
}

void KAL_RBT_InsertNodeFixup(KAL_RBT_Tree *tree, KAL_RBT_Node *node) {
    ++tree->count;
    while (node != tree->root && node->parent->colour == KAL_RBT_RED) {
        Node *parent = node->parent;
        Node *grand = parent->parent; /* is there: a root is black */
        int side = SideOf(parent);
        Node *uncle = grand->child[!side];
        if (uncle->colour == KAL_RBT_RED) { /* both levels change colour, and the matter moves up */
            parent->colour = uncle->colour = KAL_RBT_BLACK;
            grand->colour = KAL_RBT_RED;
            node = grand;
            continue;
        }
        if (SideOf(node) != side) {
            Rotate(tree, parent, side);
            parent = node;
        }
        parent->colour = KAL_RBT_BLACK;
        grand->colour = KAL_RBT_RED;
        Rotate(tree, grand, !side);
        break;
    }
    tree->root->colour = KAL_RBT_BLACK;
}

void KAL_RBT_RemoveNode(KAL_RBT_Tree *tree, KAL_RBT_Node *node) {
    Node *const end = &tree->sentinel;
    Node *gone = node; /* whose place in the tree goes: the node's own, or that of the next one */
    Node *low;         /* what moves up there, and has one black node too few below it */
    uint32_t colour;
    if (node->child[0] != end && node->child[1] != end)
        gone = Furthest(tree, node->child[0], 1);
    low = gone->child[gone->child[0] == end];
    colour = gone->colour;
    Exchange(tree, gone, low);
    if (gone != node) { /* the next one takes the node's place and colour */
        int side;
        if (low->parent == node)
            low->parent = gone;
        for (side = 0; side < 2; ++side) {
            gone->child[side] = node->child[side];
            if (gone->child[side] != end)
                gone->child[side]->parent = gone;
        }
        Exchange(tree, node, gone);
        gone->colour = node->colour;
    }
    --tree->count;

    while (colour == KAL_RBT_BLACK && low != tree->root && low->colour == KAL_RBT_BLACK) {
        Node *parent = low->parent;
        int side = parent->child[1] == low;
        Node *sibling = parent->child[!side];
        if (sibling->colour == KAL_RBT_RED) {
            sibling->colour = KAL_RBT_BLACK;
            parent->colour = KAL_RBT_RED;
            Rotate(tree, parent, side);
            sibling = parent->child[!side];
        }
        if (sibling->child[0]->colour == KAL_RBT_BLACK && sibling->child[1]->colour == KAL_RBT_BLACK) {
            sibling->colour = KAL_RBT_RED;
            low = parent;
            continue;
        }
        if (sibling->child[!side]->colour == KAL_RBT_BLACK) {
            sibling->child[side]->colour = KAL_RBT_BLACK;
            sibling->colour = KAL_RBT_RED;
            Rotate(tree, sibling, !side);
            sibling = parent->child[!side];
        }
        sibling->colour = parent->colour;
        parent->colour = sibling->child[!side]->colour = KAL_RBT_BLACK;
        Rotate(tree, parent, side);
        low = tree->root;
    }
    low->colour = KAL_RBT_BLACK;
    end->parent = NULL;
}

/* ---- 6. Timers ------------------------------------------------------------------------------- */

/*
 * Libraries, instances and timers are all entries of one table; a handle is the number of the entry,
 * counted from 1 and never given twice, so that an expiry under way cannot meet a later timer.
 */
typedef struct Entry {
    uint32_t handle;          /* 0: free */
    uint32_t owner;           /* the library of an instance, the instance of a timer */
    APPTMR_ExpiryFunc expiry; /* of a library */
    void *param;              /* of a timer, as all that follows */
    uint32_t periodMs;
    uint64_t dueMs;
} Entry;

enum { ENTRIES = 16 };
static Entry g_entries[ENTRIES];
static uint32_t g_lastHandle;

static Entry *Find(uint32_t handle) {
    int i;
    for (i = 0; i < ENTRIES; ++i)
        if (handle != 0 && g_entries[i].handle == handle)
            return &g_entries[i];
    return NULL;
}

static Entry *NewEntry(uint32_t owner) {
    int i;
    for (i = 0; i < ENTRIES && g_entries[i].handle != 0; ++i) {
    }
    if (i == ENTRIES)
        return NULL;
    memset(&g_entries[i], 0, sizeof g_entries[i]);
    g_entries[i].handle = ++g_lastHandle;
    g_entries[i].owner = owner;
    return &g_entries[i];
}

uint32_t APPTMR_CreateLib2(uint32_t timerHandle, APPTMR_ExpiryFunc expiry, uint32_t memHandle) {
    Entry *lib = NewEntry(0);
    (void)timerHandle, (void)memHandle;
    if (lib == NULL)
        return 0;
    lib->expiry = expiry;
    return lib->handle;
}

uint32_t APPTMR_CreateInstance(uint32_t lib, const uint32_t *params, uint32_t word3, uint32_t word1) {
    Entry *instance = Find(lib) != NULL ? NewEntry(lib) : NULL;
    (void)params, (void)word3, (void)word1;
    return instance != NULL ? instance->handle : 0;
}

uint32_t APPTMR_CreatePeriodTimer(uint32_t instance, uint32_t periodMs, uint32_t zero, void *param,
                                  uint32_t flag) {
    Entry *timer = Find(instance) != NULL ? NewEntry(instance) : NULL;
    (void)zero, (void)flag;
    if (timer == NULL)
        return 0;
    timer->param = param;
    timer->periodMs = periodMs;
    timer->dueMs = NowMs() + periodMs;
    return timer->handle;
}

static Entry *FindTimer(uint32_t instance, uint32_t timerId) {
    Entry *timer = Find(timerId);
    return timer != NULL && timer->periodMs != 0 && timer->owner == instance ? timer : NULL;
}

void *APPTMR_GetTimerParam(uint32_t instance, uint32_t timerId) {
    const Entry *timer = FindTimer(instance, timerId);
    return timer != NULL ? timer->param : NULL;
}

uint32_t APPTMR_DeleteTimer(uint32_t instance, uint32_t timerId) {
    Entry *timer = FindTimer(instance, timerId);
    if (timer == NULL)
        return 1;
    timer->handle = 0;
    return 0;
}

/* The data of a timer message is the timer's id. */
uint32_t APPTMR_LibRcvMsg(uint32_t lib, void *message, uint32_t zero, void *arg) {
    const Entry *library = Find(lib);
    const Entry *timer, *instance;
    uint32_t timerId;
    (void)zero;
    if (library == NULL || LengthOf(message) != sizeof timerId)
        return 1;
    memcpy(&timerId, message, sizeof timerId);
    timer = Find(timerId);
    instance = timer != NULL ? Find(timer->owner) : NULL;
    if (instance != NULL && instance->owner == lib) /* else it was deleted, or is another library's */
        library->expiry(timerId, 0, timer->param, arg);
    return 0;
}

static void DeleteOwnedBy(uint32_t handle) {
    int i;
    for (i = 0; i < ENTRIES; ++i) {
        if (g_entries[i].handle != 0 && g_entries[i].owner == handle) {
            DeleteOwnedBy(g_entries[i].handle);
            g_entries[i].handle = 0;
        }
    }
}

void APPTMR_DeleteInstance(uint32_t instance) {
    Entry *entry = Find(instance);
    if (entry == NULL)
        return;
    DeleteOwnedBy(instance);
    entry->handle = 0;
}

void APPTMR_DeleteLib(uint32_t lib) {
    APPTMR_DeleteInstance(lib);
}

/* Puts a message for each timer that is due into the queue.  Returns the milliseconds until the next one
 * is. */
static uint64_t ExpireTimers(void) {
    uint64_t now = NowMs();
    uint64_t wait = 1000;
    int i;
    for (i = 0; i < ENTRIES; ++i) {
        Entry *timer = &g_entries[i];
        if (timer->handle == 0 || timer->periodMs == 0)
            continue;
        if (timer->dueMs <= now) {
            void *data = ZEP_MsgFlowCtrlAlloc_F(CONSUMER, CONSUMER, sizeof timer->handle, "timer", __LINE__);
            timer->dueMs = now + timer->periodMs; /* what was missed is not made up for */
            if (data == NULL)
                continue; /* the next expiry comes */
            EnvelopeOf(data)->iid = TIMER_IID;
            EnvelopeOf(data)->length = sizeof timer->handle;
            memcpy(data, &timer->handle, sizeof timer->handle);
            Enqueue(EnvelopeOf(data));
        }
        if (timer->dueMs - now < wait)
            wait = timer->dueMs - now;
    }
    return wait;
}

/* ---- 7. Black boxes, bounded memory and text ------------------------------------------------- */

/* The lines lie in one piece, oldest first; to drop some is to move the others down. */
typedef struct Box {
    BlackBoxHead head;
    uint32_t size, length;
    uint32_t unread;                /* bytes at the end that the reader has not had */
    uint32_t restLength;            /* of a line that was dropped under the reader */
    char rest[BLACK_BOX_LINE_SIZE]; /* what it has not had of that line */
    char *bytes;
} Box;

enum { LARGEST_BOX = 1 << 20 };

void *CreateBlackBox(uint32_t size, uint32_t memHandle) {
    Box *box = size <= LARGEST_BOX ? calloc(1, sizeof *box + size) : NULL;
    (void)memHandle;
    if (box == NULL)
        return NULL;
    ++g_blocks;
    box->head.usable = 1;
    box->size = size;
    box->bytes = (char *)(box + 1);
    return box;
}

void DestroyBlackBox(void *box) {
    g_blocks -= box != NULL;
    free(box);
}

static uint32_t LineLength(const char *bytes, uint32_t length) {
    const char *end = memchr(bytes, '\n', length);
    return end != NULL ? (uint32_t)(end - bytes) + 1 : length;
}

static void DropOldestLine(Box *box) {
    uint32_t line = LineLength(box->bytes, box->length);
    uint32_t left = box->length - line;
    if (box->unread > left) { /* the reader stands in this line, or in front of it */
        if (box->unread < box->length) {
            uint32_t rest = box->unread - left;
            box->restLength = rest <= sizeof box->rest ? rest : sizeof box->rest;
            memcpy(box->rest, box->bytes + (line - rest), box->restLength);
            box->rest[box->restLength - 1] = '\n';
        }
        box->unread = left;
    }
    memmove(box->bytes, box->bytes + line, left);
    box->length = left;
}

int32_t WriteBlackBox(void *object, const void *bytes, uint32_t length) {
    Box *box = object;
    const char *from = bytes;
    uint32_t done, line;
    if (box == NULL || from == NULL)
        return -1;
    for (line = length; line > 1 && from[line - 2] != '\n'; --line) {
    }
    if (length - (line > 0 ? line - 1 : 0) > box->size)
        return -1; /* not even the last line fits */
    for (done = 0; done < length; done += line) {
        line = LineLength(from + done, length - done);
        while (box->length > 0 && line > box->size - box->length)
            DropOldestLine(box);
        if (line > box->size)
            continue;
        memcpy(box->bytes + box->length, from + done, line);
        box->length += line;
        box->unread += line;
    }
    return (int32_t)length;
}

int32_t ReadBlockFromBlackBox(void *object, void *buffer, uint32_t length) {
    Box *box = object;
    char *to = buffer;
    uint32_t rest, more;
    if (box == NULL || to == NULL)
        return -1;
    rest = length < box->restLength ? length : box->restLength;
    memcpy(to, box->rest, rest);
    box->restLength -= rest;
    memmove(box->rest, box->rest + rest, box->restLength);
    more = length - rest < box->unread ? length - rest : box->unread;
    memcpy(to + rest, box->bytes + (box->length - box->unread), more);
    box->unread -= more;
    if (rest + more == 0) { /* everything has been read: the next read begins anew */
        box->unread = box->length;
        box->restLength = 0;
    }
    return (int32_t)(rest + more);
}

int32_t GetBlackBoxContentLength(void *box) {
    return (int32_t)((const Box *)box)->length;
}
int32_t GetBlackBoxBufferLen(void *box) {
    return (int32_t)((const Box *)box)->size;
}

int memcpy_s(void *destination, size_t destinationSize, const void *source, size_t count) {
    if (destination == NULL || source == NULL || count > destinationSize)
        return 1;
    memcpy(destination, source, count);
    return 0;
}

int memset_s(void *destination, size_t destinationSize, int value, size_t count) {
    if (destination == NULL || count > destinationSize)
        return 1;
    memset(destination, value, count);
    return 0;
}

int vsnprintf_truncated_s(char *text, size_t size, const char *format, va_list arguments) {
    int length;
    if (text == NULL || size == 0 || format == NULL)
        return -1;
    length = vsnprintf(text, size, format, arguments);
    return length >= 0 && (size_t)length >= size ? (int)size - 1 : length; /* what was written */
}

int snprintf_truncated_s(char *text, size_t size, const char *format, ...) {
    va_list arguments;
    int length;
    va_start(arguments, format);
    length = vsnprintf_truncated_s(text, size, format, arguments);
    va_end(arguments);
    return length;
}

int KAL_MemCmp(const void *left, const void *right, size_t count) {
    return memcmp(left, right, count);
}
int KAL_StrCmp(const char *left, const char *right) {
    return strcmp(left, right);
}

/* ---- 8. A stub of the component -------------------------------------------------------------- */

/* The bytes of a message, of which the stub uses a few. */
enum { AT_FLAGS = 2, AT_TYPE = 3, AT_SEQUENCE = 12, HEADER = 16, ACK = 0x80 };
enum { SUBSCRIBE_END = 19, REQUESTS_END = 22, SMOOTH_BEGIN = 23, SMOOTH_DATA, SMOOTH_END, REAL_UPDATE };
enum { RECORD_TYPE = 500, RECORD_LEN = 2 };

static void SendFromComponent(uint32_t receiver, const uint8_t *bytes, uint32_t length) {
    void *data = ZEP_MsgFlowCtrlAlloc_F(COMPONENT, receiver, length, "component", __LINE__);
    if (data == NULL)
        return;
    memcpy(data, bytes, length);
    DMS_ZEP_MSG_SET_SUB_INTF(data, NDPI_SUB_INTF);
    ZEP_SEND_MSG(receiver, 0, 0, data, length);
}

static void SendData(uint32_t receiver, uint8_t type, uint8_t sequence, const char *text) {
    uint8_t bytes[HEADER + 4 + RECORD_LEN] = {0};
    uint8_t length = text != NULL ? sizeof bytes : HEADER;
    bytes[1] = length;
    bytes[AT_TYPE] = type;
    bytes[AT_SEQUENCE + 3] = sequence;
    if (text != NULL) {
        bytes[HEADER] = RECORD_TYPE >> 8;
        bytes[HEADER + 1] = RECORD_TYPE & 0xFF;
        bytes[HEADER + 3] = RECORD_LEN;
        memcpy(bytes + HEADER + 4, text, RECORD_LEN);
    }
    SendFromComponent(receiver, bytes, length);
}

/* Acknowledges whatever is asked, and after the upload sends two records, and an update. */
static void Component(const void *data) {
    uint8_t answer[8000];
    uint32_t length = LengthOf(data);
    uint32_t peer = DMS_MsgSendCidGet(data);
    if (length < HEADER || length > sizeof answer)
        return;
    memcpy(answer, data, length);
    if ((answer[AT_FLAGS] & ACK) != 0 || answer[AT_TYPE] > REQUESTS_END)
        return;
    answer[AT_FLAGS] |= ACK;
    SendFromComponent(peer, answer, length);
    if (answer[AT_TYPE] == SUBSCRIBE_END) {
        SendData(peer, SMOOTH_BEGIN, 1, NULL);
        SendData(peer, SMOOTH_DATA, 1, "1A");
        SendData(peer, SMOOTH_DATA, 2, "1B");
        SendData(peer, SMOOTH_END, 3, NULL);
        SendData(peer, REAL_UPDATE, 0, "2A");
    }
}

/* ---- 9. The consumer ------------------------------------------------------------------------- */

enum { ITEMS = 40 };
static int g_ready, g_records, g_updated;

/* Your own writes what it is told at level 0 to where you look for failures. */
static uint32_t Log(ND_LIB_Instance *nd, uint32_t level, const char *format, ...) {
    (void)nd, (void)level, (void)format;
    return 0;
}

static uint32_t Pack(ND_LIB_Instance *nd, void *option) {
    struct {
        ND_LIB_ItemHead head;
        uint8_t item[4];
    } key = {{1, 4}, {0, 0, 0, 0}};
    ND_LIB_ItemHead data = {0, 0};
    (void)option;
    for (key.item[3] = 1; key.item[3] <= ITEMS; ++key.item[3])
        if (ND_LIB_Subscribe(nd, &key.head, &data) != ND_LIB_OK)
            return ND_LIB_PACK_MORE;
    return ND_LIB_PACK_DONE;
}

static uint32_t Event(ND_LIB_Instance *nd, uint32_t code, uint32_t zero) {
    (void)nd, (void)zero;
    if (code == ND_LIB_NOTIFY_SMOOTH_END)
        g_ready = 1;
    return 0;
}

static uint32_t Record(ND_LIB_Instance *nd, const ND_LIB_TlvHead *record) {
    const char *value = (const char *)(record + 1);
    (void)nd;
    if (record->tlvType == RECORD_TYPE && record->tlvLen == RECORD_LEN) {
        printf("%s %.2s\n", g_ready ? "update" : "record", value);
        ++g_records;
        g_updated = g_ready;
    }
    return 0;
}

/* ---- 10. The loop ---------------------------------------------------------------------------- */

/* Delivers until the consumer has got the update, for ten seconds at most. */
static void Run(ND_LIB_Instance *nd) {
    uint64_t end = NowMs() + 10000;
    while (!g_updated && NowMs() < end) {
        uint64_t wait = ExpireTimers();
        Message *message = g_first;
        if (message == NULL) {
            struct timespec pause = {(time_t)(wait / 1000), (long)(wait % 1000) * 1000000};
            nanosleep(&pause, NULL);
            continue;
        }
        g_first = message->next;
        if (g_first == NULL)
            g_end = &g_first;
        if (message->receiver == CONSUMER)
            ND_LIB_MsgProcess(nd, message + 1);
        else
            Component(message + 1);
        DMS_MsgFree(message->sender, message + 1);
    }
}

int main(void) {
    ND_LIB_FrameRegister frame = {COMPONENT, CONSUMER, 1, 1, 1, Log, 0, 0};
    ND_LIB_ConsumerRegister consumer = {1, Pack, Event, Record};
    ND_LIB_CompState up = {0, ND_LIB_COMP_AVAILABLE};
    ND_LIB_Instance *nd = ND_LIB_Init(&frame);
    if (nd == NULL)
        return 1;
    ND_LIB_RegisterConsumer(nd, &consumer);
    ND_LIB_NotifyNdCompState(nd, &up);
    Run(nd);
    ND_LIB_Deinit(nd);
    while (g_first != NULL) {
        Message *message = g_first;
        g_first = message->next;
        DMS_MsgFree(message->sender, message + 1);
    }
    if (!g_updated || g_records != 3 || g_blocks != 0 || g_messages != 0) {
        printf("not served: ready %d, %d records; held: %u blocks, %u messages\n", g_ready, g_records,
               g_blocks, g_messages);
        return 1;
    }
    puts("ready");
    return 0;
}
