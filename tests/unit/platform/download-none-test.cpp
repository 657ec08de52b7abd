#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstdlib>

#include "captured-stderr.h"
#include "platform/app-binary-manager.h"

namespace {

using testing::AllOf;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::StartsWith;

bool called = false;

void onDownloaded(const std::string& /*identifier*/, int /*status*/, void* /*user_data*/)
{
    called = true;
}

TEST(NoPackageDownload, IsRefusedAndSaysOnceThatThereIsNone)
{
    unsetenv("JOURNAL_STREAM");
    const CapturedStderr captured;
    EXPECT_FALSE(appbinaryManager::ABM_DownloadAppBinary(onDownloaded, nullptr, "package"));
    EXPECT_FALSE(appbinaryManager::ABM_DownloadAppBinary(nullptr, nullptr, ""));
    EXPECT_FALSE(called);
    EXPECT_THAT(captured.lines(),
                ElementsAre(AllOf(StartsWith("QUILLON-PLATFORM I app-binary-manager.cpp: "),
                                  HasSubstr("no package download"))));
}

}  // namespace
