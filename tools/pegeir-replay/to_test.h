/*
 * A played session as the source of a test: what happened in the field becomes a regression test.
 */
#ifndef PEGEIR_REPLAY_TO_TEST_H
#define PEGEIR_REPLAY_TO_TEST_H

#include <string>
#include <vector>

#include "player.h"

namespace pegeir::replay {

// Returns a complete source file with one GoogleTest test, to be linked with pegeir, pegeir_sim and
// gtest_main.  It does what was done in the played steps and expects what was sent in the recording; so it
// fails at the last step if that had a difference.
[[nodiscard]] std::string TestSource(const Session &session, const std::vector<Played> &played);

} // namespace pegeir::replay

#endif
