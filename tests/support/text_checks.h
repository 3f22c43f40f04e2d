// Checks on texts for EXPECT_TRUE: a failure shows what was looked for and
// the whole text it was not in.
#pragma once

#include <gtest/gtest.h>

#include <string>

namespace vukra::test {

inline ::testing::AssertionResult contains(const std::string& text, const std::string& part) {
    if (text.find(part) != std::string::npos) return ::testing::AssertionSuccess();
    return ::testing::AssertionFailure() << "no \"" << part << "\" in:\n" << text;
}

} // namespace vukra::test
