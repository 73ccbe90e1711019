/*
 * One registered consumer: its subscriptions, and where it stands.
 *
 *     kRegistered --17--> kUploading --19--> kDownloadBegin --ack 23--> kDownloadData
 *     kDownloadData --all sent--> kDownloadEnd --ack 25--> kReady
 *     kReady --21--> kVerifyUpload --22--> kDownloadBegin (27, 24, 28) ... --> kReady
 *     any --16--> kRegistered, any --29--> kDownloadBegin (23)
 *     any that notes changes --too many--> kOverrun, until the consumer has started over
 *
 * Invariants
 *  1. awaited_ is the one message that is repeated until its acknowledgement comes: the begin or the end
 *     of a download in kDownloadBegin and kDownloadEnd, an update in kReady, else nothing.
 *  2. Every way into kReady leads through a download, so changes are noted from kDownloadData on only:
 *     what changed earlier is in the download.
 *  3. A message is built only while queue_ is empty, acknowledgements excepted.
 */
#ifndef PEGEIR_COMPONENT_SESSION_H
#define PEGEIR_COMPONENT_SESSION_H

#include "protocol/server.h"

#include <deque>
#include <optional>
#include <set>

namespace pegeir::component {

class Session {
public:
    Session(uint32_t consumer, const ServerContext &context);

    /* Returns false, and in wrong the reason, for a message that is to be dropped. */
    [[nodiscard]] bool OnMessage(const Message &message, std::string &wrong);
    void OnWritable() { Progress(); }
    void OnTick();
    void OnChange(const RecordId &id);

    [[nodiscard]] bool Forgotten() const { return forgotten_; }

private:
    enum class Phase {
        kRegistered,
        kUploading,
        kDownloadBegin,
        kDownloadData,
        kDownloadEnd,
        kReady,
        kVerifyUpload,
        kOverrun
    };

    /* A message under way, and when it is sent again. */
    struct Awaited {
        Bytes message;
        MsgType type = {};
        uint32_t transNumber = 0;
        uint64_t dueMs = 0;
        unsigned attempts = 1;
    };

    /* A position in the records of an item: *last is behind us. */
    struct Walk {
        Item item;
        std::optional<RecordId> last;

        [[nodiscard]] const RecordId *After() const { return last ? &*last : nullptr; }
    };

    struct Download {
        bool verify = false;
        std::optional<Walk> walk;
        uint64_t records = 0;
        uint64_t messages = 0;
    };

    /* Requests. */
    void Register(const Message &message);
    void EndUpload(const Message &message, bool verify);
    void BeginVerify(const Message &message);
    [[nodiscard]] bool ChangeSubscriptions(const Message &message, std::string &wrong);
    void Subscribe(const Item &item);
    void Unsubscribe(const Item &item);
    void DropUnconfirmed();
    void OnAck(const Message &message);

    /* Downloads and updates. */
    void StartDownload(bool verify);
    void AbandonDownload();
    void FinishDownload();
    void SendNextData();
    [[nodiscard]] std::optional<RecordId> NextDownloadRecord();
    [[nodiscard]] bool CoveredByWildcard(const Item &item) const;
    [[nodiscard]] bool SendUpdate();
    [[nodiscard]] std::optional<RecordId> NextChange();
    [[nodiscard]] std::optional<RecordId> NextFresh();
    [[nodiscard]] bool Wants(const RecordId &id) const;
    template <class Peek, class Take>
    [[nodiscard]] Bytes FillMessage(const Peek &peek, const Take &take);
    void ForgetChanges();

    /* Output. */
    void Acknowledge(const Message &message);
    void SendAwaited(MsgType type, Bytes message, uint32_t sequenceNum);
    void Repeat();
    void Queue(Bytes message);
    [[nodiscard]] bool Flush();
    void AskWritable();
    void NoteGone();
    void AskToStartOver();
    void Progress();
    void Report(Severity severity, const std::string &text) const { context_.log(severity, consumer_, text); }

    const uint32_t consumer_;
    const ServerContext &context_;
    SeldomLog unserved_;
    Phase phase_ = Phase::kRegistered;

    std::map<Item, uint32_t> subscriptions_; /* item to the verification pass that last confirmed it */
    size_t keyBytes_ = 0;
    uint32_t pass_ = 0;
    bool limitReported_ = false;

    uint32_t transNumber_ = 0;
    uint32_t sequenceNum_ = 0; /* of the next download message */
    std::optional<Awaited> awaited_;
    Download download_;

    std::deque<RecordId> changes_; /* in the order in which they came, each once */
    std::set<RecordId> changeSet_;
    std::set<Item> fresh_;          /* subscribed behind the download's position, perhaps: sent in updates */
    std::optional<Walk> freshWalk_; /* the one of them that is being sent */

    std::deque<Bytes> queue_; /* what the transport has yet to take */
    size_t queuedBytes_ = 0;
    bool ackLossReported_ = false;
    uint64_t nextProbeMs_ = 0;
    uint64_t startOverDueMs_ = 0;
    std::optional<uint64_t> goneSinceMs_;
    bool forgotten_ = false;
};

} // namespace pegeir::component

#endif
