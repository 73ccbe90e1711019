/*
 * A row for each type of message.  The begins of downloads are counted only in a state that takes them,
 * which the acknowledgement shows; all others by the result of their checks.
 */
#include "counters.h"

#include <sstream>

#include <pegeir/pegeir.h>

#include "tlv/ndpi.h"

namespace pegeir::replay {
namespace {

struct Row {
    NdpiMsgType type;
    ND_LIB_StatisticCode sent; // ND_LIB_STAT_MAX: the library sends none
    ND_LIB_StatisticCode received;
    bool outOfSequence = false; // those count as well
    bool acknowledged = false;  // received are those that are acknowledged
};

constexpr std::array<Row, 14> kRows = {{
    {NDPI_MSG_REGISTER, ND_LIB_STAT_SEND_REGISTER, ND_LIB_STAT_RECV_REGISTER_ACK},
    {NDPI_MSG_SUBSCRIBE_BEGIN, ND_LIB_STAT_SEND_SUBSCRIBE_BEGIN, ND_LIB_STAT_RECV_SUBSCRIBE_BEGIN_ACK},
    {NDPI_MSG_SUBSCRIBE_DATA, ND_LIB_STAT_SEND_SUBSCRIBE_DATA, ND_LIB_STAT_RECV_SUBSCRIBE_DATA_ACK},
    {NDPI_MSG_SUBSCRIBE_END, ND_LIB_STAT_SEND_SUBSCRIBE_END, ND_LIB_STAT_RECV_SUBSCRIBE_END_ACK},
    {NDPI_MSG_UNSUBSCRIBE_DATA, ND_LIB_STAT_SEND_UNSUBSCRIBE, ND_LIB_STAT_RECV_UNSUBSCRIBE_ACK},
    {NDPI_MSG_VERIFY_SUBSCRIBE_BEGIN, ND_LIB_STAT_SEND_VERIFY_SUBSCRIBE_BEGIN,
     ND_LIB_STAT_RECV_VERIFY_SUBSCRIBE_BEGIN_ACK},
    {NDPI_MSG_VERIFY_SUBSCRIBE_END, ND_LIB_STAT_SEND_VERIFY_SUBSCRIBE_END,
     ND_LIB_STAT_RECV_VERIFY_SUBSCRIBE_END_ACK},
    {NDPI_MSG_SMOOTH_BEGIN, ND_LIB_STAT_SEND_SMOOTH_BEGIN_ACK, ND_LIB_STAT_RECV_SMOOTH_BEGIN, false, true},
    {NDPI_MSG_SMOOTH_DATA, ND_LIB_STAT_MAX, ND_LIB_STAT_RECV_SMOOTH_DATA},
    {NDPI_MSG_SMOOTH_END, ND_LIB_STAT_SEND_SMOOTH_END_ACK, ND_LIB_STAT_RECV_SMOOTH_END, true},
    {NDPI_MSG_REAL_UPDATE, ND_LIB_STAT_SEND_REAL_NOTIFY_ACK, ND_LIB_STAT_RECV_REAL_NOTIFY},
    {NDPI_MSG_VERIFY_DATA_BEGIN, ND_LIB_STAT_SEND_VERIFY_DATA_BEGIN_ACK, ND_LIB_STAT_RECV_VERIFY_DATA_BEGIN,
     false, true},
    {NDPI_MSG_VERIFY_DATA_END, ND_LIB_STAT_SEND_VERIFY_DATA_END_ACK, ND_LIB_STAT_RECV_VERIFY_DATA_END, true},
    {NDPI_MSG_SEQUENCE_ERROR, ND_LIB_STAT_SEND_SEQUENCE_ERROR, ND_LIB_STAT_RECV_SEQUENCE_ERROR_ACK},
}};

const Row *RowOf(const Kind &kind) {
    for (const Row &row : kRows) {
        if (row.type == kind.type) {
            return &row;
        }
    }
    return nullptr;
}

} // namespace

void Counters::Sent(const Kind &kind, bool refused) {
    const Row *const row = RowOf(kind);
    if (row == nullptr || row->sent == ND_LIB_STAT_MAX) {
        return;
    }
    ++counts.at(kind.ack && refused ? ND_LIB_STAT_SEND_ACK_FAILED : row->sent);
    if (row->acknowledged) {
        ++counts.at(row->received);
    }
}

void Counters::Received(const Kind &kind, uint32_t result) {
    const Row *const row = RowOf(kind);
    if (row != nullptr && !row->acknowledged &&
        (result == ND_LIB_OK || (result == ND_LIB_ERR_SEQUENCE && row->outOfSequence))) {
        ++counts.at(row->received);
    }
}

std::string Counters::Wrong(const std::string &report) const {
    std::istringstream lines(report);
    std::string line;
    std::getline(lines, line); // the title
    for (const uint32_t count : counts) {
        std::getline(lines, line);
        const size_t begin = line.find_first_not_of(' ');
        const size_t end = line.rfind(':');
        if (begin >= end || end == std::string::npos) {
            return "the report of the statistics cannot be read";
        }
        std::istringstream number(line.substr(end + 1));
        uint32_t said = 0;
        if (!(number >> said) || said != count) {
            return "the statistic \"" + line.substr(begin, end - begin) + "\" says " + std::to_string(said) +
                   ", and it was " + std::to_string(count);
        }
    }
    return {};
}

} // namespace pegeir::replay
