/* A configuration joined with the interfaces, and the differences from one join to the next. */
#include "sources/ra_source.h"

#include "protocol/wire.h"

#include <pegeir/nd_data.h>

#include <cerrno>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <utility>

namespace pegeir::component {

namespace {

constexpr Topic kTopic = {ND_DATA_KEY_INTERFACE, ND_DATA_RA_INTERVAL};
constexpr size_t kMaxFileSize = size_t{1} << 20U;

/* Reads at most one byte more than is allowed.  Returns false with errno. */
bool ReadFile(const std::string &path, std::string &text) {
    std::error_code ignored;
    const auto kind = std::filesystem::status(path, ignored).type();
    if (kind == std::filesystem::file_type::fifo || kind == std::filesystem::file_type::character) {
        errno = EINVAL; /* opening or reading one may never end */
        return false;
    }
    errno = 0;
    std::ifstream file(path, std::ios::binary);
    text.resize(kMaxFileSize + 1);
    file.read(text.data(), static_cast<std::streamsize>(text.size()));
    text.resize(static_cast<size_t>(file.gcount()));
    return file.is_open() && !file.bad();
}

} // namespace

RaSource::RaSource(std::string path, ChangeFunc onChange, Log log)
    : path_(std::move(path)), onChange_(std::move(onChange)), log_(std::move(log)), watcher_(path_) {
    Load();
}

bool RaSource::Serves(Topic topic) const {
    return topic == kTopic;
}

std::optional<RecordId> RaSource::Next(Topic topic, std::optional<uint32_t> index,
                                       const RecordId *after) const {
    const auto record = after != nullptr ? records_.upper_bound(after->index)
                        : index          ? records_.find(*index)
                                         : records_.begin();
    if (record == records_.end() || (index && record->first != *index)) {
        return std::nullopt;
    }
    return RecordId{topic, record->first, {}};
}

void RaSource::Encode(const RecordId &id, Writer &writer) const {
    const auto record = records_.find(id.index);
    const bool exists = record != records_.end();
    writer.Head(ND_DATA_TLV_RA_INTERVAL, ND_DATA_RA_INTERVAL_LEN);
    writer.U8(exists ? ND_DATA_SET : ND_DATA_DELETE);
    writer.Fill(3, 0);
    writer.U32(id.index);
    writer.U32(exists ? record->second.min : 0);
    writer.U32(exists ? record->second.max : 0);
}

void RaSource::SetLinks(LinkNames links) {
    links_ = std::move(links);
    Apply();
}

void RaSource::OnReadable() {
    if (watcher_.OnReadable()) {
        Load();
    }
}

void RaSource::OnTick() {
    if (watcher_.Retry()) {
        Load();
    }
}

void RaSource::Load() {
    std::string text;
    if (!ReadFile(path_, text)) {
        Report(Severity::kWarning, Text(path_, ": ", std::strerror(errno),
                                        config_.empty() ? "; no RA intervals until it can be read"
                                                        : "; the last good configuration stays in force"));
        return;
    }
    if (text.size() > kMaxFileSize) {
        Report(Severity::kError, Text(path_, ": larger than ", kMaxFileSize,
                                      " bytes; the last good configuration stays in force"));
        return;
    }
    auto parsed = ParseRadvdConfig(text);
    if (const auto *error = std::get_if<ConfigError>(&parsed)) {
        Report(Severity::kError, Text(path_, ":", error->line, ": ", error->message,
                                      "; the last good configuration stays in force"));
        return;
    }
    config_ = std::get<RaConfig>(std::move(parsed));
    Report(Severity::kInfo, Text(path_, ": RA intervals of ", config_.size(), " interfaces"));
    Apply();
}

/* Without a watcher the file is read every second, and what it says then is told once. */
void RaSource::Report(Severity severity, const std::string &text) {
    if (text != std::exchange(lastReport_, text) || watcher_.Fd() >= 0) {
        log_(severity, text);
    }
}

void RaSource::Apply() {
    std::map<uint32_t, RaIntervals> joined;
    for (const auto &[index, name] : links_) {
        const auto configured = config_.find(name);
        if (configured != config_.end()) {
            joined.emplace(index, configured->second);
        }
    }
    const std::map<uint32_t, RaIntervals> before = std::exchange(records_, std::move(joined));
    for (const auto &[index, intervals] : records_) {
        const auto old = before.find(index);
        if (old == before.end() || old->second != intervals) {
            onChange_({kTopic, index, {}});
        }
    }
    for (const auto &[index, intervals] : before) {
        if (!records_.contains(index)) {
            onChange_({kTopic, index, {}});
        }
    }
}

} // namespace pegeir::component
