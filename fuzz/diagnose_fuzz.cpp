// Diagnose pages into buffers of every size, while boxes fill, grow, overflow and fail under the reader.
#include "fuzz.h"

#include <memory>

#include "support/driver.hpp"

namespace pegeir::fuzz {
namespace {

using tests::Bytes;
using tests::Driver;

constexpr char kUntouched = '\x5A';

// One page into a block that is exactly as large as the library is told, so that the sanitizer sees any
// byte behind it.
uint32_t Page(Driver &d, uint32_t size, uint32_t restart, std::string &text) {
    const auto buffer = std::make_unique<char[]>(size);
    std::fill_n(buffer.get(), size, kUntouched);
    uint32_t length = 0;
    const uint32_t result = ND_LIB_GetDiagnoseInfo(d.nd, buffer.get(), size, &length, restart);
    if (size < ND_LIB_DIAG_MIN_BUFFER) {
        Require(result == ND_LIB_ERR_BUFLEN && length == 0 &&
                    std::count(buffer.get(), buffer.get() + size, kUntouched) == size,
                "a buffer that is too small was used");
    } else {
        Require(result == ND_LIB_OK || result == ND_LIB_ERR_DIAG_END, "an odd result");
        Require(length < size && buffer[size - 1] == kUntouched, "the last byte of a buffer was written");
        text.assign(buffer.get(), length);
        Require(text.find('\0') == std::string::npos, "a page ends before it says");
    }
    return result;
}

void Write(Driver &d, Input &input) {
    const uint32_t box = input.Below(3);
    const uint32_t repeat = 1 + input.Below(200);
    const std::string text(input.U8() * size_t{2}, static_cast<char>('a' + input.Below(26)));
    for (uint32_t line = 0; line < repeat; ++line) {
        ND_LIB_BlackBox(d.nd, box, "%s %u", text.c_str(), line);
    }
}

void Break(sim::World &world, Input &input) {
    static constexpr sim::Op kOps[] = {sim::Op::kReadBlackBox,   sim::Op::kWriteBlackBox,
                                       sim::Op::kCreateBlackBox, sim::Op::kGmtGet,
                                       sim::Op::kGmtToLocal,     sim::Op::kMalloc};
    sim::Fault fault{.op = input.Pick(kOps), .probability = 0.1 * (1 + input.Below(10)), .seed = input.U8()};
    fault.from = world.Calls(*fault.op) + 1 + input.Below(4);
    fault.count = 1 + input.Below(16);
    if (fault.op == sim::Op::kReadBlackBox && input.Flag()) {
        fault.shorten = 1 + input.Below(64);
    }
    world.Fail(fault);
}

std::string Pass(Driver &d, Input &input) {
    std::string all;
    std::string page;
    uint32_t restart = 1;
    while (Page(d, ND_LIB_DIAG_MIN_BUFFER + input.Below(256), restart, page) == ND_LIB_OK) {
        all += page;
        restart = 0;
    }
    return all + page;
}

// Pages of any sizes together hold every line that is in the boxes, if nothing fails under them, and the
// boxes have been read to their end before.
void RequireWholeBoxes(Driver &d, sim::World &world, Input &input) {
    world.LiftAll();
    (void)Pass(d, input);
    const std::string all = Pass(d, input);
    for (const auto &desc : d.nd->blackBox) {
        std::string content;
        char part[4096];
        for (int32_t count = 0; desc.bbHandle != nullptr &&
                                (count = ReadBlockFromBlackBox(desc.bbHandle, part, sizeof part)) > 0;) {
            content.append(part, static_cast<size_t>(count));
        }
        Require(all.find(content) != std::string::npos, "the pages do not hold what the box holds");
    }
}

} // namespace

void Run(Input input) {
    static constexpr sim::Liberties::FullBox kFull[] = {sim::Liberties::FullBox::kForgetsLines,
                                                        sim::Liberties::FullBox::kForgetsBytes,
                                                        sim::Liberties::FullBox::kRefuses};
    const uint32_t taken = input.Below(16);
    const sim::Liberties liberties = {.anyAnswers = (taken & 1) != 0,
                                      .boxesStay = (taken & 2) != 0,
                                      .shortReads = (taken & 4) != 0,
                                      .fullBox = (taken & 8) != 0 ? input.Pick(kFull) : kFull[0]};
    sim::World world({.liberties = liberties});
    Driver d(world);
    for (uint32_t steps = 0; !input.AtEnd() && steps < 100; ++steps) {
        std::string text;
        switch (input.Below(8)) {
        case 0:
            Write(d, input);
            break;
        case 1:
            (void)d.Subscribe({static_cast<uint16_t>(999 + input.Below(3)), Bytes(1 + input.Below(12), 200),
                               static_cast<uint16_t>(input.Below(3)), Bytes(input.Below(16), 255)});
            break;
        case 2:
            d.Notify(input.Below(3));
            break;
        case 3:
            d.Run(input.Below(100));
            (void)world.TakeSent();
            break;
        case 4:
            Break(world, input);
            break;
        case 5:
            world.SetZone(static_cast<int32_t>(input.U8()) * 15 - 1800);
            world.SetSeconds(input.U32());
            break;
        default: // about as often as all that gives it something to show
            (void)Page(d, input.Flag() ? input.U8() : input.U16(), input.Below(3), text);
        }
        (void)d.TakeLog();
    }
    if (!liberties.boxesStay && (input.AtEnd() || input.Flag())) {
        RequireWholeBoxes(d, world, input);
    }
    d.Deinit();
    RequireNone(world.Leaks());
    Require(world.Violations().empty(), "the platform's contract is broken");
}

} // namespace pegeir::fuzz
