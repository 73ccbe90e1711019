// The instance: the whole state of one consumer, and the operations that create, configure and destroy it
// and take the consumer's requests.
#ifndef PEGEIR_ND_LIB_H
#define PEGEIR_ND_LIB_H

#include <pegeir/pegeir.h>
#include <pegeir/platform.h>

#include "nd_lib/memory.h"
#include "nd_lib_consumer/nd_lib_consumer.h"
#include "nd_lib_debug/nd_lib_debug.h"
#include "nd_lib_fsm/nd_lib_fsm.h"
#include "nd_lib_timer/nd_lib_timer.h"

// What ND_LIB_RegisterConsumer sets up, and what the state machine works on.
struct ND_LIB_ConsumerInfo {
    uint32_t funcTable;
    ND_LIB_PackSubscribeFunc packSubscribeFunc; // null until the consumer has registered
    ND_LIB_NotifyEventFunc notifyEventFunc;
    ND_LIB_UpdataInfoFunc updataInfoFunc;
    uint8_t *optionData;          // owned; its length is not kept
    uint32_t nextSendCtrlMsgTime; // when the control message of the current state may go out again
    uint8_t ctrlMsgSendCnt;       // its sends since the last transition, stops at 255
    uint16_t maxKeyLength;        // largest keyLen + 4 of any key entry made, never lowered
    uint16_t maxValueLength;      // largest dataLen + 4 asked for, never lowered
    KAL_RBT_Tree subscribeTree;
    ND_LIB_List subscribingList;
    ND_LIB_List unsubscribingList;
    ND_LIB_List waitSubAckList;
    ND_LIB_List subscribeTmpList;
    uint32_t backupTimer; // id of the one-second timer, 0 for none; stays set after a failed stop
    uint32_t sendSubNum;  // records moved to waitSubAckList, repetitions included
    uint32_t sendUnSubNum;
    uint32_t compFsmState;
    ND_LIB_FsmRecord fsmRecord[ND_LIB_FSM_RECORD_NUM];
    uint8_t fsmRecordNum; // 0 to 20: records since the history last began again, and the next slot
    uint32_t sequenceNum; // expected next in a download
};

struct ND_LIB_Instance {
    uint32_t ndCompState; // 0 available, anything else not
    uint32_t ndPid;
    uint32_t appPid;
    uint32_t memHandle;
    uint32_t timerHandle;
    uint32_t appLocal;
    ND_LIB_LogFunc logFunc;
    uint32_t reserved1;
    uint32_t reserved2;
    uint32_t msgMaxLen; // bytes of the largest message built
    uint16_t verifyCycle;
    uint8_t isNeedVerify;
    uint8_t entered;    // calls under way that may run the consumer's code
    uint32_t secNow;    // time of the last message, notification or expiry; requests do not refresh it
    uint32_t secNowAux; // the clock's second output, not read
    ND_LIB_ConsumerInfo consumer;
    uint32_t flowCtrlState;    // 1 once a message of its own could not be had; never cleared
    uint32_t flowCtlStartTime; // when that was
    uint32_t flowCtlEndTime;   // shown in the report, never written
    uint32_t flowCnt;          // such failures, the first included; acknowledgements are not counted
    uint32_t transNumber;      // of the last message originated
    ND_LIB_TmrCtx *tmrCtx;     // owned; null when it could not be made
    uint32_t statisticCnt[ND_LIB_STAT_MAX];
    ND_LIB_BlackBoxDesc blackBox[ND_LIB_BLACKBOX_MAX];
    uint32_t nextVerifyTime;  // earliest secNow of the next pass
    uint32_t diagnoseType;    // the report that comes next
    uint32_t diagnoseReadLen; // bytes of the last box read, 0 at the start or end of a box
};

constexpr uint32_t ND_LIB_MSG_MAX_LEN = 8000;
constexpr uint16_t ND_LIB_VERIFY_CYCLE_DEFAULT = 60;
constexpr uint32_t ND_LIB_TIMER_IID = 3; // receiver IID of the platform's timer messages

extern "C" {

// Returns size zero bytes of this module, or null; see pegeir::ZeroAlloc.
ND_LIB_API void *ND_LIB_ZeroAlloc(uint32_t memHandle, uint32_t size);

// Return 1 for a table that may be used, else assert and return 0.
ND_LIB_API uint32_t ND_LIB_FrameRegisterIsValid(const ND_LIB_FrameRegister *frame);
ND_LIB_API uint32_t ND_LIB_ConsumerRegisterIsValid(const ND_LIB_ConsumerRegister *consumer);

// Returns a new request with its own copies of the bytes, to be released with ND_LIB_FreeDataNode, or null.
// No argument may be null.
ND_LIB_API ND_LIB_DataNode *ND_LIB_GetDataNode(ND_LIB_Instance *instance, const ND_LIB_ItemHead *keyHead,
                                               const ND_LIB_ItemHead *dataHead);
ND_LIB_API void ND_LIB_FreeDataNode(ND_LIB_DataNode *node);

} // extern "C"

namespace pegeir {

// Releases the copy made by ND_LIB_AddOptionData, if there is one.
void ReleaseOptionData(ND_LIB_Instance *instance);

// Refreshes the time that the instance goes by.
inline void RefreshClock(ND_LIB_Instance *instance) {
    KAL_SecondNow(&instance->secNow, &instance->secNowAux);
}

// Notes, for the length of a call, that the consumer's code may be running inside of it.
class Entered {
public:
    explicit Entered(ND_LIB_Instance *instance) : m_count(instance->entered) { ++m_count; }
    ~Entered() { --m_count; }
    Entered(const Entered &) = delete;
    Entered &operator=(const Entered &) = delete;

private:
    uint8_t &m_count;
};

// Asserts and returns true inside a callback, for the calls that would pull the instance out from under
// the one that runs it.
inline bool IsRefusedInside(const ND_LIB_Instance *instance, uint32_t line = __builtin_LINE()) {
    if (instance->entered != 0) {
        AssertFailed(kInstanceModule, line);
    }
    return instance->entered != 0;
}

} // namespace pegeir

#endif
