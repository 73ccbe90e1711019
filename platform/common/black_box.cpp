// The black box: a ring of lines that forgets the oldest ones.
//
//   object:  BlackBoxHead | fields of Box | `size` bytes of ring
//   content: ring[start], ring[start + 1], ... modulo size, `length` bytes, which begin with a line
//
// Positions below are counted from the start of the content, so that they need no wrapping.  Room is
// made by moving `start` behind a line feed: the content always begins with a whole line, and nothing
// is copied.  The one reader stands at `reader`.  If the line it stands in the middle of is dropped,
// the rest of that line is copied to `rest` and is read before the content.

#include "common/common.hpp"

#include <algorithm>
#include <cstring>
#include <limits>
#include <new>

namespace pegeir::common {
namespace {

constexpr char kLineFeed = '\n';

struct Box {
    BlackBoxHead head;
    std::uint32_t size;
    std::uint32_t start;
    std::uint32_t length;
    std::uint32_t reader;
    std::uint32_t restBegin; // rest[restBegin, restEnd) is still to be read
    std::uint32_t restEnd;
    char rest[BLACK_BOX_LINE_SIZE];
};

static_assert(offsetof(BlackBoxHead, usable) == 4 && offsetof(BlackBoxHead, line) == 24);

char *Ring(Box &box) {
    return reinterpret_cast<char *>(&box) + sizeof(Box);
}

// A stretch of the content that lies in one piece.
struct Piece {
    char *bytes;
    std::uint32_t length;
};

// The piece that begins at `position` and ends at the end of the ring, or after `limit` bytes.
Piece PieceAt(Box &box, std::uint32_t position, std::uint32_t limit) {
    const std::uint32_t toEnd = box.size - box.start;
    const std::uint32_t offset = position < toEnd ? box.start + position : position - toEnd;
    return {Ring(box) + offset, std::min(limit, box.size - offset)};
}

std::uint32_t CopyOut(Box &box, std::uint32_t position, char *to, std::uint32_t count) {
    for (std::uint32_t done = 0; done < count;) {
        const Piece piece = PieceAt(box, position + done, count - done);
        std::memcpy(to + done, piece.bytes, piece.length);
        done += piece.length;
    }
    return count;
}

// Returns the position behind the first line feed at or after `position`, or the end of the content.
std::uint32_t LineEnd(Box &box, std::uint32_t position) {
    while (position < box.length) {
        const Piece piece = PieceAt(box, position, box.length - position);
        if (const void *found = std::memchr(piece.bytes, kLineFeed, piece.length)) {
            return position + static_cast<std::uint32_t>(static_cast<const char *>(found) - piece.bytes) + 1;
        }
        position += piece.length;
    }
    return box.length;
}

bool ReaderIsInsideLine(Box &box) {
    return box.reader > 0 && *PieceAt(box, box.reader - 1, 1).bytes != kLineFeed;
}

void KeepRestOfLine(Box &box) {
    const std::uint32_t rest = LineEnd(box, box.reader) - box.reader;
    box.restBegin = 0;
    box.restEnd = CopyOut(box, box.reader, box.rest, std::min<std::uint32_t>(rest, sizeof box.rest));
    if (rest > sizeof box.rest) {
        box.rest[sizeof box.rest - 1] = kLineFeed;
    }
}

// Drops whole lines from the oldest on, `count` bytes at least.
void DropOldest(Box &box, std::uint32_t count) {
    const std::uint32_t dropped = count == 0 ? 0 : LineEnd(box, count - 1);
    if (box.reader < dropped) {
        if (ReaderIsInsideLine(box)) {
            KeepRestOfLine(box);
        }
        box.reader = dropped;
    }
    box.reader -= dropped;
    box.start = (box.start + dropped) % box.size;
    box.length -= dropped;
}

void Append(Box &box, const char *bytes, std::uint32_t count) {
    for (std::uint32_t done = 0; done < count;) {
        const Piece piece = PieceAt(box, box.length, count - done);
        std::memcpy(piece.bytes, bytes + done, piece.length);
        done += piece.length;
        box.length += piece.length;
    }
}

} // namespace

std::size_t BoxObjectSize(std::uint32_t size) {
    constexpr auto kMost = static_cast<std::uint32_t>(std::numeric_limits<std::int32_t>::max());
    return size > kMost - sizeof(Box) ? 0 : sizeof(Box) + size;
}

void *BoxMake(void *memory, std::uint32_t size) {
    Box *box = new (memory) Box{};
    box->head.usable = 1;
    box->size = size;
    return box;
}

std::int32_t BoxWrite(void *object, const void *bytes, std::uint32_t length) {
    if (object == nullptr || bytes == nullptr) {
        return -1;
    }
    Box &box = *static_cast<Box *>(object);
    const char *lines = static_cast<const char *>(bytes);
    std::uint32_t skipped = 0;
    if (length > box.size) {
        // The first line that begins late enough for everything from there on to fit.
        const std::uint32_t search = length - box.size - 1;
        const void *found = std::memchr(lines + search, kLineFeed, length - search);
        if (found == nullptr || found == lines + length - 1) {
            return -1;
        }
        skipped = static_cast<std::uint32_t>(static_cast<const char *>(found) - lines) + 1;
    }
    const std::uint32_t stored = length - skipped;
    const std::uint32_t room = box.size - box.length;
    if (skipped > 0) {
        DropOldest(box, box.length);
    } else if (stored > room) {
        DropOldest(box, stored - room);
    }
    Append(box, lines + skipped, stored);
    return static_cast<std::int32_t>(length);
}

std::int32_t BoxRead(void *object, void *buffer, std::uint32_t length) {
    if (object == nullptr || buffer == nullptr) {
        return -1;
    }
    Box &box = *static_cast<Box *>(object);
    char *to = static_cast<char *>(buffer);
    const std::uint32_t ofRest = std::min(length, box.restEnd - box.restBegin);
    std::memcpy(to, box.rest + box.restBegin, ofRest);
    box.restBegin += ofRest;
    const std::uint32_t ofContent =
        CopyOut(box, box.reader, to + ofRest, std::min(length - ofRest, box.length - box.reader));
    box.reader += ofContent;
    if (ofRest + ofContent == 0) {
        box.reader = 0;
        box.restBegin = box.restEnd;
    }
    return static_cast<std::int32_t>(ofRest + ofContent);
}

std::int32_t BoxContentLength(const void *object) {
    return object == nullptr ? 0 : static_cast<std::int32_t>(static_cast<const Box *>(object)->length);
}

std::int32_t BoxCapacity(const void *object) {
    return object == nullptr ? 0 : static_cast<std::int32_t>(static_cast<const Box *>(object)->size);
}

} // namespace pegeir::common
