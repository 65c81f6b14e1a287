// SPDX-License-Identifier: MIT

#include <gtest/gtest.h>

#include <iterator>
#include <string>
#include <vector>

#include "support/RunToEnd.h"
#include "zarip/osa/PipeStream.h"
#include "zarip/osa/Process.h"

namespace zarip {
namespace {

using std::string;

TEST(RunLoggedTest, LogsLinesAndPassesTheEndOn) {
    const string longLine(3'000, 'x');
    const struct {
        const char* script;
        int status;
        std::vector<string> messages;
    } rows[] = {
        {"echo one; echo >&2; printf end; exit 3", 3, {"one", "", "end", "ended with status 3"}},
        {"kill -KILL $$", 137, {"ended with signal 9"}},
        {"printf %03000d 0 | tr 0 x; echo",
         0,
         {longLine.substr(0, 1'023), longLine.substr(0, 1'023), longLine.substr(0, 954),
          "ended with status 0"}},
        {"echo begun; (trap '' TERM; echo child; exec sleep 1000)",
         124,
         {"begun", "child", "took longer than 1000 ms"}},
        {"echo quiet; exec sleep 1000 >&- 2>&-", 124, {"quiet", "took longer than 1000 ms"}},
        {"echo begun; exec sleep 1000", 143, {"begun", "ended with signal 15"}},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.script);
        osa::Process::Options options;
        options.output = osa::Process::Redirect::Pipe();
        osa::Process program(RUN_LOGGED, {row.status == 124 ? "1" : "60", "/bin/sh", "-c", row.script},
                             options);
        osa::PipeStream output(program, 60);
        std::vector<string> messages;
        for (string line; std::getline(output, line);) {
            const std::size_t mark = line.find("] :: ");
            EXPECT_NE(line.find(" sh ["), string::npos) << line;
            messages.push_back(mark == string::npos ? line : line.substr(mark + 5));
            if (row.status == 143) {
                program.Kill();
            }
        }
        EXPECT_TRUE(output.eof());  // no process is left that could write
        EXPECT_EQ(messages, row.messages);
        EXPECT_TRUE(program.Wait());
        EXPECT_EQ(program.GetExitStatus(), row.status);
    }
    EXPECT_EQ(test::RunToEnd(RUN_LOGGED, {"1", "/no/program"}).status, 125);
}

}  // namespace
}  // namespace zarip
