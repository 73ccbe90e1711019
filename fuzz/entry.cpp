// The entry point that every target has.
#include "fuzz.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size);

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    pegeir::fuzz::Run(pegeir::fuzz::Input({data, size}));
    return 0;
}
