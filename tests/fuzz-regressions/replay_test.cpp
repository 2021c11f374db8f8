// Replays every input that once crashed a fuzz target through the same checks
// the target makes, so that the fault stays fixed. Inputs live in one folder
// per target: tests/fuzz-regressions/<target>/.
#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <sstream>

#include "palomir/model.hpp"

namespace palomir {
namespace {

TEST(FuzzRegressions, AcceptedDatesFormatToTextThatParsesBackToTheSameInstant) {
    int replayed = 0;
    for (const auto& entry : std::filesystem::directory_iterator(std::string(PALOMIR_FUZZ_REGRESSIONS) + "/date")) {
        std::stringstream text;
        text << std::ifstream(entry.path(), std::ios::binary).rdbuf();
        ++replayed;
        if (const auto date = plRFC3339Parse(text.str())) {
            EXPECT_EQ(plRFC3339Parse(plRFC3339Format(*date)), date) << entry.path();
        }
    }
    EXPECT_GT(replayed, 0);
}

}  // namespace
}  // namespace palomir
