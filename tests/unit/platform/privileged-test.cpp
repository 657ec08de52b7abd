#include "platform/privileged.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cerrno>
#include <cstdlib>
#include <string>

#include "captured-stderr.h"

namespace {

using testing::AllOf;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::StartsWith;

using Call = int (*)(const char*, int, int, int*);
struct NamedCall
{
    const char* name;
    Call call;
};

class PrivilegedCall : public testing::TestWithParam<NamedCall>
{
};

TEST_P(PrivilegedCall, FailsAndSaysOnceThatThereIsNoService)
{
    unsetenv("JOURNAL_STREAM");
    const CapturedStderr captured;
    for (int attempt = 0; attempt < 3; ++attempt) {
        int result = 0;
        errno = 0;
        EXPECT_EQ(GetParam().call("request", 1024, 0, &result), -1);
        EXPECT_EQ(result, -1);
        EXPECT_EQ(errno, ENOSYS);
    }
    EXPECT_THAT(captured.lines(),
                ElementsAre(AllOf(StartsWith("QUILLON-PLATFORM I privileged.cpp: "),
                                  HasSubstr(std::string(GetParam().name) + ":"))));
}

TEST_P(PrivilegedCall, NeedsNoPlaceForTheResult)
{
    EXPECT_EQ(GetParam().call(nullptr, 0, 0, nullptr), -1);
}

INSTANTIATE_TEST_SUITE_P(Each, PrivilegedCall,
                         testing::Values(NamedCall{"PS_Mount", PS_Mount},
                                         NamedCall{"PS_Mknod", PS_Mknod},
                                         NamedCall{"PS_Umount", PS_Umount}),
                         [](const auto& call) { return std::string(call.param.name); });

}  // namespace
