// SPDX-License-Identifier: BSD-2-Clause
// Checks that a call stops the process through one of the library's assertions.
#ifndef TESTS_SUPPORT_ASSERTIONS_H
#define TESTS_SUPPORT_ASSERTIONS_H

#include <csignal>
#include <functional>
#include <string>

#include <gtest/gtest.h>

#include "tests/support/testing.h"

namespace testing_support {

/// `body`, run in a child, ends by abort(), having written exactly "Assertion failed: `expression`, file `unit`, line
/// NUMBER" and a newline to standard error and nothing to standard output.
inline void ExpectAssertion(const std::string& expression, const std::string& unit, const std::function<void()>& body)
{
    const ChildResult child = RunInChild(body);
    EXPECT_EQ(child.signal, SIGABRT) << "exit code " << child.exitCode << ", expected: " << expression;
    EXPECT_EQ(child.out, "");
    const std::string start = "Assertion failed: " + expression + ", file " + unit + ", line ";
    EXPECT_EQ(child.err.substr(0, start.size()), start);
    if (child.err.size() > start.size()) {
        const std::string line = child.err.substr(start.size());
        EXPECT_GT(std::stoi(line), 0);
        EXPECT_EQ(line, std::to_string(std::stoi(line)) + "\n");
    }
}

} // namespace testing_support

#endif
