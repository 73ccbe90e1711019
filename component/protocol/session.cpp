/*
 * What a consumer asks, and what it gets.
 *
 * The consumer repeats a request until its acknowledgement arrives, and it moves on only then; so a
 * request that comes again says that the consumer has not moved, and has dropped whatever it was sent
 * in the meantime.  That is why a repeated end of an upload repeats the begin of the download at once,
 * and why it restarts nothing after the consumer has acknowledged that begin.
 */
#include "protocol/session.h"

#include <algorithm>
#include <iterator>
#include <utility>

namespace pegeir::component {

Session::Session(uint32_t consumer, const ServerContext &context)
    : consumer_(consumer), context_(context), unserved_(context.log),
      nextProbeMs_(context.clock() + context.limits.probeMs) {}

/* ---- Requests -------------------------------------------------------------------------------- */

bool Session::OnMessage(const Message &message, std::string &wrong) {
    const bool ours = message.type >= MsgType::kSmoothBegin && message.type <= MsgType::kVerifyDataEnd;
    if (message.ack != ours || message.type == MsgType::kSmoothData) {
        wrong = Text(message.ack ? "acknowledgement" : "request", " of type ",
                     static_cast<unsigned>(message.type), ", which a consumer does not send");
        return false;
    }
    goneSinceMs_.reset();
    switch (message.type) {
    case MsgType::kRegister:
        Register(message);
        break;
    case MsgType::kSubscribeBegin:
        AbandonDownload();
        phase_ = Phase::kUploading;
        Acknowledge(message);
        break;
    case MsgType::kSubscribeData:
    case MsgType::kUnsubscribeData:
        if (!ChangeSubscriptions(message, wrong)) {
            return false;
        }
        break;
    case MsgType::kSubscribeEnd:
        EndUpload(message, false);
        break;
    case MsgType::kVerifySubscribeBegin:
        BeginVerify(message);
        break;
    case MsgType::kVerifySubscribeEnd:
        EndUpload(message, true);
        break;
    case MsgType::kSequenceError:
        Report(Severity::kWarning, "sequence error: the download begins again");
        Acknowledge(message);
        StartDownload(false);
        break;
    default:
        OnAck(message);
        break;
    }
    Progress();
    return true;
}

void Session::Register(const Message &message) {
    AbandonDownload();
    queue_.clear();
    queuedBytes_ = 0;
    subscriptions_.clear();
    keyBytes_ = 0;
    limitReported_ = false;
    ForgetChanges();
    phase_ = Phase::kRegistered;
    Acknowledge(message);
    Report(Severity::kInfo, "registered");
}

void Session::EndUpload(const Message &message, bool verify) {
    Acknowledge(message);
    const bool uploading =
        verify ? phase_ == Phase::kVerifyUpload : phase_ == Phase::kRegistered || phase_ == Phase::kUploading;
    if (uploading) {
        if (verify) {
            DropUnconfirmed();
        }
        Report(Severity::kInfo, Text(verify ? "verification upload" : "upload",
                                     " complete: ", subscriptions_.size(), " items"));
        StartDownload(verify);
    } else if (phase_ == Phase::kDownloadBegin && download_.verify == verify) {
        if (Flush()) { /* behind the acknowledgement, or with the next tick */
            Repeat();
        }
    }
}

void Session::BeginVerify(const Message &message) {
    /* An unacknowledged end of a download needs no repetition: who verifies has received it.  An
     * unacknowledged update needs none either: the pass ends in a download. */
    AbandonDownload();
    ++pass_;
    phase_ = Phase::kVerifyUpload;
    Acknowledge(message);
    Report(Severity::kInfo, "verification pass begins");
}

bool Session::ChangeSubscriptions(const Message &message, std::string &wrong) {
    const std::optional<std::vector<Item>> items = ReadItems(message.body, wrong);
    if (!items) {
        return false;
    }
    if (phase_ == Phase::kDownloadEnd) {
        FinishDownload(); /* its acknowledgement was lost: only a ready consumer sends these now */
    }
    for (const Item &item : *items) {
        message.type == MsgType::kSubscribeData ? Subscribe(item) : Unsubscribe(item);
    }
    Acknowledge(message);
    return true;
}

void Session::Subscribe(const Item &item) {
    const auto known = subscriptions_.find(item);
    if (known != subscriptions_.end()) {
        known->second = pass_;
        return;
    }
    if (subscriptions_.size() >= context_.limits.subscriptions ||
        keyBytes_ + item.key.size() > context_.limits.keyBytes) {
        if (!std::exchange(limitReported_, true)) {
            Report(Severity::kError, Text("has reached the limit at ", subscriptions_.size(), " items with ",
                                          keyBytes_, " key bytes: further items are not served"));
        }
        return;
    }
    if (!context_.catalog.Serves(item.topic) || !KeyIndex(item)) {
        unserved_.Add(context_.clock(), consumer_,
                      Text("subscribes what no source has: key type ", item.topic.keyType, ", key length ",
                           item.key.size(), ", data type ", item.topic.dataType));
    }
    keyBytes_ += item.key.size();
    subscriptions_.emplace(item, pass_);
    if (phase_ == Phase::kDownloadData || phase_ == Phase::kReady) {
        fresh_.insert(item);
    }
}

void Session::Unsubscribe(const Item &item) {
    if (subscriptions_.erase(item) == 0) {
        return;
    }
    keyBytes_ -= item.key.size();
    fresh_.erase(item);
    if (freshWalk_ && freshWalk_->item == item) {
        freshWalk_.reset();
    }
}

void Session::DropUnconfirmed() {
    const size_t before = subscriptions_.size();
    for (auto entry = subscriptions_.begin(); entry != subscriptions_.end();) {
        if (entry->second == pass_) {
            ++entry;
            continue;
        }
        keyBytes_ -= entry->first.key.size();
        entry = subscriptions_.erase(entry);
    }
    if (before != subscriptions_.size()) {
        Report(Severity::kInfo,
               Text(before - subscriptions_.size(), " items were not confirmed and are dropped"));
    }
}

void Session::OnAck(const Message &message) {
    if (!awaited_ || awaited_->type != message.type || awaited_->transNumber != message.transNumber) {
        Report(Severity::kDetail, Text("acknowledgement of type ", static_cast<unsigned>(message.type),
                                       " number ", message.transNumber, " is late"));
        return;
    }
    if (phase_ == Phase::kDownloadEnd) {
        FinishDownload();
        return;
    }
    awaited_.reset();
    if (phase_ == Phase::kDownloadBegin) {
        phase_ = Phase::kDownloadData;
    }
}

/* ---- Downloads and updates ------------------------------------------------------------------- */

void Session::StartDownload(bool verify) {
    AbandonDownload();
    ForgetChanges();
    download_ = {};
    download_.verify = verify;
    ++sequenceNum_; /* so that no number of an earlier download fits this one */
    phase_ = Phase::kDownloadBegin;
    SendAwaited(verify ? MsgType::kVerifyDataBegin : MsgType::kSmoothBegin, Bytes(kHeaderLen), sequenceNum_);
}

/* Takes back what has not reached the transport; acknowledgements stay. */
void Session::AbandonDownload() {
    awaited_.reset();
    std::erase_if(queue_, [this](const Bytes &message) {
        if (IsAck(message)) {
            return false;
        }
        queuedBytes_ -= message.size();
        return true;
    });
}

void Session::FinishDownload() {
    awaited_.reset();
    phase_ = Phase::kReady;
    Report(Severity::kInfo, Text(download_.verify ? "verification" : "smooth", " download complete: ",
                                 download_.records, " records in ", download_.messages, " messages"));
}

void Session::SendNextData() {
    Bytes message = FillMessage([this] { return NextDownloadRecord(); },
                                [this](const RecordId &id) {
                                    download_.walk->last = id;
                                    ++download_.records;
                                });
    if (message.size() == kHeaderLen) {
        phase_ = Phase::kDownloadEnd;
        SendAwaited(download_.verify ? MsgType::kVerifyDataEnd : MsgType::kSmoothEnd, std::move(message),
                    sequenceNum_);
        return;
    }
    WriteHeader(message, MsgType::kSmoothData, 0, ++transNumber_, sequenceNum_++);
    ++download_.messages;
    Queue(std::move(message));
}

/* The position is kept by value, since subscriptions may come and go between two messages. */
std::optional<RecordId> Session::NextDownloadRecord() {
    std::optional<Walk> &walk = download_.walk;
    auto entry = walk ? subscriptions_.lower_bound(walk->item) : subscriptions_.begin();
    for (; entry != subscriptions_.end(); ++entry) {
        if (!walk || walk->item != entry->first) {
            walk = Walk{entry->first, std::nullopt};
        }
        if (CoveredByWildcard(walk->item)) {
            continue;
        }
        if (auto id = context_.catalog.Next(walk->item, walk->After())) {
            return id;
        }
    }
    return std::nullopt;
}

bool Session::CoveredByWildcard(const Item &item) const {
    const Item every = ItemOf(item.topic, WildcardIndex(item.topic.keyType));
    return item != every && subscriptions_.contains(every);
}

bool Session::SendUpdate() {
    bool isChange = false;
    Bytes message = FillMessage(
        [this, &isChange] {
            auto id = NextChange();
            isChange = id.has_value();
            return isChange ? id : NextFresh();
        },
        [this, &isChange](const RecordId &id) {
            if (isChange) {
                changes_.pop_front();
                changeSet_.erase(id);
            } else {
                freshWalk_->last = id;
            }
        });
    if (message.size() == kHeaderLen) {
        return false;
    }
    SendAwaited(MsgType::kRealUpdate, std::move(message), 0);
    return true;
}

std::optional<RecordId> Session::NextChange() {
    while (!changes_.empty()) {
        if (Wants(changes_.front())) {
            return changes_.front();
        }
        changeSet_.erase(changes_.front());
        changes_.pop_front();
    }
    return std::nullopt;
}

std::optional<RecordId> Session::NextFresh() {
    for (;;) {
        if (!freshWalk_) {
            if (fresh_.empty()) {
                return std::nullopt;
            }
            freshWalk_ = Walk{std::move(fresh_.extract(fresh_.begin()).value()), std::nullopt};
        }
        if (auto id = context_.catalog.Next(freshWalk_->item, freshWalk_->After())) {
            return id;
        }
        freshWalk_.reset();
    }
}

bool Session::Wants(const RecordId &id) const {
    return subscriptions_.contains(ItemOf(id.topic, WildcardIndex(id.topic.keyType))) ||
           subscriptions_.contains(ItemOf(id.topic, id.index));
}

/* Returns a message with room for its header and as many of the records as fit. */
template <class Peek, class Take>
Bytes Session::FillMessage(const Peek &peek, const Take &take) {
    Bytes message(kHeaderLen);
    Writer writer(message);
    while (const std::optional<RecordId> id = peek()) {
        const size_t before = message.size();
        context_.catalog.Encode(*id, writer);
        if (message.size() > kMaxMessageLen) {
            message.resize(before);
            if (before > kHeaderLen) {
                break;
            }
            Report(Severity::kError, Text("record of data type ", id->topic.dataType, " index ", id->index,
                                          " fits no message and is left out"));
        }
        take(*id);
    }
    return message;
}

void Session::OnChange(const RecordId &id) {
    const bool noted =
        phase_ == Phase::kDownloadData || phase_ == Phase::kDownloadEnd || phase_ == Phase::kReady;
    if (forgotten_ || !noted || !Wants(id) || !changeSet_.insert(id).second) {
        return;
    }
    changes_.push_back(id);
    if (changes_.size() > context_.limits.waitingChanges) {
        Report(Severity::kError, Text("takes no updates, ", changes_.size(),
                                      " changes waited: dropped, it has to register and download anew"));
        AbandonDownload();
        ForgetChanges();
        phase_ = Phase::kOverrun;
        startOverDueMs_ = context_.clock();
        return;
    }
    Progress();
}

/* What was dropped cannot be told in updates any more.  Who does not take messages is asked later. */
void Session::AskToStartOver() {
    const uint64_t now = context_.clock();
    if (now < startOverDueMs_) {
        return;
    }
    startOverDueMs_ = now + context_.limits.startOverMs;
    switch (context_.transport.StartOver(consumer_)) {
    case SendResult::kSent:
        break;
    case SendResult::kFull:
        startOverDueMs_ = now;
        AskWritable();
        break;
    case SendResult::kGone:
        NoteGone();
        break;
    }
}

void Session::ForgetChanges() {
    changes_.clear();
    changeSet_.clear();
    fresh_.clear();
    freshWalk_.reset();
}

/* ---- Output ---------------------------------------------------------------------------------- */

void Session::Acknowledge(const Message &message) {
    const bool echo = message.type == MsgType::kSubscribeData || message.type == MsgType::kUnsubscribeData;
    const ByteView body = echo ? message.body : ByteView{};
    Bytes ack(kHeaderLen + body.size());
    std::copy(body.begin(), body.end(), std::next(ack.begin(), kHeaderLen));
    if (queuedBytes_ + ack.size() > context_.limits.waitingAckBytes) {
        if (!std::exchange(ackLossReported_, true)) {
            Report(Severity::kWarning, "takes no acknowledgements: further ones are given up until it does");
        }
        return;
    }
    WriteHeader(ack, message.type, kAckFlag, message.transNumber, 0);
    Queue(std::move(ack));
}

void Session::SendAwaited(MsgType type, Bytes message, uint32_t sequenceNum) {
    WriteHeader(message, type, 0, ++transNumber_, sequenceNum);
    awaited_ = Awaited{message, type, transNumber_, context_.clock() + context_.limits.repeatMs};
    Queue(std::move(message));
}

void Session::Repeat() {
    ++awaited_->attempts;
    awaited_->dueMs = context_.clock() + context_.limits.repeatMs;
    Queue(awaited_->message);
}

void Session::Queue(Bytes message) {
    queuedBytes_ += message.size();
    queue_.push_back(std::move(message));
}

/* Returns whether the transport has taken everything. */
bool Session::Flush() {
    while (!queue_.empty()) {
        switch (context_.transport.Send(consumer_, queue_.front())) {
        case SendResult::kSent:
            goneSinceMs_.reset();
            queuedBytes_ -= queue_.front().size();
            queue_.pop_front();
            break;
        case SendResult::kFull:
            AskWritable();
            return false;
        case SendResult::kGone:
            NoteGone();
            return false;
        }
    }
    ackLossReported_ = false;
    return true;
}

void Session::AskWritable() {
    if (context_.transport.WhenWritable(consumer_)) {
        goneSinceMs_.reset();
    } else {
        NoteGone();
    }
}

void Session::NoteGone() {
    if (!goneSinceMs_) {
        goneSinceMs_ = context_.clock();
        Report(Severity::kDetail, "is gone");
    }
}

/* Sends whatever can be sent now. */
void Session::Progress() {
    unsigned burst = context_.limits.messageBurst;
    while (Flush()) {
        if (phase_ == Phase::kDownloadData) {
            if (burst-- == 0) {
                AskWritable();
                return;
            }
            SendNextData();
        } else if (phase_ == Phase::kOverrun) {
            AskToStartOver();
            return;
        } else if (phase_ != Phase::kReady || awaited_ || !SendUpdate()) {
            return;
        }
    }
}

void Session::OnTick() {
    const uint64_t now = context_.clock();
    unserved_.OnTick(now);
    if (queue_.empty() && (goneSinceMs_ || now >= nextProbeMs_)) {
        nextProbeMs_ = now + context_.limits.probeMs;
        AskWritable();
    }
    /* Read again: the consumer may have been noted as gone only now. */
    const uint64_t goneMs = goneSinceMs_ ? context_.clock() - *goneSinceMs_ : 0;
    if (goneMs >= context_.limits.goneMs) {
        forgotten_ = true;
        Report(Severity::kInfo, Text("is gone for ", goneMs / 1000, " seconds: forgotten"));
        return;
    }
    if (queue_.empty() && awaited_ && now >= awaited_->dueMs) {
        if (phase_ == Phase::kDownloadEnd && awaited_->attempts >= context_.limits.endAttempts) {
            Report(Severity::kWarning, "does not acknowledge the end of the download: taken as received");
            FinishDownload();
        } else {
            Repeat();
        }
    }
    Progress();
}

} // namespace pegeir::component
