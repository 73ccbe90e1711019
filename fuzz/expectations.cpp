// The driver of the tests states what it expects as the tests do; here nothing would look at the verdict,
// so the first failed expectation ends the process.
#include <gtest/gtest.h>

#include <cstdlib>

namespace {

class EndOnFailure : public testing::EmptyTestEventListener {
    void OnTestPartResult(const testing::TestPartResult &result) override {
        if (result.failed()) {
            fprintf(stderr, "broken: %s:%d: %s\n", result.file_name(), result.line_number(),
                    result.message());
            abort();
        }
    }
};

} // namespace

extern "C" int LLVMFuzzerInitialize(int *argc, char ***argv);

extern "C" int LLVMFuzzerInitialize(int * /*argc*/, char *** /*argv*/) {
    testing::UnitTest::GetInstance()->listeners().Append(new EndOnFailure); // owned by the list
    return 0;
}
