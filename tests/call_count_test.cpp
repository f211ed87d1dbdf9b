// What each operation costs in platform calls: the shipped DLL makes those that its steps
// prescribe, no more and no others.
#include "bench/call_count.h"
#include "support/child.h"
#include "support/scratch_dir.h"

#include <gtest/gtest.h>

namespace
{

ROLE(speaks)
{
    support::say("spoken");
    return 0;
}

std::string text_of(const bench::Counts &counts)
{
    std::string text;
    for (const auto &[name, count] : counts)
        text += name + " " + std::to_string(count) + "\n";
    return text;
}

TEST(CallCount, OperationsMakeTheCallsOfTheirStepsOnly)
{
    support::ScratchDir directory;
    bench::CountedScene scene(directory.path(), support::role_command("speaks"));
    bench::CallCounter counter;
    for (const bench::CountedOperation &operation : scene.operations())
        EXPECT_EQ(text_of(counter.count(operation)), text_of(operation.prescribed))
            << operation.name;
}

} // namespace
