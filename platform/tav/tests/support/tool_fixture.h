// A running service and the command-line tool.
#pragma once

#include "support/store_fixture.h"

namespace tavtest {

class ToolTest : public RunningStoreTest {
protected:
    // Runs the tool, which must succeed without an error message.
    std::string good(const std::vector<std::string> &arguments, const std::string &input = "") {
        const Ran ran = tav(arguments, input);
        EXPECT_EQ(ran.status, 0) << ran.errors;
        EXPECT_EQ(ran.errors, "");
        return ran.output;
    }
    // Runs the tool, which must exit with `status` and print only on standard error.
    std::string bad(int status, const std::vector<std::string> &arguments,
                    const std::string &input = "") {
        const Ran ran = tav(arguments, input);
        EXPECT_EQ(ran.status, status) << ran.output;
        EXPECT_NE(ran.errors, "");
        EXPECT_EQ(ran.output, "");
        return ran.errors;
    }
};

} // namespace tavtest
