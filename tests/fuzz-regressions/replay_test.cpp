// Replays every input that once crashed a fuzz target through the same checks
// the target makes, so that the fault stays fixed. Inputs live in one folder
// per target: tests/fuzz-regressions/<target>/.
#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>

#include "palomir/model.hpp"

namespace palomir {
namespace {

namespace fs = std::filesystem;

std::string read(const fs::path& path) {
    std::ifstream in(path, std::ios::binary);
    return {std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>()};
}

TEST(FuzzRegressions, AcceptedDatesFormatToTextThatParsesBackToTheSameInstant) {
    const fs::path folder = fs::path(PALOMIR_FUZZ_REGRESSIONS) / "date";
    int replayed = 0;
    for (const auto& entry : fs::directory_iterator(folder)) {
        const std::string text = read(entry.path());
        ++replayed;
        const auto date = plRFC3339Parse(text);
        if (!date) continue;
        const auto again = plRFC3339Parse(plRFC3339Format(*date));
        ASSERT_TRUE(again.has_value()) << entry.path();
        EXPECT_EQ(*again, *date) << entry.path();
    }
    EXPECT_GT(replayed, 0);
}

}  // namespace
}  // namespace palomir
