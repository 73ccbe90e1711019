/*
 * Router-advertisement intervals: what a configuration in radvd's syntax says of the interfaces that
 * are there.  The file is read again when it changes.  One that cannot be read or understood is reported
 * and changes nothing: the last good one stays in force.
 */
#ifndef PEGEIR_COMPONENT_RA_SOURCE_H
#define PEGEIR_COMPONENT_RA_SOURCE_H

#include "protocol/records.h"
#include "protocol/report.h"
#include "sources/file_watcher.h"
#include "sources/radvd_config.h"

namespace pegeir::component {

using LinkNames = std::map<uint32_t, std::string>; /* by ifindex */

class RaSource : public Source {
public:
    /* Reads the file; a missing one is reported and waited for. */
    RaSource(std::string path, ChangeFunc onChange, Log log);

    [[nodiscard]] bool Serves(Topic topic) const override;
    [[nodiscard]] std::optional<RecordId> Next(Topic topic, std::optional<uint32_t> index,
                                               const RecordId *after) const override;
    void Encode(const RecordId &id, Writer &writer) const override;

    /* The interfaces that are there, at first and whenever they change. */
    void SetLinks(LinkNames links);

    [[nodiscard]] int Fd() const { return watcher_.Fd(); }
    void OnReadable();
    void OnTick(); /* once a second */
    void Load();   /* reads the file now */

private:
    void Report(Severity severity, const std::string &text);
    void Apply();

    std::string path_;
    ChangeFunc onChange_;
    Log log_;
    FileWatcher watcher_;
    std::string lastReport_;
    RaConfig config_;
    LinkNames links_;
    std::map<uint32_t, RaIntervals> records_; /* of config_, what links_ has */
};

} // namespace pegeir::component

#endif
