// The layout of every record of the binary interface: the consumer's tables, the platform's records, and
// the instance with all that hangs on it, which its consumers hold and pass by address.
//
// A line gives the place of a field, or the size of a record, in bytes: first where a pointer has 4 bytes,
// as on the devices, then where it has 8.  What does not hold does not compile.
#include "nd_lib/nd_lib.h"

#include <cstddef>

namespace {

constexpr size_t Here(size_t with4, size_t with8) {
    return sizeof(void *) == 4 ? with4 : with8;
}

#define RECORD(record, with4, with8)                                                                         \
    static_assert(sizeof(record) == Here(with4, with8), #record " has not its size")
#define FIELD(record, field, with4, with8)                                                                   \
    static_assert(offsetof(record, field) == Here(with4, with8), #record "::" #field " is not in its place")
#define WIDTH(record, field, bytes)                                                                          \
    static_assert(sizeof(record::field) == (bytes), #record "::" #field " has not its width")

// ---- Tables that the consumer passes, and what it is handed ----

RECORD(ND_LIB_FrameRegister, 32, 40);
FIELD(ND_LIB_FrameRegister, ndPid, 0, 0);
FIELD(ND_LIB_FrameRegister, appPid, 4, 4);
FIELD(ND_LIB_FrameRegister, memHandle, 8, 8);
FIELD(ND_LIB_FrameRegister, timerHandle, 12, 12);
FIELD(ND_LIB_FrameRegister, appLocal, 16, 16);
FIELD(ND_LIB_FrameRegister, logFunc, 20, 24);
FIELD(ND_LIB_FrameRegister, reserved1, 24, 32);
FIELD(ND_LIB_FrameRegister, reserved2, 28, 36);

RECORD(ND_LIB_ConsumerRegister, 16, 32);
FIELD(ND_LIB_ConsumerRegister, funcTable, 0, 0);
FIELD(ND_LIB_ConsumerRegister, packSubscribeFunc, 4, 8);
FIELD(ND_LIB_ConsumerRegister, notifyEventFunc, 8, 16);
FIELD(ND_LIB_ConsumerRegister, updataInfoFunc, 12, 24);

RECORD(ND_LIB_CompState, 8, 8);
FIELD(ND_LIB_CompState, compReserved, 0, 0);
FIELD(ND_LIB_CompState, newState, 4, 4);

RECORD(ND_LIB_ItemHead, 4, 4);
FIELD(ND_LIB_ItemHead, type, 0, 0);
FIELD(ND_LIB_ItemHead, len, 2, 2);

RECORD(ND_LIB_TlvHead, 4, 4);
FIELD(ND_LIB_TlvHead, tlvType, 0, 0);
FIELD(ND_LIB_TlvHead, tlvLen, 2, 2);

// ---- The instance ----

RECORD(ND_LIB_ConsumerInfo, 192, 288);
FIELD(ND_LIB_ConsumerInfo, funcTable, 0, 0);
FIELD(ND_LIB_ConsumerInfo, packSubscribeFunc, 4, 8);
FIELD(ND_LIB_ConsumerInfo, notifyEventFunc, 8, 16);
FIELD(ND_LIB_ConsumerInfo, updataInfoFunc, 12, 24);
FIELD(ND_LIB_ConsumerInfo, optionData, 16, 32);
FIELD(ND_LIB_ConsumerInfo, nextSendCtrlMsgTime, 20, 40);
FIELD(ND_LIB_ConsumerInfo, ctrlMsgSendCnt, 24, 44);
FIELD(ND_LIB_ConsumerInfo, maxKeyLength, 26, 46);
FIELD(ND_LIB_ConsumerInfo, maxValueLength, 28, 48);
FIELD(ND_LIB_ConsumerInfo, subscribeTree, 32, 56);
FIELD(ND_LIB_ConsumerInfo, subscribingList, 60, 104);
FIELD(ND_LIB_ConsumerInfo, unsubscribingList, 72, 128);
FIELD(ND_LIB_ConsumerInfo, waitSubAckList, 84, 152);
FIELD(ND_LIB_ConsumerInfo, subscribeTmpList, 96, 176);
FIELD(ND_LIB_ConsumerInfo, backupTimer, 108, 200);
FIELD(ND_LIB_ConsumerInfo, sendSubNum, 112, 204);
FIELD(ND_LIB_ConsumerInfo, sendUnSubNum, 116, 208);
FIELD(ND_LIB_ConsumerInfo, compFsmState, 120, 212);
FIELD(ND_LIB_ConsumerInfo, fsmRecord, 124, 216);
FIELD(ND_LIB_ConsumerInfo, fsmRecordNum, 184, 276);
FIELD(ND_LIB_ConsumerInfo, sequenceNum, 188, 280);

RECORD(ND_LIB_Instance, 416, 536);
FIELD(ND_LIB_Instance, ndCompState, 0, 0);
FIELD(ND_LIB_Instance, ndPid, 4, 4);
FIELD(ND_LIB_Instance, appPid, 8, 8);
FIELD(ND_LIB_Instance, memHandle, 12, 12);
FIELD(ND_LIB_Instance, timerHandle, 16, 16);
FIELD(ND_LIB_Instance, appLocal, 20, 20);
FIELD(ND_LIB_Instance, logFunc, 24, 24);
FIELD(ND_LIB_Instance, reserved1, 28, 32);
FIELD(ND_LIB_Instance, reserved2, 32, 36);
FIELD(ND_LIB_Instance, msgMaxLen, 36, 40);
FIELD(ND_LIB_Instance, verifyCycle, 40, 44);
FIELD(ND_LIB_Instance, isNeedVerify, 42, 46);
FIELD(ND_LIB_Instance, entered, 43, 47);
FIELD(ND_LIB_Instance, secNow, 44, 48);
FIELD(ND_LIB_Instance, secNowAux, 48, 52);
FIELD(ND_LIB_Instance, consumer, 52, 56);
FIELD(ND_LIB_Instance, flowCtrlState, 244, 344);
FIELD(ND_LIB_Instance, flowCtlStartTime, 248, 348);
FIELD(ND_LIB_Instance, flowCtlEndTime, 252, 352);
FIELD(ND_LIB_Instance, flowCnt, 256, 356);
FIELD(ND_LIB_Instance, transNumber, 260, 360);
FIELD(ND_LIB_Instance, tmrCtx, 264, 368);
FIELD(ND_LIB_Instance, statisticCnt, 268, 376);
FIELD(ND_LIB_Instance, blackBox, 380, 488);
FIELD(ND_LIB_Instance, nextVerifyTime, 404, 520);
FIELD(ND_LIB_Instance, diagnoseType, 408, 524);
FIELD(ND_LIB_Instance, diagnoseReadLen, 412, 528);

// ---- The store ----

RECORD(ND_LIB_ListNode, 12, 24);
FIELD(ND_LIB_ListNode, next, 0, 0);
FIELD(ND_LIB_ListNode, prev, 4, 8);
FIELD(ND_LIB_ListNode, list, 8, 16);

RECORD(ND_LIB_List, 12, 24);
FIELD(ND_LIB_List, next, 0, 0);
FIELD(ND_LIB_List, prev, 4, 8);
FIELD(ND_LIB_List, count, 8, 16);

RECORD(ND_LIB_KeyEntry, 36, 72);
FIELD(ND_LIB_KeyEntry, rbNode, 0, 0);
FIELD(ND_LIB_KeyEntry, keyType, 16, 32);
FIELD(ND_LIB_KeyEntry, keyLen, 18, 34);
FIELD(ND_LIB_KeyEntry, keyValue, 20, 40);
FIELD(ND_LIB_KeyEntry, dataListHead, 24, 48);

RECORD(ND_LIB_DataEntry, 52, 88);
FIELD(ND_LIB_DataEntry, dataListNode, 0, 0);
FIELD(ND_LIB_DataEntry, dataType, 12, 24);
FIELD(ND_LIB_DataEntry, dataLen, 14, 26);
FIELD(ND_LIB_DataEntry, dataValue, 16, 32);
FIELD(ND_LIB_DataEntry, keyEntry, 20, 40);
FIELD(ND_LIB_DataEntry, state, 24, 48);
FIELD(ND_LIB_DataEntry, subscribeState, 28, 52);
FIELD(ND_LIB_DataEntry, sendCnt, 29, 53);
FIELD(ND_LIB_DataEntry, sendTransNumber, 32, 56);
FIELD(ND_LIB_DataEntry, nextSendTime, 36, 60);
FIELD(ND_LIB_DataEntry, workListNode, 40, 64);

// ---- State machine ----

RECORD(ND_LIB_FsmStateTrans, 12, 16);
FIELD(ND_LIB_FsmStateTrans, state, 0, 0);
FIELD(ND_LIB_FsmStateTrans, event, 4, 4);
FIELD(ND_LIB_FsmStateTrans, handler, 8, 8);

RECORD(ND_LIB_FsmRecord, 3, 3);
FIELD(ND_LIB_FsmRecord, oldState, 0, 0);
FIELD(ND_LIB_FsmRecord, newState, 1, 1);
FIELD(ND_LIB_FsmRecord, event, 2, 2);

RECORD(ND_LIB_NdpiMsgProc, 8, 16);
FIELD(ND_LIB_NdpiMsgProc, msgType, 0, 0);
FIELD(ND_LIB_NdpiMsgProc, handler, 4, 8);

// ---- Timer service, trace boxes ----

RECORD(ND_LIB_TmrCtx, 8, 8);
FIELD(ND_LIB_TmrCtx, tmrLibHandle, 0, 0);
FIELD(ND_LIB_TmrCtx, tmrInstHandle, 4, 4);

RECORD(ND_LIB_TmrParam, 12, 24);
FIELD(ND_LIB_TmrParam, timerId, 0, 0);
FIELD(ND_LIB_TmrParam, callback, 4, 8);
FIELD(ND_LIB_TmrParam, callbackArg, 8, 16);

RECORD(ND_LIB_BlackBoxDesc, 12, 16);
FIELD(ND_LIB_BlackBoxDesc, bbHandle, 0, 0);
FIELD(ND_LIB_BlackBoxDesc, initSize, 4, 8);
FIELD(ND_LIB_BlackBoxDesc, stepSize, 6, 10);
FIELD(ND_LIB_BlackBoxDesc, curSize, 8, 12);
FIELD(ND_LIB_BlackBoxDesc, maxSize, 10, 14);

// ---- Platform ----

RECORD(SysTime, 12, 12);
FIELD(SysTime, year, 0, 0);
FIELD(SysTime, month, 2, 2);
FIELD(SysTime, day, 3, 3);
FIELD(SysTime, hour, 4, 4);
FIELD(SysTime, minute, 5, 5);
FIELD(SysTime, second, 6, 6);
FIELD(SysTime, weekday, 7, 7);
FIELD(SysTime, millisecond, 8, 8);

RECORD(KAL_RBT_Node, 16, 32);
FIELD(KAL_RBT_Node, parent, 0, 0);
FIELD(KAL_RBT_Node, child, 4, 8);
FIELD(KAL_RBT_Node, colour, 12, 24);

RECORD(KAL_RBT_Tree, 28, 48);
FIELD(KAL_RBT_Tree, root, 0, 0);
FIELD(KAL_RBT_Tree, sentinel, 4, 8);
FIELD(KAL_RBT_Tree, reserved, 20, 40);
FIELD(KAL_RBT_Tree, count, 24, 44);

RECORD(BlackBoxHead, 280, 280);
FIELD(BlackBoxHead, reserved1, 0, 0);
FIELD(BlackBoxHead, usable, 4, 4);
FIELD(BlackBoxHead, reserved2, 8, 8);
FIELD(BlackBoxHead, line, 24, 24);

// ---- Widths ----
//
// Where a pointer has 4 bytes, a field ends where the next one begins, and its place tells its width too.
// Behind these are gaps, into which they could grow unnoticed.

WIDTH(ND_LIB_ConsumerInfo, ctrlMsgSendCnt, 1);
WIDTH(ND_LIB_ConsumerInfo, maxValueLength, 2);
WIDTH(ND_LIB_ConsumerInfo, fsmRecordNum, 1);
WIDTH(ND_LIB_DataEntry, sendCnt, 1);
WIDTH(ND_LIB_NdpiMsgProc, msgType, 1);

static_assert(alignof(ND_LIB_TlvHead) == 1, "received records lie at any address");

} // namespace
