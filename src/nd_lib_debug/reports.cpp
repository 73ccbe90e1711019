// The texts of the first three reports.  Field names, gaps and spellings are what operators and their
// scripts have always read.

#include "nd_lib/nd_lib.h"
#include "tlv/wire.h"

namespace {

constexpr uint16_t kKeyTypeIfindex = 1000;
constexpr uint16_t kDataTypeNone = 0;
constexpr uint16_t kDataTypeRaInterval = 1;

const char *NullText(bool isSet) {
    return isSet ? "Not Null" : "Null";
}

void ShowDataValue(const ND_LIB_DataEntry *entry, char *buffer, uint32_t bufferLen, uint32_t *position) {
    pegeir::wire::Reader value(entry->dataValue, entry->dataLen);
    uint32_t min = 0;
    uint32_t max = 0;
    if (entry->dataType == kDataTypeRaInterval && value.U32(min) && value.U32(max)) {
        ND_LIB_Printf(position, buffer, bufferLen,
                      "        dataValue             : \n"
                      "        raMininterval           :%u \n"
                      "        raMaxinterval           :%u \n",
                      min, max);
    } else if (entry->dataType == kDataTypeNone || entry->dataType == kDataTypeRaInterval) {
        ND_LIB_Printf(position, buffer, bufferLen, "        dataValue             : %s\n", "NULL");
    }
}

void ShowDataEntry(const ND_LIB_DataEntry *entry, char *buffer, uint32_t bufferLen, uint32_t *position) {
    ND_LIB_Printf(position, buffer, bufferLen,
                  "      Data entry:\n"
                  "        Data type       : %u\n"
                  "         Data len        : %u\n",
                  entry->dataType, entry->dataLen);
    ShowDataValue(entry, buffer, bufferLen, position);
    ND_LIB_Printf(position, buffer, bufferLen,
                  "        state            : %u\n"
                  "         subscribeState   : %u\n"
                  "        nextSendTime     : %u\n",
                  entry->state, entry->subscribeState, entry->nextSendTime);
}

void ShowKeyEntry(ND_LIB_KeyEntry *entry, char *buffer, uint32_t bufferLen, uint32_t *position) {
    ND_LIB_Printf(position, buffer, bufferLen,
                  "      Key entry:\n"
                  "        key type         : %u\n"
                  "        key len          : %u\n"
                  "        dataListHead num : %u\n",
                  entry->keyType, entry->keyLen, entry->dataListHead.count);
    pegeir::wire::Reader key(entry->keyValue, entry->keyLen);
    uint32_t ifindex = 0;
    if (entry->keyType == kKeyTypeIfindex && key.U32(ifindex)) {
        ND_LIB_Printf(position, buffer, bufferLen, "        ifindex           : %u\n", ifindex);
    }
    ND_LIB_List *entries = &entry->dataListHead;
    for (ND_LIB_ListNode *link = pegeir::list::First(entries); link != nullptr;
         link = pegeir::list::Next(entries, link)) {
        ShowDataEntry(pegeir::store::OfDataLink(link), buffer, bufferLen, position);
    }
}

} // namespace

void ND_LIB_Show_LocalInfo(ND_LIB_Instance *instance, char *buffer, uint32_t bufferLen, uint32_t *pageLen) {
    uint32_t position = 0;
    ND_LIB_Printf(
        &position, buffer, bufferLen,
        "  \n"
        "ND_LIB_Instance:\n"
        "    ndPid             : 0x%x\n"
        "    ndCompState       : %s\n"
        "    appPid            : 0x%x\n"
        "    memHandle         : %s\n"
        "    timerHandle       : %s\n"
        "    appLocal          : %s\n"
        "    msgMaxLen         : %u\n"
        "    verifyCycle       : %u\n"
        "    secNow            : %u\n"
        "    logFunc           : %s\n"
        "    flowCtrlState     : %u\n"
        "    flowCtlStartTime  : %u\n"
        "    flowCtlEndTime    : %u\n"
        "    flowCnt           : %u\n"
        "    transNumber       : %u\n"
        "    isNeedVerify      : %s\n"
        "    nextVerifyTime    : %u\n",
        instance->ndPid, instance->ndCompState == ND_LIB_COMP_AVAILABLE ? "availbale" : "Not Available",
        instance->appPid, NullText(instance->memHandle != 0), NullText(instance->timerHandle != 0),
        NullText(instance->appLocal != 0), instance->msgMaxLen, instance->verifyCycle, instance->secNow,
        NullText(instance->logFunc != nullptr), instance->flowCtrlState, instance->flowCtlStartTime,
        instance->flowCtlEndTime, instance->flowCnt, instance->transNumber,
        instance->isNeedVerify == 1 ? "Yes" : "No", instance->nextVerifyTime);
    ND_LIB_Printf(&position, buffer, bufferLen, "\n");
    ND_LIB_ShowConsumerInfo(instance, buffer, bufferLen, &position);
    ND_LIB_ShowSubcribeInfo(instance, buffer, bufferLen, &position);
    ND_LIB_ShowBlackboxSize(instance, buffer, bufferLen, &position);
    *pageLen += position;
}

void ND_LIB_ShowConsumerInfo(ND_LIB_Instance *instance, char *buffer, uint32_t bufferLen,
                             uint32_t *position) {
    const ND_LIB_ConsumerInfo &consumer = instance->consumer;
    ND_LIB_Printf(position, buffer, bufferLen,
                  "      ND_LIB_ConsumerInfo:\n"
                  "        funcTable            : %u\n"
                  "        packSubscribeFunc    : %s\n"
                  "        notifyEventFunc      : %s\n"
                  "        updataInfoFunc       : %s\n"
                  "        optionData           : %s\n"
                  "        nextSendCtrlMsgTime  : %u\n"
                  "        maxKeyLength         : %u\n"
                  "        maxValueLength       : %u\n"
                  "        subscribeTree num    : %u\n"
                  "        subscribingList num  : %u\n"
                  "        unsubscribingList num: %u\n"
                  "        waitSubAckList num   : %u\n"
                  "        subscribeTmpList num : %u\n"
                  "        backupTimer          : %s\n"
                  "        sendSubNum           : %u\n"
                  "        sendUnSubNum         : %u\n"
                  "        compFsmState         : %s\n"
                  "        sequenceNum          : %u\n",
                  consumer.funcTable, NullText(consumer.packSubscribeFunc != nullptr),
                  NullText(consumer.notifyEventFunc != nullptr), NullText(consumer.updataInfoFunc != nullptr),
                  NullText(consumer.optionData != nullptr), consumer.nextSendCtrlMsgTime,
                  consumer.maxKeyLength, consumer.maxValueLength, consumer.subscribeTree.count,
                  consumer.subscribingList.count, consumer.unsubscribingList.count,
                  consumer.waitSubAckList.count, consumer.subscribeTmpList.count,
                  NullText(consumer.backupTimer != 0), consumer.sendSubNum, consumer.sendUnSubNum,
                  ND_LIB_GetFsmName(consumer.compFsmState & 0xFF), consumer.sequenceNum);
    ND_LIB_Printf(position, buffer, bufferLen, "\n");
}

void ND_LIB_ShowSubcribeInfo(ND_LIB_Instance *instance, char *buffer, uint32_t bufferLen,
                             uint32_t *position) {
    // A full page ends the walk: there may be many more entries than any page can show.
    for (ND_LIB_KeyEntry *entry = pegeir::store::FirstKey(instance);
         entry != nullptr && !pegeir::debug::IsFull(*position, bufferLen);
         entry = pegeir::store::NextKey(instance, entry)) {
        ShowKeyEntry(entry, buffer, bufferLen, position);
    }
    ND_LIB_Printf(position, buffer, bufferLen, "\n");
}

void ND_LIB_ShowBlackboxSize(ND_LIB_Instance *instance, char *buffer, uint32_t bufferLen,
                             uint32_t *position) {
    ND_LIB_Printf(position, buffer, bufferLen, "    Blackbox Info: \n");
    for (uint32_t box = 0; box < ND_LIB_BLACKBOX_MAX; ++box) {
        ND_LIB_Printf(position, buffer, bufferLen, "      %s: ", g_ndLibBlackBoxName[box]);
        ND_LIB_CheckBlackBoxInfo(instance->blackBox[box].bbHandle, position, buffer, bufferLen);
    }
    ND_LIB_Printf(position, buffer, bufferLen, "\n");
}

void ND_LIB_CheckBlackBoxInfo(void *handle, uint32_t *position, char *buffer, uint32_t bufferLen) {
    if (handle == nullptr) {
        ND_LIB_Printf(position, buffer, bufferLen, "    NULL \n");
    } else {
        ND_LIB_Printf(position, buffer, bufferLen, "    %d/%d \n", GetBlackBoxContentLength(handle),
                      GetBlackBoxBufferLen(handle));
    }
}

void ND_LIB_ShowFsmInfo(ND_LIB_Instance *instance, char *buffer, uint32_t bufferLen, uint32_t *pageLen) {
    uint32_t position = 0;
    ND_LIB_Printf(&position, buffer, bufferLen, "    FSM state Info:\n");
    for (uint32_t i = 0; i < instance->consumer.fsmRecordNum; ++i) {
        const ND_LIB_FsmRecord &record = instance->consumer.fsmRecord[i];
        ND_LIB_Printf(&position, buffer, bufferLen, "      old state: %s -> new state: %s, event: %s\n",
                      ND_LIB_GetFsmName(record.oldState), ND_LIB_GetFsmName(record.newState),
                      ND_LIB_GetEventName(record.event));
    }
    ND_LIB_Printf(&position, buffer, bufferLen, "\n");
    *pageLen += position;
}

void ND_LIB_ShowStatisticInfo(ND_LIB_Instance *instance, char *buffer, uint32_t bufferLen,
                              uint32_t *pageLen) {
    uint32_t position = 0;
    ND_LIB_Printf(&position, buffer, bufferLen, "    FSM statistic:\n");
    for (uint32_t code = 0; code < ND_LIB_STAT_MAX; ++code) {
        ND_LIB_Printf(&position, buffer, bufferLen, "      %s:  %u\n", g_ndLibStatisticName[code],
                      instance->statisticCnt[code]);
    }
    ND_LIB_Printf(&position, buffer, bufferLen, "\n");
    *pageLen += position;
}
