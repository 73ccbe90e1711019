// Black boxes: those that all platforms share, or, where liberties are taken with them, a text beside an
// object that holds nothing but what the library needs of it.

#include "common/common.hpp"
#include "state.hpp"

#include <algorithm>
#include <cstring>

namespace pegeir::sim {
namespace {

constexpr Place kBoxPlace = {"black box", 0};

// Boxes that are none would be written to: better a violation than a crash.
bool IsBox(State &state, void *box, const char *call) {
    const auto found = state.blocks.find(box);
    if (!state.options.checks || (found != state.blocks.end() && found->second.box)) {
        return true;
    }
    Violation(state, std::string(call) + " on what is no black box");
    return false;
}

bool AreWilful(const State &state) {
    const Liberties &liberties = state.options.liberties;
    return liberties.boxesStay || liberties.countedMore ||
           liberties.fullBox != Liberties::FullBox::kForgetsLines;
}

WilfulBox *FindWilful(State &state, const void *box) {
    const auto found = state.boxes.find(box);
    return found == state.boxes.end() ? nullptr : &found->second;
}

void *MakeWilful(State &state, void *object, std::uint32_t size) {
    BlackBoxHead head;
    Scribble(state, &head, sizeof head);
    head.usable = AnyError(state, 1);
    std::memcpy(object, &head, sizeof head);
    state.boxes[object] = {size};
    return object;
}

std::int32_t Write(State &state, WilfulBox &box, std::string_view bytes) {
    const auto full = state.options.liberties.fullBox;
    const std::size_t length = box.text.size() + bytes.size();
    if (length > box.size && full == Liberties::FullBox::kRefuses) {
        return -1;
    }
    box.text += bytes;
    box.counted += state.options.liberties.countedMore ? 4 : 0;
    if (length > box.size) {
        std::size_t gone = length - box.size;
        if (full == Liberties::FullBox::kForgetsLines) {
            gone = std::min(box.text.find('\n', gone - 1), box.text.size() - 1) + 1;
        }
        box.text.erase(0, gone);
        box.reader -= std::min(box.reader, gone);
    }
    return static_cast<std::int32_t>(bytes.size());
}

std::int32_t Read(const State &state, WilfulBox &box, char *buffer, std::size_t length) {
    const std::size_t count = box.text.copy(buffer, length, box.reader);
    const bool beginsAgain = count == 0 && !state.options.liberties.boxesStay;
    box.reader = beginsAgain ? 0 : box.reader + count;
    return static_cast<std::int32_t>(count);
}

} // namespace
} // namespace pegeir::sim

using namespace pegeir::sim;

void *CreateBlackBox(uint32_t size, uint32_t memHandle) {
    State &state = Here();
    const bool wilful = AreWilful(state);
    const std::size_t bytes = wilful ? sizeof(BlackBoxHead) : pegeir::common::BoxObjectSize(size);
    if (CountCall(state, Op::kCreateBlackBox) || bytes == 0) {
        return nullptr;
    }
    void *memory =
        AllocateBlock(state, kBoxPlace, static_cast<uint32_t>(bytes), memHandle, g_aucZepMemPt[0], true);
    if (memory == nullptr) {
        return nullptr;
    }
    return wilful ? MakeWilful(state, memory, size) : pegeir::common::BoxMake(memory, size);
}

void DestroyBlackBox(void *box) {
    State &state = Here();
    state.boxes.erase(box);
    FreeBlock(state, box, kBoxPlace, true);
}

int32_t WriteBlackBox(void *box, const void *bytes, uint32_t length) {
    State &state = Here();
    if (CountCall(state, Op::kWriteBlackBox) || !IsBox(state, box, "WriteBlackBox")) {
        return -1;
    }
    WilfulBox *wilful = FindWilful(state, box);
    const std::int32_t written = wilful == nullptr
                                     ? pegeir::common::BoxWrite(box, bytes, length)
                                     : Write(state, *wilful, {static_cast<const char *>(bytes), length});
    return static_cast<std::int32_t>(AnyAnswer(static_cast<std::uint32_t>(written)));
}

int32_t ReadBlockFromBlackBox(void *box, void *buffer, uint32_t length) {
    State &state = Here();
    const auto failure = CountCall(state, Op::kReadBlackBox);
    if ((failure && !failure->shorten) || !IsBox(state, box, "ReadBlockFromBlackBox")) {
        return -1;
    }
    length = failure ? std::min(length, *failure->shorten) : length;
    if (state.options.liberties.shortReads && length > 1) {
        constexpr std::uint32_t kUsual = 200;
        length = 1 + Below(state, std::min(length, kUsual));
    }
    WilfulBox *wilful = FindWilful(state, box);
    return wilful == nullptr ? pegeir::common::BoxRead(box, buffer, length)
                             : Read(state, *wilful, static_cast<char *>(buffer), length);
}

int32_t GetBlackBoxContentLength(void *box) {
    State &state = Here();
    if (!IsBox(state, box, "GetBlackBoxContentLength")) {
        return 0;
    }
    const WilfulBox *wilful = FindWilful(state, box);
    return wilful == nullptr ? pegeir::common::BoxContentLength(box)
                             : static_cast<std::int32_t>(wilful->text.size() + wilful->counted);
}

int32_t GetBlackBoxBufferLen(void *box) {
    State &state = Here();
    if (!IsBox(state, box, "GetBlackBoxBufferLen")) {
        return 0;
    }
    const WilfulBox *wilful = FindWilful(state, box);
    return wilful == nullptr ? pegeir::common::BoxCapacity(box) : static_cast<std::int32_t>(wilful->size);
}
